// Room layout file and room layouts (spec Part 2.2).
#include "config/room_layout.h"

#include "api/error_codes.h"
#include "api/quelora_exception.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

namespace quelora {
namespace {

using json = nlohmann::json;
using testing::log_capture;

constexpr int32_t int32_max = std::numeric_limits<int32_t>::max();
constexpr int32_t int32_min = std::numeric_limits<int32_t>::min();

const std::string missing_id = "A Room in the Room Configuration file is missing its 'id' property";
const std::string missing_desc =
    "A Room in the Room Configuration file is missing its 'desc' property";
const std::string missing_stacking =
    "A Room in the Room Configuration file is missing its 'allowParticipantStacking' property";
const std::string missing_open =
    "A Room in the Room Configuration file is missing its 'openRoom' property";
const std::string missing_center =
    "A Room in the Room Configuration file is missing its 'centerPoint' property";
const std::string missing_center_xyz =
    "A Room in the Room Configuration file is missing its 'x','y','z' for the 'centerPoint' "
    "property";
const std::string missing_seats =
    "A Room in the Room Configuration file is missing its 'seats' property";
const std::string missing_stack_delta =
    "A Room in the Room Configuration file is missing its 'stackDelta' property";
const std::string seat_without_xyz = "A Seat in the Room Configuration file does not have all the "
                                     "'x', 'y', and / or 'z' properties";

const char* const fallback_text =
    R"({"default":"fallback_layout","room_list":{"fallback_layout":{"allowParticipantStacking":true,)"
    R"("centerPoint":{"x":0,"y":0,"z":0},"desc":"This is the fallback room layout when your custom )"
    R"(room layout file is missing or corrupted","id":1,"openRoom":true,"seats":[{"x":0,"y":0,"z":0}]}}})";

// A complete closed layout: four seats, stacking off, two default states.
json closed_layout(int32_t id = 7) {
    return json{
        {"id", id},
        {"desc", "four seats"},
        {"allowParticipantStacking", false},
        {"stackDelta", 25},
        {"openRoom", false},
        {"centerPoint", {{"x", 1}, {"y", 2}, {"z", 3}}},
        {"seats", json::array({{{"x", -100}, {"y", 0}, {"z", 0}},
                               {{"x", 100}, {"y", 0}, {"z", 0}},
                               {{"x", 0}, {"y", -100}, {"z", 0}},
                               {{"x", 0}, {"y", 100}, {"z", 5}}})},
        {"defaultStates", {{"QEL_CONTROL_MIXING_3D_ENABLE", 1}, {"QEL_CONTROL_MASTER_GAIN", 80}}},
    };
}

json document_with(const json& layout, const std::string& key = "room") {
    return json{{"default", key}, {"room_list", {{key, layout}}}};
}

// The level 4 lines only (the Part 1.4 warnings are level 3).
std::vector<std::string> errors(const log_capture& capture) {
    return capture.messages_at(QEL_LOG_ERROR);
}

// ---- Document parsing -------------------------------------------------------

TEST(Part2_2_RoomLayout, FallbackDocumentSerialisesByteForByte) {
    EXPECT_EQ(fallback_room_document().dump(), fallback_text);
    const room_layout_set set(fallback_room_document());
    EXPECT_EQ(set.json_text(), fallback_text);
}

TEST(Part2_2_RoomLayout, FallbackSerialisesMembersInKeyOrder) {
    const std::string text = fallback_room_document().dump();
    const auto at = [&](const char* key) { return text.find(key); };
    EXPECT_LT(at("\"allowParticipantStacking\""), at("\"centerPoint\""));
    EXPECT_LT(at("\"centerPoint\""), at("\"desc\""));
    EXPECT_LT(at("\"desc\""), at("\"id\""));
    EXPECT_LT(at("\"id\""), at("\"openRoom\""));
    EXPECT_LT(at("\"openRoom\""), at("\"seats\""));
}

