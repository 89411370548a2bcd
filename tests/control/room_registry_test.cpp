// Room registry (spec Part 3.1), driven through the C interface: room
// creation and destruction, the room count, layout switches and the current
// layout, with exact return codes and exact log lines.
#include "support/library_fixture.h"
#include "support/log_capture.h"

#include <quelora/quelora.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include "support/log_expect.h"
#include <string>
#include <utility>
#include <vector>

namespace {

using quelora::testing::four_seat_layouts_json;
using quelora::testing::library_handle;
using quelora::testing::log_capture;
using quelora::testing::log_line;
using quelora::testing::participant_count;
using quelora::testing::regular;
using quelora::testing::room_count;
using quelora::testing::seat_of;
using quelora::testing::state_of;

// Room ids travel as uint32_t; negative ids are their two's complement casts.
constexpr uint32_t id_of(int32_t id) { return static_cast<uint32_t>(id); }

using quelora::testing::describe;
using quelora::testing::dfn_created;
using quelora::testing::dfn_destroyed;
using quelora::testing::expect_call;
using quelora::testing::info;
using quelora::testing::warning;
using quelora::testing::error;

int layout_of(qel_handle handle, uint32_t room) {
    int layout = -12345;
    EXPECT_EQ(qel_get_room_layout(handle, room, &layout), QEL_ERROR_NONE);
    return layout;
}

int32_t distance_between(qel_handle handle, uint32_t room, uint32_t listener, uint32_t source) {
    int32_t azimuth = 0, elevation = 0, distance = -1;
    EXPECT_EQ(qel_get_participant_spherical(handle, room, listener, source, &azimuth, &elevation,
                                            &distance),
              QEL_ERROR_NONE);
    return distance;
}

// Checks the seat index and the seat's coordinates of a participant's place.
void expect_seated(qel_handle handle, uint32_t room, uint32_t participant, int32_t index, int32_t x,
                   int32_t y, int32_t z,
                   quelora::testing::call_site where = quelora::testing::call_site::current()) {
    ::testing::ScopedTrace trace(where.file_name(), static_cast<int>(where.line()),
                                 "participant " + std::to_string(participant));
    const qel_seat seat = seat_of(handle, room, participant);
    EXPECT_EQ(seat.seat_index, index);
    EXPECT_EQ(seat.x, x);
    EXPECT_EQ(seat.y, y);
    EXPECT_EQ(seat.z, z);
}

void add(qel_handle handle, uint32_t room, uint32_t participant,
         qel_participant_configuration configuration = regular()) {
    ASSERT_EQ(qel_add_participant(handle, room, participant, "someone", configuration),
              QEL_ERROR_NONE);
}

// Records every callback of a table as text, to show which slots ran.
std::vector<std::string>& calls() {
    static std::vector<std::string> recorded;
    return recorded;
}

void record(const std::string& call) { calls().push_back(call); }

qel_event_manager_t recording_table() {
    qel_event_manager_t table{};
    table.create_room = [](int32_t room) { record("create_room " + std::to_string(room)); };
    table.destroy_room = [](int32_t room) { record("destroy_room " + std::to_string(room)); };
    table.add_participant = [](int32_t room, int32_t participant, const char*,
                               const qel_participant_configuration*) {
        record("add_participant " + std::to_string(room) + " " + std::to_string(participant));
    };
    table.remove_participant = [](int32_t room, int32_t participant) {
        record("remove_participant " + std::to_string(room) + " " + std::to_string(participant));
    };
    table.move_participant = [](int32_t room, int32_t participant, const qel_seat*) {
        record("move_participant " + std::to_string(room) + " " + std::to_string(participant));
    };
    table.set_participant_position = [](int32_t room, int32_t participant, const qel_position*,
                                        qel_heading) {
        record("set_participant_position " + std::to_string(room) + " " +
               std::to_string(participant));
    };
    table.set_participant_state = [](int32_t room, int32_t participant, qel_audio_control,
                                     int32_t) {
        record("set_participant_state " + std::to_string(room) + " " + std::to_string(participant));
    };
    table.set_all_participants_state = [](int32_t room, qel_audio_control, int32_t) {
        record("set_all_participants_state " + std::to_string(room));
    };
    table.set_room_layout = [](int32_t room, int32_t layout) {
        record("set_room_layout " + std::to_string(room) + " " + std::to_string(layout));
    };
    table.set_name = [](int32_t room, int32_t participant, const char*) {
        record("set_name " + std::to_string(room) + " " + std::to_string(participant));
    };
    return table;
}

// Clears the recorded calls for one test, before and after.
struct recording_scope {
    recording_scope() { calls().clear(); }
    ~recording_scope() { calls().clear(); }
    recording_scope(const recording_scope&) = delete;
    recording_scope& operator=(const recording_scope&) = delete;
};

// An open default layout (30) and three closed ones: 10 (four seats at
// radius 100, no stacking, stackDelta 50, two default states), 20 (four seats
// at radius 200, stacking, one default state) and 40 (one seat, a default
// state that a 16 kHz participant refuses).
std::string switching_layouts_json() {
    return R"({
  "default": "open",
  "room_list": {
    "open": {
      "id": 30, "desc": "open room", "allowParticipantStacking": true, "openRoom": true,
      "centerPoint": {"x": 0, "y": 0, "z": 0}, "seats": [{"x": 0, "y": 0, "z": 0}]
    },
    "ring100": {
      "id": 10, "desc": "four seats at 100", "allowParticipantStacking": false, "stackDelta": 50,
      "openRoom": false, "centerPoint": {"x": 0, "y": 0, "z": 0},
      "seats": [{"x": 0, "y": 0, "z": 100}, {"x": 100, "y": 0, "z": 0},
                {"x": 0, "y": 0, "z": -100}, {"x": -100, "y": 0, "z": 0}],
      "defaultStates": {"QEL_CONTROL_MUTE_ENABLE": 1, "QEL_CONTROL_MIXING_3D_ATTENUATION": 12}
    },
    "ring200": {
      "id": 20, "desc": "four seats at 200", "allowParticipantStacking": true,
      "openRoom": false, "centerPoint": {"x": 0, "y": 0, "z": 0},
      "seats": [{"x": 0, "y": 0, "z": 200}, {"x": 200, "y": 0, "z": 0},
                {"x": 0, "y": 0, "z": -200}, {"x": -200, "y": 0, "z": 0}],
      "defaultStates": {"QEL_CONTROL_MASTER_GAIN": 50}
    },
    "autoeq": {
      "id": 40, "desc": "auto EQ by default", "allowParticipantStacking": true,
      "openRoom": false, "centerPoint": {"x": 0, "y": 0, "z": 0},
      "seats": [{"x": 0, "y": 0, "z": 100}],
      "defaultStates": {"QEL_CONTROL_AUTO_EQ_ENABLE": 1}
    }
  }
})";
}

