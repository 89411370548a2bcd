// Part 6.1: the JSON text of every event message, byte for byte: "Event"
// first, the table's keys in the table's order, integers, compact output,
// and names of arbitrary bytes serialised without throwing.
#include "events/event_messages.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <quelora/quelora.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

using namespace quelora::events;

namespace {

constexpr int32_t int_min = INT32_MIN;
constexpr int32_t int_max = INT32_MAX;

quelora::participant_snapshot sample_snapshot() {
    quelora::participant_snapshot snapshot;
    snapshot.seat = {5, 10, -20, 30, 45, -10};
    // Control 1 .. 16, distinct where the ranges allow.
    snapshot.controls = {1, 0, 1, 0, 55, 1, 0, 1, 6, 300, 0, 2, 15, 87, 12, 34};
    return snapshot;
}

TEST(Part6_1_EventMessages, CreateRoom) {
    EXPECT_EQ(create_room_message(7), R"({"Event":"create_room","room_id":7})");
    EXPECT_EQ(create_room_message(-3), R"({"Event":"create_room","room_id":-3})");
    EXPECT_EQ(create_room_message(int_min), R"({"Event":"create_room","room_id":-2147483648})");
    EXPECT_EQ(create_room_message(int_max), R"({"Event":"create_room","room_id":2147483647})");
}

TEST(Part6_1_EventMessages, DestroyRoom) {
    EXPECT_EQ(destroy_room_message(0), R"({"Event":"destroy_room","room_id":0})");
    EXPECT_EQ(destroy_room_message(int_min), R"({"Event":"destroy_room","room_id":-2147483648})");
}

TEST(Part6_1_EventMessages, AddParticipantWithAllSixteenControlsAtTheTopLevel) {
    const qel_participant_configuration configuration{48000, 2, QEL_PARTICIPANT_REGULAR};
    EXPECT_EQ(add_participant_message(3, 42, "Alice", configuration, sample_snapshot()),
              R"({"Event":"add_participant","room_id":3,"participant_id":42,)"
              R"("participant_name":"Alice","input_number_channels":2,)"
              R"("input_sampling_rate":48000,"seat_id":5,"seat_x":10,"seat_y":-20,"seat_z":30,)"
              R"("azimuth_heading":45,"elevation_heading":-10,)"
              R"("QEL_CONTROL_STEREO_BYPASS_ENABLE":1,"QEL_CONTROL_MUTE_ENABLE":0,)"
              R"("QEL_CONTROL_ANC_ENABLE":1,"QEL_CONTROL_ANC_HIGH":0,"QEL_CONTROL_ANC_MIX":55,)"
              R"("QEL_CONTROL_AGC_ENABLE":1,"QEL_CONTROL_AUTO_EQ_ENABLE":0,)"
              R"("QEL_CONTROL_MIXING_3D_ENABLE":1,"QEL_CONTROL_MIXING_3D_ATTENUATION":6,)"
              R"("QEL_CONTROL_MIXING_3D_MAX_DISTANCE":300,)"
              R"("QEL_CONTROL_MIXING_3D_REVERB_ENABLE":0,"QEL_CONTROL_DEVICE":2,)"
              R"("QEL_CONTROL_HALF_SPAN_ANGLE":15,"QEL_CONTROL_MASTER_GAIN":87,)"
              R"("QEL_CONTROL_WHISPER_ROOM":12,"QEL_CONTROL_SIDEBAR_ROOM":34})");
}

TEST(Part6_1_EventMessages, AddParticipantExtremesAndNullName) {
    quelora::participant_snapshot snapshot;
    snapshot.seat = {-1, int_min, int_max, 0, -180, 90};
    snapshot.controls.fill(int_min);
    snapshot.controls[15] = int_max;
    const qel_participant_configuration configuration{8000, 1, QEL_PARTICIPANT_LISTENER_ONLY};
    EXPECT_EQ(add_participant_message(int_max, int_min, nullptr, configuration, snapshot),
              R"({"Event":"add_participant","room_id":2147483647,"participant_id":-2147483648,)"
              R"("participant_name":"","input_number_channels":1,"input_sampling_rate":8000,)"
              R"("seat_id":-1,"seat_x":-2147483648,"seat_y":2147483647,"seat_z":0,)"
              R"("azimuth_heading":-180,"elevation_heading":90,)"
              R"("QEL_CONTROL_STEREO_BYPASS_ENABLE":-2147483648,)"
              R"("QEL_CONTROL_MUTE_ENABLE":-2147483648,"QEL_CONTROL_ANC_ENABLE":-2147483648,)"
              R"("QEL_CONTROL_ANC_HIGH":-2147483648,"QEL_CONTROL_ANC_MIX":-2147483648,)"
              R"("QEL_CONTROL_AGC_ENABLE":-2147483648,"QEL_CONTROL_AUTO_EQ_ENABLE":-2147483648,)"
              R"("QEL_CONTROL_MIXING_3D_ENABLE":-2147483648,)"
              R"("QEL_CONTROL_MIXING_3D_ATTENUATION":-2147483648,)"
              R"("QEL_CONTROL_MIXING_3D_MAX_DISTANCE":-2147483648,)"
              R"("QEL_CONTROL_MIXING_3D_REVERB_ENABLE":-2147483648,)"
              R"("QEL_CONTROL_DEVICE":-2147483648,"QEL_CONTROL_HALF_SPAN_ANGLE":-2147483648,)"
              R"("QEL_CONTROL_MASTER_GAIN":-2147483648,"QEL_CONTROL_WHISPER_ROOM":-2147483648,)"
              R"("QEL_CONTROL_SIDEBAR_ROOM":2147483647})");
}

TEST(Part6_1_EventMessages, RemoveParticipant) {
    EXPECT_EQ(remove_participant_message(1, 2),
              R"({"Event":"remove_participant","room_id":1,"participant_id":2})");
    EXPECT_EQ(remove_participant_message(int_min, int_max),
              R"({"Event":"remove_participant","room_id":-2147483648,"participant_id":2147483647})");
}

TEST(Part6_1_EventMessages, MoveParticipantEvent) {
    EXPECT_EQ(move_participant_message(1, 2, qel_seat{3, 4, -5, 6, -170, 80}),
              R"({"Event":"move_participant_event","room_id":1,"participant_id":2,"seat":3,)"
              R"("x":4,"y":-5,"z":6,"azimuth_heading":-170,"elevation_heading":80})");
    EXPECT_EQ(move_participant_message(-1, -2, qel_seat{-1, int_min, int_max, int_min, 0, 0}),
              R"({"Event":"move_participant_event","room_id":-1,"participant_id":-2,"seat":-1,)"
              R"("x":-2147483648,"y":2147483647,"z":-2147483648,"azimuth_heading":0,)"
              R"("elevation_heading":0})");
}

TEST(Part6_1_EventMessages, SetParticipantPosition) {
    EXPECT_EQ(set_participant_position_message(9, 8, qel_position{100, -200, 300},
                                               qel_heading{-90, 45}),
              R"({"Event":"set_participant_position","room_id":9,"participant_id":8,)"
              R"("x":100,"y":-200,"z":300,"azimuth_heading":-90,"elevation_heading":45})");
    EXPECT_EQ(set_participant_position_message(int_max, int_min, qel_position{int_min, 0, int_max},
                                               qel_heading{int_max, int_min}),
              R"({"Event":"set_participant_position","room_id":2147483647,)"
              R"("participant_id":-2147483648,"x":-2147483648,"y":0,"z":2147483647,)"
              R"("azimuth_heading":2147483647,"elevation_heading":-2147483648})");
}

TEST(Part6_1_EventMessages, SetParticipantState) {
    EXPECT_EQ(set_participant_state_message(1, 2, QEL_CONTROL_MASTER_GAIN, 75),
              R"({"Event":"set_participant_state","room_id":1,"participant_id":2,)"
              R"("control_to_edit":"QEL_CONTROL_MASTER_GAIN","value":75})");
    EXPECT_EQ(set_participant_state_message(int_min, int_max, QEL_CONTROL_STEREO_BYPASS_ENABLE,
                                            int_min),
              R"({"Event":"set_participant_state","room_id":-2147483648,)"
              R"("participant_id":2147483647,"control_to_edit":"QEL_CONTROL_STEREO_BYPASS_ENABLE",)"
              R"("value":-2147483648})");
    EXPECT_EQ(set_participant_state_message(-5, -6, QEL_CONTROL_SIDEBAR_ROOM, int_max),
              R"({"Event":"set_participant_state","room_id":-5,"participant_id":-6,)"
              R"("control_to_edit":"QEL_CONTROL_SIDEBAR_ROOM","value":2147483647})");
}

TEST(Part6_1_EventMessages, SetAllParticipantsState) {
    EXPECT_EQ(set_all_participants_state_message(4, QEL_CONTROL_MIXING_3D_MAX_DISTANCE, 500),
              R"({"Event":"set_all_participants_state","room_id":4,)"
              R"("control_to_edit":"QEL_CONTROL_MIXING_3D_MAX_DISTANCE","value":500})");
    EXPECT_EQ(set_all_participants_state_message(int_min, QEL_CONTROL_DEVICE, -1),
              R"({"Event":"set_all_participants_state","room_id":-2147483648,)"
              R"("control_to_edit":"QEL_CONTROL_DEVICE","value":-1})");
}

TEST(Part6_1_EventMessages, SetRoomLayout) {
    EXPECT_EQ(set_room_layout_message(4, 2),
              R"({"Event":"set_room_layout","room_id":4,"room_config_id":2})");
    EXPECT_EQ(set_room_layout_message(int_max, int_min),
              R"({"Event":"set_room_layout","room_id":2147483647,"room_config_id":-2147483648})");
}

TEST(Part6_1_EventMessages, SetName) {
    EXPECT_EQ(set_name_message(1, 2, "Bob"),
              R"({"Event":"set_name","room_id":1,"participant_id":2,"name":"Bob"})");
    EXPECT_EQ(set_name_message(-1, int_min, ""),
              R"({"Event":"set_name","room_id":-1,"participant_id":-2147483648,"name":""})");
    EXPECT_EQ(set_name_message(1, 2, nullptr),
              R"({"Event":"set_name","room_id":1,"participant_id":2,"name":""})");
}

TEST(Part6_1_EventMessages, NamesAreEscapedAsJsonStrings) {
    EXPECT_EQ(set_name_message(1, 2, "say \"hi\" \\ a/b"),
              R"({"Event":"set_name","room_id":1,"participant_id":2,"name":"say \"hi\" \\ a/b"})");
    EXPECT_EQ(set_name_message(1, 2, "line\nbreak\ttab\x01\x1f"),
              R"({"Event":"set_name","room_id":1,"participant_id":2,)"
              R"("name":"line\nbreak\ttab\u0001\u001f"})");
}

