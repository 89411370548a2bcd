// Participant operations.
#include "conference/conference.h"

#include <quelora/qel_logger.h>

#include <mutex>

namespace quelora {

void conference::add_participant(int32_t room_id, int32_t participant_id, const char* name,
                                 const qel_participant_configuration& configuration) {
    std::shared_lock library(library_lock_);
    const std::string stored_name = name != nullptr ? name : "";
    find_room(room_id).add_participant(participant_id, stored_name, configuration);
    const qel_participant_configuration copy = configuration;
    events_.notify([&](event_sink& sink) {
        sink.add_participant(room_id, participant_id, stored_name.c_str(), &copy);
    });
    qel_logger::get_logger().log(QEL_LOG_INFO, "A new participant with id %i has been added to room %i",
                                 participant_id, room_id);
}

void conference::remove_participant(int32_t room_id, int32_t participant_id) {
    std::shared_lock library(library_lock_);
    find_room(room_id).remove_participant(participant_id);
    events_.notify([&](event_sink& sink) { sink.remove_participant(room_id, participant_id); });
    qel_logger::get_logger().log(QEL_LOG_INFO, "Participant %i has been removed from room %i",
                                 participant_id, room_id);
}

int32_t conference::participant_count(int32_t room_id) const {
    std::shared_lock library(library_lock_);
    return static_cast<int32_t>(find_room(room_id).participant_count());
}

qel_participant_configuration conference::participant_configuration(int32_t room_id,
                                                                     int32_t participant_id) const {
    std::shared_lock library(library_lock_);
    return find_room(room_id).participant_configuration(participant_id);
}

void conference::set_participant_name(int32_t room_id, int32_t participant_id, const char* name) {
    std::shared_lock library(library_lock_);
    const std::string stored_name = name != nullptr ? name : "";
    find_room(room_id).set_name(participant_id, stored_name);
    events_.notify([&](event_sink& sink) { sink.set_name(room_id, participant_id, stored_name.c_str()); });
    qel_logger::get_logger().log(QEL_LOG_INFO, "Set participant %i in room %i name to %s",
                                 participant_id, room_id, stored_name.c_str());
}

void conference::copy_participant_name(int32_t room_id, int32_t participant_id, char* buffer,
                                       int buffer_length) const {
    std::shared_lock library(library_lock_);
    find_room(room_id).copy_name(participant_id, buffer, buffer_length);
}

void conference::flush(int32_t room_id, int32_t participant_id) const {
    std::shared_lock library(library_lock_);
    find_room(room_id).flush(participant_id);
}

} // namespace quelora
