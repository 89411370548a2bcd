// The JSON text of each event message: one compact object per notification,
// "Event" first, then the event's keys in a fixed order (docs/websocket.md;
// nlohmann::ordered_json, since the default json type sorts keys).
#pragma once

#include "conference/event_sink.h"

#include <quelora/quelora.h>

#include <cstdint>
#include <string>

namespace quelora::events {

std::string create_room_message(int32_t room_id);
std::string destroy_room_message(int32_t room_id);
std::string add_participant_message(int32_t room_id, int32_t participant_id, const char* name,
                                    const qel_participant_configuration& configuration,
                                    const participant_snapshot& snapshot);
std::string remove_participant_message(int32_t room_id, int32_t participant_id);
std::string move_participant_message(int32_t room_id, int32_t participant_id, const qel_seat& seat);
std::string set_participant_position_message(int32_t room_id, int32_t participant_id,
                                             const qel_position& position,
                                             const qel_heading& heading);
std::string set_participant_state_message(int32_t room_id, int32_t participant_id,
                                          qel_audio_control control, int32_t value);
std::string set_all_participants_state_message(int32_t room_id, qel_audio_control control,
                                               int32_t value);
std::string set_room_layout_message(int32_t room_id, int32_t layout_id);
std::string set_name_message(int32_t room_id, int32_t participant_id, const char* name);

} // namespace quelora::events
