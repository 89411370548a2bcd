#include "audio/input_chain.h"

#include "api/quelora_exception.h"
#include "dsp/vector_ops.h"

#include <cmath>
#include <utility>

namespace quelora {

namespace {

// The noise-cancellation mix weights the processed signal by
// (mix / 100)^0.602, computed in double precision.
float processed_weight(int32_t anc_mix) {
    return static_cast<float>(std::pow(static_cast<double>(anc_mix) / 100.0, 0.602));
}

std::unique_ptr<float[]> zeroed(int32_t count) {
    return std::make_unique<float[]>(static_cast<size_t>(count)); // value-initialised
}

} // namespace

input_chain::input_chain(int32_t input_rate, int32_t channels, int32_t input_frames,
                         int32_t processing_frames, bool interleaved, input_stage_set stages)
    : channels_(channels), input_frames_(input_frames), processing_frames_(processing_frames),
      interleaved_(interleaved), work_(zeroed(channels * processing_frames)),
      scratch_(zeroed(2 * processing_frames)), dry_delay_(zeroed(channels * dry_delay_frames)),
      stages_(std::move(stages)) {
    if (input_rate != processing_rate) {
        resampler_.emplace(input_rate, processing_rate, channels, processing_frames);
    }
}

float input_chain::speech_value_only() {
    if (!stages_.speech) return 0.0f;
    return stages_.speech->process(work_.get(), scratch_.get(), nullptr);
}

void input_chain::cancel_noise(const control_values& controls, bool canceller_ran_before,
                               float& speech_value) {
    const int32_t n = processing_frames_;
    float* work = work_.get();
    float* dry = dry_delay_.get();
    bool processed = false;
    if (controls.get(QEL_CONTROL_ANC_HIGH) == 0) {
        if (stages_.speech) {
            // The model keeps its own dry copy at the end of the delay buffer.
            float* dry_copy = dry + (channels_ * dry_delay_frames - channels_ * n);
            speech_value = stages_.speech->process(work, work, dry_copy);
            processed = true;
        }
    } else if (stages_.noise_canceller) {
        // A canceller switched back on starts clean rather than resuming the
        // overlap, spectra and dry line it held when it was switched off.
        if (!canceller_ran_before) stages_.noise_canceller->reset();
        stages_.noise_canceller->process(work, work, dry);
        canceller_ran_last_call_ = true;
        speech_value = speech_value_only();
        processed = true;
    }
    // The dry mix blends a canceller's output with the dry signal; with no
    // canceller object for the selected path there is nothing to blend, and
    // the block passes unchanged.
    if (!processed) return;
    // Deliberately the start of the dry delay buffer in both paths, not the
    // speech model's copy at its end: the aligned dry signal with ANC high on,
    // stale or zero without.
    const float w = processed_weight(controls.get(QEL_CONTROL_ANC_MIX));
    dsp::scale(work, w, n);
    dsp::multiply_add(dry, 1.0f - w, work, n);
}

void input_chain::process(const void* samples, sample_type type, const control_values& controls) {
    if (samples == nullptr) {
        throw quelora_exception(QEL_LOG_WARNING, QEL_ERROR_DATA_NULL, "%s",
                                "input buffer not initialized");
    }
    const int32_t n = processing_frames_;
    float* work = work_.get();
    // Channel c of the host block lands at c x N so that each channel can be
    // resampled in place to N frames.
    convert_input(samples, type, channels_, input_frames_, interleaved_ && channels_ == 2, work, n);

    const bool bypass = controls.get(QEL_CONTROL_STEREO_BYPASS_ENABLE) != 0;
    const bool anc = !bypass && controls.get(QEL_CONTROL_ANC_ENABLE) != 0;
    const bool agc = !bypass && controls.get(QEL_CONTROL_AGC_ENABLE) != 0;
    const bool auto_eq = !bypass && controls.get(QEL_CONTROL_AUTO_EQ_ENABLE) != 0;
    const bool mixing_3d = !bypass && controls.get(QEL_CONTROL_MIXING_3D_ENABLE) != 0;
    chain_latency_ = controls.get(QEL_CONTROL_ANC_HIGH) != 0 ? latency_high : latency_low;
    const bool mono_processing = channels_ == 2 && (anc || agc || auto_eq || mixing_3d);

    if (mono_processing) {
        // Downmix: 0.5 x (L + R) into the first channel, at the input rate.
        for (int32_t i = 0; i < input_frames_; ++i) work[i] = 0.5f * (work[i] + work[n + i]);
    }
    if (resampler_) {
        for (int32_t c = 0; c < channels_; ++c) {
            resampler_->process(c, work + c * n, work + c * n);
        }
    }
    float speech_value = 0.0f;
    // Any call that does not reach the canceller counts as a pause for it.
    const bool canceller_ran_before = std::exchange(canceller_ran_last_call_, false);
    if (anc) {
        cancel_noise(controls, canceller_ran_before, speech_value);
    } else if (agc || auto_eq) {
        speech_value = speech_value_only();
    }
    if (auto_eq && stages_.auto_eq) {
        const int32_t hop = stages_.speech ? stages_.speech->hop_length() : 480;
        stages_.auto_eq->process(work, work, speech_value, processing_rate / hop);
    }
    if (agc && stages_.gain_control) stages_.gain_control->process(work, speech_value);
    // Shaping follows the levelling stages that ran; an absent stage did not run.
    const bool levelled = (agc && stages_.gain_control) || (auto_eq && stages_.auto_eq);
    if (levelled && stages_.shaping) stages_.shaping->process(work);
    if (mono_processing) {
        // Upmix: both channels carry the processed mono signal.
        dsp::copy(work, work + n, n);
    }
}

} // namespace quelora
