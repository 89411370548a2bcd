// The measured head-related impulse responses compiled into the library: every
// direction of one SOFA file (by default the MIT KEMAR measurements Debian
// ships), resampled to 48000 Hz at build time by tools/hrtf_data and stored as
// 16-bit samples with one scale per response. Everything spatial (the grid of
// the binaural renderer, the modelled room's reflections, the loudspeaker
// crosstalk filters) is derived from this set at initialisation, so the same
// build always gives the same filters and nothing is read from disk at run
// time.
//
// Directions are in the renderer's convention: azimuth in degrees clockwise
// seen from above (straight ahead 0, right ear +90, left ear 270), 0 <= a < 360;
// elevation in degrees, -90 (below) to +90 (above).
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

namespace quelora {

class measured_hrtf_set {
public:
    // The set compiled into this library. Checked once (its header, counts
    // and sizes); a malformed blob is a build fault and aborts with a message.
    static const measured_hrtf_set& compiled_in();

    // What the data is, for logs and the simulator's summary ("MIT KEMAR
    // normal pinna" or the SOFA file's title and name).
    std::string_view name() const { return name_; }
    int32_t count() const { return count_; } // measured directions
    int32_t taps() const { return taps_; }   // samples per ear at 48000 Hz

    float azimuth(int32_t direction) const { return azimuth_[direction]; }
    float elevation(int32_t direction) const { return elevation_[direction]; }

    // Writes the taps() samples of one ear's response (ear 0 left, 1 right).
    // Throws std::out_of_range for a direction or ear that does not exist.
    void decode(int32_t direction, int32_t ear, float* out) const;

    // The measured direction closest on the sphere to (azimuth, elevation),
    // in degrees of the convention above; ties (within rounding) go to the
    // lower index. -1 for an empty set.
    int32_t nearest(float azimuth, float elevation) const;

    // Parses a blob in the generator's format; for the compiled-in set and
    // for tests. Returns false (and leaves the set empty) for a malformed one.
    // The set reads its samples in place: `data` must outlive it.
    bool parse(const unsigned char* data, std::size_t size);

private:
    std::string_view name_;
    int32_t count_ = 0;
    int32_t taps_ = 0;
    const float* azimuth_ = nullptr;
    const float* elevation_ = nullptr;
    const float* scale_ = nullptr;     // 2 x count: per direction, left then right
    const int16_t* samples_ = nullptr; // count x 2 x taps
    std::vector<double> unit_vectors_; // count x (ahead, right, up), for nearest()
    // Directions in order of elevation (then index), and their elevations:
    // nearest() looks only as far from the query's elevation as its best
    // candidate so far, since two directions are at least their elevations
    // apart on the sphere.
    std::vector<int32_t> by_elevation_;
    std::vector<double> sorted_elevation_;
};

// The generator's blob as compiled in (measured_hrtf_data.cpp): what
// compiled_in() parses, and what tests alter to check the parser.
std::span<const unsigned char> measured_hrtf_blob();

} // namespace quelora
