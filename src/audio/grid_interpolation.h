// Where a direction and distance fall on the grid of the spatial filter bank:
// the eight surrounding grid points (two distance layers x two elevations x
// two azimuths) with their weights.
#pragma once

#include <array>
#include <cstdint>

namespace quelora {

struct grid_corner {
    int32_t index;
    float weight;
};

// The grid: 24 azimuths every 15 degrees, 7 elevations every 30 degrees from
// -90, 4 distance layers every 100 units; point = (layer x 7 + elevation) x 24 + azimuth.
inline constexpr int32_t grid_azimuths = 24;
inline constexpr int32_t grid_elevations = 7;
inline constexpr int32_t grid_layers = 4;
inline constexpr int32_t grid_point_count = grid_azimuths * grid_elevations * grid_layers;

// azimuth: degrees, any value from -360 to 720 (wrapped once into 0..360);
// elevation: degrees above the horizon, -90..90; distance: units, 0..300.
// The corners come in the order (lower, upper layer) x (low, high elevation)
// x (low, high azimuth). Deliberately, an azimuth of exactly 360 is not
// wrapped: it lands one index past the last azimuth of its row, and the
// upper neighbours of the top elevation and the last layer fall on the next
// row or past the grid; the renderer's weight floor and index bound drop
// them, as they carry no weight.
std::array<grid_corner, 8> grid_corners(int32_t azimuth, int32_t elevation, int32_t distance);

// Whether a corner takes part in a filter: weight at least 0.01, inside the grid.
inline bool corner_is_used(const grid_corner& corner) {
    return corner.weight >= 0.01f && corner.index >= 0 && corner.index < grid_point_count;
}

} // namespace quelora
