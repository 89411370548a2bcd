// Builds the stage objects of a participant's input chain: the bridge
// between the audio path's stage interfaces (audio/input_stages.h) and the
// implementations in denoise/.
#pragma once

#include "audio/input_chain.h"

#include <cstdint>

namespace quelora {

// Every stage of the input chain for a participant with `channels` input
// channels and `processing_frames` samples per channel per block at 48 kHz:
// the light suppressor (speech model), the DFN canceller, AGC, auto EQ and
// the final soft limiter.
input_stage_set make_input_stages(int32_t channels, int32_t processing_frames);

} // namespace quelora