// ---- Room count -----------------------------------------------------------

TEST(Part3_1_RoomRegistry, RoomCountIsZeroAfterInitialisation) {
    library_handle library;
    ASSERT_NE(library.get(), nullptr);
    EXPECT_EQ(room_count(library), 0);
}

TEST(Part3_1_RoomRegistry, RoomCountCountsCreatedMinusDestroyedRooms) {
    log_capture log;
    library_handle library;
    for (uint32_t room : {1u, 2u, 3u}) ASSERT_EQ(qel_create_room(library, room), QEL_ERROR_NONE);
    EXPECT_EQ(room_count(library), 3);
    ASSERT_EQ(qel_destroy_room(library, 2), QEL_ERROR_NONE);
    EXPECT_EQ(room_count(library), 2);
    // Failed calls change nothing.
    EXPECT_EQ(qel_create_room(library, 1), QEL_ERROR_INVALID_ROOM_ID);
    EXPECT_EQ(qel_destroy_room(library, 2), QEL_ERROR_INVALID_ROOM_ID);
    EXPECT_EQ(room_count(library), 2);
    ASSERT_EQ(qel_create_room(library, 2), QEL_ERROR_NONE);
    EXPECT_EQ(room_count(library), 3);
    for (uint32_t room : {1u, 2u, 3u}) ASSERT_EQ(qel_destroy_room(library, room), QEL_ERROR_NONE);
    EXPECT_EQ(room_count(library), 0);
}

TEST(Part3_1_RoomRegistry, RoomCountWithNullPointerFails) {
    log_capture log;
    library_handle library;
    expect_call(log, QEL_ERROR_DATA_NULL,
                {error("Your room_count pointer is null. Please initialize room_count before "
                       "passing to qel_get_room_count.")},
                [&] { return qel_get_room_count(library, nullptr); });
}

TEST(Part3_1_RoomRegistry, RoomCountLogsNothingOnSuccess) {
    log_capture log;
    library_handle library;
    int count = -1;
    expect_call(log, QEL_ERROR_NONE, {}, [&] { return qel_get_room_count(library, &count); });
    EXPECT_EQ(count, 0);
}

