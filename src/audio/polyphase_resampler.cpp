#include "audio/polyphase_resampler.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <numbers>
#include <numeric>
#include <stdexcept>

#include "dsp/kaiser_window.h"

namespace quelora {

namespace {

// Offsets of the state buffer: positions [0, 256) hold the last
// 2 x 128 input samples, the new block follows, 2 spare floats end it.
constexpr int32_t history_length = 2 * polyphase_resampler::history;
constexpr int32_t spare_floats = 2;
// Tap m of an output sample at time t reads input sample i0 - first_tap + m,
// i0 = floor(t): the 254 samples k with t - 127 < k <= t + 127.
constexpr int32_t first_tap = polyphase_resampler::filter_length / 2 - 1;
constexpr double half_span = polyphase_resampler::filter_length / 2;

double sinc(double x) {
    if (x == 0.0) return 1.0;
    const double pi_x = std::numbers::pi * x;
    return std::sin(pi_x) / pi_x;
}

// The dot product of one output sample over the padded 256 taps. Eight
// independent partial sums let the compiler use packed multiplies and adds
// without reassociating a single sum (which it may not do without
// -ffast-math), and fix the summation order on every machine.
// Always inlined, so that each clone of resample_block compiles it for its
// own instruction set.
[[gnu::always_inline]] inline float dot_product(const float* __restrict samples,
                                                const float* __restrict taps) {
    float partial[8] = {0.0f, 0.0f, 0.0f, 0.0f, 0.0f, 0.0f, 0.0f, 0.0f};
    for (int32_t i = 0; i < 256; i += 8) {
        for (int32_t lane = 0; lane < 8; ++lane)
            partial[lane] += samples[i + lane] * taps[i + lane];
    }
    return ((partial[0] + partial[4]) + (partial[1] + partial[5])) +
           ((partial[2] + partial[6]) + (partial[3] + partial[7]));
}

// One block of output samples. On x86-64 the loader picks an AVX2 clone on
// processors that have it (one 8-lane register holds the eight partial sums,
// so both clones add in the same order and give the same bits) and the
// baseline SSE2 one elsewhere: processor dispatch done by the toolchain
// (dsp/processor_dispatch.h does it by hand for the rest of the library).
#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define QUELORA_NO_TARGET_CLONES 1 // TSan crashes in the ifunc resolver, run before its set-up
#endif
#endif
#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__)) && \
    !defined(__SANITIZE_THREAD__) && !defined(QUELORA_NO_TARGET_CLONES)
__attribute__((target_clones("avx2", "default")))
#endif
void resample_block(const float* state, const float* taps, const int32_t* output_start,
                    const int32_t* output_taps, float* output, int32_t output_frames) {
    for (int32_t j = 0; j < output_frames; ++j) {
        output[j] = dot_product(state + output_start[j], taps + output_taps[j]);
    }
}

} // namespace

static_assert(polyphase_resampler::filter_length + 2 == 256,
              "the tap table pads each phase to 256 taps");

polyphase_resampler::polyphase_resampler(int32_t input_rate, int32_t output_rate, int32_t channels,
                                         int32_t output_frames)
    : input_rate_(input_rate), output_rate_(output_rate), channels_(channels), input_frames_(0),
      output_frames_(output_frames), interpolation_(1), decimation_(1), state_length_(0) {
    if (input_rate <= 0 || output_rate <= 0 || channels <= 0 || output_frames <= 0)
        throw std::invalid_argument("polyphase_resampler: arguments must be positive");
    const int64_t scaled = static_cast<int64_t>(input_rate) * output_frames;
    if (scaled % output_rate != 0)
        throw std::invalid_argument(
            "polyphase_resampler: output_frames gives no whole number of input frames");
    input_frames_ = static_cast<int32_t>(scaled / output_rate);
    const int32_t divisor = std::gcd(input_rate, output_rate);
    interpolation_ = output_rate / divisor;
    decimation_ = input_rate / divisor;
    state_length_ = input_frames_ + history_length + spare_floats;

    design_filters();
    state_.assign(static_cast<size_t>(channels_) * static_cast<size_t>(state_length_), 0.0f);

    // Output j sits at t_j = 128 + j * M / L: integer part 128 + (j * M) div L,
    // phase (j * M) mod L. Exact integer arithmetic, so the time never drifts.
    output_start_.resize(static_cast<size_t>(output_frames_));
    output_taps_.resize(static_cast<size_t>(output_frames_));
    for (int32_t j = 0; j < output_frames_; ++j) {
        const int64_t position = static_cast<int64_t>(j) * decimation_;
        const int64_t whole = position / interpolation_;
        const int64_t phase = position % interpolation_;
        output_start_[static_cast<size_t>(j)] = static_cast<int32_t>(history + whole - first_tap);
        output_taps_[static_cast<size_t>(j)] = static_cast<int32_t>(phase * taps_stride);
    }
}

void polyphase_resampler::design_filters() {
    // Computed in double and rounded once to float, so each tap is the
    // closest float to its exact value.
    const double cut_off = static_cast<double>(roll_off) *
                           static_cast<double>(std::min(input_rate_, output_rate_)) / 2.0;
    const double bandwidth = 2.0 * cut_off / static_cast<double>(input_rate_);
    taps_.assign(static_cast<size_t>(interpolation_) * taps_stride, 0.0f);
    double phase_taps[filter_length];
    for (int32_t p = 0; p < interpolation_; ++p) {
        const double fraction = static_cast<double>(p) / static_cast<double>(interpolation_);
        double sum = 0.0;
        for (int32_t m = 0; m < filter_length; ++m) {
            const double tau = static_cast<double>(m - first_tap) - fraction;
            phase_taps[m] = bandwidth * sinc(bandwidth * tau) *
                            dsp::kaiser_window(tau / half_span, static_cast<double>(kaiser_beta));
            sum += phase_taps[m];
        }
        // Every phase gets DC gain 0.98 on its own, so a constant input comes
        // out constant instead of modulated by the phase sequence.
        const double normalisation = static_cast<double>(output_normalisation) / sum;
        float* destination = taps_.data() + static_cast<size_t>(p) * taps_stride;
        for (int32_t m = 0; m < filter_length; ++m)
            destination[m] = static_cast<float>(phase_taps[m] * normalisation);
    }
}

void polyphase_resampler::process(int32_t channel, const float* input, float* output) {
    float* state =
        state_.data() + static_cast<size_t>(channel) * static_cast<size_t>(state_length_);
    // The block goes into the state first, so output may overwrite input.
    std::memcpy(state + history_length, input, static_cast<size_t>(input_frames_) * sizeof(float));
    resample_block(state, taps_.data(), output_start_.data(), output_taps_.data(), output,
                   output_frames_);
    // The last 2 x 128 samples become the history; the time restarts at 128.
    std::memmove(state, state + input_frames_, static_cast<size_t>(history_length) * sizeof(float));
}

void polyphase_resampler::reset() { std::fill(state_.begin(), state_.end(), 0.0f); }

} // namespace quelora
