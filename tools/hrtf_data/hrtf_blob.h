// The blob the library compiles in (src/audio/measured_hrtf.cpp reads it),
// little-endian, every section 4-byte aligned:
//   "QLHRTF01"                      8 bytes
//   uint32 count, taps, name_bytes, 0 (reserved)
//   name                            name_bytes, zero-padded to a multiple of 4
//   float32 azimuth[count]          degrees, clockwise from ahead, 0 <= a < 360
//   float32 elevation[count]        degrees, -90 (below) to 90 (above)
//   float32 scale[2 x count]        per direction: left, then right
//   int16 samples[count x 2 x taps] per direction: left taps, then right taps
// A sample decodes as sample x scale; scale is each response's peak / 32767
// (0 for an all-zero response), so every response keeps 16 bits of
// resolution whatever its level.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace quelora::hrtf_data {

struct measured_set {
    std::string name;
    int32_t taps = 0;
    std::vector<float> azimuth;
    std::vector<float> elevation;
    std::vector<double> responses; // per direction: left taps, then right taps
};

// Throws std::invalid_argument when the sizes do not agree.
std::vector<unsigned char> serialise(const measured_set& set);

} // namespace quelora::hrtf_data
