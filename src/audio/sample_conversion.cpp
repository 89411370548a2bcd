#include "audio/sample_conversion.h"

#include <cstddef>

namespace quelora {

namespace {

// Interleaved stereo shorts are scaled by this rounded literal,
// deliberately not 2^-15 (-32768 comes in as -1.0000138).
constexpr float interleaved_short_scale = 3.0518e-05f;
// Every other short block is scaled by exactly 2^-15.
constexpr float planar_short_scale = 1.0f / 32768.0f;
static_assert(interleaved_short_scale != planar_short_scale);

inline float to_float(int16_t value, float short_scale) {
    return static_cast<float>(value) * short_scale;
}
inline float to_float(float value, float) { return value; }
inline float to_float(double value, float) { return static_cast<float>(value); }

// Output, interleaved stereo: (int16) of the (int32) truncation of
// x x 32768, no saturation, so 1.0 wraps to -32768. The (int32) step is
// given the result x86's truncating conversion gives, the only one that
// is defined for every float: NaN, +-Inf and values outside the int32 range
// become INT32_MIN, whose low 16 bits are 0. The (int16) step keeps the low
// 16 bits (modulo 2^16).
inline int16_t wrapped_short(float x) {
    const float y = x * 32768.0f;
    const int32_t truncated = (y >= -2147483648.0f && y < 2147483648.0f)
                                  ? static_cast<int32_t>(y)
                                  : INT32_MIN;
    return static_cast<int16_t>(static_cast<uint16_t>(static_cast<uint32_t>(truncated)));
}

// Output, every other block: x x 2^15 rounded to nearest (ties to even, the
// processor's default rounding) and saturated to the 16-bit range; NaN becomes
// 0. Branch-free so the loop vectorises: adding and removing 1.5 x 2^23 leaves
// the integer nearest to |y| <= 2^15 under the default rounding mode, which
// every audio call sets for its length (dsp::denormal_guard), whatever mode the
// host's thread uses.
inline int16_t saturated_short(float x) {
    float y = x * 32768.0f;
    y = y == y ? y : 0.0f;
    y = y < -32768.0f ? -32768.0f : y;
    y = y > 32767.0f ? 32767.0f : y;
    constexpr float round_to_integer = 12582912.0f;
    return static_cast<int16_t>(static_cast<int32_t>((y + round_to_integer) - round_to_integer));
}

template <typename Sample>
void input_as(const Sample* samples, int32_t channels, int32_t frames, bool interleaved,
              float* destination, int32_t destination_stride) {
    if (channels == 2 && interleaved) {
        float* __restrict left = destination;
        float* __restrict right = destination + destination_stride;
        for (int32_t i = 0; i < frames; ++i) {
            left[i] = to_float(samples[2 * static_cast<ptrdiff_t>(i)], interleaved_short_scale);
            right[i] =
                to_float(samples[2 * static_cast<ptrdiff_t>(i) + 1], interleaved_short_scale);
        }
        return;
    }
    for (int32_t c = 0; c < channels; ++c) {
        const Sample* __restrict source = samples + static_cast<ptrdiff_t>(c) * frames;
        float* __restrict target = destination + static_cast<ptrdiff_t>(c) * destination_stride;
        for (int32_t i = 0; i < frames; ++i) target[i] = to_float(source[i], planar_short_scale);
    }
}

template <typename Sample, bool Wrapping>
Sample from_float(float x) {
    if constexpr (sizeof(Sample) == sizeof(int16_t)) {
        return Wrapping ? wrapped_short(x) : saturated_short(x);
    } else {
        return static_cast<Sample>(x);
    }
}

template <typename Sample>
void output_as(const float* source, int32_t source_stride, int32_t channels, int32_t frames,
               bool interleaved, Sample* samples) {
    if (channels == 2 && interleaved) {
        const float* __restrict left = source;
        const float* __restrict right = source + source_stride;
        for (int32_t i = 0; i < frames; ++i) {
            samples[2 * static_cast<ptrdiff_t>(i)] = from_float<Sample, true>(left[i]);
            samples[2 * static_cast<ptrdiff_t>(i) + 1] = from_float<Sample, true>(right[i]);
        }
        return;
    }
    for (int32_t c = 0; c < channels; ++c) {
        const float* __restrict from = source + static_cast<ptrdiff_t>(c) * source_stride;
        Sample* __restrict target = samples + static_cast<ptrdiff_t>(c) * frames;
        for (int32_t i = 0; i < frames; ++i) target[i] = from_float<Sample, false>(from[i]);
    }
}

} // namespace

void convert_input(const void* samples, sample_type type, int32_t channels, int32_t frames,
                   bool interleaved, float* destination, int32_t destination_stride) {
    if (samples == nullptr || destination == nullptr || frames <= 0) return;
    switch (type) {
    case sample_type::int16:
        input_as(static_cast<const int16_t*>(samples), channels, frames, interleaved,
                 destination, destination_stride);
        break;
    case sample_type::float32:
        input_as(static_cast<const float*>(samples), channels, frames, interleaved,
                 destination, destination_stride);
        break;
    case sample_type::float64:
        input_as(static_cast<const double*>(samples), channels, frames, interleaved,
                 destination, destination_stride);
        break;
    }
}

void convert_output(const float* source, int32_t source_stride, int32_t channels,
                    int32_t frames, bool interleaved, sample_type type, void* samples) {
    if (source == nullptr || samples == nullptr || frames <= 0) return;
    switch (type) {
    case sample_type::int16:
        output_as(source, source_stride, channels, frames, interleaved,
                  static_cast<int16_t*>(samples));
        break;
    case sample_type::float32:
        output_as(source, source_stride, channels, frames, interleaved,
                  static_cast<float*>(samples));
        break;
    case sample_type::float64:
        output_as(source, source_stride, channels, frames, interleaved,
                  static_cast<double*>(samples));
        break;
    }
}

} // namespace quelora
