// Places, seat lookup and directions. Pure functions: the conference model
// calls them under its locks.
#pragma once

#include "config/room_layout.h"

#include <quelora/quelora.h>

#include <cstdint>
#include <vector>

namespace quelora {

// The six-integer place record {seat index, x, y, z, azimuth, elevation}.
struct place {
    int32_t seat_index = -1;
    int32_t x = 0, y = 0, z = 0;
    int32_t azimuth = 0, elevation = 0;

    bool operator==(const place&) const = default;
};

// The same six fields as the public seat record (qel_seat).
inline qel_seat to_seat_record(const place& p) {
    return qel_seat{p.seat_index, p.x, p.y, p.z, p.azimuth, p.elevation};
}

// A source as one listener hears it (compute_direction), before storing.
struct direction {
    int32_t azimuth = 0;
    int32_t elevation = 0;
    int32_t distance = 0;
};

// Direction of `source` heard by a listener at `listener` (its heading is the
// listener place's azimuth/elevation). The caller skips self pairs and
// source-only listeners.
direction compute_direction(const place& listener, const place& source);

// The last step of the direction computation (elevation fold, azimuth wrap),
// separate so tests can reach the fold that compute_direction's own angles
// never trigger.
void fold_direction(float& azimuth, float& elevation);

// The heading that faces `target` from `from` (the layout's heading rule for
// a seat: every seat faces the layout's centre point). docs/design.md.
void heading_towards(const seat_position& from, const seat_position& target, int32_t& azimuth,
                     int32_t& elevation);

// Seat lookup: the place of seat index k in the layout, with stacking beyond
// the seat count.
place lookup_seat(const quelora_room_layout& layout, int32_t seat_index);

// Lowest k >= 1 not in `taken` (no upper bound).
int32_t first_free_seat(const std::vector<int32_t>& taken);

} // namespace quelora
