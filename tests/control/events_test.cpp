// Event notifications (spec Part 3.5): each of the ten callback slots is
// called by its operation with its arguments, before the success log line;
// failed operations call nothing; tables are called in registration order.
// Callbacks are plain C function pointers, so they record into a static
// recorder.
#include "support/library_fixture.h"
#include "support/log_capture.h"

#include <quelora/quelora.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <future>
#include <memory>
#include "support/log_expect.h"
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using quelora::testing::four_seat_layouts_json;
using quelora::testing::library_handle;
using quelora::testing::log_capture;
using quelora::testing::log_line;
using quelora::testing::regular;

// One callback as it arrived.
struct event_call {
    int table = 0; // which recording table (1 or 2)
    std::string slot;
    int32_t room = 0;
    int32_t participant = 0;
    std::string name;
    qel_participant_configuration configuration{};
    qel_seat seat{};
    qel_position position{};
    qel_heading heading{};
    qel_audio_control control{};
    int32_t value = 0;
    int32_t layout = 0;
    size_t log_lines_at_call = 0; // lines in the capture when the callback ran
};

struct recorder {
    std::vector<event_call> calls;
    const log_capture* log = nullptr;
    // For the re-entry test: the handle to read from inside a callback.
    qel_handle reentry_handle = nullptr;
    int reentry_code = 0;
    int reentry_count = -1;
};

recorder& recorded() {
    static recorder instance;
    return instance;
}

// Resets the recorder for one test, before and after.
struct recording_scope {
    explicit recording_scope(const log_capture& log) {
        recorded() = recorder{};
        recorded().log = &log;
    }
    ~recording_scope() { recorded() = recorder{}; }
    recording_scope(const recording_scope&) = delete;
    recording_scope& operator=(const recording_scope&) = delete;
};

// A table whose ten slots record their arguments, tagged with Table.
template <int Table> struct recording_table {
    static event_call& begin(const char* slot, int32_t room) {
        event_call call;
        call.table = Table;
        call.slot = slot;
        call.room = room;
        call.log_lines_at_call = recorded().log != nullptr ? recorded().log->lines().size() : 0;
        recorded().calls.push_back(call);
        return recorded().calls.back();
    }
    static void create_room(int32_t room) { begin("create_room", room); }
    static void destroy_room(int32_t room) { begin("destroy_room", room); }
    static void add_participant(int32_t room, int32_t participant, const char* name,
                                const qel_participant_configuration* configuration) {
        event_call& call = begin("add_participant", room);
        call.participant = participant;
        call.name = name != nullptr ? name : "<null>";
        if (configuration != nullptr) call.configuration = *configuration;
    }
    static void remove_participant(int32_t room, int32_t participant) {
        begin("remove_participant", room).participant = participant;
    }
    static void move_participant(int32_t room, int32_t participant, const qel_seat* seat) {
        event_call& call = begin("move_participant", room);
        call.participant = participant;
        if (seat != nullptr) call.seat = *seat;
    }
    static void set_participant_position(int32_t room, int32_t participant,
                                         const qel_position* position, qel_heading heading) {
        event_call& call = begin("set_participant_position", room);
        call.participant = participant;
        if (position != nullptr) call.position = *position;
        call.heading = heading;
    }
    static void set_participant_state(int32_t room, int32_t participant, qel_audio_control control,
                                      int32_t value) {
        event_call& call = begin("set_participant_state", room);
        call.participant = participant;
        call.control = control;
        call.value = value;
    }
    static void set_all_participants_state(int32_t room, qel_audio_control control, int32_t value) {
        event_call& call = begin("set_all_participants_state", room);
        call.control = control;
        call.value = value;
    }
    static void set_room_layout(int32_t room, int32_t layout) {
        begin("set_room_layout", room).layout = layout;
    }
    static void set_name(int32_t room, int32_t participant, const char* name) {
        event_call& call = begin("set_name", room);
        call.participant = participant;
        call.name = name != nullptr ? name : "<null>";
    }

    static qel_event_manager_t table() {
        return qel_event_manager_t{&create_room,           &destroy_room,
                                   &add_participant,       &remove_participant,
                                   &move_participant,      &set_participant_position,
                                   &set_participant_state, &set_all_participants_state,
                                   &set_room_layout,       &set_name};
    }
};

