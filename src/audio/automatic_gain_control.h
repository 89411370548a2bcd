// Automatic gain control: brings speech towards a loudness of -24.2 dB
// (measured through the ReplayGain equal-loudness filter) with a gain per
// frame of F samples, F = 256 when N is a power of two and 240 otherwise,
// applied to windowed frames at hop F/2 and overlap-added. The output is the
// input F/2 samples late (120 or 128 at 48000 Hz), then soft-limited.
// docs/levelling.md gives the rules in full. Allocation-free after
// construction; not thread-safe.
#pragma once

#include "audio/input_stages.h"
#include "audio/loudness_filter.h"
#include "audio/soft_limiter.h"

#include <array>
#include <cstdint>
#include <memory>

namespace quelora {

class automatic_gain_control final : public gain_control_stage {
public:
    static constexpr double initial_loudness_db = -24.2;
    static constexpr double max_gain_db = 35.0;
    // How many frames back the onset and drop rules look (docs/levelling.md).
    static constexpr int32_t history_frames = 20;

    // channels: 1 or 2; processing_frames: N >= 1. Throws
    // std::invalid_argument otherwise.
    automatic_gain_control(int32_t channels, int32_t processing_frames);

    // Levels channel 1 of the planar block in place (a multiple of 2F
    // samples of it; the rest passes untouched), limits it, and with two
    // channels copies it over channel 2. speech_value in [0, 1].
    void process(float* block, float speech_value) override;

    int32_t frame_length() const { return frame_; }
    // The delay of the levelled signal: F / 2.
    int32_t latency() const { return frame_ / 2; }
    // The gain of the latest frame in dB and the current loudness estimate.
    double gain_db() const { return gain_db_; }
    double loudness_db() const { return loudness_; }

private:
    float frame_gain(const float* frame);
    void process_chunk(float* chunk);

    int32_t channels_;
    int32_t frames_;
    int32_t frame_;                      // F
    int32_t half_;                       // F / 2
    std::unique_ptr<float[]> window_;    // F, periodic Hann: copies at hop F/2 sum to one
    std::unique_ptr<float[]> tail_;      // F/2: the previous chunk's last input samples
    std::unique_ptr<float[]> overlap_;   // F/2: the previous chunk's last windowed half-frame
    std::unique_ptr<float[]> frames_4_;  // 4 x F: X, C0, Y, C1 of the current chunk
    std::unique_ptr<double[]> weighted_; // F: the loudness-filtered frame, older half first
    loudness_filter filter_;
    soft_limiter limiter_;
    double last_level_ = -160.0;
    double loudness_ = initial_loudness_db;
    double gain_db_ = 0.0;
    float speech_value_ = 0.0f;
    double quiet_count_ = 0.0;
    std::array<double, history_frames> history_;
    int32_t history_at_ = 0;
};

} // namespace quelora
