// The conference model of one library: the room map under the library's
// reader/writer lock, and the notification and success log line that follow
// every change. Operations throw quelora_exception; the library object turns
// it into a code.
#pragma once

#include "audio/filter_banks.h"
#include "conference/event_notifier.h"
#include "conference/room.h"
#include "conference/writer_preferring_mutex.h"
#include "config/room_layout.h"

#include <quelora/quelora.h>

#include <memory>
#include <optional>
#include <shared_mutex>
#include <string>
#include <unordered_map>

namespace quelora {

inline constexpr size_t reserved_rooms = 200;

class conference final : public notification_reader {
public:
    // layouts, audio_configuration and banks must outlive the conference. The
    // banks are read when a room is created, so the library may fill them in
    // after constructing the conference, before any room exists.
    conference(const room_layout_set& layouts, const qel_library_configuration& audio_configuration,
               const filter_banks& banks);
    ~conference() override;
    conference(const conference&) = delete;
    conference& operator=(const conference&) = delete;

    void add_event_manager(const qel_event_manager_t* table) { events_.add(table); }
    // Library-internal sinks (the websocket server); not owned.
    // Like tables, registered before other threads use the library.
    void add_event_sink(event_sink* sink) { events_.add(sink); }

    // notification_reader: takes the room's lock only (conference_places.cpp).
    std::optional<participant_snapshot> participant_in_notification(
        int32_t room_id, int32_t participant_id) const override;

    // ---- rooms (conference_rooms.cpp)
    void create_room(int32_t room_id);
    void destroy_room(int32_t room_id);
    int32_t room_count() const;
    void set_room_layout(int32_t room_id, int32_t layout_id);
    int32_t room_layout(int32_t room_id) const;

    // ---- participants (conference_participants.cpp)
    void add_participant(int32_t room_id, int32_t participant_id, const char* name,
                         const qel_participant_configuration& configuration);
    void remove_participant(int32_t room_id, int32_t participant_id);
    // Throws when the room does not exist (the export has written 0 before).
    int32_t participant_count(int32_t room_id) const;
    qel_participant_configuration participant_configuration(int32_t room_id,
                                                            int32_t participant_id) const;
    void set_participant_name(int32_t room_id, int32_t participant_id, const char* name);
    void copy_participant_name(int32_t room_id, int32_t participant_id, char* buffer,
                               int buffer_length) const;
    void flush(int32_t room_id, int32_t participant_id) const;

    // ---- audio (conference_audio.cpp), under the library lock held shared
    void input_audio(int32_t room_id, int32_t participant_id, const void* samples,
                     int32_t frames, sample_type type) const;
    // false: no source had a block (QEL_ERROR_NO_INPUT_AUDIO).
    bool output_audio(int32_t room_id, int32_t participant_id, void* samples,
                      sample_type type) const;

    // ---- places (conference_places.cpp)
    void set_participant_seat(int32_t room_id, int32_t participant_id, int32_t seat_index);
    place participant_place(int32_t room_id, int32_t participant_id) const;
    void set_participant_position(int32_t room_id, int32_t participant_id,
                                  const qel_position& position, const qel_heading& heading);
    source_direction participant_spherical(int32_t room_id, int32_t listener_id,
                                           int32_t source_id) const;

    // ---- state (conference_places.cpp)
    void set_participant_state(int32_t room_id, int32_t participant_id, int32_t control,
                               int32_t value);
    void set_all_participants_state(int32_t room_id, int32_t control, int32_t value);
    int32_t participant_state(int32_t room_id, int32_t participant_id, int32_t control) const;

private:
    // Room lookup (QEL_ERROR_INVALID_ROOM_ID when absent); call with the
    // library lock held.
    room& find_room(int32_t room_id) const;

    const room_layout_set& layouts_;
    const qel_library_configuration& audio_configuration_;
    const filter_banks& banks_;
    // Writer-preferring, so that room creation, destruction and layout
    // changes are not starved by back-to-back audio calls.
    mutable writer_preferring_mutex library_lock_;
    std::unordered_map<int32_t, std::unique_ptr<room>> rooms_;
    event_notifier events_;
};

} // namespace quelora
