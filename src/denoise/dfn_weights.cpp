#include "denoise/dfn_weights.h"

#include "denoise/dfn_weight_layout.h"

#include <cstdint>

// The table is embedded with .incbin rather than a generated C array: 6 MB
// as source text would cost far more compile time and memory than the bytes.
// QUELORA_DFN_WEIGHTS is the file's absolute path (src/CMakeLists.txt, which
// also checks its size and makes this object depend on it). The symbols stay
// local to the shared library (api/quelora.map exports qel_* only).
#ifndef QUELORA_DFN_WEIGHTS
#error "QUELORA_DFN_WEIGHTS must name data/dfn_weights.bin"
#endif

asm(".section .rodata.quelora_dfn_weights,\"a\",@progbits\n"
    ".balign 64\n"
    ".globl quelora_dfn_weights_begin\n"
    ".hidden quelora_dfn_weights_begin\n"
    "quelora_dfn_weights_begin:\n"
    ".incbin \"" QUELORA_DFN_WEIGHTS "\"\n"
    ".globl quelora_dfn_weights_end\n"
    ".hidden quelora_dfn_weights_end\n"
    "quelora_dfn_weights_end:\n"
    ".previous\n");

extern "C" const float quelora_dfn_weights_begin[];
extern "C" const float quelora_dfn_weights_end[];

namespace quelora::denoise {

static_assert(sizeof(float) == 4 && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__,
              "the table is stored as little-endian float32");

const float* dfn_default_weights() {
    return quelora_dfn_weights_begin;
}

} // namespace quelora::denoise