// ---- Create ------------------------------------------------------------------

TEST(Part3_1_RoomRegistry, CreateRoomLogsCreationLineAndStartsEmptyWithDefaultLayout) {
    log_capture log;
    auto library = library_handle::from_layout_text(four_seat_layouts_json());
    ASSERT_NE(library.get(), nullptr);
    expect_call(log, QEL_ERROR_NONE, {info("A new room with id 5 was created")},
                [&] { return qel_create_room(library, 5); });
    EXPECT_EQ(participant_count(library, 5), 0);
    EXPECT_EQ(layout_of(library, 5), 10); // "default": "closed"
}

TEST(Part3_1_RoomRegistry, FallbackLibraryRoomsStartWithFallbackLayoutOne) {
    library_handle library;
    ASSERT_EQ(qel_create_room(library, 5), QEL_ERROR_NONE);
    EXPECT_EQ(layout_of(library, 5), 1);
}

TEST(Part3_1_RoomRegistry, CreatingRoomTwiceFailsAndLeavesFirstRoomUntouched) {
    log_capture log;
    auto library = library_handle::from_layout_text(four_seat_layouts_json());
    ASSERT_EQ(qel_create_room(library, 5), QEL_ERROR_NONE);
    add(library, 5, 1);
    ASSERT_EQ(qel_set_room_layout(library, 5, 20), QEL_ERROR_NONE);
    const qel_seat before = seat_of(library, 5, 1);

    expect_call(log, QEL_ERROR_INVALID_ROOM_ID, {warning("Room 5 already exists")},
                [&] { return qel_create_room(library, 5); });

    EXPECT_EQ(room_count(library), 1);
    EXPECT_EQ(participant_count(library, 5), 1);
    EXPECT_EQ(layout_of(library, 5), 20);
    expect_seated(library, 5, 1, before.seat_index, before.x, before.y, before.z);
}

TEST(Part3_1_RoomRegistry, FailedCreateCallsNoCallback) {
    log_capture log;
    recording_scope scope;
    library_handle library;
    qel_event_manager_t table = recording_table();
    ASSERT_EQ(qel_add_event_manager(library, &table), QEL_ERROR_NONE);
    ASSERT_EQ(qel_create_room(library, 5), QEL_ERROR_NONE);
    EXPECT_EQ(calls(), std::vector<std::string>{"create_room 5"});
    calls().clear();
    EXPECT_EQ(qel_create_room(library, 5), QEL_ERROR_INVALID_ROOM_ID);
    EXPECT_TRUE(calls().empty());
}

// ---- Destroy -----------------------------------------------------------------

TEST(Part3_1_RoomRegistry, DestroyRoomLogsDestructionLine) {
    log_capture log;
    library_handle library;
    ASSERT_EQ(qel_create_room(library, 5), QEL_ERROR_NONE);
    expect_call(log, QEL_ERROR_NONE, {info("Room 5 was destroyed")},
                [&] { return qel_destroy_room(library, 5); });
    EXPECT_EQ(room_count(library), 0);
}

TEST(Part3_1_RoomRegistry, DestroyingMissingRoomFails) {
    log_capture log;
    library_handle library;
    expect_call(log, QEL_ERROR_INVALID_ROOM_ID, {warning("Room 7 does not exist.")},
                [&] { return qel_destroy_room(library, 7); });
}

TEST(Part3_1_RoomRegistry, DestroyingRoomWithParticipantsFreesThemAndCallsOnlyRoomDestroyed) {
    log_capture log;
    recording_scope scope;
    auto library = library_handle::from_layout_text(four_seat_layouts_json());
    ASSERT_EQ(qel_create_room(library, 5), QEL_ERROR_NONE);
    for (uint32_t participant : {1u, 2u, 3u}) add(library, 5, participant);
    qel_event_manager_t table = recording_table();
    ASSERT_EQ(qel_add_event_manager(library, &table), QEL_ERROR_NONE);

    // No participant removal line during the teardown, only each freed
    // participant's noise canceller (Part 5.2), then the room's line.
    expect_call(log, QEL_ERROR_NONE,
                {dfn_destroyed(), dfn_destroyed(), dfn_destroyed(), info("Room 5 was destroyed")},
                [&] { return qel_destroy_room(library, 5); });
    EXPECT_EQ(calls(), std::vector<std::string>{"destroy_room 5"});

    EXPECT_EQ(room_count(library), 0);
    int count = -1;
    EXPECT_EQ(qel_get_participant_count(library, 5, &count), QEL_ERROR_INVALID_ROOM_ID);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(qel_remove_participant(library, 5, 1), QEL_ERROR_INVALID_ROOM_ID);
}

