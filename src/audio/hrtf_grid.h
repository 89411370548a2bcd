// The grid of the spatial filter bank and the responses at its points.
//
// Point k = (layer x 7 + elevation index) x 24 + azimuth index (the counts are
// grid_interpolation.h's): azimuths 0, 15, ..., 345 degrees clockwise, elevations
// -90, -60, ..., +90, layers at 0, 100, 200 and 300 units (0 to 3 m).
//
// What a point holds (docs/spatial_room.md gives the reasons):
// - layers 0 and 1: the measured response nearest the point's direction, alone.
//   Layer 0 repeats layer 1: the set holds nothing closer (the default one was
//   measured at 1.4 m); below 1 m the level cue comes from the distance
//   attenuation, and a close talker keeps a crisp direction.
// - layers 2 and 3: that response at 1 / r (no extra delay, so that blending
//   two layers never comb-filters), plus the meeting room's early reflections,
//   each through the measured response of its own direction, and its diffuse tail.
#pragma once

#include "audio/grid_interpolation.h"
#include "audio/measured_hrtf.h"
#include "audio/meeting_room.h"

#include <array>
#include <cstdint>
#include <vector>

namespace quelora {

struct grid_position {
    int32_t layer;
    int32_t elevation_index;
    int32_t azimuth_index;

    float azimuth() const { return 15.0f * static_cast<float>(azimuth_index); }
    float elevation() const { return -90.0f + 30.0f * static_cast<float>(elevation_index); }
    int32_t distance() const { return 100 * layer; } // units
};

constexpr int32_t grid_index(const grid_position& p) {
    return (p.layer * grid_elevations + p.elevation_index) * grid_azimuths + p.azimuth_index;
}

constexpr grid_position grid_position_of(int32_t point) {
    return {point / (grid_azimuths * grid_elevations), point / grid_azimuths % grid_elevations,
            point % grid_azimuths};
}

// Builds the response of any grid point, up to 8192 taps at 48000 Hz, both
// ears. The measured set is decoded and normalised once, here: one factor for
// the whole set, so that the mean energy of a response over all measured
// directions and both ears is 0.5 (a talker heard from all around has on
// average the power a plain stereo mix gives each ear, 0.707^2).
class grid_response_builder {
public:
    static constexpr int32_t max_taps = 8192;

    // measured is kept by reference and must outlive the builder.
    explicit grid_response_builder(const measured_hrtf_set& measured);

    // Writes taps (1 .. max_taps) samples of each ear. They are the first
    // taps of the full response, whatever taps is, so quality 1 (512 taps)
    // and quality 5 (8192) are one bank cut at two lengths.
    void build(int32_t point, int32_t taps, float* left, float* right);

private:
    const float* response(int32_t direction, int32_t ear) const {
        return responses_.data() + (static_cast<size_t>(direction) * 2 + ear) * measured_taps_;
    }
    // Adds gain x the measured response at a whole-sample delay.
    void add(int32_t direction, int32_t delay, double gain, int32_t taps, float* left,
             float* right) const;

    const measured_hrtf_set& measured_;
    int32_t measured_taps_;
    std::vector<float> responses_; // count x 2 x taps, normalised
    meeting_room room_;
    std::array<tail_kernel, 2> tail_kernels_;
    std::vector<room_reflection> reflections_;
};

} // namespace quelora