TEST(Part2_2_RoomLayout, FallbackDocumentParsesSilently) {
    log_capture capture;
    const room_layout_set set(fallback_room_document());
    ASSERT_EQ(set.layouts().size(), 1u);
    const quelora_room_layout& layout = *set.layouts()[0];
    EXPECT_EQ(set.default_layout(), &layout);
    EXPECT_EQ(layout.key, "fallback_layout");
    EXPECT_EQ(layout.id, 1);
    EXPECT_EQ(layout.description, "This is the fallback room layout when your custom room "
                                  "layout file is missing or corrupted");
    EXPECT_TRUE(layout.allow_participant_stacking);
    EXPECT_EQ(layout.stack_delta, 0);
    EXPECT_TRUE(layout.open_room);
    EXPECT_EQ(layout.center_point.x, 0);
    ASSERT_EQ(layout.seats.size(), 1u);
    EXPECT_EQ(layout.seats[0].z, 0);
    EXPECT_TRUE(layout.default_states.empty());
    EXPECT_TRUE(capture.messages().empty());
}

TEST(Part2_2_RoomLayout, ClosedLayoutIsReadCompletely) {
    log_capture capture;
    const json document = document_with(closed_layout());
    const room_layout_set set(document);
    ASSERT_EQ(set.layouts().size(), 1u);
    const quelora_room_layout& layout = *set.layouts()[0];
    EXPECT_EQ(layout.id, 7);
    EXPECT_EQ(layout.key, "room");
    EXPECT_EQ(layout.description, "four seats");
    EXPECT_FALSE(layout.allow_participant_stacking);
    EXPECT_EQ(layout.stack_delta, 25);
    EXPECT_FALSE(layout.open_room);
    EXPECT_EQ(layout.center_point.x, 1);
    EXPECT_EQ(layout.center_point.y, 2);
    EXPECT_EQ(layout.center_point.z, 3);
    ASSERT_EQ(layout.seats.size(), 4u);
    EXPECT_EQ(layout.seats[0].x, -100);
    EXPECT_EQ(layout.seats[3].y, 100);
    EXPECT_EQ(layout.seats[3].z, 5);
    EXPECT_EQ(layout.default_states, (std::map<int32_t, int32_t>{{8, 1}, {14, 80}}));
    EXPECT_EQ(layout.object, closed_layout());
    EXPECT_EQ(set.json_text(), document.dump());
    EXPECT_TRUE(capture.messages().empty());
}

TEST(Part2_2_RoomLayout, MissingRoomListThrows9988AtLevel4) {
    log_capture capture;
    const std::string message = "The Room Configuration file is missing the 'room_list' property";
    for (const json& document : {json{{"default", "a"}}, json::object(), json::array(), json(),
                                 json("room_list"), json(5)}) {
        capture.clear();
        try {
            room_layout_set set(document);
            ADD_FAILURE() << document.dump();
        } catch (const quelora_exception& error) {
            EXPECT_EQ(error.error_code(), -9988);
            EXPECT_EQ(error.error_code(), error_invalid_room_configuration);
            EXPECT_EQ(std::string(error.what()), message);
        }
        EXPECT_EQ(errors(capture), std::vector<std::string>{message});
    }
}

TEST(Part2_2_RoomLayout, MissingDefaultThrows9988AtLevel4) {
    log_capture capture;
    const std::string message = "The Room Configuration file is missing its 'default' property";
    try {
        room_layout_set set(json{{"room_list", {{"a", closed_layout()}}}});
        ADD_FAILURE();
    } catch (const quelora_exception& error) {
        EXPECT_EQ(error.error_code(), -9988);
        EXPECT_EQ(std::string(error.what()), message);
    }
    EXPECT_EQ(errors(capture), std::vector<std::string>{message});
}

TEST(Part2_2_RoomLayout, RoomListIsCheckedBeforeDefault) {
    try {
        room_layout_set set(json::object());
        ADD_FAILURE();
    } catch (const quelora_exception& error) {
        EXPECT_EQ(std::string(error.what()),
                  "The Room Configuration file is missing the 'room_list' property");
    }
}

