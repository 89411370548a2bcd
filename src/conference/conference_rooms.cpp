// Room registry operations. Callbacks and the success line run after the
// room's locks are released, with the library lock still held.
#include "conference/conference.h"

#include "api/quelora_exception.h"

#include <quelora/qel_logger.h>

#include <mutex>

namespace quelora {

conference::conference(const room_layout_set& layouts,
                       const qel_library_configuration& audio_configuration,
                       const filter_banks& banks)
    : layouts_(layouts), audio_configuration_(audio_configuration), banks_(banks) {
    rooms_.reserve(reserved_rooms);
}

conference::~conference() {
    // Library teardown: every room by the room teardown, without callbacks or log lines.
    std::unique_lock library(library_lock_);
    rooms_.clear();
}

room& conference::find_room(int32_t room_id) const {
    auto it = rooms_.find(room_id);
    if (it == rooms_.end()) {
        throw quelora_exception(QEL_LOG_WARNING, QEL_ERROR_INVALID_ROOM_ID, "Room %d does not exist.",
                                room_id);
    }
    return *it->second;
}

void conference::create_room(int32_t room_id) {
    std::unique_lock library(library_lock_);
    if (rooms_.contains(room_id)) {
        throw quelora_exception(QEL_LOG_WARNING, QEL_ERROR_INVALID_ROOM_ID, "Room %i already exists",
                                room_id);
    }
    rooms_.emplace(room_id,
                   std::make_unique<room>(room_id, layouts_.default_layout(), audio_configuration_,
                                          banks_));
    events_.notify([&](event_sink& sink) { sink.create_room(room_id); });
    qel_logger::get_logger().log(QEL_LOG_INFO, "A new room with id %i was created", room_id);
}

void conference::destroy_room(int32_t room_id) {
    std::unique_lock library(library_lock_);
    room& doomed = find_room(room_id);
    doomed.tear_down(); // no per-participant callbacks or lines, only destroy_room
    rooms_.erase(room_id);
    events_.notify([&](event_sink& sink) { sink.destroy_room(room_id); });
    qel_logger::get_logger().log(QEL_LOG_INFO, "Room %i was destroyed", room_id);
}

int32_t conference::room_count() const {
    std::shared_lock library(library_lock_);
    return static_cast<int32_t>(rooms_.size());
}

void conference::set_room_layout(int32_t room_id, int32_t layout_id) {
    std::unique_lock library(library_lock_);
    room& switched = find_room(room_id);
    const quelora_room_layout* layout = layouts_.find(layout_id);
    if (layout == nullptr) {
        throw quelora_exception(QEL_LOG_WARNING, QEL_ERROR_INVALID_VALUE,
                                "Room layout id %d does not exist.", layout_id);
    }
    switched.switch_layout(layout);
    events_.notify([&](event_sink& sink) { sink.set_room_layout(room_id, layout_id); });
    qel_logger::get_logger().log(QEL_LOG_INFO, "Room %i has changed to layout %i", room_id,
                                 layout_id);
}

int32_t conference::room_layout(int32_t room_id) const {
    std::shared_lock library(library_lock_);
    const quelora_room_layout* layout = find_room(room_id).layout();
    if (layout == nullptr) {
        throw quelora_exception(QEL_LOG_ERROR, QEL_ERROR_INVALID_VALUE, "%s",
                                "Failed to get room layout. Pointer to room layout is null.");
    }
    return layout->id;
}

} // namespace quelora
