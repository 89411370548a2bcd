#include "denoise/rnn_model.h"

#include <charconv>
#include <stdexcept>
#include <string>

namespace quelora::denoise {

namespace {

constexpr std::string_view header = "rnnoise-nu model file version 1";
constexpr std::string_view header_stem = "rnnoise-nu model file version ";
// Far above any useful size; keeps inputs x 3 neurons well inside int.
constexpr int max_layer_size = 4096;

[[noreturn]] void fail(int line, const std::string& message) {
    throw std::invalid_argument("rnnn line " + std::to_string(line) + ": " + message);
}

std::string_view trim(std::string_view s) {
    const auto first = s.find_first_not_of(" \t\r");
    if (first == std::string_view::npos) return {};
    return s.substr(first, s.find_last_not_of(" \t\r") - first + 1);
}

class line_reader {
public:
    explicit line_reader(std::string_view text) : rest_(text) {}

    std::string_view next(const char* what) {
        ++line_;
        if (rest_.empty()) fail(line_, std::string("the text ends before ") + what);
        const auto end = rest_.find('\n');
        const std::string_view line = rest_.substr(0, end);
        rest_.remove_prefix(end == std::string_view::npos ? rest_.size() : end + 1);
        return line;
    }
    int line() const { return line_; }
    bool only_blank_left() const { return trim(rest_).empty(); }

private:
    std::string_view rest_;
    int line_ = 0;
};

// Reads one line of integers; calls store(index, value) for each of the
// first `expected` and refuses any other count.
template <class Store>
void read_integers(line_reader& lines, const std::string& what, int expected, int lo, int hi,
                   Store store) {
    std::string_view rest = lines.next(what.c_str());
    int count = 0;
    while (true) {
        const auto first = rest.find_first_not_of(" \t\r");
        if (first == std::string_view::npos) break;
        rest.remove_prefix(first);
        const std::string_view token = rest.substr(0, rest.find_first_of(" \t\r"));
        rest.remove_prefix(token.size());
        int value = 0;
        const auto [end, error] = std::from_chars(token.data(), token.data() + token.size(), value);
        if (error != std::errc() || end != token.data() + token.size()) {
            fail(lines.line(), what + ": '" + std::string(token) + "' is not an integer");
        }
        if (value < lo || value > hi) {
            fail(lines.line(), what + ": " + std::to_string(value) + " is outside " +
                                   std::to_string(lo) + ".." + std::to_string(hi));
        }
        if (count < expected) store(count, value);
        ++count;
    }
    if (count != expected) {
        fail(lines.line(), what + ": " + std::to_string(count) + " numbers, expected " +
                               std::to_string(expected));
    }
}

std::vector<float> read_weights(line_reader& lines, const std::string& what, int count) {
    std::vector<float> out(static_cast<std::size_t>(count));
    read_integers(lines, what, count, -128, 127, [&](int i, int v) {
        out[static_cast<std::size_t>(i)] = static_cast<float>(v) / 256.0f;
    });
    return out;
}

struct layer_shape {
    int inputs, neurons;
    rnn_activation activation;
};

// The `inputs neurons activation` line; the sizes the wiring needs are
// checked here so that the message names the layer that breaks the chain.
layer_shape read_shape(line_reader& lines, const std::string& name, int expected_inputs,
                       const std::string& inputs_from, int expected_neurons) {
    int v[3] = {0, 0, 0};
    read_integers(lines, name + " header 'inputs neurons activation'", 3, -max_layer_size,
                  max_layer_size, [&](int i, int value) { v[i] = value; });
    const int line = lines.line();
    if (v[0] < 1 || v[1] < 1) fail(line, name + ": layer sizes must be positive");
    if (v[2] < 0 || v[2] > 2) {
        fail(line, name + ": activation " + std::to_string(v[2]) +
                       " is not 0 (tanh), 1 (sigmoid) or 2 (relu)");
    }
    if (v[0] != expected_inputs) {
        fail(line, name + " has " + std::to_string(v[0]) + " inputs, but " + inputs_from +
                       " makes " + std::to_string(expected_inputs));
    }
    if (expected_neurons > 0 && v[1] != expected_neurons) {
        fail(line, name + " has " + std::to_string(v[1]) + " neurons, the suppressor needs " +
                       std::to_string(expected_neurons));
    }
    return {v[0], v[1], static_cast<rnn_activation>(v[2])};
}

rnn_dense_layer read_dense(line_reader& lines, const std::string& name, int expected_inputs,
                           const std::string& inputs_from, int expected_neurons = 0) {
    const layer_shape s = read_shape(lines, name, expected_inputs, inputs_from, expected_neurons);
    rnn_dense_layer layer{s.inputs, s.neurons, s.activation, {}, {}};
    layer.weights = read_weights(lines, name + " weights", s.inputs * s.neurons);
    layer.bias = read_weights(lines, name + " biases", s.neurons);
    return layer;
}

rnn_gru_layer read_gru(line_reader& lines, const std::string& name, int expected_inputs,
                       const std::string& inputs_from) {
    const layer_shape s = read_shape(lines, name, expected_inputs, inputs_from, 0);
    rnn_gru_layer layer{s.inputs, s.neurons, s.activation, {}, {}, {}};
    layer.input_weights = read_weights(lines, name + " input weights", s.inputs * 3 * s.neurons);
    layer.recurrent_weights =
        read_weights(lines, name + " recurrent weights", s.neurons * 3 * s.neurons);
    layer.bias = read_weights(lines, name + " biases", 3 * s.neurons);
    return layer;
}

} // namespace

rnn_model parse_rnnn(std::string_view text) {
    line_reader lines(text);
    const std::string_view first = trim(lines.next("the header"));
    if (first != header) {
        if (first.starts_with(header_stem)) {
            fail(1, "version '" + std::string(first.substr(header_stem.size())) +
                        "' is not supported (only 1 is)");
        }
        fail(1, "not an rnnn model: the first line is not '" + std::string(header) + "'");
    }
    const int f = rnn_feature_count;
    rnn_model m;
    m.input_dense = read_dense(lines, "input_dense", f, "the feature vector");
    const int d = m.input_dense.neurons;
    m.vad_gru = read_gru(lines, "vad_gru", d, "input_dense");
    const int v = m.vad_gru.neurons;
    m.noise_gru = read_gru(lines, "noise_gru", d + v + f, "input_dense + vad_gru + features");
    const int n = m.noise_gru.neurons;
    m.denoise_gru = read_gru(lines, "denoise_gru", v + n + f, "vad_gru + noise_gru + features");
    m.denoise_output =
        read_dense(lines, "denoise_output", m.denoise_gru.neurons, "denoise_gru", rnn_band_count);
    m.vad_output = read_dense(lines, "vad_output", v, "vad_gru", 1);
    if (!lines.only_blank_left()) fail(lines.line() + 1, "junk after the last layer");
    return m;
}

} // namespace quelora::denoise