TEST(Part2_2_RoomLayout, DefaultMustBeAString) {
    for (const json& value : {json(1), json(true), json(), json::array(), json::object()}) {
        json document = document_with(closed_layout());
        document["default"] = value;
        try {
            room_layout_set set(document);
            ADD_FAILURE() << value.dump();
        } catch (const json::type_error& error) {
            EXPECT_EQ(error.id, 302);
            EXPECT_NE(std::string(error.what()).find("type must be string, but is "),
                      std::string::npos);
        }
    }
}

TEST(Part2_2_RoomLayout, RoomListMustBeAnObject) {
    for (const json& value : {json(1), json("x"), json(), json::array({closed_layout()})}) {
        try {
            room_layout_set set(json{{"default", "a"}, {"room_list", value}});
            ADD_FAILURE() << value.dump();
        } catch (const json::type_error& error) {
            EXPECT_EQ(error.id, 302);
            EXPECT_NE(std::string(error.what())
                          .find(std::string("type must be object, but is ") + value.type_name()),
                      std::string::npos);
        }
    }
}

TEST(Part2_2_RoomLayout, DefaultNamingNoKeyParsesWithoutDefault) {
    json document = document_with(closed_layout());
    document["default"] = "nowhere";
    const room_layout_set set(document);
    EXPECT_EQ(set.layouts().size(), 1u);
    EXPECT_EQ(set.default_layout(), nullptr);
}

TEST(Part2_2_RoomLayout, EmptyRoomListGivesNoLayoutsAndNoDefault) {
    const json document = {{"default", "a"}, {"room_list", json::object()}};
    const room_layout_set set(document);
    EXPECT_TRUE(set.layouts().empty());
    EXPECT_EQ(set.default_layout(), nullptr);
    EXPECT_EQ(set.find(0), nullptr);
    EXPECT_EQ(set.json_text(), R"({"default":"a","room_list":{}})");
}

TEST(Part2_2_RoomLayout, LayoutsFollowKeyByteOrderAndDefaultIsMarked) {
    const json document = {{"default", "b"},
                           {"room_list",
                            {{"b", closed_layout(2)}, {"a", closed_layout(1)},
                             {"B", closed_layout(3)}}}};
    const room_layout_set set(document);
    ASSERT_EQ(set.layouts().size(), 3u);
    EXPECT_EQ(set.layouts()[0]->key, "B");
    EXPECT_EQ(set.layouts()[1]->key, "a");
    EXPECT_EQ(set.layouts()[2]->key, "b");
    EXPECT_EQ(set.default_layout(), set.layouts()[2].get());
}

TEST(Part2_2_RoomLayout, LookupById) {
    const json document = {{"default", "one"},
                           {"room_list",
                            {{"one", closed_layout(1)}, {"two", closed_layout(2)},
                             {"three", closed_layout(-3)}}}};
    const room_layout_set set(document);
    ASSERT_NE(set.find(1), nullptr);
    EXPECT_EQ(set.find(1)->key, "one");
    EXPECT_EQ(set.find(2)->key, "two");
    EXPECT_EQ(set.find(-3)->key, "three");
    EXPECT_EQ(set.find(4), nullptr);
    EXPECT_EQ(set.find(0), nullptr);
}

TEST(Part2_2_RoomLayout, DuplicateIdsPickTheKeyThatSortsFirst) {
    const json document = {
        {"default", "zeta"}, {"room_list", {{"zeta", closed_layout(5)}, {"alpha", closed_layout(5)}}}};
    const room_layout_set set(document);
    ASSERT_NE(set.find(5), nullptr);
    EXPECT_EQ(set.find(5)->key, "alpha");
    EXPECT_EQ(set.default_layout()->key, "zeta");
}

// ---- Layout parsing: presence checks -------------------------------------------

