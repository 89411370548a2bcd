#include "audio/output_chain.h"

#include "dsp/vector_ops.h"

#include <cstring>

namespace quelora {

namespace {

size_t sample_size(sample_type type) {
    switch (type) {
    case sample_type::int16: return sizeof(int16_t);
    case sample_type::float32: return sizeof(float);
    case sample_type::float64: return sizeof(double);
    }
    return sizeof(double);
}

} // namespace

output_chain::output_chain(int32_t processing_frames, int32_t output_rate, int32_t output_frames,
                           int32_t output_channels, bool interleaved)
    : processing_frames_(processing_frames), output_frames_(output_frames),
      output_channels_(output_channels), interleaved_(interleaved),
      mix_(std::make_unique<float[]>(2 * static_cast<size_t>(processing_frames))),
      limiter_(processing_frames) {
    if (output_rate != processing_rate) {
        resampler_.emplace(processing_rate, output_rate, output_channels, output_frames);
    }
}

void output_chain::attach_speaker_processor(std::unique_ptr<speaker_processor> processor) {
    speaker_ = std::move(processor);
}

void output_chain::write_silence(sample_type type, void* samples) const {
    std::memset(samples, 0,
                static_cast<size_t>(output_channels_) * static_cast<size_t>(output_frames_) *
                    sample_size(type));
}

bool output_chain::process(listener_engine& engine, const control_values& controls,
                           sample_type type, void* samples) {
    const int32_t n = processing_frames_;
    float* mix = mix_.get();
    if (engine.mix(mix, controls) == 0) {
        write_silence(type, samples);
        return false;
    }
    if (controls.get(QEL_CONTROL_STEREO_BYPASS_ENABLE) == 0) {
        if (controls.get(QEL_CONTROL_DEVICE) == QEL_DEVICE_SPEAKER && speaker_) {
            speaker_->process(mix, n, controls.get(QEL_CONTROL_HALF_SPAN_ANGLE));
        }
        limiter_.process(mix, mix + n, n);
        const float gain = static_cast<float>(controls.get(QEL_CONTROL_MASTER_GAIN)) / 100.0f;
        if (gain != 1.0f) {
            // Deliberately 2 x output frames, not 2 x N: kept because hosts
            // tuned their levels against it. Below 48000 Hz output only the
            // start of the mix is scaled.
            dsp::scale(mix, gain, 2 * output_frames_);
        }
    }
    if (output_channels_ == 1) {
        for (int32_t i = 0; i < n; ++i) mix[i] = mono_downmix_gain * (mix[i] + mix[n + i]);
    }
    int32_t stride = n;
    if (resampler_) {
        // Channel c is resampled from c x N to c x output frames, so the
        // converter finds the channels back to back (the resampler copies
        // its input before writing, so the overlap is safe).
        for (int32_t c = 0; c < output_channels_; ++c) {
            resampler_->process(c, mix + c * n, mix + c * output_frames_);
        }
        stride = output_frames_;
    }
    convert_output(mix, stride, output_channels_, output_frames_,
                   interleaved_ && output_channels_ == 2, type, samples);
    return true;
}

} // namespace quelora