std::vector<std::string> slots_of(const std::vector<event_call>& calls) {
    std::vector<std::string> out;
    for (const auto& call : calls) out.push_back(call.slot);
    return out;
}

using quelora::testing::describe;
using quelora::testing::dfn_created;
using quelora::testing::dfn_destroyed;
using quelora::testing::info;

// Runs one operation that must succeed with exactly one callback and exactly
// the lines `expected`, whose last is the success line; returns the
// callback's record. Lines logged while the change is made (the noise
// canceller's "created"/"destroyed", Part 5.2) precede the callback, and the
// callback precedes the success line (Part 3.5), so when the callback ran the
// capture held exactly the lines before the success line: expected.size() - 1.
// Fewer would mean the callback ran before the change was complete, more that
// it ran after the success line was logged.
event_call expect_one_call(log_capture& log, const std::vector<log_line>& expected,
                           const std::function<int()>& operation,
                           quelora::testing::call_site where = quelora::testing::call_site::current()) {
    ::testing::ScopedTrace trace(where.file_name(), static_cast<int>(where.line()),
                                 expected.empty() ? std::string{} : expected.back().message);
    const size_t calls_before = recorded().calls.size();
    log.clear();
    EXPECT_EQ(operation(), QEL_ERROR_NONE);
    quelora::testing::check_lines(log.lines(), expected);
    const auto& calls = recorded().calls;
    EXPECT_EQ(calls.size(), calls_before + 1);
    if (calls.size() != calls_before + 1 || expected.empty()) return event_call{};
    const event_call call = calls.back();
    const size_t lines_before_success = expected.size() - 1;
    EXPECT_EQ(call.log_lines_at_call, lines_before_success)
        << "the callback must run after the lines of the change and before the success line";
    return call;
}

// The common case: the success line is the operation's only line.
event_call expect_one_call(log_capture& log, const std::string& success_line,
                           const std::function<int()>& operation,
                           quelora::testing::call_site where = quelora::testing::call_site::current()) {
    return expect_one_call(log, std::vector<log_line>{info(success_line)}, operation, where);
}

// A four-seat library (closed layout 10 by default) with a log capture, a
// fresh recorder and table 1 registered.
struct session {
    log_capture log;
    library_handle library = library_handle::from_layout_text(four_seat_layouts_json());
    recording_scope scope{log};
    qel_event_manager_t table = recording_table<1>::table();
    explicit session(bool register_table = true) {
        EXPECT_NE(library.get(), nullptr) << library.init_error();
        if (register_table) {
            EXPECT_EQ(qel_add_event_manager(library, &table), QEL_ERROR_NONE);
        }
    }
};

// One call of each of the ten operations, each succeeding; returns the
// codes in order.
std::vector<int> run_every_operation(qel_handle handle) {
    return {
        qel_create_room(handle, 5),
        qel_add_participant(handle, 5, 1, "Alice", regular()),
        qel_set_participant_seat(handle, 5, 1, 3),
        qel_set_participant_state(handle, 5, 1, QEL_CONTROL_MUTE_ENABLE, 1),
        qel_set_all_participants_state(handle, 5, QEL_CONTROL_MASTER_GAIN, 37),
        qel_set_participant_name(handle, 5, 1, "Carol"),
        qel_set_room_layout(handle, 5, 30),
        qel_set_participant_position(handle, 5, 1, qel_position{10, 20, 30}, qel_heading{45, -10}),
        qel_remove_participant(handle, 5, 1),
        qel_destroy_room(handle, 5),
    };
}

const std::vector<std::string> every_slot_in_run_order = {"create_room",
                                                          "add_participant",
                                                          "move_participant",
                                                          "set_participant_state",
                                                          "set_all_participants_state",
                                                          "set_name",
                                                          "set_room_layout",
                                                          "set_participant_position",
                                                          "remove_participant",
                                                          "destroy_room"};

// ---- Registration ------------------------------------------------------------

TEST(Part3_5_Events, NullEventManagerFails) {
    log_capture log;
    library_handle library;
    log.clear();
    EXPECT_EQ(qel_add_event_manager(library, nullptr), QEL_ERROR_DATA_NULL);
    const std::vector<log_line> lines = log.lines();
    ASSERT_EQ(lines.size(), 1u) << describe(lines);
    EXPECT_EQ(lines[0].level, QEL_LOG_ERROR);
    EXPECT_EQ(lines[0].message, "The event manager provided was NULL");
}

