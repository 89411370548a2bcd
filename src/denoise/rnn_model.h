// The recurrent suppressor's network weights and the `.rnnn` text format
// they are stored in (docs/rnn_suppressor.md): six layers, each weight and
// bias an integer -128..127 that is used multiplied by 1/256. The parsed
// model holds the products as float, so the per-frame products need no
// conversion. A model is shared read-only by every suppressor built on it.
#pragma once

#include <string_view>
#include <vector>

namespace quelora::denoise {

inline constexpr int rnn_feature_count = 42;
inline constexpr int rnn_band_count = 22;

// The numbers the format uses for a layer's activation.
enum class rnn_activation { tanh = 0, sigmoid = 1, relu = 2 };

// out_i = act(bias_i + sum_j weight(j, i) in_j), weight(j, i) at j * neurons + i.
struct rnn_dense_layer {
    int inputs = 0;
    int neurons = 0;
    rnn_activation activation = rnn_activation::tanh;
    std::vector<float> weights;
    std::vector<float> bias;
};

// Rows of 3 * neurons: update gate at 0, reset gate at neurons, candidate at
// 2 * neurons; input row j at j * 3 * neurons, recurrent row likewise.
struct rnn_gru_layer {
    int inputs = 0;
    int neurons = 0;
    rnn_activation activation = rnn_activation::tanh;
    std::vector<float> input_weights;
    std::vector<float> recurrent_weights;
    std::vector<float> bias;
};

struct rnn_model {
    rnn_dense_layer input_dense;
    rnn_gru_layer vad_gru;
    rnn_gru_layer noise_gru;
    rnn_gru_layer denoise_gru;
    rnn_dense_layer denoise_output;
    rnn_dense_layer vad_output;
};

// Parses a `.rnnn` text. Any layer sizes are accepted that chain the way the
// suppressor wires them (42 features in, 22 gains and one voice probability
// out). Throws std::invalid_argument naming the line and the fault.
rnn_model parse_rnnn(std::string_view text);

// The compiled-in model (data/rnn_suppressor.rnnn), parsed on first use.
const rnn_model& builtin_rnn_model();

} // namespace quelora::denoise
