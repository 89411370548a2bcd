#include "audio/automatic_gain_control.h"

#include "dsp/vector_ops.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <stdexcept>

namespace quelora {

namespace {

// The loudness band: below it the gain raises to its lower edge, above it
// lowers to its upper edge, inside it the gain is 0 dB.
constexpr double band_low_db = -25.2;
constexpr double band_high_db = -23.2;
constexpr float speech_threshold = 0.85f; // the loudness follows only confident speech
constexpr float quiet_threshold = 0.025f; // below this a frame counts as quiet

int32_t frame_length_for(int32_t processing_frames) {
    const bool power_of_two = (processing_frames & (processing_frames - 1)) == 0;
    return power_of_two ? 256 : 240;
}

std::unique_ptr<float[]> zeros(int32_t count) {
    return std::make_unique<float[]>(static_cast<size_t>(count));
}

} // namespace

automatic_gain_control::automatic_gain_control(int32_t channels, int32_t processing_frames)
    : channels_(channels), frames_(processing_frames), frame_(frame_length_for(processing_frames)),
      half_(frame_ / 2), window_(zeros(frame_)), tail_(zeros(half_)), overlap_(zeros(half_)),
      frames_4_(zeros(4 * frame_)),
      weighted_(std::make_unique<double[]>(static_cast<size_t>(frame_))),
      limiter_(1, std::max(processing_frames, int32_t{1})) {
    if (channels < 1 || channels > 2) {
        throw std::invalid_argument("automatic gain control: 1 or 2 channels");
    }
    if (processing_frames < 1) {
        throw std::invalid_argument("automatic gain control: frames must be >= 1");
    }
    for (int32_t n = 0; n < frame_; ++n) {
        const double s = std::sin(std::numbers::pi * n / frame_);
        window_[n] = static_cast<float>(s * s);
    }
    // The stream starts from silence: a first loud frame is an onset.
    history_.fill(last_level_);
}

float automatic_gain_control::frame_gain(const float* frame) {
    // Each sample goes through the filter once, when its frame brings it in
    // (the frame's second half); the first half was filtered with the frame
    // before. Filtering whole frames would feed the filter every sample twice
    // and a jump back of F/2 samples at each frame start, which it rings on.
    std::copy(weighted_.get() + half_, weighted_.get() + frame_, weighted_.get());
    filter_.process(frame + half_, weighted_.get() + half_, half_);
    double sum = 0.0;
    for (int32_t n = 0; n < frame_; ++n) sum += weighted_[n] * weighted_[n];
    const double root = std::sqrt(sum / frame_);
    const double level = root > 0.0 ? 20.0 * std::log10(root) : -180.0;

    double c = level <= last_level_ ? 0.99 : 0.97;
    const double delayed = history_[history_at_];
    history_[history_at_] = level;
    history_at_ = (history_at_ + 1) % history_frames;
    if (delayed < -60.0 && level - delayed > 40.0) c = 0.2; // onset after silence: follow fast
    if (delayed - level > 20.0) c = 0.9999;                 // sudden drop: hold
    last_level_ = level;
    if (speech_value_ > speech_threshold) loudness_ = (1.0 - c) * level + c * loudness_;

    double g = 0.0;
    if (loudness_ < band_low_db) g = band_low_db - loudness_;
    if (loudness_ > band_high_db) g = band_high_db - loudness_;
    // In a pause the gain fades out, so that noise is not raised; after a
    // long one a quiet loudness estimate starts again from the middle.
    quiet_count_ = speech_value_ >= quiet_threshold ? 0.0 : quiet_count_ + 1.0;
    if (quiet_count_ > 16.0) g *= 1.0 - quiet_count_ * 0.02;
    if (quiet_count_ > 50.0) g = 0.0;
    if (quiet_count_ > 100.0) {
        if (loudness_ < band_low_db) loudness_ = initial_loudness_db;
        quiet_count_ = 500.0;
    }
    gain_db_ = std::clamp(g, -max_gain_db, max_gain_db);
    return static_cast<float>(std::pow(10.0, gain_db_ * 0.05));
}

void automatic_gain_control::process_chunk(float* chunk) {
    const int32_t f = frame_, h = half_;
    float* x = frames_4_.get(); // X = tail, then the chunk's first F/2
    float* c0 = x + f;          // C0 = chunk 0..F
    float* y = c0 + f;          // Y  = chunk F/2..3F/2
    float* c1 = y + f;          // C1 = chunk F..2F
    dsp::copy(tail_.get(), x, h);
    dsp::copy(chunk, x + h, h);
    dsp::copy(chunk, c0, f);
    dsp::copy(chunk + h, y, f);
    dsp::copy(chunk + f, c1, f);
    dsp::copy(chunk + 3 * h, tail_.get(), h);
    for (float* frame : {x, c0, y, c1}) {
        const float gain = frame_gain(frame);
        for (int32_t n = 0; n < f; ++n) frame[n] = frame[n] * gain * window_[n];
    }
    // Frame k starts (k - 1) F/2 into the chunk, so each output quarter is
    // the sum of the two frames covering it, F/2 earlier in the input.
    for (int32_t n = 0; n < h; ++n) {
        chunk[n] = overlap_[n] + x[n];
        chunk[h + n] = x[h + n] + c0[n];
        chunk[f + n] = y[n] + c0[h + n];
        chunk[f + h + n] = y[h + n] + c1[n];
    }
    dsp::copy(c1 + h, overlap_.get(), h);
}

void automatic_gain_control::process(float* block, float speech_value) {
    speech_value_ = speech_value;
    const int32_t chunk = 2 * frame_;
    for (int32_t at = 0; at + chunk <= frames_; at += chunk) process_chunk(block + at);
    limiter_.process(block);
    if (channels_ == 2) dsp::copy(block, block + frames_, frames_);
}

} // namespace quelora