TEST(Part3_5_Events, AddingEventManagerSucceedsSilently) {
    session s(false);
    s.log.clear();
    EXPECT_EQ(qel_add_event_manager(s.library, &s.table), QEL_ERROR_NONE);
    EXPECT_TRUE(s.log.lines().empty()) << describe(s.log.lines());
    EXPECT_TRUE(recorded().calls.empty());
}

// ---- Each slot with its arguments --------------------------------------------------

TEST(Part3_5_Events, CreateRoomCallsSlot1WithRoomId) {
    session s;
    const event_call call = expect_one_call(s.log, "A new room with id 5 was created",
                                            [&] { return qel_create_room(s.library, 5); });
    EXPECT_EQ(call.slot, "create_room");
    EXPECT_EQ(call.room, 5);
}

TEST(Part3_5_Events, DestroyRoomCallsSlot2WithRoomId) {
    session s;
    ASSERT_EQ(qel_create_room(s.library, 5), QEL_ERROR_NONE);
    const event_call call = expect_one_call(s.log, "Room 5 was destroyed",
                                            [&] { return qel_destroy_room(s.library, 5); });
    EXPECT_EQ(call.slot, "destroy_room");
    EXPECT_EQ(call.room, 5);
}

TEST(Part3_5_Events, AddParticipantCallsSlot3WithNameAndConfiguration) {
    session s;
    ASSERT_EQ(qel_create_room(s.library, 5), QEL_ERROR_NONE);
    // A listener-only participant has no input side, hence no noise
    // canceller and no "Noise cancellation model" line (Part 5.2).
    const event_call call =
        expect_one_call(s.log, "A new participant with id 1 has been added to room 5", [&] {
            return qel_add_participant(
                s.library, 5, 1, "Alice",
                qel_participant_configuration{16000, 2, QEL_PARTICIPANT_LISTENER_ONLY});
        });
    EXPECT_EQ(call.slot, "add_participant");
    EXPECT_EQ(call.room, 5);
    EXPECT_EQ(call.participant, 1);
    EXPECT_EQ(call.name, "Alice");
    EXPECT_EQ(call.configuration.input_sampling_rate, 16000);
    EXPECT_EQ(call.configuration.input_number_channels, 2);
    EXPECT_EQ(call.configuration.participant_type, QEL_PARTICIPANT_LISTENER_ONLY);
}

TEST(Part3_5_Events, RemoveParticipantCallsSlot4) {
    session s;
    ASSERT_EQ(qel_create_room(s.library, 5), QEL_ERROR_NONE);
    ASSERT_EQ(qel_add_participant(s.library, 5, 1, "Alice", regular()), QEL_ERROR_NONE);
    const event_call call = expect_one_call(
        s.log, {dfn_destroyed(), info("Participant 1 has been removed from room 5")},
        [&] { return qel_remove_participant(s.library, 5, 1); });
    EXPECT_EQ(call.slot, "remove_participant");
    EXPECT_EQ(call.room, 5);
    EXPECT_EQ(call.participant, 1);
}

TEST(Part3_5_Events, SetSeatCallsSlot5WithTheSeatNowOccupied) {
    session s;
    ASSERT_EQ(qel_create_room(s.library, 5), QEL_ERROR_NONE);
    ASSERT_EQ(qel_add_participant(s.library, 5, 1, "Alice", regular()), QEL_ERROR_NONE);
    ASSERT_EQ(qel_add_participant(s.library, 5, 2, "Bob", regular()), QEL_ERROR_NONE);
    const event_call call =
        expect_one_call(s.log, "Participant 2 in room 5 has moved to seat 3",
                        [&] { return qel_set_participant_seat(s.library, 5, 2, 3); });
    EXPECT_EQ(call.slot, "move_participant");
    EXPECT_EQ(call.room, 5);
    EXPECT_EQ(call.participant, 2);
    qel_seat now{};
    ASSERT_EQ(qel_get_participant_seat(s.library, 5, 2, &now), QEL_ERROR_NONE);
    EXPECT_EQ(call.seat.seat_index, 3);
    EXPECT_EQ(call.seat.x, 0);
    EXPECT_EQ(call.seat.y, 0);
    EXPECT_EQ(call.seat.z, -100);
    EXPECT_EQ(call.seat.azimuth, now.azimuth);
    EXPECT_EQ(call.seat.elevation, now.elevation);
}