TEST(Part6_1_EventMessages, ValidUtf8IsKeptAsIs) {
    // "Zoë" and U+1F600 as raw UTF-8 bytes, not \u escapes.
    EXPECT_EQ(set_name_message(1, 2, "Zo\xc3\xab \xf0\x9f\x98\x80"),
              "{\"Event\":\"set_name\",\"room_id\":1,\"participant_id\":2,"
              "\"name\":\"Zo\xc3\xab \xf0\x9f\x98\x80\"}");
}

TEST(Part6_1_EventMessages, InvalidUtf8BecomesTheReplacementCharacter) {
    // U+FFFD is EF BF BD in UTF-8.
    EXPECT_EQ(set_name_message(1, 2, "a\xff" "b"),
              "{\"Event\":\"set_name\",\"room_id\":1,\"participant_id\":2,"
              "\"name\":\"a\xef\xbf\xbd" "b\"}");
    // A truncated sequence at the end of the name.
    EXPECT_EQ(set_name_message(1, 2, "Zo\xc3"),
              "{\"Event\":\"set_name\",\"room_id\":1,\"participant_id\":2,"
              "\"name\":\"Zo\xef\xbf\xbd\"}");
    const qel_participant_configuration configuration{16000, 1, QEL_PARTICIPANT_SOURCE_ONLY};
    const std::string text =
        add_participant_message(1, 2, "\xfe\xff", configuration, sample_snapshot());
    EXPECT_EQ(text.rfind(R"({"Event":"add_participant","room_id":1,"participant_id":2,)"
                         "\"participant_name\":\"\xef\xbf\xbd\xef\xbf\xbd\",",
                         0),
              0u)
        << text;
}

