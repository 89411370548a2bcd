// One conference room: its participants in joining order and its current
// layout, under the participants lock and the layout lock (always taken in
// that order, after the library lock).
#pragma once

#include "audio/filter_banks.h"
#include "conference/event_sink.h"
#include "conference/participant.h"
#include "conference/writer_preferring_mutex.h"
#include "config/room_layout.h"

#include <quelora/quelora.h>

#include <memory>
#include <optional>
#include <shared_mutex>
#include <string>
#include <vector>

namespace quelora {

inline constexpr size_t room_reserved_participants = 200;

class room {
public:
    // layout may be null (a document whose "default" names no layout).
    room(int32_t id, const quelora_room_layout* layout,
         const qel_library_configuration& audio_configuration, filter_banks banks = {});
    ~room();
    room(const room&) = delete;
    room& operator=(const room&) = delete;

    int32_t id() const { return id_; }

    // ---- participants (room.cpp)
    // Atomic: a failure leaves the room unchanged.
    void add_participant(int32_t participant_id, const std::string& name,
                         const qel_participant_configuration& configuration);
    void remove_participant(int32_t participant_id);
    // Destroys every participant, first to last, unlinking each.
    void tear_down();
    size_t participant_count() const;
    qel_participant_configuration participant_configuration(int32_t participant_id) const;
    void set_name(int32_t participant_id, const std::string& name);
    // Writes name and terminator when buffer_length >= length.
    void copy_name(int32_t participant_id, char* buffer, int buffer_length) const;
    void flush(int32_t participant_id);

    // ---- audio (room_audio.cpp)
    // One input block of a participant, processed and handed to every
    // listener that may hear it.
    void input_audio(int32_t participant_id, const void* samples, int32_t frames,
                     sample_type type);
    // One output block; false when no source had a block (the block is then
    // silence and the level-1 line is logged).
    bool output_audio(int32_t participant_id, void* samples, sample_type type);

    // ---- places (room_places.cpp)
    // Moves to a seat (stacking when it is taken); returns the place record
    // as it now stands.
    place set_seat(int32_t participant_id, int32_t seat_index);
    void set_position(int32_t participant_id, const qel_position& position,
                      const qel_heading& heading);
    place get_place(int32_t participant_id) const;
    // Place and control values for an "add_participant" message;
    // nullopt, without logging, when the participant is not in the room.
    std::optional<participant_snapshot> snapshot(int32_t participant_id) const;
    source_direction spherical(int32_t listener_id, int32_t source_id) const;
    // Layout switch (participants and layout locks exclusive).
    void switch_layout(const quelora_room_layout* layout);
    // Null when the room has no layout.
    const quelora_room_layout* layout() const;

    // ---- state (room_state.cpp)
    void set_state(int32_t participant_id, int32_t control, int32_t value);
    void set_all_states(int32_t control, int32_t value);
    int32_t get_state(int32_t participant_id, int32_t control) const;

private:
    participant& find(int32_t participant_id);
    const participant& find(int32_t participant_id) const;
    // Null, without logging, when the participant is not in the room.
    participant* find_if_present(int32_t participant_id) const;
    // The set rules for one participant (auto EQ rule, then check and store).
    void apply_state(participant& p, int32_t control, int32_t value);
    // The same checks without storing, so that multi-participant changes can
    // be refused before anything changes.
    void check_state(const participant& p, int32_t control, int32_t value) const;
    void apply_default_states(participant& p, const quelora_room_layout& layout);
    void check_default_states(const participant& p, const quelora_room_layout& layout) const;
    // Source as heard by listener, stored in the listener's slot.
    static void update_direction(participant& listener, const participant& source);
    void update_directions_of(participant& moved);
    int32_t first_free_seat() const;
    const quelora_room_layout& effective_layout() const;

    int32_t id_;
    const qel_library_configuration& audio_configuration_;
    filter_banks banks_;
    mutable writer_preferring_mutex participants_lock_; // writers are not starved by audio calls
    mutable std::shared_mutex layout_lock_;
    std::vector<std::unique_ptr<participant>> participants_;
    const quelora_room_layout* layout_;
};

} // namespace quelora
