// The recurrent suppressor's 42 features of one frame: a cepstrum of the
// band log-energies with its first and second differences over the last
// three frames, a cepstrum of the pitch correlations, the pitch period and
// a measure of how much the spectrum has varied over the last 8 frames
// (docs/rnn_suppressor.md). The cepstral history persists between frames.
#pragma once

#include "denoise/rnn_bands.h"

#include <array>

namespace quelora::denoise {

class rnn_feature_builder {
public:
    // energy and pitch_correlation per band (the latter normalised to
    // -1..1), period in samples. Fills the rnn_feature_count features and
    // returns true; for a silent frame (total energy below 0.04 in the
    // 16-bit range) zeroes them, leaves the history alone and returns false.
    bool build(const rnn_bands& energy, const rnn_bands& pitch_correlation, int period,
               float* features);

private:
    static constexpr int history = 8;
    std::array<rnn_bands, history> cepstra_{};
    int newest_ = 0;
};

} // namespace quelora::denoise