TEST(Part3_5_Events, SetSeatOnAHeldSeatReportsTheStackedSeatButLogsTheRequestedIndex) {
    session s;
    ASSERT_EQ(qel_create_room(s.library, 5), QEL_ERROR_NONE);
    ASSERT_EQ(qel_add_participant(s.library, 5, 1, "Alice", regular()), QEL_ERROR_NONE); // seat 1
    ASSERT_EQ(qel_add_participant(s.library, 5, 2, "Bob", regular()), QEL_ERROR_NONE);   // seat 2
    // Seat 1 is held: participant 2 goes to index 5, seat 1 raised by stackDelta 50.
    const event_call call =
        expect_one_call(s.log, "Participant 2 in room 5 has moved to seat 1",
                        [&] { return qel_set_participant_seat(s.library, 5, 2, 1); });
    EXPECT_EQ(call.slot, "move_participant");
    EXPECT_EQ(call.participant, 2);
    EXPECT_EQ(call.seat.seat_index, 5);
    EXPECT_EQ(call.seat.x, 0);
    EXPECT_EQ(call.seat.y, 0);
    EXPECT_EQ(call.seat.z, 150);
    qel_seat now{};
    ASSERT_EQ(qel_get_participant_seat(s.library, 5, 2, &now), QEL_ERROR_NONE);
    EXPECT_EQ(call.seat.seat_index, now.seat_index);
    EXPECT_EQ(call.seat.x, now.x);
    EXPECT_EQ(call.seat.y, now.y);
    EXPECT_EQ(call.seat.z, now.z);
    EXPECT_EQ(call.seat.azimuth, now.azimuth);
    EXPECT_EQ(call.seat.elevation, now.elevation);
}

TEST(Part3_5_Events, SetSeatToTheCurrentSeatStillCallsBack) {
    session s;
    ASSERT_EQ(qel_create_room(s.library, 5), QEL_ERROR_NONE);
    ASSERT_EQ(qel_add_participant(s.library, 5, 1, "Alice", regular()), QEL_ERROR_NONE); // seat 1
    const event_call call =
        expect_one_call(s.log, "Participant 1 in room 5 has moved to seat 1",
                        [&] { return qel_set_participant_seat(s.library, 5, 1, 1); });
    EXPECT_EQ(call.slot, "move_participant");
    EXPECT_EQ(call.seat.seat_index, 1);
    EXPECT_EQ(call.seat.z, 100);
}

TEST(Part3_5_Events, SetPositionCallsSlot6WithPositionAndHeading) {
    session s;
    ASSERT_EQ(qel_create_room(s.library, 5), QEL_ERROR_NONE);
    ASSERT_EQ(qel_set_room_layout(s.library, 5, 30), QEL_ERROR_NONE); // open
    ASSERT_EQ(qel_add_participant(s.library, 5, 1, "Alice", regular()), QEL_ERROR_NONE);
    const event_call call = expect_one_call(
        s.log,
        "Participant 1 in room 5 has changed position to {10, -20, 30} and heading {45, -10}", [&] {
            return qel_set_participant_position(s.library, 5, 1, qel_position{10, -20, 30},
                                                qel_heading{45, -10});
        });
    EXPECT_EQ(call.slot, "set_participant_position");
    EXPECT_EQ(call.room, 5);
    EXPECT_EQ(call.participant, 1);
    EXPECT_EQ(call.position.x, 10);
    EXPECT_EQ(call.position.y, -20);
    EXPECT_EQ(call.position.z, 30);
    EXPECT_EQ(call.heading.azimuth, 45);
    EXPECT_EQ(call.heading.elevation, -10);
}

