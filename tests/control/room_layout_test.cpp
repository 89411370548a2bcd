// Reading the room configuration document into layouts, and the places,
// headings and directions worked out from them (values worked out by hand).
#include "api/quelora_exception.h"
#include "conference/place.h"
#include "support/log_expect.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <tuple>

namespace quelora {

using json = nlohmann::json;
using namespace testing;

namespace {

constexpr int32_t hi = INT32_MAX, lo = INT32_MIN;

place at(int32_t x, int32_t y, int32_t z, int32_t azimuth = 0, int32_t elevation = 0) {
    return {-1, x, y, z, azimuth, elevation};
}
std::array<int32_t, 3> heard(const place& listener, const place& source) {
    const direction d = compute_direction(listener, source);
    return {d.azimuth, d.elevation, d.distance};
}

// A closed layout (four seats, stacking off, two default states), the one room of document().
json closed_layout(int32_t id = 7) {
    // clang-format off
    return {
        {"id", id}, {"desc", "four seats"}, {"allowParticipantStacking", false},
        {"stackDelta", 25}, {"openRoom", false}, {"centerPoint", {{"x", 1}, {"y", 2}, {"z", 3}}},
        {"seats", json::array({
            {{"x", -100}, {"y", 0}, {"z", 0}}, {{"x", 100}, {"y", 0}, {"z", 0}},
            {{"x", 0}, {"y", -100}, {"z", 0}}, {{"x", 0}, {"y", 100}, {"z", 5}}})},
        {"defaultStates", {{"QEL_CONTROL_MIXING_3D_ENABLE", 1}, {"QEL_CONTROL_MASTER_GAIN", 80}}}};
    // clang-format on
}
json document() { return {{"default", "room"}, {"room_list", {{"room", closed_layout()}}}}; }

log_line missing(const std::string& member) {
    return error("A Room in the Room Configuration file is missing its '" + member + "' property");
}

} // namespace

// Structural faults are -9988 with their line; a missing member logs its line
// and then fails being read (403); a mistyped one is a type error (30x).
TEST(RoomLayout, BadDocumentsEndWithTheirFaultAndLines) {
    const log_line no_list =
        error("The Room Configuration file is missing the 'room_list' property");
    const log_line centre = missing("x','y','z' for the 'centerPoint");
    const log_line seat = error("A Seat in the Room Configuration file does not have all the 'x', "
                                "'y', and / or 'z' properties");
    // clang-format off
    std::vector<std::tuple<std::string, std::string, std::vector<log_line>>> rows = {
        // merge patch, outcome, lines
        {R"({"room_list": null})", "quelora -9988", {no_list}},
        // room_list is checked first
        {R"({"room_list": null, "default": null})", "quelora -9988", {no_list}},
        {R"({"default": null})", "quelora -9988",
         {error("The Room Configuration file is missing its 'default' property")}},
        {R"({"default": 1})", "json 302", {}},
        {R"({"room_list": [1]})", "json 302", {}},
        {R"({"room_list": {"room": {"centerPoint": {"z": null}}}})", "json 403", {centre}},
        {R"({"room_list": {"room": {"centerPoint": 3}}})", "json 304", {centre}},
        {R"({"room_list": {"room": {"seats": [{"x": 1, "y": 2}]}}})", "json 403", {seat}},
        {R"({"room_list": {"room": {"seats": [1]}}})", "json 304", {seat}},
        {R"({"room_list": {"room": {"defaultStates": {"QEL_CONTROL_MASTER_GAIN": "1"}}}})",
         "json 302", {}},
        // Default states are read first: their lines come before the others.
        {R"({"room_list": {"room": {"id": null, "defaultStates": {"bogus": 1}}}})", "json 403",
         {missing("id"), warning("bogus is not a valid control."),
          error("A Room in the Room Configuration file has an invalid default state of bogus")}},
        {R"({"room_list": {"room": {"id": null, "desc": null, "allowParticipantStacking": null,)"
         R"( "openRoom": null, "centerPoint": null, "seats": null, "stackDelta": null,)"
         R"( "defaultStates": null}}})", "json 403",
         {missing("id"), missing("desc"), missing("allowParticipantStacking"), missing("openRoom"),
          missing("centerPoint"), missing("seats")}}};
    // clang-format on
    for (const char* member : {"id", "desc", "allowParticipantStacking", "openRoom", "centerPoint",
                               "seats", "stackDelta"}) {
        rows.push_back({R"({"room_list": {"room": {")" + std::string(member) + R"(": null}}})",
                        "json 403",
                        {missing(member)}});
    }
    for (const auto& [patch, outcome, lines] : rows) {
        SCOPED_TRACE(patch);
        json d = document();
        d.merge_patch(json::parse(patch));
        log_capture log;
        try {
            room_layout_set set(d);
            ADD_FAILURE() << "accepted";
        } catch (const quelora_exception& e) {
            EXPECT_EQ("quelora " + std::to_string(e.error_code()), outcome);
        } catch (const json::exception& e) {
            EXPECT_EQ("json " + std::to_string(e.id), outcome);
        }
        check_lines(log.lines(), lines);
    }
}

// Numbers truncate toward zero and saturate; default states keep values outside the control's range
// (a joining participant refuses those). Stacking layouts never read stackDelta.
TEST(RoomLayout, MembersAreReadWholeTruncatedOrSaturated) {
    log_capture log;
    const room_layout_set set(document());
    const quelora_room_layout& l = *set.layouts().at(0);
    EXPECT_EQ((std::tuple{set.default_layout(), l.id, l.key, l.description,
                          l.allow_participant_stacking, l.stack_delta, l.open_room,
                          l.default_states, l.object, set.json_text(), l.seats.size()}),
              (std::tuple{&l, 7, std::string("room"), std::string("four seats"), false, 25, false,
                          std::map<int32_t, int32_t>{{8, 1}, {14, 80}}, closed_layout(),
                          document().dump(), 4u}));
    EXPECT_EQ((std::array{l.center_point.x, l.center_point.y, l.center_point.z, l.seats[0].x,
                          l.seats[3].y, l.seats[3].z}),
              (std::array{1, 2, 3, -100, 100, 5}));
    const room_layout_set numbers(
        parse_json_text(R"({"default":"r","room_list":{"r":{"id":1e300,"desc":"",)"
                        R"("allowParticipantStacking":true,"stackDelta":"unread","openRoom":true,)"
                        R"("centerPoint":{"x":1.9,"y":-1.9,"z":18446744073709551615},)"
                        R"("seats":[{"x":2147483647.5,"y":-2147483649,"z":-7.5}],"defaultStates":)"
                        R"({"QEL_CONTROL_ANC_MIX":2.9,"QEL_CONTROL_DEVICE":-9223372036854775808,)"
                        R"("QEL_CONTROL_MASTER_GAIN":1000}}}})"));
    const quelora_room_layout& n = *numbers.layouts().at(0);
    EXPECT_EQ((std::array{n.id, n.stack_delta, n.center_point.x, n.center_point.y, n.center_point.z,
                          n.seats.at(0).x, n.seats.at(0).y, n.seats.at(0).z}),
              (std::array{hi, 0, 1, -1, hi, hi, lo, -7}));
    EXPECT_EQ(n.default_states, (std::map<int32_t, int32_t>{{5, 2}, {12, lo}, {14, 1000}}));
    EXPECT_TRUE(log.lines().empty());
    const auto nested = [](int depth) {
        return parse_json_text(std::string(depth, '[') + std::string(depth, ']'));
    };
    EXPECT_NO_THROW(nested(256));
    EXPECT_THROW(nested(257), json::exception); // the text may nest at most 256 deep
}

TEST(Places, DirectionsWorkedOutByHand) {
    const struct {
        place listener, source;
        std::array<int32_t, 3> heard; // azimuth, elevation, distance
        int tolerance;                // degrees, where a pitched heading leaves float rounding
    } rows[] = {
        {at(3, 4, 5), at(3, 4, 1005), {0, 0, 1000}, 0},
        {at(0, 0, 0), at(0, 500, 0), {0, 90, 500}, 0},
        {at(3, 4, 5), at(3, -96, 5), {0, -90, 100}, 0},
        {at(0, 0, 0), at(1000, 0, 0), {90, 0, 1000}, 0},
        {at(3, 4, 5, 120, 0), at(3, 4, 5), {0, 0, 0}, 0},    // the same spot: no heading applied
        {at(0, 0, 0), at(0, 0, -1000), {180, 0, 1000}, 0},   // 180 stays 180
        {at(0, 0, 0), at(-1, 0, -1000), {-179, 0, 1000}, 0}, // -179.94, truncated
        {at(0, 0, 0, 90, 0), at(0, 0, 1000), {-90, 0, 1000}, 0},   // the heading is subtracted
        {at(0, 0, 0, -90, 0), at(0, 0, -1000), {-90, 0, 1000}, 0}, // 270 folds once to -90
        {at(0, 0, 0, 90, 0), at(-1, 0, -1000), {90, 0, 1000}, 0},  // -269.94 folds to 90.06
        {at(0, 0, 0, 90, 0), at(0, 200, 0), {0, 90, 200}, 0},      // straight up: no heading
        // The elevation is atan(dy / dx) whenever dx is not 0: 45, not 5.7.
        {at(0, 0, 0), at(100, 100, 1000), {5, 45, 1009}, 0},
        {at(100, 0, 0), at(0, 100, 1000), {-5, 45, 1009}, 0},
        // dx = 0: atan(dy / dz), negated behind
        {at(0, 0, 0), at(0, 100, -1000), {180, 5, 1004}, 0},
        {at(hi, 0, 0), at(lo, 0, 0), {-90, 0, hi}, 0},
        {at(0, 0, 0), at(1, hi, 0), {90, 90, hi}, 0},
        {at(hi, hi, hi), at(lo, lo, lo), {-135, -45, hi}, 1},
        // A pitched heading turns depth and height by the pitch: 30 up hears
        // ahead 30 below and (0, 400, 0) 60 up; 45 down hears behind 45 down.
        {at(0, 0, 0, 0, 30), at(0, 0, 1000), {0, -30, 1000}, 1},
        {at(0, 0, 0, 0, 30), at(0, 400, 0), {0, 60, 400}, 1},
        {at(0, 0, 0, 0, -45), at(0, 0, -1000), {180, -45, 1000}, 1}};
    for (const auto& r : rows) {
        const auto got = heard(r.listener, r.source);
        for (int i = 0; i < 3; ++i) {
            EXPECT_NEAR(got[i], r.heard[i], r.tolerance)
                << r.listener.x << "," << r.listener.y << "," << r.listener.z << " facing "
                << r.listener.azimuth << "," << r.listener.elevation << " hears " << r.source.x
                << "," << r.source.y << "," << r.source.z << ": value " << i;
        }
    }
    // Below -90 the elevation is folded up by 180, not mirrored; the azimuth is corrected once each
    // way.
    for (auto [az, el, want_az, want_el] : {std::array<float, 4>{10, 100, -170, 80},
                                            {10, -100, -170, 80},
                                            {-170, -90, -170, -90},
                                            {-360, 0, 0, 0},
                                            {540, 0, 180, 0}}) {
        fold_direction(az, el);
        EXPECT_EQ((std::array{az, el}), (std::array{want_az, want_el}));
    }
}

// Beyond the seats, refused stacking moves up by stackDelta per round and saturates; allowed
// stacking keeps the seat's place. Zero, negative indices, layouts without seats: the origin.
TEST(Places, SeatPlacesStackingFirstFreeSeatAndHeadings) {
    quelora_room_layout refused, allowed, empty;
    refused.stack_delta = allowed.stack_delta = 50;
    refused.seats = allowed.seats = {{0, 0, 100}, {100, 0, 0}, {0, 0, -100}, {-100, 0, 0}};
    allowed.allow_participant_stacking = true;
    const std::pair<const quelora_room_layout*, place> rows[] = {
        {&refused, {6, 100, 0, 50, -116, 0}}, // facing the centre: -acos(-50 / 111.8)
        {&refused, {hi, 0, 0, hi, 180, 0}},   {&allowed, {hi, 0, 0, -100, 0, 0}},
        {&allowed, {8, -100, 0, 0, 90, 0}},   {&refused, {lo, 0, 0, 0, 0, 0}},
        {&empty, {5, 0, 0, 0, 0, 0}}};
    for (const auto& [layout, want] : rows)
        EXPECT_EQ(lookup_seat(*layout, want.seat_index), want) << want.seat_index;
    refused.stack_delta = lo;
    EXPECT_EQ(lookup_seat(refused, hi), (place{hi, 0, 0, lo, 0, 0}));
    EXPECT_EQ(
        (std::array{first_free_seat({}), first_free_seat({2, 3}), first_free_seat({-1, 0, 1, 1, 3}),
                    first_free_seat({3, 1, hi, 2, lo, 5})}),
        (std::array{1, 1, 2, 4}));
    // Seats face the centre, its height included: (0, 100, 0) from (0, 0, -100) is 45 up.
    for (const auto& r : {std::array{0, 0, -100, 0, 100, 0, 0, 45},
                          {0, 0, 0, 0, -50, 0, 0, -90},
                          {7, 7, 7, 7, 7, 7, 0, 0}}) {
        int32_t azimuth = 99, elevation = 99;
        heading_towards({r[0], r[1], r[2]}, {r[3], r[4], r[5]}, azimuth, elevation);
        EXPECT_EQ((std::array{azimuth, elevation}), (std::array{r[6], r[7]}))
            << r[0] << "," << r[1] << "," << r[2];
    }
}

} // namespace quelora