TEST(Part3_1_RoomRegistry, RoomIdIsReusableAfterDestroy) {
    log_capture log;
    auto library = library_handle::from_layout_text(four_seat_layouts_json());
    ASSERT_EQ(qel_create_room(library, 5), QEL_ERROR_NONE);
    add(library, 5, 1);
    add(library, 5, 2);
    ASSERT_EQ(qel_set_room_layout(library, 5, 20), QEL_ERROR_NONE);
    ASSERT_EQ(qel_destroy_room(library, 5), QEL_ERROR_NONE);

    expect_call(log, QEL_ERROR_NONE, {info("A new room with id 5 was created")},
                [&] { return qel_create_room(library, 5); });
    EXPECT_EQ(participant_count(library, 5), 0);
    EXPECT_EQ(layout_of(library, 5), 10); // the default again, not the old room's 20
    expect_call(log, QEL_ERROR_NONE,
                {dfn_created(), info("A new participant with id 2 has been added to room 5")},
                [&] { return qel_add_participant(library, 5, 2, "again", regular()); });
    expect_seated(library, 5, 2, 1, 0, 0, 100); // the first free seat of the new room
}

// ---- Missing rooms -------------------------------------------------------------

TEST(Part3_1_RoomRegistry, EveryCallNamingMissingRoomFailsWithRoomDoesNotExist) {
    log_capture log;
    library_handle library;
    ASSERT_EQ(qel_create_room(library, 5), QEL_ERROR_NONE);
    add(library, 5, 1);
    add(library, 5, 2);

    const std::vector<log_line> missing = {warning("Room 7 does not exist.")};
    int value = 0;
    char name[32] = {};
    qel_participant_configuration configuration{};
    qel_position position{};
    qel_heading heading{};
    qel_seat seat{};
    int32_t azimuth = 0, elevation = 0, distance = 0;
    const std::vector<std::pair<const char*, std::function<int()>>> room_calls = {
        {"destroy_room", [&] { return qel_destroy_room(library, 7); }},
        {"set_room_layout", [&] { return qel_set_room_layout(library, 7, 1); }},
        {"get_room_layout", [&] { return qel_get_room_layout(library, 7, &value); }},
        {"add_participant", [&] { return qel_add_participant(library, 7, 1, "x", regular()); }},
        {"remove_participant", [&] { return qel_remove_participant(library, 7, 1); }},
        {"get_participant_count", [&] { return qel_get_participant_count(library, 7, &value); }},
        {"get_participant_configuration",
         [&] { return qel_get_participant_configuration(library, 7, 1, &configuration); }},
        {"set_participant_name", [&] { return qel_set_participant_name(library, 7, 1, "x"); }},
        {"get_participant_name", [&] { return qel_get_participant_name(library, 7, 1, name, 32); }},
        {"set_participant_position",
         [&] { return qel_set_participant_position(library, 7, 1, position, heading); }},
        {"get_participant_position",
         [&] { return qel_get_participant_position(library, 7, 1, &position, &heading); }},
        {"set_participant_seat", [&] { return qel_set_participant_seat(library, 7, 1, 1); }},
        {"get_participant_seat", [&] { return qel_get_participant_seat(library, 7, 1, &seat); }},
        {"get_participant_spherical",
         [&] {
             return qel_get_participant_spherical(library, 7, 1, 2, &azimuth, &elevation,
                                                  &distance);
         }},
        {"set_participant_state",
         [&] { return qel_set_participant_state(library, 7, 1, QEL_CONTROL_MUTE_ENABLE, 1); }},
        {"get_participant_state",
         [&] { return qel_get_participant_state(library, 7, 1, QEL_CONTROL_MUTE_ENABLE, &value); }},
        {"set_all_participants_state",
         [&] { return qel_set_all_participants_state(library, 7, QEL_CONTROL_MUTE_ENABLE, 1); }},
        {"flush_data", [&] { return qel_flush_data(library, 7, 1); }},
    };
    for (const auto& [function, call] : room_calls) {
        SCOPED_TRACE(function);
        expect_call(log, QEL_ERROR_INVALID_ROOM_ID, missing, call);
    }
    EXPECT_EQ(room_count(library), 1);
    EXPECT_EQ(participant_count(library, 5), 2);
}

// ---- Negative ids ----------------------------------------------------------------