TEST(Part3_5_Events, SetStateCallsSlot7WithControlAndValue) {
    session s;
    ASSERT_EQ(qel_create_room(s.library, 5), QEL_ERROR_NONE);
    ASSERT_EQ(qel_add_participant(s.library, 5, 1, "Alice", regular()), QEL_ERROR_NONE);
    const event_call call = expect_one_call(
        s.log, "Participant 1 in room 5 set QEL_CONTROL_MIXING_3D_ATTENUATION to 12", [&] {
            return qel_set_participant_state(s.library, 5, 1, QEL_CONTROL_MIXING_3D_ATTENUATION,
                                             12);
        });
    EXPECT_EQ(call.slot, "set_participant_state");
    EXPECT_EQ(call.room, 5);
    EXPECT_EQ(call.participant, 1);
    EXPECT_EQ(call.control, QEL_CONTROL_MIXING_3D_ATTENUATION);
    EXPECT_EQ(call.value, 12);
}

TEST(Part3_5_Events, SetAllStatesCallsSlot8OnceWithControlAndValue) {
    session s;
    ASSERT_EQ(qel_create_room(s.library, 5), QEL_ERROR_NONE);
    ASSERT_EQ(qel_add_participant(s.library, 5, 1, "Alice", regular()), QEL_ERROR_NONE);
    ASSERT_EQ(qel_add_participant(s.library, 5, 2, "Bob", regular()), QEL_ERROR_NONE);
    const event_call call = expect_one_call(
        s.log, "Set all participant's QEL_CONTROL_MASTER_GAIN in room 5 to 37",
        [&] { return qel_set_all_participants_state(s.library, 5, QEL_CONTROL_MASTER_GAIN, 37); });
    EXPECT_EQ(call.slot, "set_all_participants_state");
    EXPECT_EQ(call.room, 5);
    EXPECT_EQ(call.control, QEL_CONTROL_MASTER_GAIN);
    EXPECT_EQ(call.value, 37);
}

TEST(Part3_5_Events, SetRoomLayoutCallsSlot9WithLayoutId) {
    session s;
    ASSERT_EQ(qel_create_room(s.library, 5), QEL_ERROR_NONE);
    const event_call call = expect_one_call(s.log, "Room 5 has changed to layout 20",
                                            [&] { return qel_set_room_layout(s.library, 5, 20); });
    EXPECT_EQ(call.slot, "set_room_layout");
    EXPECT_EQ(call.room, 5);
    EXPECT_EQ(call.layout, 20);
}

TEST(Part3_5_Events, SetNameCallsSlot10WithTheName) {
    session s;
    ASSERT_EQ(qel_create_room(s.library, 5), QEL_ERROR_NONE);
    ASSERT_EQ(qel_add_participant(s.library, 5, 1, "Alice", regular()), QEL_ERROR_NONE);
    const event_call call = expect_one_call(s.log, "Set participant 1 in room 5 name to Bob", [&] {
        return qel_set_participant_name(s.library, 5, 1, "Bob");
    });
    EXPECT_EQ(call.slot, "set_name");
    EXPECT_EQ(call.room, 5);
    EXPECT_EQ(call.participant, 1);
    EXPECT_EQ(call.name, "Bob");
}

TEST(Part3_5_Events, NegativeIdsArriveAsSignedIntegers) {
    session s;
    const event_call created = expect_one_call(s.log, "A new room with id -5 was created", [&] {
        return qel_create_room(s.library, static_cast<uint32_t>(-5));
    });
    EXPECT_EQ(created.room, -5);
    const event_call added = expect_one_call(
        s.log, {dfn_created(), info("A new participant with id -2 has been added to room -5")},
        [&] {
            return qel_add_participant(s.library, static_cast<uint32_t>(-5),
                                       static_cast<uint32_t>(-2), "neg", regular());
        });
    EXPECT_EQ(added.room, -5);
    EXPECT_EQ(added.participant, -2);
}

// ---- Registration order and null slots -------------------------------------------------

TEST(Part3_5_Events, WithNoTableEveryOperationBehavesTheSame) {
    session with_table;
    const std::vector<int> codes_with = run_every_operation(with_table.library);
    const std::vector<std::string> lines_with = with_table.log.messages();
    EXPECT_EQ(slots_of(recorded().calls), every_slot_in_run_order);

    session without_table(false);
    const std::vector<int> codes_without = run_every_operation(without_table.library);
    EXPECT_EQ(codes_without, std::vector<int>(every_slot_in_run_order.size(), QEL_ERROR_NONE));
    EXPECT_EQ(codes_without, codes_with);
    EXPECT_EQ(without_table.log.messages(), lines_with);
    EXPECT_TRUE(recorded().calls.empty());
}

