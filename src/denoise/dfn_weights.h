// The read-only weight table the library compiles in: data/dfn_weights.bin,
// 1 517 904 little-endian float32 values in the order of dfn_weight_layout.h,
// embedded by the assembler at build time. data/README.md says how
// the committed table was produced.
#pragma once

namespace quelora::denoise {

const float* dfn_default_weights();

} // namespace quelora::denoise