TEST(Part3_1_RoomRegistry, NegativeRoomIdsAreOrdinaryKeys) {
    log_capture log;
    auto library = library_handle::from_layout_text(four_seat_layouts_json());
    expect_call(log, QEL_ERROR_NONE, {info("A new room with id -5 was created")},
                [&] { return qel_create_room(library, id_of(-5)); });
    expect_call(log, QEL_ERROR_INVALID_ROOM_ID, {warning("Room -5 already exists")},
                [&] { return qel_create_room(library, id_of(-5)); });
    // -5 and 5 are different rooms.
    ASSERT_EQ(qel_create_room(library, 5), QEL_ERROR_NONE);
    EXPECT_EQ(room_count(library), 2);

    expect_call(log, QEL_ERROR_NONE,
                {dfn_created(), info("A new participant with id 1 has been added to room -5")},
                [&] { return qel_add_participant(library, id_of(-5), 1, "neg", regular()); });
    EXPECT_EQ(participant_count(library, id_of(-5)), 1);
    EXPECT_EQ(participant_count(library, 5), 0);
    expect_call(log, QEL_ERROR_NONE, {info("Room -5 has changed to layout 20")},
                [&] { return qel_set_room_layout(library, id_of(-5), 20); });
    EXPECT_EQ(layout_of(library, id_of(-5)), 20);
    EXPECT_EQ(layout_of(library, 5), 10);

    expect_call(log, QEL_ERROR_INVALID_ROOM_ID, {warning("Room -7 does not exist.")},
                [&] { return qel_destroy_room(library, id_of(-7)); });
    expect_call(log, QEL_ERROR_NONE, {dfn_destroyed(), info("Room -5 was destroyed")},
                [&] { return qel_destroy_room(library, id_of(-5)); });
    EXPECT_EQ(room_count(library), 1);
    expect_call(log, QEL_ERROR_NONE, {info("A new room with id -5 was created")},
                [&] { return qel_create_room(library, id_of(-5)); });
    EXPECT_EQ(participant_count(library, id_of(-5)), 0);
}

TEST(Part3_1_RoomRegistry, ExtremeRoomIdsAreOrdinaryKeys) {
    log_capture log;
    library_handle library;
    expect_call(log, QEL_ERROR_NONE, {info("A new room with id -2147483648 was created")},
                [&] { return qel_create_room(library, 0x80000000u); });
    expect_call(log, QEL_ERROR_NONE, {info("A new room with id -1 was created")},
                [&] { return qel_create_room(library, 0xFFFFFFFFu); });
    expect_call(log, QEL_ERROR_NONE, {info("A new room with id 0 was created")},
                [&] { return qel_create_room(library, 0); });
    EXPECT_EQ(room_count(library), 3);
    expect_call(log, QEL_ERROR_NONE, {info("Room -1 was destroyed")},
                [&] { return qel_destroy_room(library, 0xFFFFFFFFu); });
    EXPECT_EQ(room_count(library), 2);
}

// ---- Set room layout -------------------------------------------------------------------

TEST(Part3_1_RoomRegistry, SetRoomLayoutSwitchesLogsAndCallsBack) {
    log_capture log;
    recording_scope scope;
    auto library = library_handle::from_layout_text(four_seat_layouts_json());
    ASSERT_EQ(qel_create_room(library, 5), QEL_ERROR_NONE);
    qel_event_manager_t table = recording_table();
    ASSERT_EQ(qel_add_event_manager(library, &table), QEL_ERROR_NONE);

    expect_call(log, QEL_ERROR_NONE, {info("Room 5 has changed to layout 20")},
                [&] { return qel_set_room_layout(library, 5, 20); });
    EXPECT_EQ(calls(), std::vector<std::string>{"set_room_layout 5 20"});
    EXPECT_EQ(layout_of(library, 5), 20);
}

