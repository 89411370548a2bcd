#include "audio/grid_interpolation.h"

#include <cstdlib>

namespace quelora {

namespace {

int32_t floor_div(int32_t value, int32_t divisor) {
    const int32_t q = value / divisor;
    return (value % divisor != 0 && value < 0) ? q - 1 : q;
}

} // namespace

std::array<grid_corner, 8> grid_corners(int32_t azimuth, int32_t elevation, int32_t distance) {
    int32_t a = azimuth;
    if (a < 0) a += 360;
    if (a > 360) a -= 360;
    const int32_t e = elevation + 90;

    const int32_t low_azimuth = floor_div(a, 15);
    const int32_t high_azimuth = low_azimuth == grid_azimuths - 1 ? 0 : low_azimuth + 1;
    // The weights are formed in single precision from the integer remainders,
    // with the reciprocals rounded as the renderer has always used them.
    const float low_azimuth_weight = 1.0f - static_cast<float>(a % 15) * 0.06666667f;

    const int32_t e_remainder = std::abs(e) % 30;
    const int32_t low_elevation = (e - e_remainder) / 30;
    const int32_t high_elevation = low_elevation + 1;
    const float low_elevation_weight = 1.0f - static_cast<float>(e_remainder) * 0.033333335f;

    const int32_t lower_layer = floor_div(distance, 100);
    const float upper_layer_weight = static_cast<float>(distance % 100) / 100.0f;

    const int32_t layers[2] = {lower_layer, lower_layer + 1};
    const float layer_weights[2] = {1.0f - upper_layer_weight, upper_layer_weight};
    const int32_t elevations[2] = {low_elevation, high_elevation};
    const float elevation_weights[2] = {low_elevation_weight, 1.0f - low_elevation_weight};
    const int32_t azimuths[2] = {low_azimuth, high_azimuth};
    const float azimuth_weights[2] = {low_azimuth_weight, 1.0f - low_azimuth_weight};

    std::array<grid_corner, 8> corners{};
    int32_t n = 0;
    for (int32_t l = 0; l < 2; ++l) {
        for (int32_t el = 0; el < 2; ++el) {
            for (int32_t az = 0; az < 2; ++az) {
                corners[n].index =
                    (layers[l] * grid_elevations + elevations[el]) * grid_azimuths + azimuths[az];
                corners[n].weight = layer_weights[l] * elevation_weights[el] * azimuth_weights[az];
                ++n;
            }
        }
    }
    return corners;
}

} // namespace quelora
