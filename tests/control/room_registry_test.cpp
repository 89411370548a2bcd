// Rooms through the C interface: creating, destroying, room and participant ids, layout switches.
#include "conference_fixture.h"

using namespace quelora::testing;

namespace {

log_line created(int room) {
    return info("A new room with id " + std::to_string(room) + " was created");
}
int layout_of(qel_handle library, uint32_t room) {
    int id = -7;
    qel_get_room_layout(library, room, &id);
    return id;
}

} // namespace

// A destroyed room takes its participants (no lines or callbacks of theirs); its id starts afresh.
TEST(RoomRegistry, RoomsAreCreatedOnceAndDestroyedWithTheirParticipants) {
    conference f;
    expect_call(f.log, QEL_ERROR_NONE, {event("create_room 5"), created(5)},
                [&] { return qel_create_room(f.library, 5); });
    for (const uint32_t id : {1u, 2u, 3u}) f.join(id, regular(), 5);
    ASSERT_EQ(qel_set_room_layout(f.library, 5, 20), QEL_ERROR_NONE);
    expect_call(f.log, QEL_ERROR_INVALID_ROOM_ID, {warning("Room 5 already exists")},
                [&] { return qel_create_room(f.library, 5); });
    EXPECT_EQ((std::array{room_count(f.library), participant_count(f.library, 5),
                          layout_of(f.library, 5)}),
              (std::array{2, 3, 20}));
    expect_call(f.log, QEL_ERROR_NONE,
                {dfn_destroyed(), dfn_destroyed(), dfn_destroyed(), event("destroy_room 5"),
                 info("Room 5 was destroyed")},
                [&] { return qel_destroy_room(f.library, 5); });
    ASSERT_EQ(qel_create_room(f.library, 5), QEL_ERROR_NONE);
    f.join(2, regular(), 5);
    EXPECT_EQ((std::array{room_count(f.library), participant_count(f.library, 5),
                          layout_of(f.library, 5), f.place(2, 5)[0]}),
              (std::array{2, 1, 10, 1}));
}

// Ids arrive unsigned and are kept, logged and called back as signed.
TEST(RoomRegistry, RoomAndParticipantIdsAreSignedKeys) {
    conference f;
    const auto id = [](int32_t signed_id) { return static_cast<uint32_t>(signed_id); };
    for (const int32_t room : {-5, INT32_MIN}) {
        expect_call(f.log, QEL_ERROR_NONE,
                    {event("create_room " + std::to_string(room)), created(room)},
                    [&] { return qel_create_room(f.library, id(room)); });
    }
    expect_call(f.log, QEL_ERROR_NONE,
                {dfn_created(), event("add_participant -5 -2 n 48000 1 1"), joined(-2, -5)},
                [&] { return qel_add_participant(f.library, id(-5), id(-2), "n", regular()); });
    f.join(id(-2)); // the same participant id in another room
    expect_call(f.log, QEL_ERROR_INVALID_ROOM_ID, {room_missing(-7)},
                [&] { return qel_destroy_room(f.library, id(-7)); });
    EXPECT_EQ((std::array{room_count(f.library), participant_count(f.library, id(-5))}),
              (std::array{3, 1}));
}

// Seated participants keep their seat index, placed by the new layout and its stacking rule; the
// others take the first free seats. The new layout's default states are set, values it does not
// name stay, and the same layout again is reported but sets nothing.
TEST(RoomRegistry, LayoutSwitchReseatsEveryoneAndSetsTheNewDefaults) {
    conference f(30);
    for (const uint32_t id : {1u, 2u, 3u}) f.join(id);
    const auto seat = [&](uint32_t participant, int32_t k) {
        return qel_set_participant_seat(f.library, 1, participant, k);
    };
    const auto switch_to = [&](int32_t layout, uint32_t room = 1) {
        return qel_set_room_layout(f.library, room, layout);
    };
    ASSERT_EQ(seat(2, 2) + switch_to(10), 2 * QEL_ERROR_NONE);
    EXPECT_EQ((std::array{f.place(1), f.place(2), f.place(3)}),
              (std::array<place_record, 3>{
                  {{1, 0, 0, 100, 180, 0}, {2, 100, 0, 0, -90, 0}, {3, 0, 0, -100, 0, 0}}}));
    ASSERT_EQ(seat(3, 4) + seat(2, 1), 2 * QEL_ERROR_NONE); // 2 on a held seat: index 5, z 150
    expect_call(f.log, QEL_ERROR_NONE,
                {event("set_room_layout 1 20"), info("Room 1 has changed to layout 20")},
                [&] { return switch_to(20); });
    EXPECT_EQ((std::array{f.place(1), f.place(2), f.place(3)}),
              (std::array<place_record, 3>{
                  {{1, 0, 0, 300, 180, 0}, {5, 0, 0, 300, 180, 0}, {4, -300, 0, 0, 90, 0}}}));
    EXPECT_EQ(f.heard(1, 3), (heard_record{45, 0, 424})); // (0,0,300) facing -z hears (-300,0,0)
    EXPECT_EQ(
        (std::array{f.state(1, QEL_CONTROL_MASTER_GAIN), f.state(3, QEL_CONTROL_MASTER_GAIN)}),
        (std::array{50, 50}));
    ASSERT_EQ(qel_set_participant_state(f.library, 1, 1, QEL_CONTROL_MASTER_GAIN, 70),
              QEL_ERROR_NONE);
    expect_call(f.log, QEL_ERROR_NONE,
                {event("set_room_layout 1 20"), info("Room 1 has changed to layout 20")},
                [&] { return switch_to(20); });
    ASSERT_EQ(switch_to(50), QEL_ERROR_NONE);
    EXPECT_EQ((std::array{f.state(1, QEL_CONTROL_MASTER_GAIN), f.state(2, QEL_CONTROL_MUTE_ENABLE),
                          f.state(2, QEL_CONTROL_MIXING_3D_ATTENUATION),
                          f.state(2, QEL_CONTROL_MASTER_GAIN)}),
              (std::array{70, 1, 12, 50}));
    for (const auto& [layout, room, line] :
         {std::tuple{99, 1, warning("Room layout id 99 does not exist.")},
          {-3, 1, warning("Room layout id -3 does not exist.")},
          {99, 7, room_missing(7)}}) {
        expect_call(f.log, room == 1 ? QEL_ERROR_INVALID_VALUE : QEL_ERROR_INVALID_ROOM_ID, {line},
                    [&, l = layout, r = room] { return switch_to(l, r); });
    }
    // A default state that a participant refuses ends the switch with its fault.
    f.join(4, regular(16000));
    expect_call(f.log, QEL_ERROR_INVALID_CONTROL, {auto_eq_refused(4)},
                [&] { return switch_to(40); });
    EXPECT_EQ(layout_of(f.library, 1), 50);
}
