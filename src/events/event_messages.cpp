// The JSON event messages: one compact object per notification, keys in a
// fixed order (docs/websocket.md lists them), numbers as JSON integers.
#include "events/event_messages.h"

#include "api/controls.h"

#include <nlohmann/json.hpp>

namespace quelora::events {
namespace {

// ordered_json keeps keys in insertion order; the default nlohmann::json
// sorts them alphabetically, which would put e.g. "azimuth_heading" before
// "room_id" and change the order clients see.
using message = nlohmann::ordered_json;

message event(const char* name, int32_t room_id) {
    message object = message::object();
    object["Event"] = name;
    object["room_id"] = room_id;
    return object;
}

message participant_event(const char* name, int32_t room_id, int32_t participant_id) {
    message object = event(name, room_id);
    object["participant_id"] = participant_id;
    return object;
}

// Names are arbitrary host bytes: invalid UTF-8 is written as U+FFFD instead
// of throwing, and valid non-ASCII text is kept as it is (no \u escapes).
std::string serialise(const message& object) {
    return object.dump(-1, ' ', false, message::error_handler_t::replace);
}

std::string text_or_empty(const char* text) { return text != nullptr ? text : ""; }

} // namespace

std::string create_room_message(int32_t room_id) {
    return serialise(event("create_room", room_id));
}

std::string destroy_room_message(int32_t room_id) {
    return serialise(event("destroy_room", room_id));
}

std::string add_participant_message(int32_t room_id, int32_t participant_id, const char* name,
                                    const qel_participant_configuration& configuration,
                                    const participant_snapshot& snapshot) {
    message object = participant_event("add_participant", room_id, participant_id);
    object["participant_name"] = text_or_empty(name);
    object["input_number_channels"] = configuration.input_number_channels;
    object["input_sampling_rate"] = configuration.input_sampling_rate;
    object["seat_id"] = snapshot.seat.seat_index;
    object["seat_x"] = snapshot.seat.x;
    object["seat_y"] = snapshot.seat.y;
    object["seat_z"] = snapshot.seat.z;
    object["azimuth_heading"] = snapshot.seat.azimuth;
    object["elevation_heading"] = snapshot.seat.elevation;
    // At the top level, not nested: one key per control, under its name.
    for (int32_t control = 1; control <= control_count; ++control) {
        object[control_name(control)] = snapshot.controls[static_cast<size_t>(control - 1)];
    }
    return serialise(object);
}

std::string remove_participant_message(int32_t room_id, int32_t participant_id) {
    return serialise(participant_event("remove_participant", room_id, participant_id));
}

std::string move_participant_message(int32_t room_id, int32_t participant_id, const qel_seat& seat) {
    message object = participant_event("move_participant_event", room_id, participant_id);
    object["seat"] = seat.seat_index;
    object["x"] = seat.x;
    object["y"] = seat.y;
    object["z"] = seat.z;
    object["azimuth_heading"] = seat.azimuth;
    object["elevation_heading"] = seat.elevation;
    return serialise(object);
}

std::string set_participant_position_message(int32_t room_id, int32_t participant_id,
                                             const qel_position& position,
                                             const qel_heading& heading) {
    message object = participant_event("set_participant_position", room_id, participant_id);
    object["x"] = position.x;
    object["y"] = position.y;
    object["z"] = position.z;
    object["azimuth_heading"] = heading.azimuth;
    object["elevation_heading"] = heading.elevation;
    return serialise(object);
}

std::string set_participant_state_message(int32_t room_id, int32_t participant_id,
                                          qel_audio_control control, int32_t value) {
    message object = participant_event("set_participant_state", room_id, participant_id);
    object["control_to_edit"] = control_name(static_cast<int32_t>(control));
    object["value"] = value;
    return serialise(object);
}

std::string set_all_participants_state_message(int32_t room_id, qel_audio_control control,
                                               int32_t value) {
    message object = event("set_all_participants_state", room_id);
    object["control_to_edit"] = control_name(static_cast<int32_t>(control));
    object["value"] = value;
    return serialise(object);
}

std::string set_room_layout_message(int32_t room_id, int32_t layout_id) {
    message object = event("set_room_layout", room_id);
    object["room_config_id"] = layout_id;
    return serialise(object);
}

std::string set_name_message(int32_t room_id, int32_t participant_id, const char* name) {
    message object = participant_event("set_name", room_id, participant_id);
    object["name"] = text_or_empty(name);
    return serialise(object);
}

} // namespace quelora::events
