// Seats, positions and directions through the C interface: the stacking rules, moves with their
// callbacks and lines, and what each participant then hears (worked out by hand).
#include "conference_fixture.h"

using namespace quelora::testing;

namespace {

constexpr int32_t lo = INT32_MIN, hi = INT32_MAX;
log_line moved(int participant, int seat) {
    return info("Participant " + std::to_string(participant) + " in room 1 has moved to seat " +
                std::to_string(seat));
}

} // namespace

// The line names the seat asked for, the callback the place now held. Refused stacking moves up by
// stackDelta per round, allowed stacking shares the seat's place.
TEST(Seats, MovingOntoAHeldSeatStacksByTheLayoutsRule) {
    conference f;
    for (uint32_t id = 1; id <= 3; ++id) f.join(id);
    constexpr int ok = QEL_ERROR_NONE, bad = QEL_ERROR_INVALID_VALUE;
    // clang-format off
    const std::tuple<uint32_t, int32_t, int, std::vector<log_line>> moves[] = {
        {3, 1,  ok,  {event("move_participant 1 3 seat 5 at 0 0 150 facing 180 0"), moved(3, 1)}},
        {2, 1,  ok,  {event("move_participant 1 2 seat 9 at 0 0 200 facing 180 0"), moved(2, 1)}},
        {3, 1,  ok,  {event("move_participant 1 3 seat 5 at 0 0 150 facing 180 0"), moved(3, 1)}},
        {1, 1,  ok,  {event("move_participant 1 1 seat 1 at 0 0 100 facing 180 0"), moved(1, 1)}},
        {1, -1, bad, {warning("seat index -1 does not exist in room layout 10.")}},
        {1, lo, bad, {warning("seat index -2147483648 does not exist in room layout 10.")}},
        {1, 0,  ok,  {event("move_participant 1 1 seat 0 at 0 0 0 facing 0 0"), moved(1, 0)}}};
    // clang-format on
    for (const auto& [participant, seat, code, lines] : moves) {
        expect_call(f.log, code, lines, [&, p = participant, s = seat] {
            return qel_set_participant_seat(f.library, 1, p, s);
        });
    }
    ASSERT_EQ(qel_set_room_layout(f.library, 1, 20), QEL_ERROR_NONE);
    ASSERT_EQ(qel_set_participant_seat(f.library, 1, 3, 2000000000),
              QEL_ERROR_NONE); // (k - 1) mod 4 + 1 = 4
    EXPECT_EQ(
        (std::array{f.place(2), f.place(3)}),
        (std::array<place_record, 2>{{{9, 0, 0, 300, 180, 0}, {2000000000, -300, 0, 0, 90, 0}}}));
}

// Positions are for open rooms; the heading is checked first, even before the room.
TEST(Seats, PositionsAreForOpenRoomsWithHeadingsInRange) {
    conference f(30);
    f.join(1);
    const auto set = [&](qel_position p, qel_heading h, uint32_t r = 1) {
        return qel_set_participant_position(f.library, r, 1, p, h);
    };
    EXPECT_EQ(f.place(1), (place_record{-1, 0, 0, 0, 0, 0}));
    expect_call(f.log, QEL_ERROR_NONE,
                {event("set_participant_position 1 1 at 10 -20 30 facing 45 -30"),
                 info("Participant 1 in room 1 has changed position to {10, -20, 30} and heading "
                      "{45, -30}")},
                [&] {
                    return set({10, -20, 30}, {45, -30});
                });
    qel_position p{};
    qel_heading h{};
    ASSERT_EQ(qel_get_participant_position(f.library, 1, 1, &p, &h), QEL_ERROR_NONE);
    EXPECT_EQ((std::array{p.x, p.y, p.z, h.azimuth, h.elevation}),
              (std::array{10, -20, 30, 45, -30}));
    ASSERT_EQ(set({lo, hi, lo}, {180, -90}) + set({lo, hi, lo}, {-180, 90}), 2 * QEL_ERROR_NONE);
    for (const auto& [azimuth, elevation, room] :
         {std::array{181, 0, 1}, {0, 91, 1}, {-181, 0, 1}, {0, -91, 77}}) {
        expect_call(
            f.log, QEL_ERROR_INVALID_HEADING,
            {warning("You provided {" + std::to_string(azimuth) + ", " + std::to_string(elevation) +
                     "} but your heading must have an azimuth between -180 and 180 and an "
                     "elevation between -90 and 90")},
            [&, h = qel_heading{azimuth, elevation}, r = room] {
                return set({7, 8, 9}, h, r);
            });
    }
    EXPECT_EQ(f.place(1), (place_record{-1, lo, hi, lo, -180, 90}));
    ASSERT_EQ(qel_create_room(f.library, 2), QEL_ERROR_NONE); // closed layout 10
    f.join(1, regular(), 2);
    expect_call(f.log, QEL_ERROR_INVALID_CONTROL,
                {warning("You can only use set_position for an open room. Change room 2 to an open "
                         "room layout to use set_position")},
                [&] {
                    return set({5, 5, 5}, {10, 10}, 2);
                });
}

// Directions follow every move both ways; source-only participants hear nothing and equal ids are
// refused before the room is looked up.
TEST(Seats, DirectionsFollowEveryMoveBothWays) {
    conference f;
    f.join(1);
    f.join(2, {48000, 1, QEL_PARTICIPANT_SOURCE_ONLY});
    f.join(3, {48000, 2, QEL_PARTICIPANT_LISTENER_ONLY});
    // 1 at (0,0,100) facing -z hears 2 at (100,0,0) at acos(-100 / 141.4) - 180 = -45; 3 face to
    // face.
    EXPECT_EQ((std::array{f.heard(1, 2), f.heard(1, 3), f.heard(3, 1)}),
              (std::array<heard_record, 3>{{{-45, 0, 141}, {0, 0, 200}, {0, 0, 200}}}));
    ASSERT_EQ(qel_set_participant_seat(f.library, 1, 1, 4), QEL_ERROR_NONE); // (-100,0,0) facing +x
    EXPECT_EQ((std::array{f.heard(1, 3), f.heard(3, 1)}),
              (std::array<heard_record, 2>{{{45, 0, 141}, {-45, 0, 141}}}));
    int32_t a = 0, e = 0, d = 0;
    expect_call(
        f.log, QEL_ERROR_INVALID_VALUE,
        {warning("Participant 2 in room 1 is source only and therefore doesn't experience 3D")},
        [&] { return qel_get_participant_spherical(f.library, 1, 2, 1, &a, &e, &d); });
    expect_call(f.log, QEL_ERROR_INVALID_PARTICIPANT_ID,
                {warning("You must use a different listener_id and source_id for "
                         "qel_get_participant_spherical")},
                [&] { return qel_get_participant_spherical(f.library, 999, 4, 4, &a, &e, &d); });
}