TEST(Part3_5_Events, TableWithOnlySlot1ReceivesRoomCreationsAndNothingElse) {
    session s(false);
    qel_event_manager_t only_create{};
    only_create.create_room = &recording_table<1>::create_room;
    ASSERT_EQ(qel_add_event_manager(s.library, &only_create), QEL_ERROR_NONE);
    const std::vector<int> codes = run_every_operation(s.library);
    EXPECT_EQ(codes, std::vector<int>(every_slot_in_run_order.size(), QEL_ERROR_NONE));
    ASSERT_EQ(slots_of(recorded().calls), std::vector<std::string>{"create_room"});
    EXPECT_EQ(recorded().calls[0].room, 5);
    EXPECT_EQ(qel_create_room(s.library, 6), QEL_ERROR_NONE);
    EXPECT_EQ(slots_of(recorded().calls), (std::vector<std::string>{"create_room", "create_room"}));
    EXPECT_EQ(recorded().calls[1].room, 6);
}

TEST(Part3_5_Events, TwoTablesAreCalledInRegistrationOrder) {
    session s; // table 1 registered first
    qel_event_manager_t second = recording_table<2>::table();
    ASSERT_EQ(qel_add_event_manager(s.library, &second), QEL_ERROR_NONE);
    run_every_operation(s.library);
    const auto& calls = recorded().calls;
    ASSERT_EQ(calls.size(), 2 * every_slot_in_run_order.size());
    for (size_t i = 0; i < every_slot_in_run_order.size(); ++i) {
        SCOPED_TRACE(every_slot_in_run_order[i]);
        EXPECT_EQ(calls[2 * i].table, 1);
        EXPECT_EQ(calls[2 * i + 1].table, 2);
        EXPECT_EQ(calls[2 * i].slot, every_slot_in_run_order[i]);
        EXPECT_EQ(calls[2 * i + 1].slot, every_slot_in_run_order[i]);
    }
}

TEST(Part3_5_Events, SecondTableRegisteredFirstIsCalledFirst) {
    session s(false);
    qel_event_manager_t first = recording_table<2>::table();
    qel_event_manager_t second = recording_table<1>::table();
    ASSERT_EQ(qel_add_event_manager(s.library, &first), QEL_ERROR_NONE);
    ASSERT_EQ(qel_add_event_manager(s.library, &second), QEL_ERROR_NONE);
    ASSERT_EQ(qel_create_room(s.library, 5), QEL_ERROR_NONE);
    ASSERT_EQ(recorded().calls.size(), 2u);
    EXPECT_EQ(recorded().calls[0].table, 2);
    EXPECT_EQ(recorded().calls[1].table, 1);
}

TEST(Part3_5_Events, TableRegisteredTwiceIsCalledTwice) {
    session s; // table 1 registered once
    ASSERT_EQ(qel_add_event_manager(s.library, &s.table), QEL_ERROR_NONE);
    s.log.clear();
    ASSERT_EQ(qel_set_room_layout(s.library, 5, 20), QEL_ERROR_INVALID_ROOM_ID);
    ASSERT_EQ(qel_create_room(s.library, 5), QEL_ERROR_NONE);
    ASSERT_EQ(recorded().calls.size(), 2u);
    for (const auto& call : recorded().calls) {
        EXPECT_EQ(call.table, 1);
        EXPECT_EQ(call.slot, "create_room");
        EXPECT_EQ(call.room, 5);
    }
    // Both calls precede the single success line.
    EXPECT_EQ(recorded().calls[1].log_lines_at_call, recorded().calls[0].log_lines_at_call);
    EXPECT_EQ(s.log.count("A new room with id 5 was created"), 1u);
}

// ---- Rooms with participants ---------------------------------------------------------------