TEST(Part2_2_RoomLayout, EmptyLayoutLogsEveryPresenceCheckInOrderThenThrows) {
    log_capture capture;
    EXPECT_THROW(parse_room_layout("room", json::object()), json::out_of_range);
    const std::vector<std::string> expected = {missing_id,   missing_desc,   missing_stacking,
                                               missing_open, missing_center, missing_seats};
    EXPECT_EQ(errors(capture), expected);
    for (const auto& line : capture.lines()) {
        EXPECT_EQ(line.level, QEL_LOG_ERROR);
    }
}

TEST(Part2_2_RoomLayout, EachMissingMemberLogsItsLineThenReadingItThrows) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"id", missing_id},          {"desc", missing_desc},
        {"allowParticipantStacking", missing_stacking},
        {"openRoom", missing_open},  {"centerPoint", missing_center},
        {"seats", missing_seats},    {"stackDelta", missing_stack_delta},
    };
    for (const auto& [member, line] : cases) {
        log_capture capture;
        json layout = closed_layout();
        layout.erase(member);
        EXPECT_THROW(parse_room_layout("room", layout), json::out_of_range) << member;
        EXPECT_EQ(errors(capture), std::vector<std::string>{line}) << member;
    }
}

TEST(Part2_2_RoomLayout, CenterPointWithoutAllCoordinatesLogsAndThrows) {
    for (const char* coordinate : {"x", "y", "z"}) {
        log_capture capture;
        json layout = closed_layout();
        layout["centerPoint"].erase(coordinate);
        EXPECT_THROW(parse_room_layout("room", layout), json::out_of_range) << coordinate;
        EXPECT_EQ(errors(capture), std::vector<std::string>{missing_center_xyz});
    }
}

TEST(Part2_2_RoomLayout, CenterPointThatIsNotAnObjectLogsTheCoordinateLine) {
    log_capture capture;
    json layout = closed_layout();
    layout["centerPoint"] = 3;
    EXPECT_THROW(parse_room_layout("room", layout), json::type_error);
    EXPECT_EQ(errors(capture), std::vector<std::string>{missing_center_xyz});
}

TEST(Part2_2_RoomLayout, SeatWithoutAllCoordinatesLogsAndThrows) {
    for (const char* coordinate : {"x", "y", "z"}) {
        log_capture capture;
        json layout = closed_layout();
        layout["seats"][2].erase(coordinate);
        EXPECT_THROW(parse_room_layout("room", layout), json::out_of_range) << coordinate;
        EXPECT_EQ(errors(capture), std::vector<std::string>{seat_without_xyz});
    }
    log_capture capture;
    json layout = closed_layout();
    layout["seats"][0] = 1;
    EXPECT_THROW(parse_room_layout("room", layout), json::type_error);
    EXPECT_EQ(errors(capture), std::vector<std::string>{seat_without_xyz});
}

TEST(Part2_2_RoomLayout, StackingTrueNeedsNoStackDeltaAndDoesNotReadIt) {
    log_capture capture;
    json layout = closed_layout();
    layout["allowParticipantStacking"] = true;
    layout.erase("stackDelta");
    auto parsed = parse_room_layout("room", layout);
    EXPECT_EQ(parsed->stack_delta, 0);
    EXPECT_TRUE(capture.messages().empty());

    layout["stackDelta"] = "not read";
    parsed = parse_room_layout("room", layout);
    EXPECT_EQ(parsed->stack_delta, 0);
}

TEST(Part2_2_RoomLayout, StackingFalseWithoutStackDeltaLogsTheMissingLine) {
    log_capture capture;
    json layout = closed_layout();
    layout.erase("stackDelta");
    EXPECT_THROW(parse_room_layout("room", layout), json::out_of_range);
    EXPECT_EQ(errors(capture), std::vector<std::string>{missing_stack_delta});
}

// ---- Layout parsing: default states ---------------------------------------------