TEST(Part3_1_RoomRegistry, SettingCurrentLayoutSucceedsChangesNothingButLogsAndCallsBack) {
    log_capture log;
    recording_scope scope;
    auto library = library_handle::from_layout_text(switching_layouts_json());
    ASSERT_EQ(qel_create_room(library, 5), QEL_ERROR_NONE);
    ASSERT_EQ(qel_set_room_layout(library, 5, 10), QEL_ERROR_NONE);
    add(library, 5, 1);
    add(library, 5, 2);
    ASSERT_EQ(qel_set_participant_seat(library, 5, 2, 4), QEL_ERROR_NONE);
    // Joining the closed room applied its default mute; undo it.
    ASSERT_EQ(state_of(library, 5, 1, QEL_CONTROL_MUTE_ENABLE), 1);
    ASSERT_EQ(qel_set_participant_state(library, 5, 1, QEL_CONTROL_MUTE_ENABLE, 0), QEL_ERROR_NONE);
    qel_event_manager_t table = recording_table();
    ASSERT_EQ(qel_add_event_manager(library, &table), QEL_ERROR_NONE);

    expect_call(log, QEL_ERROR_NONE, {info("Room 5 has changed to layout 10")},
                [&] { return qel_set_room_layout(library, 5, 10); });
    EXPECT_EQ(calls(), std::vector<std::string>{"set_room_layout 5 10"});
    EXPECT_EQ(layout_of(library, 5), 10);
    // Nothing changed: the default states were not applied again, seats kept.
    EXPECT_EQ(state_of(library, 5, 1, QEL_CONTROL_MUTE_ENABLE), 0);
    expect_seated(library, 5, 1, 1, 0, 0, 100);
    expect_seated(library, 5, 2, 4, -100, 0, 0);
}

TEST(Part3_1_RoomRegistry, SettingUnknownLayoutFailsAndLeavesLayoutAndSeats) {
    log_capture log;
    recording_scope scope;
    auto library = library_handle::from_layout_text(four_seat_layouts_json());
    ASSERT_EQ(qel_create_room(library, 5), QEL_ERROR_NONE);
    add(library, 5, 1);
    add(library, 5, 2);
    ASSERT_EQ(qel_set_participant_seat(library, 5, 2, 3), QEL_ERROR_NONE);
    qel_event_manager_t table = recording_table();
    ASSERT_EQ(qel_add_event_manager(library, &table), QEL_ERROR_NONE);

    expect_call(log, QEL_ERROR_INVALID_VALUE, {warning("Room layout id 99 does not exist.")},
                [&] { return qel_set_room_layout(library, 5, 99); });
    EXPECT_TRUE(calls().empty());
    EXPECT_EQ(layout_of(library, 5), 10);
    expect_seated(library, 5, 1, 1, 0, 0, 100);
    expect_seated(library, 5, 2, 3, 0, 0, -100);
}

TEST(Part3_1_RoomRegistry, NegativeUnknownLayoutIdIsNamedInMessage) {
    log_capture log;
    library_handle library;
    ASSERT_EQ(qel_create_room(library, 5), QEL_ERROR_NONE);
    expect_call(log, QEL_ERROR_INVALID_VALUE, {warning("Room layout id -3 does not exist.")},
                [&] { return qel_set_room_layout(library, 5, -3); });
    EXPECT_EQ(layout_of(library, 5), 1);
}

TEST(Part3_1_RoomRegistry, SetLayoutLooksUpRoomBeforeLayout) {
    log_capture log;
    library_handle library;
    expect_call(log, QEL_ERROR_INVALID_ROOM_ID, {warning("Room 7 does not exist.")},
                [&] { return qel_set_room_layout(library, 7, 99); });
}

TEST(Part3_1_RoomRegistry, LayoutSwitchGivesUnseatedParticipantsFirstFreeSeats) {
    log_capture log;
    auto library = library_handle::from_layout_text(switching_layouts_json());
    ASSERT_EQ(qel_create_room(library, 5), QEL_ERROR_NONE); // open layout 30
    for (uint32_t participant : {1u, 2u, 3u}) add(library, 5, participant);
    // In the open room: 1 and 3 keep seat -1 (3 by an explicit position), 2 takes seat 2.
    ASSERT_EQ(qel_set_participant_seat(library, 5, 2, 2), QEL_ERROR_NONE);
    ASSERT_EQ(qel_set_participant_position(library, 5, 3, qel_position{7, 8, 9}, qel_heading{0, 0}),
              QEL_ERROR_NONE);
    ASSERT_EQ(seat_of(library, 5, 1).seat_index, -1);
    ASSERT_EQ(seat_of(library, 5, 2).seat_index, 2);
    ASSERT_EQ(seat_of(library, 5, 3).seat_index, -1);

    expect_call(log, QEL_ERROR_NONE, {info("Room 5 has changed to layout 10")},
                [&] { return qel_set_room_layout(library, 5, 10); });
    expect_seated(library, 5, 1, 1, 0, 0, 100);  // first free seat
    expect_seated(library, 5, 2, 2, 100, 0, 0);  // seat 2 of the new layout
    expect_seated(library, 5, 3, 3, 0, 0, -100); // first free seat after 1 and 2
}

