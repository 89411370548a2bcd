// Library configuration checks and derived processing sizes.
#pragma once

#include "audio/processing_rate.h"

#include <quelora/quelora.h>

#include <cstdint>

namespace quelora {


// The sizes that every audio buffer of a library is built from.
struct processing_sizes {
    int32_t processing_frame_length = 0; // block length at 48000 Hz
    int32_t spatial_filter_length = 0;   // 512 .. 8192 taps, raised to the block when needed
    int32_t processing_block = 0;        // processing frame length rounded up to a power of two
    int32_t transform_size = 0;          // 2 x processing block
    int32_t partition_count = 0;         // spatial filter length / processing block
};

// 48000.0 / rate x frames in single precision, truncated;
// -1 when the product does not fit an int32 (it is then no valid length).
int32_t frames_at_processing_rate(int32_t rate, int32_t frames);
// Whether a frame length at 48000 Hz is one the library accepts: 480, 512, 960, 1024.
bool is_accepted_processing_length(int32_t length);

// The initialisation's configuration check: throws quelora_exception
// (level 4) for the first failing field in the fixed order rate, frames,
// channels, quality.
void validate_library_configuration(const qel_library_configuration& configuration);

// The derived sizes of a validated configuration.
processing_sizes derive_processing_sizes(const qel_library_configuration& configuration);

// 2^ceil(ln n / ln 2) in double precision; 0 is not a power of two.
int32_t next_power_of_two(int32_t n);
bool is_power_of_two(int32_t n);

} // namespace quelora
