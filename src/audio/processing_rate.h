// The engine's one internal sampling rate (spec Overview, Parts 2.1, 4.1,
// 4.2): every block is processed at 48000 Hz, whatever the host's rates.
#pragma once

#include <cstdint>

namespace quelora {

inline constexpr int32_t processing_rate = 48000;

} // namespace quelora
