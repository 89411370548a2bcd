// The light recurrent noise suppressor: 480-sample hops at 48000 Hz in the
// 16-bit sample range, a 960-point spectrum per hop, 22 band gains from a
// small recurrent network, a comb filter at the pitch period to restore the
// harmonics between them, and the network's voice probability
// (docs/rnn_suppressor.md). The output lags the input by 480 samples.
// Used by one thread at a time; nothing allocates after construction.
#pragma once

#include "denoise/rnn_bands.h"
#include "denoise/rnn_features.h"
#include "denoise/rnn_model.h"
#include "denoise/rnn_network.h"
#include "denoise/rnn_pitch.h"
#include "dsp/real_fft.h"

#include <array>

namespace quelora::denoise {

// What the analysis of one frame gives the network.
struct rnn_frame_analysis {
    std::array<float, rnn_feature_count> features{};
    rnn_bands energy{};
    // Too quiet to judge: the network does not run and the frame passes.
    bool silent = true;
};

class rnn_suppressor {
public:
    // The model is referenced, not copied; it must outlive the suppressor.
    // pitch_scale: see rnn_pitch_tracker; 1 for the suppressor as trained.
    explicit rnn_suppressor(const rnn_model& model = builtin_rnn_model(), float pitch_scale = 1.0f);

    // in: rnn_frame_size samples in the 16-bit range; out: as many, 480
    // samples late (in == out allowed). Returns the voice probability, 0 for
    // a silent frame.
    float process_frame(const float* in, float* out);

    // The analysis half of process_frame, for feature extraction: advances
    // the high-pass, spectrum and pitch state exactly as process_frame does,
    // but neither the network nor the synthesis.
    const rnn_frame_analysis& analyse(const float* in);
    // The network step process_frame takes after a frame that is not
    // silent: gains receives rnn_band_count values; returns the voice
    // probability.
    float run_network(const float* features, float* gains);

private:
    void transform(const float* samples, rnn_spectrum& spectrum);
    void pitch_filter(const rnn_bands& gains);
    void apply_band_gains(const rnn_bands& gains);

    dsp::real_fft fft_;
    rnn_network network_;
    rnn_pitch_tracker pitch_;
    rnn_feature_builder feature_builder_;
    rnn_frame_analysis analysis_;
    float highpass_[2] = {0.0f, 0.0f};
    std::array<float, rnn_frame_size> synthesis_memory_{};
    std::array<float, rnn_pitch_buffer_size> pitch_buffer_{};
    std::array<float, rnn_window_size> scratch_{};
    std::array<float, rnn_bin_count> bin_gains_{};
    rnn_spectrum x_{};
    rnn_spectrum p_{};
    rnn_bands pitch_energy_{};
    rnn_bands pitch_correlation_{};
    rnn_bands last_gains_{};
};

} // namespace quelora::denoise
