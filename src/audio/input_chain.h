// A participant's input side: converts one host block into the planar float
// work buffer, brings it to 48000 Hz and runs the stages the participant's
// controls select, leaving the processed block in work_buffer() for submission
// to the listeners.
//
// Everything is allocated in the constructor. process() allocates nothing
// and must be called under the participant's input mutex (the caller's).
#pragma once

#include "api/controls.h"
#include "audio/input_stages.h"
#include "audio/polyphase_resampler.h"
#include "audio/processing_rate.h"
#include "audio/sample_conversion.h"

#include <cstdint>
#include <memory>
#include <optional>

namespace quelora {

// The chain's stage objects; a null stage is skipped (participants hold all
// of them; tests and benchmarks build chains with some or none).
struct input_stage_set {
    std::unique_ptr<speech_model> speech;
    std::unique_ptr<noise_canceller_stage> noise_canceller;
    std::unique_ptr<gain_control_stage> gain_control;
    std::unique_ptr<auto_eq_stage> auto_eq;
    std::unique_ptr<shaping_stage> shaping;
};

class input_chain {
public:
    static constexpr int32_t dry_delay_frames = 4096;
    static constexpr int32_t latency_low = 480;   // chain latency, ANC high off
    static constexpr int32_t latency_high = 1200; // chain latency, ANC high on

    // input_frames: the participant's required input frames at input_rate;
    // processing_frames: N at 48000 Hz; interleaved: the library flag.
    input_chain(int32_t input_rate, int32_t channels, int32_t input_frames,
                int32_t processing_frames, bool interleaved, input_stage_set stages);

    // The whole chain on one host block: conversion, stereo downmix,
    // resampling, the selected stages, stereo upmix. Throws
    // quelora_exception (QEL_ERROR_DATA_NULL) for a null block before
    // touching any state.
    void process(const void* samples, sample_type type, const control_values& controls);

    // The processed block: channels x N planar floats, channel stride N.
    const float* work_buffer() const { return work_.get(); }
    int32_t channels() const { return channels_; }
    int32_t processing_frames() const { return processing_frames_; }
    int32_t chain_latency() const { return chain_latency_; }
    bool has_resampler() const { return resampler_.has_value(); }

private:
    void cancel_noise(const control_values& controls, bool canceller_ran_before,
                      float& speech_value);
    float speech_value_only();

    int32_t channels_;
    int32_t input_frames_;
    int32_t processing_frames_;
    bool interleaved_;
    int32_t chain_latency_ = latency_high;
    // Whether the previous call ran the ANC-high canceller; a canceller that
    // has not run yet is as clean as a reset one.
    bool canceller_ran_last_call_ = true;
    std::unique_ptr<float[]> work_;      // channels x N
    std::unique_ptr<float[]> scratch_;   // 2 x N: output of stages whose signal is unused
    std::unique_ptr<float[]> dry_delay_; // channels x 4096
    std::optional<polyphase_resampler> resampler_;
    input_stage_set stages_;
};

} // namespace quelora
