// Host-side sample-rate conversion: the library accepts only 8, 16, 24, 32 and
// 48 kHz input, so a conferencing server converts whatever its clients send
// before the input call. Here that is libsoxr.
#pragma once

#include "wav_io.h"

#include <string>

namespace quelora::conference {

// Converts clip to target_rate in place (nothing to do when the rates agree).
bool convert_rate(audio_clip& clip, int target_rate, std::string& message);

} // namespace quelora::conference
