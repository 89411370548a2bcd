// An event sink of the library: the ten notifications of qel_event_manager_t
// as virtual operations, in slot order. The notifier wraps each host C table
// in one; the websocket server is one itself. Sinks run on the notifying
// thread with the library lock held, so they must not call operations that
// take it.
#pragma once

#include "api/controls.h"

#include <quelora/quelora.h>

#include <array>
#include <cstdint>
#include <optional>

namespace quelora {

class event_sink {
public:
    virtual ~event_sink() = default;

    virtual void create_room(int32_t room_id) = 0;
    virtual void destroy_room(int32_t room_id) = 0;
    virtual void add_participant(int32_t room_id, int32_t participant_id, const char* name,
                                 const qel_participant_configuration* configuration) = 0;
    virtual void remove_participant(int32_t room_id, int32_t participant_id) = 0;
    virtual void move_participant_event(int32_t room_id, int32_t participant_id,
                                        const qel_seat* seat) = 0;
    virtual void set_participant_position(int32_t room_id, int32_t participant_id,
                                          const qel_position* position, qel_heading heading) = 0;
    virtual void set_participant_state(int32_t room_id, int32_t participant_id,
                                       qel_audio_control control, int32_t value) = 0;
    virtual void set_all_participants_state(int32_t room_id, qel_audio_control control,
                                            int32_t value) = 0;
    virtual void set_room_layout(int32_t room_id, int32_t layout_id) = 0;
    virtual void set_name(int32_t room_id, int32_t participant_id, const char* name) = 0;
};

// What an "add_participant" message reports beyond the notification's own
// arguments: the seat record and the sixteen control values,
// controls[0] holding control 1.
struct participant_snapshot {
    qel_seat seat{};
    std::array<int32_t, control_count> controls{};
};

// Read access for a sink from inside a notification. The notifying call
// already holds the library lock, and the lock prefers writers, so taking it
// again on the same thread can deadlock behind a waiting writer
// (docs/design.md, Threads and locks): these reads take only the room's lock.
class notification_reader {
public:
    virtual ~notification_reader() = default;
    // nullopt when the room or participant is gone (another thread removed
    // it between the change and this read).
    virtual std::optional<participant_snapshot> participant_in_notification(
        int32_t room_id, int32_t participant_id) const = 0;
};

} // namespace quelora
