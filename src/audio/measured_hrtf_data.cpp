#include "audio/measured_hrtf.h"
#include "dsp/embedded_file.h"

// The blob tools/hrtf_data generated from the SOFA file of the build
// (QUELORA_HRTF_SOFA). QUELORA_HRTF_MEASUREMENTS is its absolute path in the
// build tree (src/CMakeLists.txt, which also makes this object depend on it).
#ifndef QUELORA_HRTF_MEASUREMENTS
#error "QUELORA_HRTF_MEASUREMENTS must name the generated hrtf_measurements.bin"
#endif

QUELORA_EMBED_FILE(quelora_hrtf_measurements, QUELORA_HRTF_MEASUREMENTS, unsigned char);

namespace quelora {

std::span<const unsigned char> measured_hrtf_blob() {
    return {quelora_hrtf_measurements_begin, quelora_hrtf_measurements_end};
}

} // namespace quelora