TEST(Part2_2_RoomLayout, LowerCaseDefaultStateKeyIsAccepted) {
    log_capture capture;
    json layout = closed_layout();
    layout["defaultStates"] = {{"qel_control_mute_enable", 1}, {"Qel_Control_Anc_Mix", 40}};
    const auto parsed = parse_room_layout("room", layout);
    EXPECT_EQ(parsed->default_states, (std::map<int32_t, int32_t>{{2, 1}, {5, 40}}));
    EXPECT_TRUE(capture.messages().empty());
}

TEST(Part2_2_RoomLayout, UnknownDefaultStateLogsTwoLinesAndIsSkipped) {
    log_capture capture;
    json layout = closed_layout();
    layout["defaultStates"] = {{"NOT_A_CONTROL", 1}, {"QEL_CONTROL_MUTE_ENABLE", 1}};
    const auto parsed = parse_room_layout("room", layout);
    EXPECT_EQ(parsed->default_states, (std::map<int32_t, int32_t>{{2, 1}}));
    const auto lines = capture.lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].level, QEL_LOG_WARNING);
    EXPECT_EQ(lines[0].message, "NOT_A_CONTROL is not a valid control.");
    EXPECT_EQ(lines[1].level, QEL_LOG_ERROR);
    EXPECT_EQ(lines[1].message,
              "A Room in the Room Configuration file has an invalid default state of NOT_A_CONTROL");
}

TEST(Part2_2_RoomLayout, BooleanAndFractionalDefaultStateValues) {
    json layout = closed_layout();
    layout["defaultStates"] = {{"QEL_CONTROL_MUTE_ENABLE", true},
                               {"QEL_CONTROL_ANC_HIGH", false},
                               {"QEL_CONTROL_ANC_MIX", 2.9},
                               {"QEL_CONTROL_MIXING_3D_ATTENUATION", -2.9}};
    const auto parsed = parse_room_layout("room", layout);
    EXPECT_EQ(parsed->default_states, (std::map<int32_t, int32_t>{{2, 1}, {4, 0}, {5, 2}, {9, -2}}));
}

TEST(Part2_2_RoomLayout, DefaultStatesSkipThePart1_4RangeCheck) {
    json layout = closed_layout();
    layout["defaultStates"] = {{"QEL_CONTROL_MASTER_GAIN", 1000}, {"QEL_CONTROL_DEVICE", -1}};
    const auto parsed = parse_room_layout("room", layout);
    EXPECT_EQ(parsed->default_states.at(14), 1000);
    EXPECT_EQ(parsed->default_states.at(12), -1);
}

TEST(Part2_2_RoomLayout, DefaultStateValueOfWrongTypeIsATypeError) {
    for (const json& value : {json("1"), json(), json::array(), json::object()}) {
        json layout = closed_layout();
        layout["defaultStates"] = {{"QEL_CONTROL_MUTE_ENABLE", value}};
        try {
            parse_room_layout("room", layout);
            ADD_FAILURE() << value.dump();
        } catch (const json::type_error& error) {
            EXPECT_EQ(error.id, 302);
            EXPECT_NE(std::string(error.what())
                          .find(std::string("type must be number, but is ") + value.type_name()),
                      std::string::npos);
        }
    }
}

TEST(Part2_2_RoomLayout, DefaultStatesAreReadBeforeTheOtherMembers) {
    log_capture capture;
    json layout = closed_layout();
    layout.erase("id");
    layout["defaultStates"] = {{"bogus", 1}};
    EXPECT_THROW(parse_room_layout("room", layout), json::out_of_range);
    EXPECT_EQ(capture.messages(),
              (std::vector<std::string>{
                  missing_id, "bogus is not a valid control.",
                  "A Room in the Room Configuration file has an invalid default state of bogus"}));
}

// ---- Layout parsing: numbers ---------------------------------------------------