TEST(Part6_1_EventMessages, KeysKeepTheTableOrderNotAlphabetical) {
    // Parsed back with ordered_json, which keeps the text's order.
    const auto parsed = nlohmann::ordered_json::parse(
        set_participant_position_message(1, 2, qel_position{3, 4, 5}, qel_heading{6, 7}));
    std::vector<std::string> keys;
    for (const auto& item : parsed.items()) keys.push_back(item.key());
    const std::vector<std::string> table_order = {"Event", "room_id", "participant_id", "x",
                                                  "y", "z", "azimuth_heading",
                                                  "elevation_heading"};
    EXPECT_EQ(keys, table_order);
    // The table's order is not the sorted one, so a sorting JSON type fails above.
    EXPECT_FALSE(std::is_sorted(table_order.begin(), table_order.end()));
}

TEST(Part6_1_EventMessages, EveryMessageParsesBackWithIntegerNumbers) {
    const qel_participant_configuration configuration{24000, 2, QEL_PARTICIPANT_REGULAR};
    const std::vector<std::string> texts = {
        create_room_message(1),
        destroy_room_message(1),
        add_participant_message(1, 2, "n", configuration, sample_snapshot()),
        remove_participant_message(1, 2),
        move_participant_message(1, 2, qel_seat{1, 2, 3, 4, 5, 6}),
        set_participant_position_message(1, 2, qel_position{1, 2, 3}, qel_heading{4, 5}),
        set_participant_state_message(1, 2, QEL_CONTROL_MUTE_ENABLE, 1),
        set_all_participants_state_message(1, QEL_CONTROL_MUTE_ENABLE, 1),
        set_room_layout_message(1, 2),
        set_name_message(1, 2, "n"),
    };
    for (const auto& text : texts) {
        const auto parsed = nlohmann::ordered_json::parse(text);
        ASSERT_TRUE(parsed.is_object()) << text;
        EXPECT_EQ(parsed.begin().key(), "Event") << text;
        for (const auto& item : parsed.items()) {
            EXPECT_TRUE(item.value().is_string() || item.value().is_number_integer())
                << text << " " << item.key();
        }
        EXPECT_EQ(text.find(' '), std::string::npos) << text;
    }
}

} // namespace
