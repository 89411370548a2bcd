#include "denoise/rnn_features.h"

#include <algorithm>
#include <cmath>

namespace quelora::denoise {

bool rnn_feature_builder::build(const rnn_bands& energy, const rnn_bands& pitch_correlation,
                                int period, float* features) {
    // Each band's log energy may fall at most 1.5 (15 dB) below the band
    // under it and 7 below the loudest one so far: a spectrum with empty
    // bands (a band-limited input) does not produce extreme cepstra.
    rnn_bands log_energy;
    float log_max = -2.0f;
    float follow = -2.0f;
    float total = 0.0f;
    for (int b = 0; b < rnn_band_count; ++b) {
        float l = std::log10(1e-2f + energy[b]);
        l = std::max(log_max - 7.0f, std::max(follow - 1.5f, l));
        log_max = std::max(log_max, l);
        follow = std::max(follow - 1.5f, l);
        log_energy[b] = l;
        total += energy[b];
    }
    if (total < 0.04f) {
        std::fill(features, features + rnn_feature_count, 0.0f);
        return false;
    }

    newest_ = (newest_ + 1) % history;
    rnn_bands& c0 = cepstra_[newest_];
    rnn_dct(log_energy.data(), c0.data());
    // Centres the first two coefficients on typical speech.
    c0[0] -= 12.0f;
    c0[1] -= 4.0f;
    const rnn_bands& c1 = cepstra_[(newest_ + history - 1) % history];
    const rnn_bands& c2 = cepstra_[(newest_ + history - 2) % history];
    std::copy(c0.begin(), c0.end(), features);
    for (int i = 0; i < 6; ++i) {
        features[i] = c0[i] + c1[i] + c2[i];
        features[rnn_band_count + i] = c0[i] - c2[i];
        features[rnn_band_count + 6 + i] = c0[i] - 2.0f * c1[i] + c2[i];
    }
    rnn_bands pitch_cepstrum;
    rnn_dct(pitch_correlation.data(), pitch_cepstrum.data());
    float* pitch_features = features + rnn_band_count + 12;
    std::copy(pitch_cepstrum.begin(), pitch_cepstrum.begin() + 6, pitch_features);
    pitch_features[0] -= 1.3f;
    pitch_features[1] -= 0.9f;
    pitch_features[6] = 0.01f * static_cast<float>(period - 300);

    // Spectral variability: how far each remembered cepstrum lies from its
    // nearest neighbour, averaged; steady noise keeps it small.
    float variability = 0.0f;
    for (int i = 0; i < history; ++i) {
        float nearest = 1e15f;
        for (int j = 0; j < history; ++j) {
            if (j == i) continue;
            float distance = 0.0f;
            for (int k = 0; k < rnn_band_count; ++k) {
                const float d = cepstra_[i][k] - cepstra_[j][k];
                distance += d * d;
            }
            nearest = std::min(nearest, distance);
        }
        variability += nearest;
    }
    pitch_features[7] = variability / history - 2.1f;
    return true;
}

} // namespace quelora::denoise