TEST(Part3_5_Events, DestroyingRoomWithThreeParticipantsCallsSlot2OnceAndSlot4Never) {
    session s;
    ASSERT_EQ(qel_create_room(s.library, 5), QEL_ERROR_NONE);
    for (uint32_t participant : {1u, 2u, 3u}) {
        ASSERT_EQ(qel_add_participant(s.library, 5, participant, "p", regular()), QEL_ERROR_NONE);
    }
    recorded().calls.clear();
    // Each freed participant's canceller logs, but no participant line or
    // callback.
    const event_call call = expect_one_call(
        s.log, {dfn_destroyed(), dfn_destroyed(), dfn_destroyed(), info("Room 5 was destroyed")},
        [&] { return qel_destroy_room(s.library, 5); });
    EXPECT_EQ(call.slot, "destroy_room");
    EXPECT_EQ(slots_of(recorded().calls), std::vector<std::string>{"destroy_room"});
}

TEST(Part3_5_Events, LibraryTeardownCallsNothing) {
    log_capture log;
    recording_scope scope(log);
    qel_event_manager_t table = recording_table<1>::table();
    {
        library_handle library;
        ASSERT_EQ(qel_add_event_manager(library, &table), QEL_ERROR_NONE);
        ASSERT_EQ(qel_create_room(library, 5), QEL_ERROR_NONE);
        ASSERT_EQ(qel_add_participant(library, 5, 1, "p", regular()), QEL_ERROR_NONE);
        recorded().calls.clear();
    }
    EXPECT_TRUE(recorded().calls.empty());
}

// ---- Failures ---------------------------------------------------------------------------

TEST(Part3_5_Events, FailedOperationsCallNothing) {
    session s;
    ASSERT_EQ(qel_create_room(s.library, 5), QEL_ERROR_NONE);
    ASSERT_EQ(qel_add_participant(s.library, 5, 1, "Alice", regular()), QEL_ERROR_NONE);
    ASSERT_EQ(qel_add_participant(s.library, 5, 2, "Bob", regular(16000)), QEL_ERROR_NONE);
    recorded().calls.clear();
    const qel_handle h = s.library;
    const qel_position origin{0, 0, 0};
    const qel_heading ahead{0, 0};
    const auto no_control = static_cast<qel_audio_control>(17);

    struct failing_call {
        const char* what;
        int code;
        std::function<int()> call;
    };
    const std::vector<failing_call> failures = {
        {"create existing room", QEL_ERROR_INVALID_ROOM_ID, [&] { return qel_create_room(h, 5); }},
        {"destroy missing room", QEL_ERROR_INVALID_ROOM_ID, [&] { return qel_destroy_room(h, 7); }},
        {"layout, missing room", QEL_ERROR_INVALID_ROOM_ID,
         [&] { return qel_set_room_layout(h, 7, 20); }},
        {"unknown layout", QEL_ERROR_INVALID_VALUE, [&] { return qel_set_room_layout(h, 5, 99); }},
        {"add, missing room", QEL_ERROR_INVALID_ROOM_ID,
         [&] { return qel_add_participant(h, 7, 3, "x", regular()); }},
        {"add, existing participant", QEL_ERROR_INVALID_PARTICIPANT_ID,
         [&] { return qel_add_participant(h, 5, 1, "x", regular()); }},
        {"add, bad channels", QEL_ERROR_NUM_CHANNELS,
         [&] { return qel_add_participant(h, 5, 3, "x", regular(48000, 3)); }},
        {"add, bad rate", QEL_ERROR_SAMPLE_RATE,
         [&] { return qel_add_participant(h, 5, 3, "x", regular(96000)); }},
        {"remove, unknown participant", QEL_ERROR_INVALID_PARTICIPANT_ID,
         [&] { return qel_remove_participant(h, 5, 9); }},
        {"remove, missing room", QEL_ERROR_INVALID_ROOM_ID,
         [&] { return qel_remove_participant(h, 7, 1); }},
        {"negative seat", QEL_ERROR_INVALID_VALUE,
         [&] { return qel_set_participant_seat(h, 5, 1, -1); }},
        {"seat, unknown participant", QEL_ERROR_INVALID_PARTICIPANT_ID,
         [&] { return qel_set_participant_seat(h, 5, 9, 2); }},
        {"position in a closed room", QEL_ERROR_INVALID_CONTROL,
         [&] { return qel_set_participant_position(h, 5, 1, origin, ahead); }},
        {"bad heading", QEL_ERROR_INVALID_HEADING,
         [&] {
             return qel_set_participant_position(h, 5, 1, origin, qel_heading{181, 0});
         }},
        {"state, bad value", QEL_ERROR_INVALID_VALUE,
         [&] { return qel_set_participant_state(h, 5, 1, QEL_CONTROL_MUTE_ENABLE, 2); }},
        {"state, bad control", QEL_ERROR_INVALID_CONTROL,
         [&] { return qel_set_participant_state(h, 5, 1, no_control, 0); }},
        {"state, unknown participant", QEL_ERROR_INVALID_PARTICIPANT_ID,
         [&] { return qel_set_participant_state(h, 5, 9, QEL_CONTROL_MUTE_ENABLE, 1); }},
        {"set all, bad value", QEL_ERROR_INVALID_VALUE,
         [&] { return qel_set_all_participants_state(h, 5, QEL_CONTROL_ANC_MIX, 101); }},
        {"set all, stopped by the 16 kHz participant", QEL_ERROR_INVALID_CONTROL,
         [&] { return qel_set_all_participants_state(h, 5, QEL_CONTROL_AUTO_EQ_ENABLE, 1); }},
        {"set all, missing room", QEL_ERROR_INVALID_ROOM_ID,
         [&] { return qel_set_all_participants_state(h, 7, QEL_CONTROL_MUTE_ENABLE, 1); }},
        {"name, unknown participant", QEL_ERROR_INVALID_PARTICIPANT_ID,
         [&] { return qel_set_participant_name(h, 5, 9, "x"); }},
        {"name, missing room", QEL_ERROR_INVALID_ROOM_ID,
         [&] { return qel_set_participant_name(h, 7, 1, "x"); }},
    };
    for (const auto& failure : failures) {
        SCOPED_TRACE(failure.what);
        EXPECT_EQ(failure.call(), failure.code);
        EXPECT_TRUE(recorded().calls.empty()) << "called " << recorded().calls.back().slot;
        recorded().calls.clear();
    }
}

