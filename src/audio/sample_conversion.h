// Conversions between the host's sample formats and the engine's planar float
// blocks, including the deliberate quirks: interleaved shorts come in scaled by
// the rounded literal 3.0518e-05 and go out truncated and wrapped (1.0 becomes
// -32768); planar shorts come in scaled by exactly 2^-15 and go out rounded and
// saturated.
#pragma once

#include <cstdint>

namespace quelora {

// The library's sample type numbers: 0 short, 1 float, 2 double.
enum class sample_type : int32_t { int16 = 0, float32 = 1, float64 = 2 };

// Host block -> planar floats. `frames` frames of `channels` channels.
// interleaved (only meaningful for channels == 2): the host block is
// L R L R ...; otherwise it is taken in order, channel after channel.
// Channel c is written to destination + c * destination_stride.
void convert_input(const void* samples, sample_type type, int32_t channels, int32_t frames,
                   bool interleaved, float* destination, int32_t destination_stride);

// Planar floats (channel c at source + c * source_stride) -> host block of
// `frames` frames of `channels` channels, interleaved when `interleaved` and
// channels == 2.
void convert_output(const float* source, int32_t source_stride, int32_t channels,
                    int32_t frames, bool interleaved, sample_type type, void* samples);

} // namespace quelora
