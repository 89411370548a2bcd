// Places, seat lookup and directions.
#include "conference/place.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <limits>

namespace quelora {

namespace {

// Single precision and this value of pi, deliberately: the directions are
// truncated to the integers hosts read back and compare between releases, so
// any change in rounding moves some of them by one. Do not "improve" either;
// the same holds for the formula's quirks below.
constexpr float pi_f = 3.1415927f;

float to_degrees(float radians) { return radians * 180.0f / pi_f; }
float to_radians(float degrees) { return degrees * pi_f / 180.0f; }

// Integer differences are taken in 64 bits so that INT32_MAX - INT32_MIN
// cannot overflow before the conversion to float.
float difference(int32_t to, int32_t from) {
    return static_cast<float>(static_cast<int64_t>(to) - static_cast<int64_t>(from));
}

// The final truncation toward zero. A float outside the int32 range (a
// distance between far-apart extreme coordinates) would make the plain cast
// undefined, so it saturates; NaN cannot arise from compute_direction but
// maps to 0.
int32_t truncate_to_int32(float value) {
    if (std::isnan(value)) {
        return 0;
    }
    if (value >= 2147483648.0f) {
        return std::numeric_limits<int32_t>::max();
    }
    if (value < -2147483648.0f) {
        return std::numeric_limits<int32_t>::min();
    }
    return static_cast<int32_t>(value);
}

int32_t saturate_to_int32(int64_t value) {
    return static_cast<int32_t>(std::clamp<int64_t>(value, std::numeric_limits<int32_t>::min(),
                                                    std::numeric_limits<int32_t>::max()));
}

// acos of a ratio whose magnitude is at most 1 in exact arithmetic; the clamp
// only guards against a rounding excursion turning into NaN.
float acos_degrees(float ratio) { return to_degrees(std::acos(std::clamp(ratio, -1.0f, 1.0f))); }

} // namespace

void fold_direction(float& azimuth, float& elevation) {
    // Elevation fold, deliberately asymmetric: the lower branch adds 180 to
    // the elevation instead of mirroring it. compute_direction keeps the
    // elevation in [-90, 90] (atan's range, or exactly +-90), so neither
    // branch fires for places; the fold is kept unchanged all the same.
    if (elevation > 90.0f) {
        azimuth += 180.0f;
        elevation = 180.0f - elevation;
    }
    if (elevation < -90.0f) {
        elevation += 180.0f;
        azimuth += 180.0f;
    }
    // Azimuth wrap: one correction each way, not a full modulo.
    if (azimuth > 180.0f) {
        azimuth -= 360.0f;
    }
    if (azimuth < -180.0f) {
        azimuth += 360.0f;
    }
}

direction compute_direction(const place& listener, const place& source) {
    // The source relative to the listener.
    const float dx = difference(source.x, listener.x);
    float dy = difference(source.y, listener.y);
    float dz = difference(source.z, listener.z);

    // Pitch the (dz, dy) plane by the listener's heading elevation.
    if (listener.elevation != 0) {
        float a = 0.0f;
        if (dz == 0.0f) {
            a = dy > 0.0f ? 90.0f : (dy < 0.0f ? -90.0f : 0.0f);
        } else if (dz < 0.0f && dy == 0.0f) {
            a = -180.0f;
        } else {
            a = to_degrees(std::atan(dy / dz));
            if (dz < 0.0f) {
                a -= 180.0f;
            }
        }
        const float r = std::sqrt(dz * dz + dy * dy);
        const float b = to_radians(a - static_cast<float>(listener.elevation));
        dy = std::sin(b) * r;
        dz = std::cos(b) * r;
    }

    float distance = std::sqrt(dx * dx + dy * dy + dz * dz);
    const float h = std::sqrt(dx * dx + dz * dz);

    // Azimuth and elevation. The elevation over dx (not over h) is one of the
    // quirks hosts' stored directions depend on; keep it.
    float azimuth = 0.0f;
    float elevation = 0.0f;
    if (h == 0.0f) {
        if (dy > 0.0f) {
            elevation = 90.0f;
        } else if (dy < 0.0f) {
            elevation = -90.0f;
        } else {
            distance = 0.0f;
        }
    } else {
        azimuth = acos_degrees(dz / h);
        if (dx != 0.0f) {
            elevation = to_degrees(std::atan(dy / dx));
        } else {
            elevation = to_degrees(std::atan(dy / dz));
            if (dz < 0.0f) {
                elevation = -elevation;
            }
        }
    }

    // A source at lower x than the listener mirrors both angles.
    if (listener.x > source.x) {
        azimuth = -azimuth;
        elevation = -elevation;
    }

    // Turn by the listener's heading azimuth, unless the source is straight
    // above or below. dz is the pitched value, the same one tested above.
    if (dx != 0.0f || dz != 0.0f) {
        azimuth -= static_cast<float>(listener.azimuth);
    }

    fold_direction(azimuth, elevation);

    return direction{truncate_to_int32(azimuth), truncate_to_int32(elevation),
                     truncate_to_int32(distance)};
}

void heading_towards(const seat_position& from, const seat_position& target, int32_t& azimuth,
                     int32_t& elevation) {
    // Same frame and float arithmetic as compute_direction, so a listener
    // given this heading hears `target` at azimuth 0 (the fractional part of
    // the same acos is all that remains, and it truncates to 0).
    const float dx = difference(target.x, from.x);
    const float dy = difference(target.y, from.y);
    const float dz = difference(target.z, from.z);
    const float h = std::sqrt(dx * dx + dz * dz);
    if (h == 0.0f) {
        azimuth = 0;
        elevation = dy > 0.0f ? 90 : (dy < 0.0f ? -90 : 0);
        return;
    }
    float az = acos_degrees(dz / h);
    if (dx < 0.0f) {
        az = -az;
    }
    azimuth = truncate_to_int32(az);
    elevation = truncate_to_int32(to_degrees(std::atan(dy / h)));
}

place lookup_seat(const quelora_room_layout& layout, int32_t seat_index) {
    place result{seat_index, 0, 0, 0, 0, 0};
    const auto n = static_cast<int64_t>(layout.seats.size());
    // Indices below 1 keep the origin, and so does every index of a layout
    // without seats: it has no base seat to stack on, and (k - 1) mod n would
    // divide by zero.
    if (seat_index <= 0 || n == 0) {
        return result;
    }
    const int64_t k = seat_index;
    const seat_position& base = layout.seats[static_cast<std::size_t>((k - 1) % n)];
    result.x = base.x;
    result.y = base.y;
    if (k <= n || layout.allow_participant_stacking) {
        // A seat of the layout, or one beyond the seat count with stacking
        // allowed: the base seat's own z.
        result.z = base.z;
    } else {
        // Beyond the seat count without stacking allowed: each level moves up
        // by stackDelta. The inversion (allowed keeps z, refused moves) is
        // deliberate: a layout that allows stacking lets participants share a
        // seat's place; one that refuses it lifts each further round by
        // stackDelta so that nobody shares one. At most
        // INT32_MAX * INT32_MAX + INT32_MAX, so int64 cannot overflow.
        result.z = saturate_to_int32(base.z + ((k - 1) / n) * static_cast<int64_t>(layout.stack_delta));
    }
    // Seat records hold no heading: every seat, stacked or not, faces the
    // layout's centre point.
    heading_towards(seat_position{result.x, result.y, result.z}, layout.center_point,
                    result.azimuth, result.elevation);
    return result;
}

int32_t first_free_seat(const std::vector<int32_t>& taken) {
    std::vector<int32_t> sorted = taken;
    std::sort(sorted.begin(), sorted.end());
    int32_t candidate = 1;
    for (const int32_t held : sorted) {
        if (held < candidate) {
            continue; // non-positive indices and duplicates
        }
        if (held > candidate) {
            break;
        }
        if (candidate == std::numeric_limits<int32_t>::max()) {
            return candidate; // every index taken: cannot happen in practice
        }
        ++candidate;
    }
    return candidate;
}

} // namespace quelora
