#include "denoise/dfn_weights.h"

#include "denoise/dfn_weight_layout.h"
#include "dsp/embedded_file.h"

#include <cstdint>

// QUELORA_DFN_WEIGHTS is the table's absolute path (src/CMakeLists.txt, which
// also checks its size and makes this object depend on it).
#ifndef QUELORA_DFN_WEIGHTS
#error "QUELORA_DFN_WEIGHTS must name data/dfn_weights.bin"
#endif

QUELORA_EMBED_FILE(quelora_dfn_weights, QUELORA_DFN_WEIGHTS, float);

namespace quelora::denoise {

static_assert(sizeof(float) == 4 && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__,
              "the table is stored as little-endian float32");

const float* dfn_default_weights() {
    return quelora_dfn_weights_begin;
}

} // namespace quelora::denoise
