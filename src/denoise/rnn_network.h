// The recurrent suppressor's network, one frame per call: a dense layer
// over the 42 features, three GRUs (voice activity, noise, denoise) and two
// dense outputs, the 22 band gains and the voice probability
// (docs/rnn_suppressor.md). The three GRU states persist between calls. The
// model is referenced, not copied; it must outlive the network.
#pragma once

#include "denoise/rnn_model.h"

#include <vector>

namespace quelora::denoise {

class rnn_network {
public:
    explicit rnn_network(const rnn_model& model);

    // features: rnn_feature_count values; gains receives rnn_band_count.
    // Returns the voice probability. Never allocates.
    float run(const float* features, float* gains);

private:
    const rnn_model& model_;
    std::vector<float> dense_;
    std::vector<float> vad_state_;
    std::vector<float> noise_state_;
    std::vector<float> denoise_state_;
    std::vector<float> concat_; // a GRU's input: two states and the features
    std::vector<float> gates_;  // 3 x the widest GRU
    std::vector<float> scratch_;
};

} // namespace quelora::denoise
