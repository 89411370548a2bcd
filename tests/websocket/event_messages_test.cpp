// Every event message byte for byte: "Event" first, then the keys in their documented order (not
// sorted), compact, 32-bit extremes, names escaped, valid UTF-8 kept, invalid bytes as U+FFFD.
#include "events/event_messages.h"

#include <gtest/gtest.h>
#include <quelora/quelora.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

using namespace quelora::events;

namespace {

constexpr int32_t int_min = INT32_MIN;
constexpr int32_t int_max = INT32_MAX;

// Seat -1 at extreme coordinates; controls 1 .. 16 distinct so that a swap shows.
const quelora::participant_snapshot snapshot{
    {-1, int_min, int_max, 30, -180, 90},
    {1, 0, 3, 4, 55, 6, 7, 8, 9, 300, 11, 2, 15, 87, int_min, int_max}};

const std::string add_tail =
    R"("seat_id":-1,"seat_x":-2147483648,"seat_y":2147483647,"seat_z":30,)"
    R"("azimuth_heading":-180,"elevation_heading":90,)"
    R"("QEL_CONTROL_STEREO_BYPASS_ENABLE":1,"QEL_CONTROL_MUTE_ENABLE":0,)"
    R"("QEL_CONTROL_ANC_ENABLE":3,"QEL_CONTROL_ANC_HIGH":4,"QEL_CONTROL_ANC_MIX":55,)"
    R"("QEL_CONTROL_AGC_ENABLE":6,"QEL_CONTROL_AUTO_EQ_ENABLE":7,)"
    R"("QEL_CONTROL_MIXING_3D_ENABLE":8,"QEL_CONTROL_MIXING_3D_ATTENUATION":9,)"
    R"("QEL_CONTROL_MIXING_3D_MAX_DISTANCE":300,"QEL_CONTROL_MIXING_3D_REVERB_ENABLE":11,)"
    R"("QEL_CONTROL_DEVICE":2,"QEL_CONTROL_HALF_SPAN_ANGLE":15,"QEL_CONTROL_MASTER_GAIN":87,)"
    R"("QEL_CONTROL_WHISPER_ROOM":-2147483648,"QEL_CONTROL_SIDEBAR_ROOM":2147483647})";

std::string name_message(const std::string& name) {
    return R"({"Event":"set_name","room_id":1,"participant_id":2,"name":")" + name + "\"}";
}

} // namespace

TEST(EventMessages, EveryMessageIsWrittenOutExactly) {
    const std::vector<std::pair<std::string, std::string>> rows = {
        {create_room_message(int_min), R"({"Event":"create_room","room_id":-2147483648})"},
        {destroy_room_message(int_max), R"({"Event":"destroy_room","room_id":2147483647})"},
        {add_participant_message(3, 42, "Alice", {48000, 2, QEL_PARTICIPANT_REGULAR}, snapshot),
         R"({"Event":"add_participant","room_id":3,"participant_id":42,"participant_name":"Alice",)"
         R"("input_number_channels":2,"input_sampling_rate":48000,)" +
             add_tail},
        {add_participant_message(int_max, int_min, nullptr,
                                 {8000, 1, QEL_PARTICIPANT_LISTENER_ONLY}, snapshot),
         R"({"Event":"add_participant","room_id":2147483647,"participant_id":-2147483648,)"
         R"("participant_name":"","input_number_channels":1,"input_sampling_rate":8000,)" +
             add_tail},
        {remove_participant_message(int_min, int_max),
         R"({"Event":"remove_participant","room_id":-2147483648,"participant_id":2147483647})"},
        {move_participant_message(-1, 2, qel_seat{3, int_min, -5, int_max, -170, 80}),
         R"({"Event":"move_participant_event","room_id":-1,"participant_id":2,"seat":3,)"
         R"("x":-2147483648,"y":-5,"z":2147483647,"azimuth_heading":-170,"elevation_heading":80})"},
        {set_participant_position_message(int_max, int_min, qel_position{int_min, -200, int_max},
                                          qel_heading{-90, 45}),
         R"({"Event":"set_participant_position","room_id":2147483647,"participant_id":-2147483648,)"
         R"("x":-2147483648,"y":-200,"z":2147483647,)"
         R"("azimuth_heading":-90,"elevation_heading":45})"},
        {set_participant_state_message(int_min, int_max, QEL_CONTROL_STEREO_BYPASS_ENABLE, int_min),
         R"({"Event":"set_participant_state","room_id":-2147483648,"participant_id":2147483647,)"
         R"("control_to_edit":"QEL_CONTROL_STEREO_BYPASS_ENABLE","value":-2147483648})"},
        {set_participant_state_message(-5, -6, QEL_CONTROL_SIDEBAR_ROOM, int_max),
         R"({"Event":"set_participant_state","room_id":-5,"participant_id":-6,)"
         R"("control_to_edit":"QEL_CONTROL_SIDEBAR_ROOM","value":2147483647})"},
        {set_all_participants_state_message(int_min, QEL_CONTROL_MIXING_3D_MAX_DISTANCE, -1),
         R"({"Event":"set_all_participants_state","room_id":-2147483648,)"
         R"("control_to_edit":"QEL_CONTROL_MIXING_3D_MAX_DISTANCE","value":-1})"},
        {set_room_layout_message(int_max, int_min),
         R"({"Event":"set_room_layout","room_id":2147483647,"room_config_id":-2147483648})"},
        {set_name_message(-1, int_min, "Bob"),
         R"({"Event":"set_name","room_id":-1,"participant_id":-2147483648,"name":"Bob"})"},
        {set_name_message(1, 2, nullptr), name_message("")},
        {set_name_message(1, 2, "say \"hi\" \\ a/b"), name_message(R"(say \"hi\" \\ a/b)")},
        {set_name_message(1, 2, "line\nbreak\ttab\x01\x1f"),
         name_message(R"(line\nbreak\ttab\u0001\u001f)")},
        {set_name_message(1, 2, "Zo\xc3\xab \xf0\x9f\x98\x80"),
         name_message("Zo\xc3\xab \xf0\x9f\x98\x80")},
        {set_name_message(1, 2, "a\377b"), name_message("a\uFFFDb")},
        {set_name_message(1, 2, "Zo\xc3"), name_message("Zo\xef\xbf\xbd")}, // cut short at the end
    };
    for (size_t i = 0; i < rows.size(); ++i)
        EXPECT_EQ(rows[i].first, rows[i].second) << "row " << i;
}
