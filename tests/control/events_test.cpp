// Event callbacks: each slot with its arguments, tables in registration order, null slots skipped.
#include "conference_fixture.h"

using namespace quelora::testing;

// Each operation calls its slot with its arguments (other tests show each call after the change's
// own lines and before its success line). Tables are optional: without one, operations do the same.
TEST(EventCallbacks, EverySlotGetsItsArgumentsAndTablesAreOptional) {
    const auto every_operation = [](qel_handle h) {
        return std::vector{qel_create_room(h, 5),
                           qel_add_participant(h, 5, 1, "Al", {16000, 2, 1}),
                           qel_set_participant_seat(h, 5, 1, 3),
                           qel_set_participant_state(h, 5, 1, QEL_CONTROL_MUTE_ENABLE, 1),
                           qel_set_all_participants_state(h, 5, QEL_CONTROL_MASTER_GAIN, 37),
                           qel_set_participant_name(h, 5, 1, "Cy"),
                           qel_set_room_layout(h, 5, 30),
                           qel_set_participant_position(h, 5, 1, {10, 20, 30}, {45, -10}),
                           qel_remove_participant(h, 5, 1),
                           qel_destroy_room(h, 5)};
    };
    conference f;
    EXPECT_EQ(every_operation(f.library), std::vector<int>(10, QEL_ERROR_NONE));
    std::vector<log_line> lines, events;
    for (const auto& line : f.log.lines())
        (line.level == QEL_LOG_VERBOSE ? events : lines).push_back(line);
    check_lines(events, {event("create_room 5"), event("add_participant 5 1 Al 16000 2 1"),
                         event("move_participant 5 1 seat 3 at 0 0 -100 facing 0 0"),
                         event("set_participant_state 5 1 2 1"),
                         event("set_all_participants_state 5 14 37"), event("set_name 5 1 Cy"),
                         event("set_room_layout 5 30"),
                         event("set_participant_position 5 1 at 10 20 30 facing 45 -10"),
                         event("remove_participant 5 1"), event("destroy_room 5")});
    library_handle without_table(write_temp_file("layouts.json", control_layouts_json()).c_str());
    f.log.clear();
    EXPECT_EQ(every_operation(without_table), std::vector<int>(10, QEL_ERROR_NONE));
    check_lines(f.log.lines(), lines);
}

TEST(EventCallbacks, TablesAreCalledInRegistrationOrderSkippingNullSlots) {
    log_capture log;
    qel_event_manager_t first = event_slots<2>::table(), second = event_slots<1>::table(),
                        only_rooms{};
    only_rooms.create_room = first.create_room;
    {
        library_handle library;
        for (qel_event_manager_t* table : {&first, &second, &first, &only_rooms}) {
            expect_call(log, QEL_ERROR_NONE, {},
                        [&] { return qel_add_event_manager(library, table); });
        }
        expect_call(log, QEL_ERROR_NONE,
                    {event("create_room 5", 2), event("create_room 5"), event("create_room 5", 2),
                     event("create_room 5", 2), info("A new room with id 5 was created")},
                    [&] { return qel_create_room(library, 5); });
        const std::string added = "add_participant 5 1 x 48000 1 1";
        expect_call(log, QEL_ERROR_NONE,
                    {dfn_created(), event(added, 2), event(added), event(added, 2), joined(1, 5)},
                    [&] { return qel_add_participant(library, 5, 1, "x", regular()); });
        log.clear();
    }
    check_lines(log.lines(), {dfn_destroyed()}); // destroying the library calls nothing
}
