#include "audio/peak_limiter.h"

#include "dsp/vector_ops.h"

#include <algorithm>
#include <cfloat>
#include <cmath>

namespace quelora {

namespace {

// The look-ahead L = (int)(0.2 ms x 48 kHz), computed as 0.2 / 1000 x 48000.
// The product is 9.6, far from an integer, so float or double arithmetic both
// truncate to 9.
constexpr int32_t look_ahead_length = static_cast<int32_t>(
    static_cast<double>(peak_limiter::attack_ms) / 1000.0 * peak_limiter::sampling_rate);
static_assert(look_ahead_length == 9, "the look-ahead is 9 samples (0.2 ms at 48 kHz, truncated)");

// A NaN or infinite side-chain value counts as 9e+20: finite, so the envelope
// stays finite, and far above any real peak, so the gain drops to near zero.
constexpr float non_finite_side_chain = 9e+20f;

// |x|, or 9e+20 for NaN and +-Inf (a NaN fails the comparison).
inline float side_chain_magnitude(float x) {
    const float magnitude = std::fabs(x);
    return magnitude <= FLT_MAX ? magnitude : non_finite_side_chain;
}

// One channel through its delay line of L samples: line holds the last L
// samples of the previous block; the block goes in behind them, comes out
// L samples late times the gain, and the line keeps the new last L.
void delay_and_gain(float* __restrict channel, float* __restrict line,
                    const float* __restrict gain, int32_t frames) {
    constexpr int32_t L = look_ahead_length;
    dsp::copy(channel, line + L, frames);
    for (int32_t i = 0; i < frames; ++i) channel[i] = gain[i] * line[i];
    dsp::copy(line + frames, line, L);
}

} // namespace

peak_limiter::peak_limiter(int32_t max_frames)
    : max_frames_(std::max(max_frames, int32_t{1})),
      // dB to amplitude as exp(dB x 0.115129254758358) (= ln 10 / 20).
      threshold_(std::exp(static_cast<double>(threshold_db) * 0.115129254758358)),
      attack_(std::pow(0.01, 1000.0 / (sampling_rate * static_cast<double>(attack_ms)))),
      release_(std::pow(0.01, 1000.0 / (sampling_rate * static_cast<double>(release_ms)))),
      held_peak_(threshold_),
      envelope_(threshold_),
      hold_counter_(0),
      side_chain_(static_cast<size_t>(max_frames_)),
      gain_(static_cast<size_t>(max_frames_)),
      left_line_(static_cast<size_t>(look_ahead_length + max_frames_), 0.0f),
      right_line_(static_cast<size_t>(look_ahead_length + max_frames_), 0.0f) {}

int32_t peak_limiter::look_ahead() const { return look_ahead_length; }

void peak_limiter::reset() {
    held_peak_ = threshold_;
    envelope_ = threshold_;
    hold_counter_ = 0;
    std::fill(left_line_.begin(), left_line_.end(), 0.0f);
    std::fill(right_line_.begin(), right_line_.end(), 0.0f);
}

void peak_limiter::process(float* left, float* right, int32_t frames) {
    // A block longer than the construction size is taken in pieces; the
    // result is the same as in one piece.
    while (frames > 0) {
        const int32_t chunk = std::min(frames, max_frames_);
        process_chunk(left, right, chunk);
        left += chunk;
        right += chunk;
        frames -= chunk;
    }
}

void peak_limiter::process_chunk(float* left, float* right, int32_t frames) {
    constexpr int32_t L = look_ahead_length;
    float* __restrict side = side_chain_.data();
    float* __restrict gain = gain_.data();

    // Side chain (vectorisable): max(|left i|, |right i|), each channel's bad
    // value replaced first, so a NaN beside a finite sample still counts.
    for (int32_t i = 0; i < frames; ++i) {
        const float left_value = side_chain_magnitude(left[i]);
        const float right_value = side_chain_magnitude(right[i]);
        side[i] = left_value > right_value ? left_value : right_value;
    }

    // Hold and envelope (a serial recurrence), written without branches.
    const double t = threshold_;
    const double a = attack_;
    const double r = release_;
    double held = held_peak_;
    double env = envelope_;
    int32_t counter = hold_counter_;
    for (int32_t i = 0; i < frames; ++i) {
        const double value = static_cast<double>(side[i]);
        const double p = value > t ? value : t;
        ++counter;
        const bool take = (counter >= L) | (held < p);
        held = take ? p : held;
        counter = take ? 0 : counter;
        const double c = held > env ? a : r;
        env = (env - held) * c + held;
        const double g = t / env;
        gain[i] = static_cast<float>(g < 1.0 ? g : 1.0);
    }
    held_peak_ = held;
    envelope_ = env;
    hold_counter_ = counter;

    // Output i = gain i x delayed sample i, in place.
    delay_and_gain(left, left_line_.data(), gain, frames);
    delay_and_gain(right, right_line_.data(), gain, frames);
}

} // namespace quelora
