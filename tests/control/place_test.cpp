// Seats, positions and headings (spec Part 3.3): direction computation,
// heading towards the centre point, seat lookup with stacking, first free seat.
#include "conference/place.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <vector>

namespace quelora {
namespace {

constexpr int32_t i32_max = std::numeric_limits<int32_t>::max();
constexpr int32_t i32_min = std::numeric_limits<int32_t>::min();

place at(int32_t x, int32_t y, int32_t z, int32_t azimuth = 0, int32_t elevation = 0) {
    return place{-1, x, y, z, azimuth, elevation};
}

// Independent double-precision reading of Part 3.3 steps 2-9 (untruncated),
// written from the spec text rather than from place.cpp.
struct reference {
    double azimuth, elevation, distance;
};

reference reference_direction(const place& l, const place& s) {
    const double pi = 3.14159265358979323846;
    const auto deg = [&](double r) { return r * 180.0 / pi; };
    const double dx = static_cast<double>(static_cast<int64_t>(s.x) - l.x);
    double dy = static_cast<double>(static_cast<int64_t>(s.y) - l.y);
    double dz = static_cast<double>(static_cast<int64_t>(s.z) - l.z);
    if (l.elevation != 0) {
        double a;
        if (dz == 0 && dy > 0) a = 90;
        else if (dz == 0 && dy < 0) a = -90;
        else if (dz == 0) a = 0;
        else if (dz < 0 && dy == 0) a = -180;
        else a = deg(std::atan(dy / dz)) - (dz < 0 ? 180 : 0);
        const double r = std::sqrt(dz * dz + dy * dy);
        const double b = (a - l.elevation) * pi / 180.0;
        dy = std::sin(b) * r;
        dz = std::cos(b) * r;
    }
    double distance = std::sqrt(dx * dx + dy * dy + dz * dz);
    const double h = std::sqrt(dx * dx + dz * dz);
    double az = 0, el = 0;
    if (h == 0) {
        el = dy > 0 ? 90 : (dy < 0 ? -90 : 0);
        if (dy == 0) distance = 0;
    } else {
        az = deg(std::acos(dz / h));
        el = dx != 0 ? deg(std::atan(dy / dx)) : deg(std::atan(dy / dz)) * (dz < 0 ? -1 : 1);
    }
    if (l.x > s.x) { az = -az; el = -el; }
    if (dx != 0 || dz != 0) az -= l.azimuth;
    if (el > 90) { az += 180; el = 180 - el; }
    if (el < -90) { el += 180; az += 180; }
    if (az > 180) az -= 360;
    if (az < -180) az += 360;
    return {az, el, distance};
}

// Circular distance in degrees, so 179 and -179.9 are close.
double angle_gap(double a, double b) {
    const double d = std::fmod(std::fabs(a - b), 360.0);
    return std::min(d, 360.0 - d);
}

void expect_near_reference(const place& l, const place& s, double tolerance = 1.0) {
    const direction got = compute_direction(l, s);
    const reference want = reference_direction(l, s);
    SCOPED_TRACE(testing::Message() << "listener {" << l.x << "," << l.y << "," << l.z << " / "
                                    << l.azimuth << "," << l.elevation << "} source {" << s.x
                                    << "," << s.y << "," << s.z << "}");
    EXPECT_LE(angle_gap(got.azimuth, want.azimuth), tolerance) << want.azimuth;
    EXPECT_LE(std::fabs(got.elevation - want.elevation), tolerance) << want.elevation;
    EXPECT_LE(std::fabs(got.distance - std::min(want.distance, double(i32_max))), 1.0);
}

void expect_direction(const place& l, const place& s, int32_t az, int32_t el, int32_t dist) {
    const direction got = compute_direction(l, s);
    EXPECT_EQ(got.azimuth, az);
    EXPECT_EQ(got.elevation, el);
    EXPECT_EQ(got.distance, dist);
    expect_near_reference(l, s);
}

TEST(Part3_3_Places, SourceStraightAheadIsAzimuthZeroAtDistanceDz) {
    expect_direction(at(0, 0, 0), at(0, 0, 1000), 0, 0, 1000);
    expect_direction(at(-70, 12, 5), at(-70, 12, 305), 0, 0, 300);
}

TEST(Part3_3_Places, SourceDirectlyAboveOrBelow) {
    expect_direction(at(0, 0, 0), at(0, 500, 0), 0, 90, 500);
    expect_direction(at(3, 4, 5), at(3, -96, 5), 0, -90, 100);
    expect_direction(at(3, 4, 5, 120, 0), at(3, 4, 5), 0, 0, 0); // same spot: step 7 skipped
}

TEST(Part3_3_Places, SourcesRightLeftAndBehind) {
    expect_direction(at(0, 0, 0), at(1000, 0, 0), 90, 0, 1000);    // dx > 0
    expect_direction(at(0, 0, 0), at(-1000, 0, 0), -90, 0, 1000);  // dx < 0: step 6
    expect_direction(at(0, 0, 0), at(0, 0, -1000), 180, 0, 1000);  // 180 not wrapped
    expect_direction(at(0, 0, 0), at(-1, 0, -1000), -179, 0, 1000); // -179.94, truncated
    // Heading -90: 180 + 90 = 270 wraps to -90 (step 9).
    expect_direction(at(0, 0, 0, -90, 0), at(0, 0, -1000), -90, 0, 1000);
    // Heading 90: -179.94 - 90 = -269.94 wraps to 90.06.
    expect_direction(at(0, 0, 0, 90, 0), at(-1, 0, -1000), 90, 0, 1000);
}

TEST(Part3_3_Places, HeadingAzimuthIsSubtracted) {
    // Facing +x (azimuth 90), a source ahead of the room (+z) is at -90.
    expect_direction(at(0, 0, 0, 90, 0), at(0, 0, 1000), -90, 0, 1000);
    expect_direction(at(0, 0, 0, 90, 0), at(1000, 0, 0), 0, 0, 1000);
    // Only dy differs: step 7 is skipped, the heading does not matter.
    expect_direction(at(0, 0, 0, 90, 0), at(0, 200, 0), 0, 90, 200);
}

TEST(Part3_3_Places, HeadingElevationRotatesDepthAndHeight) {
    // Step 3: dz 1000 pitched by -30 gives dy -500, dz 866: elevation about -30.
    const direction d = compute_direction(at(0, 0, 0, 0, 30), at(0, 0, 1000));
    EXPECT_EQ(d.azimuth, 0);
    EXPECT_GE(d.elevation, -30);
    EXPECT_LE(d.elevation, -29);
    EXPECT_GE(d.distance, 999);
    EXPECT_LE(d.distance, 1000);
    expect_near_reference(at(0, 0, 0, 0, 30), at(0, 0, 1000));
    expect_near_reference(at(0, 0, 0, 0, 30), at(0, 400, 0));       // dz = 0, dy > 0
    expect_near_reference(at(0, 0, 0, 0, -45), at(0, 0, -1000));    // dz < 0, dy = 0: a = -180
    expect_near_reference(at(0, 0, 0, 0, 30), at(250, 300, -800));  // dz < 0: a - 180
    expect_near_reference(at(10, 20, 30, 45, -60), at(-400, 90, 700));
    expect_near_reference(at(0, 0, 0, -135, 89), at(123, -456, 789));
}

TEST(Part3_3_Places, ElevationUsesDyOverDxQuirk) {
    // atan(100 / 100) = 45, not atan(100 / 1005) ~ 5.7 (Part 3.3 step 5).
    expect_direction(at(0, 0, 0), at(100, 100, 1000), 5, 45, 1009);
    // dx < 0: atan gives -45, step 6 negates it back to 45 and the azimuth to -5.
    expect_direction(at(100, 0, 0), at(0, 100, 1000), -5, 45, 1009);
    // dx = 0, dz < 0: atan(100 / -1000) negated, so above stays positive.
    expect_direction(at(0, 0, 0), at(0, 100, -1000), 180, 5, 1004);
}

TEST(Part3_3_Places, Step8FoldIsAsymmetric) {
    float az = 10.0f, el = 100.0f;
    fold_direction(az, el);
    EXPECT_FLOAT_EQ(az, -170.0f); // 190 wrapped by step 9
    EXPECT_FLOAT_EQ(el, 80.0f);
    az = 10.0f;
    el = -100.0f;
    fold_direction(az, el);
    EXPECT_FLOAT_EQ(az, -170.0f);
    EXPECT_FLOAT_EQ(el, 80.0f); // += 180, not mirrored to -80: deliberate
    az = -170.0f;
    el = -90.0f; // the boundary is not folded
    fold_direction(az, el);
    EXPECT_FLOAT_EQ(az, -170.0f);
    EXPECT_FLOAT_EQ(el, -90.0f);
    az = 360.0f; // step 9 corrects once each way
    el = 0.0f;
    fold_direction(az, el);
    EXPECT_FLOAT_EQ(az, 0.0f);
    // Through compute_direction the elevation tops out at exactly 90
    // (float atan of a huge ratio), so the fold does not fire.
    const direction d = compute_direction(at(0, 0, 0), at(1, i32_max, 0));
    EXPECT_EQ(d.azimuth, 90);
    EXPECT_EQ(d.elevation, 90);
    EXPECT_EQ(d.distance, i32_max);
}

TEST(Part3_3_Places, HugeCoordinatesDoNotOverflowAndSaturateDistance) {
    const direction up = compute_direction(at(i32_min, i32_min, i32_min), at(i32_max, i32_max, i32_max));
    EXPECT_EQ(up.distance, i32_max);
    EXPECT_NEAR(up.azimuth, 45, 1);
    EXPECT_NEAR(up.elevation, 45, 1);
    expect_near_reference(at(i32_min, i32_min, i32_min), at(i32_max, i32_max, i32_max));
    const direction down = compute_direction(at(i32_max, i32_max, i32_max), at(i32_min, i32_min, i32_min));
    EXPECT_EQ(down.distance, i32_max);
    EXPECT_NEAR(down.azimuth, -135, 1);
    EXPECT_NEAR(down.elevation, -45, 1);
    expect_direction(at(i32_max, 0, 0), at(i32_min, 0, 0), -90, 0, i32_max);
    expect_near_reference(at(i32_max, 0, 0, 0, 90), at(i32_min, i32_max, i32_min));
}

TEST(Part3_3_Places, RandomPlacesGiveNoNaNAndStayInRange) {
    std::mt19937 rng(20240611);
    std::uniform_int_distribution<int32_t> coord(-100000, 100000);
    std::uniform_int_distribution<int32_t> heading_az(-180, 180), heading_el(-90, 90);
    int rotated = 0, rotated_agree = 0;
    for (int i = 0; i < 10000; ++i) {
        const place l = at(coord(rng), coord(rng), coord(rng), heading_az(rng), heading_el(rng));
        const place s = at(coord(rng), coord(rng), coord(rng));
        const direction d = compute_direction(l, s);
        // Guaranteed bounds: acos gives [0, 180], step 6 makes it [-180, 180],
        // a heading in range makes step 7's result [-360, 360], and step 9's
        // single correction each way maps that onto [-180, 180]. Elevation is
        // atan's range or +-90, so step 8 never fires and it stays in
        // [-90, 90]. A distance is a square root.
        ASSERT_GE(d.azimuth, -180);
        ASSERT_LE(d.azimuth, 180);
        ASSERT_GE(d.elevation, -90);
        ASSERT_LE(d.elevation, 90);
        ASSERT_GE(d.distance, 0);
        // Without the step 3 rotation the float inputs are exact, so the
        // double reading agrees to truncation. Rotated cases can diverge near
        // degenerate angles (a rotated dz cancelling to almost 0), where float
        // and double legitimately differ, so those only need to agree mostly.
        const reference want = reference_direction(l, s);
        const bool agrees = angle_gap(d.azimuth, want.azimuth) <= 1.05 &&
                            std::fabs(d.elevation - want.elevation) <= 1.05 &&
                            std::fabs(d.distance - want.distance) <= 1.05;
        if (l.elevation == 0) {
            ASSERT_TRUE(agrees) << want.azimuth << " " << want.elevation << " " << want.distance;
        } else {
            ++rotated;
            rotated_agree += agrees ? 1 : 0;
        }
    }
    EXPECT_GE(rotated_agree * 100, rotated * 99);
}

TEST(Part3_3_Places, HeadingTowardsCentreHearsCentreStraightAhead) {
    std::mt19937 rng(7);
    std::uniform_int_distribution<int32_t> coord(-100000, 100000);
    std::vector<seat_position> centres = {{0, 0, 0}, {250, -40, -900}};
    for (int i = 0; i < 8; ++i) centres.push_back({coord(rng), coord(rng), coord(rng)});
    int checked = 0;
    for (const seat_position& c : centres) {
        std::vector<seat_position> seats;
        for (const double radius : {1.0, 37.0, 1000.0, 123457.0}) {
            for (int deg = 0; deg < 360; deg += 5) {
                const double r = deg * 3.14159265358979323846 / 180.0;
                seats.push_back({c.x + static_cast<int32_t>(std::lround(radius * std::sin(r))), c.y,
                                 c.z + static_cast<int32_t>(std::lround(radius * std::cos(r)))});
            }
        }
        for (int i = 0; i < 200; ++i) seats.push_back({coord(rng), c.y, coord(rng)});
        for (const seat_position& seat : seats) {
            if (seat.x == c.x && seat.z == c.z) continue;
            int32_t az = 99, el = 99;
            heading_towards(seat, c, az, el);
            ASSERT_GE(az, -180);
            ASSERT_LE(az, 180);
            ASSERT_EQ(el, 0);
            const direction d = compute_direction(at(seat.x, seat.y, seat.z, az, el), at(c.x, c.y, c.z));
            ASSERT_LE(std::abs(d.azimuth), 1) << seat.x << "," << seat.z << " heading " << az;
            ASSERT_EQ(d.elevation, 0);
            ++checked;
        }
    }
    EXPECT_GT(checked, 3000);
}

TEST(Part3_3_Places, HeadingTowardsKnownAnswers) {
    int32_t az = 0, el = 0;
    heading_towards({0, 0, -100}, {0, 100, 0}, az, el); // up at 45 degrees, ahead
    EXPECT_EQ(az, 0);
    EXPECT_EQ(el, 45);
    heading_towards({100, 0, 0}, {0, 0, 0}, az, el);
    EXPECT_EQ(az, -90);
    EXPECT_EQ(el, 0);
    heading_towards({0, 0, 50}, {0, 0, 0}, az, el);
    EXPECT_EQ(az, 180);
    heading_towards({0, 0, 0}, {0, 50, 0}, az, el); // straight above: no horizontal part
    EXPECT_EQ(az, 0);
    EXPECT_EQ(el, 90);
    heading_towards({0, 0, 0}, {0, -50, 0}, az, el);
    EXPECT_EQ(el, -90);
    heading_towards({7, 7, 7}, {7, 7, 7}, az, el);
    EXPECT_EQ(az, 0);
    EXPECT_EQ(el, 0);
}

quelora_room_layout four_seats(bool stacking) {
    quelora_room_layout layout;
    layout.allow_participant_stacking = stacking;
    layout.stack_delta = 50;
    layout.center_point = {0, 0, 0};
    layout.seats = {{0, 0, 100}, {100, 0, 0}, {0, 0, -100}, {-100, 0, 0}};
    return layout;
}

TEST(Part3_3_Places, SeatsWithinTheLayoutFaceTheCentre) {
    const quelora_room_layout layout = four_seats(false);
    EXPECT_EQ(lookup_seat(layout, 1), (place{1, 0, 0, 100, 180, 0}));
    EXPECT_EQ(lookup_seat(layout, 2), (place{2, 100, 0, 0, -90, 0}));
    EXPECT_EQ(lookup_seat(layout, 3), (place{3, 0, 0, -100, 0, 0}));
    EXPECT_EQ(lookup_seat(layout, 4), (place{4, -100, 0, 0, 90, 0}));
}

TEST(Part3_3_Places, FifthParticipantWithoutStackingIsRaisedByStackDelta) {
    // Not allowed to stack: each level moves up by stackDelta (deliberate inversion).
    const quelora_room_layout layout = four_seats(false);
    EXPECT_EQ(lookup_seat(layout, 5), (place{5, 0, 0, 150, 180, 0}));
    EXPECT_EQ(lookup_seat(layout, 9), (place{9, 0, 0, 200, 180, 0}));
    // Seat 2 raised: from (100, 0, 50) the centre is at -acos(-50 / 111.8) = -116.6.
    EXPECT_EQ(lookup_seat(layout, 6), (place{6, 100, 0, 50, -116, 0}));
}

TEST(Part3_3_Places, FifthParticipantWithStackingSitsOnSeatOne) {
    const quelora_room_layout layout = four_seats(true);
    EXPECT_EQ(lookup_seat(layout, 5), (place{5, 0, 0, 100, 180, 0}));
    EXPECT_EQ(lookup_seat(layout, 9), (place{9, 0, 0, 100, 180, 0}));
    EXPECT_EQ(lookup_seat(layout, 8), (place{8, -100, 0, 0, 90, 0}));
}

TEST(Part3_3_Places, ZeroAndNegativeIndicesStayAtTheOrigin) {
    const quelora_room_layout layout = four_seats(false);
    EXPECT_EQ(lookup_seat(layout, 0), (place{0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(lookup_seat(layout, -1), (place{-1, 0, 0, 0, 0, 0}));
    EXPECT_EQ(lookup_seat(layout, i32_min), (place{i32_min, 0, 0, 0, 0, 0}));
}

TEST(Part3_3_Places, LayoutWithoutSeatsGivesTheOrigin) {
    quelora_room_layout layout;
    layout.center_point = {10, 20, 30};
    for (const int32_t k : {1, 2, 5, i32_max}) {
        EXPECT_EQ(lookup_seat(layout, k), (place{k, 0, 0, 0, 0, 0}));
    }
}

TEST(Part3_3_Places, LargestIndexStacksWithoutOverflow) {
    // (INT32_MAX - 1) mod 4 = 2: seat 3, level 536870911.
    EXPECT_EQ(lookup_seat(four_seats(true), i32_max), (place{i32_max, 0, 0, -100, 0, 0}));
    quelora_room_layout layout = four_seats(false);
    // -100 + 536870911 * 50 is about 2.7e10: saturated.
    EXPECT_EQ(lookup_seat(layout, i32_max).z, i32_max);
    layout.stack_delta = i32_max;
    EXPECT_EQ(lookup_seat(layout, i32_max).z, i32_max);
    layout.stack_delta = i32_min;
    const place low = lookup_seat(layout, i32_max);
    EXPECT_EQ(low.z, i32_min);
    EXPECT_EQ(low.azimuth, 0); // far below (in z) the centre still faces it
}

TEST(Part3_3_Places, FirstFreeSeat) {
    EXPECT_EQ(first_free_seat({}), 1);
    EXPECT_EQ(first_free_seat({1, 2, 3}), 4);
    EXPECT_EQ(first_free_seat({2, 3}), 1);
    EXPECT_EQ(first_free_seat({-1, 0, 1, 1, 3}), 2);
    EXPECT_EQ(first_free_seat({3, 1, i32_max, 2, i32_min, 5}), 4);
    EXPECT_EQ(first_free_seat({i32_max}), 1);
}

} // namespace
} // namespace quelora