TEST(Part2_2_RoomLayout, FractionalCoordinatesAreTruncatedTowardZero) {
    json layout = closed_layout();
    layout["centerPoint"] = {{"x", 1.9}, {"y", -1.9}, {"z", 0.5}};
    layout["seats"] = json::array({{{"x", 99.99}, {"y", -0.999}, {"z", -7.5}}});
    const auto parsed = parse_room_layout("room", layout);
    EXPECT_EQ(parsed->center_point.x, 1);
    EXPECT_EQ(parsed->center_point.y, -1);
    EXPECT_EQ(parsed->center_point.z, 0);
    ASSERT_EQ(parsed->seats.size(), 1u);
    EXPECT_EQ(parsed->seats[0].x, 99);
    EXPECT_EQ(parsed->seats[0].y, 0);
    EXPECT_EQ(parsed->seats[0].z, -7);
}

TEST(Part2_2_RoomLayout, HugeNumbersSaturate) {
    const json document = parse_json_text(R"({"default":"r","room_list":{"r":{
        "id":1e300,"desc":"","allowParticipantStacking":false,"stackDelta":-1e300,
        "openRoom":true,"centerPoint":{"x":3000000000,"y":-3000000000,"z":18446744073709551615},
        "seats":[{"x":2147483647,"y":-2147483648,"z":2147483648.5}],
        "defaultStates":{"QEL_CONTROL_MASTER_GAIN":-9223372036854775808}}}})");
    const room_layout_set set(document);
    const quelora_room_layout& layout = *set.layouts().at(0);
    EXPECT_EQ(layout.id, int32_max);
    EXPECT_EQ(layout.stack_delta, int32_min);
    EXPECT_EQ(layout.center_point.x, int32_max);
    EXPECT_EQ(layout.center_point.y, int32_min);
    EXPECT_EQ(layout.center_point.z, int32_max);
    EXPECT_EQ(layout.seats.at(0).x, int32_max);
    EXPECT_EQ(layout.seats.at(0).y, int32_min);
    EXPECT_EQ(layout.seats.at(0).z, int32_max);
    EXPECT_EQ(layout.default_states.at(14), int32_min);
    EXPECT_EQ(set.find(int32_max), &layout);
}

TEST(Part2_2_RoomLayout, NaNBuiltInCodeReadsAsZero) {
    json layout = closed_layout();
    layout["id"] = std::numeric_limits<double>::quiet_NaN();
    EXPECT_EQ(parse_room_layout("room", layout)->id, 0);
}

// ---- Hostile input ---------------------------------------------------------------

TEST(Part2_2_RoomLayout, WrongTypesEverywhereRaiseJsonExceptions) {
    const std::vector<json> wrong = {json("1"), json(), json(true), json::array(),
                                     json::object(), json(1.5)};
    const std::vector<json::json_pointer> members = {
        json::json_pointer("/id"),
        json::json_pointer("/desc"),
        json::json_pointer("/allowParticipantStacking"),
        json::json_pointer("/stackDelta"),
        json::json_pointer("/openRoom"),
        json::json_pointer("/centerPoint"),
        json::json_pointer("/centerPoint/x"),
        json::json_pointer("/centerPoint/z"),
        json::json_pointer("/seats"),
        json::json_pointer("/seats/0"),
        json::json_pointer("/seats/3/y"),
        json::json_pointer("/defaultStates"),
        json::json_pointer("/defaultStates/QEL_CONTROL_MASTER_GAIN"),
    };
    for (const auto& pointer : members) {
        for (const json& value : wrong) {
            json layout = closed_layout();
            const json& original = layout[pointer];
            const std::string where = pointer.to_string();
            // A value of the right kind is no fault: the same JSON kind as the
            // original, a boolean default state, an empty seats array or an
            // empty default-state object.
            const bool same_kind = original.is_number() ? value.is_number()
                                                        : original.type() == value.type() &&
                                                              !original.is_object();
            if (same_kind || (where == "/defaultStates/QEL_CONTROL_MASTER_GAIN" && value.is_boolean()) ||
                (where == "/seats" && value.is_array()) ||
                (where == "/defaultStates" && value.is_object())) {
                continue;
            }
            layout[pointer] = value;
            EXPECT_THROW(room_layout_set set(document_with(layout)), json::exception)
                << pointer.to_string() << " = " << value.dump();
        }
    }
    for (const json& value : wrong) {
        EXPECT_THROW(room_layout_set set(document_with(value)), json::exception) << value.dump();
    }
}

