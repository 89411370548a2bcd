#include "denoise/rnn_suppressor.h"

#include <algorithm>
#include <cmath>

namespace quelora::denoise {

rnn_suppressor::rnn_suppressor(const rnn_model& model, float pitch_scale)
    : fft_(rnn_window_size), network_(model), pitch_(pitch_scale) {}

void rnn_suppressor::transform(const float* samples, rnn_spectrum& spectrum) {
    const auto& w = rnn_window();
    for (int i = 0; i < rnn_window_size; ++i) scratch_[i] = samples[i] * w[i];
    fft_.forward(scratch_.data(), spectrum.data());
    // Scaled by 1/N here so that the unscaled inverse restores the samples;
    // the silence threshold and the features assume this scale.
    constexpr float scale = 1.0f / rnn_window_size;
    for (auto& bin : spectrum) bin *= scale;
}

const rnn_frame_analysis& rnn_suppressor::analyse(const float* in) {
    // DC and rumble removal: a second-order high-pass with a double zero at
    // DC and poles just inside the unit circle.
    float* frame = pitch_buffer_.data() + rnn_pitch_buffer_size - rnn_frame_size;
    std::copy(pitch_buffer_.begin() + rnn_frame_size, pitch_buffer_.end(), pitch_buffer_.begin());
    for (int i = 0; i < rnn_frame_size; ++i) {
        const float x = in[i];
        const float y = x + highpass_[0];
        highpass_[0] = highpass_[1] + (-2.0f * x + 1.99599f * y);
        highpass_[1] = x - 0.99600f * y;
        frame[i] = y;
    }

    // The window spans the previous hop and this one: the buffer's last 960.
    transform(pitch_buffer_.data() + rnn_pitch_buffer_size - rnn_window_size, x_);
    rnn_band_energy(x_, analysis_.energy);

    // The same window one pitch period earlier: its correlation with this
    // frame per band tells how periodic (voiced) each band is.
    const int period = pitch_.track(pitch_buffer_.data());
    transform(pitch_buffer_.data() + rnn_pitch_max_period - period, p_);
    rnn_band_energy(p_, pitch_energy_);
    rnn_band_correlation(x_, p_, pitch_correlation_);
    for (int b = 0; b < rnn_band_count; ++b) {
        pitch_correlation_[b] /= std::sqrt(0.001f + analysis_.energy[b] * pitch_energy_[b]);
    }
    analysis_.silent = !feature_builder_.build(analysis_.energy, pitch_correlation_, period,
                                               analysis_.features.data());
    return analysis_;
}

float rnn_suppressor::run_network(const float* features, float* gains) {
    return network_.run(features, gains);
}

// Band gains alone cannot suppress the noise between the harmonics of
// voiced speech. Adding the frame one period earlier does, by as much as
// the band's periodicity exceeds what its gain implies; the band energies
// are then restored.
void rnn_suppressor::pitch_filter(const rnn_bands& gains) {
    const rnn_bands& energy = analysis_.energy;
    rnn_bands r;
    for (int b = 0; b < rnn_band_count; ++b) {
        const float c = pitch_correlation_[b];
        const float g = gains[b];
        if (c > g) {
            r[b] = 1.0f;
        } else {
            const float c2 = c * c;
            const float g2 = g * g;
            r[b] =
                std::sqrt(std::clamp(c2 * (1.0f - g2) / (0.001f + g2 * (1.0f - c2)), 0.0f, 1.0f));
        }
        r[b] *= std::sqrt(energy[b] / (1e-8f + pitch_energy_[b]));
    }
    rnn_interpolate_bands(r, bin_gains_);
    for (int k = 0; k < rnn_bin_count; ++k) x_[k] += bin_gains_[k] * p_[k];

    rnn_bands filtered;
    rnn_band_energy(x_, filtered);
    for (int b = 0; b < rnn_band_count; ++b) {
        r[b] = std::sqrt(energy[b] / (1e-8f + filtered[b]));
    }
    apply_band_gains(r);
}

void rnn_suppressor::apply_band_gains(const rnn_bands& gains) {
    rnn_interpolate_bands(gains, bin_gains_);
    for (int k = 0; k < rnn_bin_count; ++k) x_[k] *= bin_gains_[k];
}

float rnn_suppressor::process_frame(const float* in, float* out) {
    const rnn_frame_analysis& a = analyse(in);
    float vad = 0.0f;
    if (!a.silent) {
        rnn_bands gains;
        vad = network_.run(a.features.data(), gains.data());
        pitch_filter(gains);
        // A gain may fall by at most 0.6 per frame (about 4.4 dB), which
        // keeps the ends of words from being cut off.
        for (int b = 0; b < rnn_band_count; ++b) {
            gains[b] = std::max(gains[b], 0.6f * last_gains_[b]);
        }
        last_gains_ = gains;
        apply_band_gains(gains);
    }
    fft_.inverse(x_.data(), scratch_.data());
    const auto& w = rnn_window();
    for (int i = 0; i < rnn_frame_size; ++i) {
        out[i] = scratch_[i] * w[i] + synthesis_memory_[i];
    }
    for (int i = 0; i < rnn_frame_size; ++i) {
        synthesis_memory_[i] = scratch_[rnn_frame_size + i] * w[rnn_frame_size + i];
    }
    return vad;
}

} // namespace quelora::denoise
