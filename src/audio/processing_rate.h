// The engine's one internal sampling rate: every block is processed at
// 48000 Hz, whatever the host's rates.
#pragma once

#include <cstdint>

namespace quelora {

inline constexpr int32_t processing_rate = 48000;

} // namespace quelora