// ---- Callbacks under the shared library lock ------------------------------------------

// Runs `operation` on another thread; a deadlock cannot be recovered from
// (the handle stays locked), so a timeout ends the test program.
void run_with_deadline(const std::function<void()>& operation, std::chrono::seconds limit) {
    auto done = std::make_shared<std::promise<void>>();
    std::future<void> finished = done->get_future();
    std::thread([operation, done] {
        operation();
        done->set_value();
    }).detach();
    if (finished.wait_for(limit) != std::future_status::ready) {
        std::fprintf(stderr,
                     "Part3_5_Events: the operation did not finish within %lld s "
                     "(deadlock in a callback?)\n",
                     static_cast<long long>(limit.count()));
        std::fflush(stderr);
        std::_Exit(EXIT_FAILURE);
    }
}

void count_participants_on_add(int32_t room, int32_t participant, const char* name,
                               const qel_participant_configuration* configuration) {
    recording_table<1>::add_participant(room, participant, name, configuration);
    int count = -1;
    recorded().reentry_code =
        qel_get_participant_count(recorded().reentry_handle, static_cast<uint32_t>(room), &count);
    recorded().reentry_count = count;
}

TEST(Part3_5_Events, AddParticipantCallbackMayReadTheSameHandle) {
    session s(false);
    qel_event_manager_t reading{};
    reading.add_participant = &count_participants_on_add;
    ASSERT_EQ(qel_add_event_manager(s.library, &reading), QEL_ERROR_NONE);
    ASSERT_EQ(qel_create_room(s.library, 5), QEL_ERROR_NONE);
    recorded().reentry_handle = s.library;

    int code = 0;
    s.log.clear();
    run_with_deadline([&] { code = qel_add_participant(s.library, 5, 1, "Alice", regular()); },
                      std::chrono::seconds(10));
    EXPECT_EQ(code, QEL_ERROR_NONE);
    ASSERT_EQ(slots_of(recorded().calls), std::vector<std::string>{"add_participant"});
    // The change is made before the callback: the new participant is counted.
    EXPECT_EQ(recorded().reentry_code, QEL_ERROR_NONE);
    EXPECT_EQ(recorded().reentry_count, 1);
    quelora::testing::check_lines(
        s.log.lines(), {dfn_created(), info("A new participant with id 1 has been added to room 5")});
}

} // namespace