TEST(Part3_1_RoomRegistry, LayoutSwitchSeatsParticipantsAtTheSameIndexInTheNewLayout) {
    log_capture log;
    auto library = library_handle::from_layout_text(switching_layouts_json());
    ASSERT_EQ(qel_create_room(library, 5), QEL_ERROR_NONE);
    ASSERT_EQ(qel_set_room_layout(library, 5, 10), QEL_ERROR_NONE);
    for (uint32_t participant : {1u, 2u, 3u}) add(library, 5, participant);
    ASSERT_EQ(qel_set_participant_seat(library, 5, 3, 4), QEL_ERROR_NONE);
    expect_seated(library, 5, 1, 1, 0, 0, 100);
    expect_seated(library, 5, 2, 2, 100, 0, 0);
    expect_seated(library, 5, 3, 4, -100, 0, 0);

    expect_call(log, QEL_ERROR_NONE, {info("Room 5 has changed to layout 20")},
                [&] { return qel_set_room_layout(library, 5, 20); });
    expect_seated(library, 5, 1, 1, 0, 0, 200);
    expect_seated(library, 5, 2, 2, 200, 0, 0);
    expect_seated(library, 5, 3, 4, -200, 0, 0);
}

TEST(Part3_1_RoomRegistry, LayoutSwitchPlacesStackedSeatIndexByTheNewLayoutsStackingRule) {
    log_capture log;
    auto library = library_handle::from_layout_text(switching_layouts_json());
    ASSERT_EQ(qel_create_room(library, 5), QEL_ERROR_NONE);
    ASSERT_EQ(qel_set_room_layout(library, 5, 10), QEL_ERROR_NONE);
    add(library, 5, 1);
    add(library, 5, 2);
    // Seat 1 is held: participant 2 lands on index 5, raised by stackDelta 50.
    ASSERT_EQ(qel_set_participant_seat(library, 5, 2, 1), QEL_ERROR_NONE);
    expect_seated(library, 5, 2, 5, 0, 0, 150);

    ASSERT_EQ(qel_set_room_layout(library, 5, 20), QEL_ERROR_NONE);
    // Layout 20 allows stacking: index 5 is seat 1's exact place.
    expect_seated(library, 5, 2, 5, 0, 0, 200);
    expect_seated(library, 5, 1, 1, 0, 0, 200);
}

TEST(Part3_1_RoomRegistry, LayoutSwitchAppliesTheNewLayoutsDefaultStates) {
    log_capture log;
    auto library = library_handle::from_layout_text(switching_layouts_json());
    ASSERT_EQ(qel_create_room(library, 5), QEL_ERROR_NONE); // open: no default states
    add(library, 5, 1);
    add(library, 5, 2);
    for (uint32_t participant : {1u, 2u}) {
        EXPECT_EQ(state_of(library, 5, participant, QEL_CONTROL_MUTE_ENABLE), 0);
        EXPECT_EQ(state_of(library, 5, participant, QEL_CONTROL_MIXING_3D_ATTENUATION), 6);
    }

    expect_call(log, QEL_ERROR_NONE, {info("Room 5 has changed to layout 10")},
                [&] { return qel_set_room_layout(library, 5, 10); });
    for (uint32_t participant : {1u, 2u}) {
        SCOPED_TRACE(participant);
        EXPECT_EQ(state_of(library, 5, participant, QEL_CONTROL_MUTE_ENABLE), 1);
        EXPECT_EQ(state_of(library, 5, participant, QEL_CONTROL_MIXING_3D_ATTENUATION), 12);
        EXPECT_EQ(state_of(library, 5, participant, QEL_CONTROL_MASTER_GAIN), 100);
    }

    expect_call(log, QEL_ERROR_NONE, {info("Room 5 has changed to layout 20")},
                [&] { return qel_set_room_layout(library, 5, 20); });
    for (uint32_t participant : {1u, 2u}) {
        SCOPED_TRACE(participant);
        EXPECT_EQ(state_of(library, 5, participant, QEL_CONTROL_MASTER_GAIN), 50);
        // Values that layout 20 does not name stay as they were.
        EXPECT_EQ(state_of(library, 5, participant, QEL_CONTROL_MUTE_ENABLE), 1);
        EXPECT_EQ(state_of(library, 5, participant, QEL_CONTROL_MIXING_3D_ATTENUATION), 12);
    }
}

