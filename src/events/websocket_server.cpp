// qel_websocket_server: notifications to messages.
#include "events/websocket_server.h"

#include "api/quelora_exception.h"
#include "events/event_messages.h"

#include <nlohmann/json.hpp>
#include <quelora/qel_logger.h>

#include <cstring>

namespace quelora::events {

namespace {

// Larger custom texts would overflow a client's send queue by themselves
// and get every client dropped (transport_limits).
constexpr size_t max_custom_event_bytes = size_t{1} << 20;

} // namespace

qel_websocket_server::qel_websocket_server(const char* configuration_path,
                                           const notification_reader& reader,
                                           transport_limits limits)
    : configuration_(read_websocket_configuration(configuration_path)),
      reader_(reader),
      transport_(configuration_, limits) {}

void qel_websocket_server::enable() {
    std::lock_guard lock(enable_mutex_);
    if (transport_.running()) {
        qel_logger::get_logger().log(QEL_LOG_WARNING, "The websocket server is already listening on port %i",
                                     configuration_.port);
        return;
    }
    transport_.start();
}

void qel_websocket_server::send_custom_event(const char* json_text) {
    const size_t length = std::strlen(json_text);
    if (length > max_custom_event_bytes) {
        throw quelora_exception(QEL_LOG_WARNING, QEL_ERROR_INVALID_VALUE,
                                "Your custom websocket event is %zu bytes long but it may be at most "
                                "%zu bytes long",
                                length, max_custom_event_bytes);
    }
    if (!nlohmann::json::accept(json_text, json_text + length)) {
        throw quelora_exception(QEL_LOG_WARNING, QEL_ERROR_INVALID_VALUE, "%s",
                                "Your custom websocket event is not valid JSON text");
    }
    if (publishing()) transport_.broadcast(std::string(json_text, length));
}

void qel_websocket_server::create_room(int32_t room_id) {
    if (publishing()) transport_.broadcast(create_room_message(room_id));
}

void qel_websocket_server::destroy_room(int32_t room_id) {
    if (publishing()) transport_.broadcast(destroy_room_message(room_id));
}

void qel_websocket_server::add_participant(int32_t room_id, int32_t participant_id,
                                           const char* name,
                                           const qel_participant_configuration* configuration) {
    if (!publishing()) return;
    const std::optional<participant_snapshot> snapshot =
        reader_.participant_in_notification(room_id, participant_id);
    // Removed by another thread in the meantime: its removal message may
    // already be out, and a late arrival would leave clients with a
    // participant that no longer exists.
    if (!snapshot) {
        qel_logger::get_logger().log(QEL_LOG_DEBUG,
                                     "Participant %i left room %i before its websocket event was sent",
                                     participant_id, room_id);
        return;
    }
    transport_.broadcast(
        add_participant_message(room_id, participant_id, name, *configuration, *snapshot));
}

void qel_websocket_server::remove_participant(int32_t room_id, int32_t participant_id) {
    if (publishing()) transport_.broadcast(remove_participant_message(room_id, participant_id));
}

void qel_websocket_server::move_participant_event(int32_t room_id, int32_t participant_id,
                                                  const qel_seat* seat) {
    if (publishing()) transport_.broadcast(move_participant_message(room_id, participant_id, *seat));
}

void qel_websocket_server::set_participant_position(int32_t room_id, int32_t participant_id,
                                                    const qel_position* position,
                                                    qel_heading heading) {
    if (publishing())
        transport_.broadcast(
            set_participant_position_message(room_id, participant_id, *position, heading));
}

void qel_websocket_server::set_participant_state(int32_t room_id, int32_t participant_id,
                                                 qel_audio_control control, int32_t value) {
    if (publishing())
        transport_.broadcast(set_participant_state_message(room_id, participant_id, control, value));
}

void qel_websocket_server::set_all_participants_state(int32_t room_id, qel_audio_control control,
                                                      int32_t value) {
    if (publishing())
        transport_.broadcast(set_all_participants_state_message(room_id, control, value));
}

void qel_websocket_server::set_room_layout(int32_t room_id, int32_t layout_id) {
    if (publishing()) transport_.broadcast(set_room_layout_message(room_id, layout_id));
}

void qel_websocket_server::set_name(int32_t room_id, int32_t participant_id, const char* name) {
    if (publishing()) transport_.broadcast(set_name_message(room_id, participant_id, name));
}

} // namespace quelora::events
