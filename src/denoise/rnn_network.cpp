#include "denoise/rnn_network.h"

#include "denoise/activations.h"

#include <algorithm>
#include <cstddef>
#include <stdexcept>

namespace quelora::denoise {

namespace {

using std::size_t;

void activate(rnn_activation a, float* v, int n) {
    const auto count = static_cast<size_t>(n);
    switch (a) {
    case rnn_activation::tanh:
        tanh(v, v, count);
        break;
    case rnn_activation::sigmoid:
        sigmoid(v, v, count);
        break;
    case rnn_activation::relu:
        relu(v, v, count);
        break;
    }
}

// out[0..columns) += sum_j in[j] * w[j * stride + 0..columns): the weights
// are stored input-major, so each input scales one contiguous row. Sixteen
// columns at a time stay in registers over all the inputs instead of being
// loaded and stored once per input; each sum keeps its order (out, then
// input 0, 1, ...), so the results are the same to the bit.
void accumulate_rows(const float* w, int stride, const float* in, int inputs, float* out,
                     int columns) {
    constexpr int chunk = 16;
    const auto row_of = [&](int j) {
        return w + static_cast<size_t>(j) * static_cast<size_t>(stride);
    };
    int c = 0;
    for (; c + chunk <= columns; c += chunk) {
        float sum[chunk];
        for (int i = 0; i < chunk; ++i) sum[i] = out[c + i];
        for (int j = 0; j < inputs; ++j) {
            const float x = in[j];
            const float* row = row_of(j) + c;
            for (int i = 0; i < chunk; ++i) sum[i] += x * row[i];
        }
        for (int i = 0; i < chunk; ++i) out[c + i] = sum[i];
    }
    for (int j = 0; j < inputs; ++j) {
        const float x = in[j];
        const float* row = row_of(j);
        for (int i = c; i < columns; ++i) out[i] += x * row[i];
    }
}

void dense(const rnn_dense_layer& layer, const float* in, float* out) {
    std::copy(layer.bias.begin(), layer.bias.end(), out);
    accumulate_rows(layer.weights.data(), layer.neurons, in, layer.inputs, out, layer.neurons);
    activate(layer.activation, out, layer.neurons);
}

// The reset gate scales the state before the recurrent product of the
// candidate, and each gate has a single bias.
void gru(const rnn_gru_layer& layer, const float* in, float* state, float* gates, float* scratch) {
    const int n = layer.neurons;
    const int stride = 3 * n;
    std::copy(layer.bias.begin(), layer.bias.end(), gates);
    accumulate_rows(layer.input_weights.data(), stride, in, layer.inputs, gates, stride);
    const float* u = layer.recurrent_weights.data();
    accumulate_rows(u, stride, state, n, gates, 2 * n);
    sigmoid(gates, gates, static_cast<size_t>(2 * n));
    float* update = gates;
    const float* reset = gates + n;
    float* candidate = gates + 2 * n;
    for (int i = 0; i < n; ++i) scratch[i] = reset[i] * state[i];
    accumulate_rows(u + 2 * n, stride, scratch, n, candidate, n);
    activate(layer.activation, candidate, n);
    for (int i = 0; i < n; ++i) {
        state[i] = update[i] * state[i] + (1.0f - update[i]) * candidate[i];
    }
}

size_t count(int n) { return static_cast<size_t>(n); }

bool sized(const rnn_dense_layer& l, int inputs, int neurons) {
    return l.inputs == inputs && l.neurons == neurons &&
           l.weights.size() == count(inputs * neurons) && l.bias.size() == count(neurons);
}

bool sized(const rnn_gru_layer& l, int inputs) {
    const int n = l.neurons;
    return l.inputs == inputs && n > 0 && l.input_weights.size() == count(inputs * 3 * n) &&
           l.recurrent_weights.size() == count(n * 3 * n) && l.bias.size() == count(3 * n);
}

// parse_rnnn already refuses such models; this guards one built by hand.
const rnn_model& checked(const rnn_model& m) {
    const int d = m.input_dense.neurons;
    const int v = m.vad_gru.neurons;
    const int n = m.noise_gru.neurons;
    const int f = rnn_feature_count;
    if (d < 1 || !sized(m.input_dense, f, d) || !sized(m.vad_gru, d) ||
        !sized(m.noise_gru, d + v + f) || !sized(m.denoise_gru, v + n + f) ||
        !sized(m.denoise_output, m.denoise_gru.neurons, rnn_band_count) ||
        !sized(m.vad_output, v, 1)) {
        throw std::invalid_argument("rnn_network: the model's layer sizes do not chain");
    }
    return m;
}

} // namespace

rnn_network::rnn_network(const rnn_model& model)
    : model_(checked(model)), dense_(count(model.input_dense.neurons)),
      vad_state_(count(model.vad_gru.neurons)), noise_state_(count(model.noise_gru.neurons)),
      denoise_state_(count(model.denoise_gru.neurons)),
      concat_(count(std::max(model.noise_gru.inputs, model.denoise_gru.inputs))),
      gates_(count(3 * std::max({model.vad_gru.neurons, model.noise_gru.neurons,
                                 model.denoise_gru.neurons}))),
      scratch_(gates_.size()) {}

float rnn_network::run(const float* features, float* gains) {
    const rnn_model& m = model_;
    dense(m.input_dense, features, dense_.data());
    gru(m.vad_gru, dense_.data(), vad_state_.data(), gates_.data(), scratch_.data());
    float vad = 0.0f;
    dense(m.vad_output, vad_state_.data(), &vad);

    auto out = std::copy(dense_.begin(), dense_.end(), concat_.begin());
    out = std::copy(vad_state_.begin(), vad_state_.end(), out);
    std::copy(features, features + rnn_feature_count, out);
    gru(m.noise_gru, concat_.data(), noise_state_.data(), gates_.data(), scratch_.data());

    out = std::copy(vad_state_.begin(), vad_state_.end(), concat_.begin());
    out = std::copy(noise_state_.begin(), noise_state_.end(), out);
    std::copy(features, features + rnn_feature_count, out);
    gru(m.denoise_gru, concat_.data(), denoise_state_.data(), gates_.data(), scratch_.data());
    dense(m.denoise_output, denoise_state_.data(), gains);
    return vad;
}

} // namespace quelora::denoise
