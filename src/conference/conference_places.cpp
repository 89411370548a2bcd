// Seats, positions and control values.
#include "conference/conference.h"

#include "api/quelora_exception.h"

#include <quelora/qel_logger.h>

#include <cstdint>
#include <mutex>

namespace quelora {

void conference::set_participant_seat(int32_t room_id, int32_t participant_id, int32_t seat_index) {
    std::shared_lock library(library_lock_);
    const place now = find_room(room_id).set_seat(participant_id, seat_index);
    const qel_seat seat = to_seat_record(now);
    events_.notify([&](event_sink& sink) { sink.move_participant_event(room_id, participant_id, &seat); });
    // Deliberately the requested index, not the stacked one (the notification
    // carries the stacked place).
    qel_logger::get_logger().log(QEL_LOG_INFO, "Participant %i in room %i has moved to seat %i",
                                 participant_id, room_id, seat_index);
}

place conference::participant_place(int32_t room_id, int32_t participant_id) const {
    std::shared_lock library(library_lock_);
    return find_room(room_id).get_place(participant_id);
}

void conference::set_participant_position(int32_t room_id, int32_t participant_id,
                                          const qel_position& position, const qel_heading& heading) {
    // Heading first, before any lookup, so a bad heading is refused even for
    // an unknown room: azimuth + 180 and elevation + 90 tested as unsigned, so
    // one test covers both bounds.
    if (static_cast<uint32_t>(static_cast<int64_t>(heading.azimuth) + 180) > 360u ||
        static_cast<uint32_t>(static_cast<int64_t>(heading.elevation) + 90) > 180u) {
        throw quelora_exception(QEL_LOG_WARNING, QEL_ERROR_INVALID_HEADING,
                                "You provided {%i, %i} but your heading must have an azimuth "
                                "between -180 and 180 and an elevation between -90 and 90",
                                heading.azimuth, heading.elevation);
    }
    std::shared_lock library(library_lock_);
    find_room(room_id).set_position(participant_id, position, heading);
    events_.notify([&](event_sink& sink) {
        sink.set_participant_position(room_id, participant_id, &position, heading);
    });
    qel_logger::get_logger().log(
        QEL_LOG_INFO, "Participant %i in room %i has changed position to {%i, %i, %i} and heading {%i, %i}",
        participant_id, room_id, position.x, position.y, position.z, heading.azimuth,
        heading.elevation);
}

std::optional<participant_snapshot> conference::participant_in_notification(
    int32_t room_id, int32_t participant_id) const {
    // The notifying call holds the library lock; taking it again could wait
    // behind a writer that waits for that call (docs/design.md).
    const auto found = rooms_.find(room_id);
    if (found == rooms_.end()) return std::nullopt;
    return found->second->snapshot(participant_id);
}

source_direction conference::participant_spherical(int32_t room_id, int32_t listener_id,
                                                   int32_t source_id) const {
    std::shared_lock library(library_lock_);
    return find_room(room_id).spherical(listener_id, source_id);
}

void conference::set_participant_state(int32_t room_id, int32_t participant_id, int32_t control,
                                       int32_t value) {
    std::shared_lock library(library_lock_);
    find_room(room_id).set_state(participant_id, control, value);
    events_.notify([&](event_sink& sink) {
        sink.set_participant_state(room_id, participant_id, static_cast<qel_audio_control>(control), value);
    });
    qel_logger::get_logger().log(QEL_LOG_INFO, "Participant %i in room %i set %s to %i",
                                 participant_id, room_id, control_name(control), value);
}

void conference::set_all_participants_state(int32_t room_id, int32_t control, int32_t value) {
    std::shared_lock library(library_lock_);
    find_room(room_id).set_all_states(control, value);
    events_.notify([&](event_sink& sink) {
        sink.set_all_participants_state(room_id, static_cast<qel_audio_control>(control), value);
    });
    qel_logger::get_logger().log(QEL_LOG_INFO, "Set all participant's %s in room %i to %i",
                                 control_name(control), room_id, value);
}

int32_t conference::participant_state(int32_t room_id, int32_t participant_id,
                                      int32_t control) const {
    std::shared_lock library(library_lock_);
    return find_room(room_id).get_state(participant_id, control);
}

} // namespace quelora