TEST(Part2_2_RoomLayout, SeatsThatAreNotAnArrayRaiseTypeError) {
    for (const json& value : {json::object(), json(4), json("seats"), json()}) {
        json layout = closed_layout();
        layout["seats"] = value;
        try {
            parse_room_layout("room", layout);
            ADD_FAILURE() << value.dump();
        } catch (const json::type_error& error) {
            EXPECT_EQ(error.id, 302);
            EXPECT_NE(std::string(error.what())
                          .find(std::string("type must be array, but is ") + value.type_name()),
                      std::string::npos);
        }
    }
}

TEST(Part2_2_RoomLayout, EmptySeatsArrayIsAccepted) {
    json layout = closed_layout();
    layout["seats"] = json::array();
    EXPECT_TRUE(parse_room_layout("room", layout)->seats.empty());
}

TEST(Part2_2_RoomLayout, LargeSeatsArrayParses) {
    std::string text = R"({"default":"big","room_list":{"big":{"id":9,"desc":"big",)"
                       R"("allowParticipantStacking":true,"openRoom":false,)"
                       R"("centerPoint":{"x":0,"y":0,"z":0},"seats":[)";
    constexpr int seat_count = 100000;
    for (int i = 0; i < seat_count; ++i) {
        text += (i == 0 ? "" : ",");
        text += R"({"x":)" + std::to_string(i) + R"(,"y":)" + std::to_string(-i) + R"(,"z":1})";
    }
    text += "]}}}";
    const room_layout_set set(parse_json_text(text));
    const quelora_room_layout& layout = *set.default_layout();
    ASSERT_EQ(layout.seats.size(), static_cast<size_t>(seat_count));
    EXPECT_EQ(layout.seats.back().x, seat_count - 1);
    EXPECT_EQ(layout.seats.back().y, -(seat_count - 1));
}

// ---- parse_json_text -------------------------------------------------------------

TEST(Part2_2_RoomLayout, ParseJsonTextReadsDocumentsAndRejectsInvalidText) {
    EXPECT_EQ(parse_json_text(fallback_text), fallback_room_document());
    EXPECT_THROW(parse_json_text(""), json::parse_error);
    EXPECT_THROW(parse_json_text("{\"default\":"), json::parse_error);
    EXPECT_THROW(parse_json_text("{} trailing"), json::parse_error);
    EXPECT_THROW(parse_json_text("[1e999]"), json::exception);
}

TEST(Part2_2_RoomLayout, DeepNestingIsRejected) {
    constexpr int depth = 100000;
    EXPECT_THROW(parse_json_text(std::string(depth, '[') + std::string(depth, ']')),
                 json::exception);
    std::string objects;
    for (int i = 0; i < depth; ++i) objects += "{\"a\":";
    objects += "1" + std::string(depth, '}');
    EXPECT_THROW(parse_json_text(objects), json::exception);
    // Unterminated: the limit fires before the text runs out.
    EXPECT_THROW(parse_json_text(std::string(depth, '[')), json::exception);
}

TEST(Part2_2_RoomLayout, NestingLimitBoundary) {
    const auto nested = [](int levels) {
        return std::string(static_cast<size_t>(levels), '[') +
               std::string(static_cast<size_t>(levels), ']');
    };
    EXPECT_NO_THROW(parse_json_text(nested(max_json_depth)));
    EXPECT_THROW(parse_json_text(nested(max_json_depth + 1)), json::parse_error);
}

} // namespace
} // namespace quelora