TEST(Part3_1_RoomRegistry, LayoutSwitchRecomputesDirections) {
    log_capture log;
    auto library = library_handle::from_layout_text(switching_layouts_json());
    ASSERT_EQ(qel_create_room(library, 5), QEL_ERROR_NONE);
    add(library, 5, 1);
    add(library, 5, 2);
    EXPECT_EQ(distance_between(library, 5, 1, 2), 0); // both at the open room's origin

    ASSERT_EQ(qel_set_room_layout(library, 5, 10), QEL_ERROR_NONE);
    // (0, 0, 100) and (100, 0, 0): sqrt(20000) = 141.4.
    EXPECT_EQ(distance_between(library, 5, 1, 2), 141);
    EXPECT_EQ(distance_between(library, 5, 2, 1), 141);

    ASSERT_EQ(qel_set_room_layout(library, 5, 20), QEL_ERROR_NONE);
    // (0, 0, 200) and (200, 0, 0): sqrt(80000) = 282.8.
    EXPECT_EQ(distance_between(library, 5, 1, 2), 282);
    EXPECT_EQ(distance_between(library, 5, 2, 1), 282);
}

TEST(Part3_1_RoomRegistry, LayoutSwitchRefusedDefaultStateEndsTheSwitchWithItsError) {
    log_capture log;
    recording_scope scope;
    auto library = library_handle::from_layout_text(switching_layouts_json());
    ASSERT_EQ(qel_create_room(library, 5), QEL_ERROR_NONE);
    add(library, 5, 1, regular(16000));
    qel_event_manager_t table = recording_table();
    ASSERT_EQ(qel_add_event_manager(library, &table), QEL_ERROR_NONE);

    expect_call(
        log, QEL_ERROR_INVALID_CONTROL,
        {warning("The Auto EQ effect is only available for 48 kHz inputs currently. It will "
                 "not be enabled for participant 1")},
        [&] { return qel_set_room_layout(library, 5, 40); });
    EXPECT_TRUE(calls().empty());
}

// ---- Get room layout ---------------------------------------------------------------------

TEST(Part3_1_RoomRegistry, GetRoomLayoutReportsTheCurrentLayoutAndLogsNothing) {
    log_capture log;
    auto library = library_handle::from_layout_text(four_seat_layouts_json());
    ASSERT_EQ(qel_create_room(library, 5), QEL_ERROR_NONE);
    int layout = -1;
    expect_call(log, QEL_ERROR_NONE, {}, [&] { return qel_get_room_layout(library, 5, &layout); });
    EXPECT_EQ(layout, 10);
    for (int32_t next : {30, 20, 10}) {
        ASSERT_EQ(qel_set_room_layout(library, 5, next), QEL_ERROR_NONE);
        EXPECT_EQ(layout_of(library, 5), next);
    }
}

TEST(Part3_1_RoomRegistry, GetRoomLayoutWithNullPointerFails) {
    log_capture log;
    library_handle library;
    ASSERT_EQ(qel_create_room(library, 5), QEL_ERROR_NONE);
    EXPECT_EQ(qel_get_room_layout(library, 5, nullptr), QEL_ERROR_DATA_NULL);
}

TEST(Part3_1_RoomRegistry, GetRoomLayoutOfMissingRoomFails) {
    log_capture log;
    library_handle library;
    int layout = 0;
    expect_call(log, QEL_ERROR_INVALID_ROOM_ID, {warning("Room 7 does not exist.")},
                [&] { return qel_get_room_layout(library, 7, &layout); });
}

TEST(Part3_1_RoomRegistry, GetRoomLayoutOfRoomWithoutLayoutFails) {
    // "default" names no layout: new rooms start without one.
    const std::string json = R"({
  "default": "nowhere",
  "room_list": {
    "closed": {
      "id": 10, "desc": "one seat", "allowParticipantStacking": true, "openRoom": false,
      "centerPoint": {"x": 0, "y": 0, "z": 0}, "seats": [{"x": 0, "y": 0, "z": 100}]
    }
  }
})";
    log_capture log;
    auto library = library_handle::from_layout_text(json);
    ASSERT_NE(library.get(), nullptr) << library.init_error();
    expect_call(log, QEL_ERROR_NONE, {info("A new room with id 5 was created")},
                [&] { return qel_create_room(library, 5); });
    int layout = 0;
    expect_call(log, QEL_ERROR_INVALID_VALUE,
                {error("Failed to get room layout. Pointer to room layout is null.")},
                [&] { return qel_get_room_layout(library, 5, &layout); });
    // Setting a real layout gives the room one.
    ASSERT_EQ(qel_set_room_layout(library, 5, 10), QEL_ERROR_NONE);
    EXPECT_EQ(layout_of(library, 5), 10);
}

} // namespace
