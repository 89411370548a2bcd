#include "audio/measured_hrtf.h"

// The blob tools/hrtf_data generated from the SOFA file of the build
// (QUELORA_HRTF_SOFA), embedded with .incbin as the DFN weights are.
// QUELORA_HRTF_MEASUREMENTS is its absolute path in the build tree
// (src/CMakeLists.txt, which also makes this object depend on it). The
// symbols stay local to the shared library (api/quelora.map exports qel_*).
#ifndef QUELORA_HRTF_MEASUREMENTS
#error "QUELORA_HRTF_MEASUREMENTS must name the generated hrtf_measurements.bin"
#endif

asm(".section .rodata.quelora_hrtf_measurements,\"a\",@progbits\n"
    ".balign 64\n"
    ".globl quelora_hrtf_measurements_begin\n"
    ".hidden quelora_hrtf_measurements_begin\n"
    "quelora_hrtf_measurements_begin:\n"
    ".incbin \"" QUELORA_HRTF_MEASUREMENTS "\"\n"
    ".globl quelora_hrtf_measurements_end\n"
    ".hidden quelora_hrtf_measurements_end\n"
    "quelora_hrtf_measurements_end:\n"
    ".previous\n");

extern "C" const unsigned char quelora_hrtf_measurements_begin[];
extern "C" const unsigned char quelora_hrtf_measurements_end[];

namespace quelora {

std::span<const unsigned char> measured_hrtf_blob() {
    return {quelora_hrtf_measurements_begin, quelora_hrtf_measurements_end};
}

} // namespace quelora
