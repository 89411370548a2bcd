// gru_layer:
//   r = sigmoid(W_ir x + b_ir + W_hr h + b_hr)
//   z = sigmoid(W_iz x + b_iz + W_hz h + b_hz)
//   n = tanh(W_in x + b_in + r * (W_hn h + b_hn))
//   h = (1 - z) * n + z * h
// The matrix-vector products go through the dispatched kernels of
// matvec_kernels.h, one [3H] product per side when the three matrices are
// contiguous (as in the weight table), else one per gate; the gate
// non-linearities are the same kernels' element-wise functions over the
// scratch vectors. forward_pair takes two steps with
// one pass over the input weights (the pair kernel), which is what lets the
// model's block path read those 0.8 MB once per block instead of twice.
#include "denoise/gru_layer.h"

#include "api/quelora_exception.h"
#include "denoise/layer_checks.h"
#include "denoise/matvec_kernels.h"
#include "denoise/packed_matrix.h"

#include <algorithm>
#include <limits>

namespace quelora::denoise {

namespace {

// gates[g·H .. (g+1)·H) = W_g · v, g = r, z, n.
// packed, when not null, is the [3H][cols] block in the kernels' packed order.
void multiply_gates(const matvec_kernels& kernels, const float* const* w, bool block,
                    const float* packed, uint32_t hidden, uint32_t cols, const float* v,
                    float* gates) {
    if (packed != nullptr) {
        kernels.packed_matrix_vector(packed, 3 * hidden, cols, v, gates);
        return;
    }
    if (block) {
        kernels.matrix_vector(w[0], 3 * hidden, cols, v, gates);
        return;
    }
    for (std::size_t g = 0; g < 3; ++g)
        kernels.matrix_vector(w[g], hidden, cols, v, gates + g * hidden);
}

// The same for two vectors in one pass over W.
void multiply_gates_pair(const matvec_kernels& kernels, const float* const* w, bool block,
                         const float* packed, uint32_t hidden, uint32_t cols, const float* v0,
                         const float* v1, float* gates0, float* gates1) {
    if (packed != nullptr) {
        kernels.packed_matrix_vector_pair(packed, 3 * hidden, cols, v0, v1, gates0, gates1);
        return;
    }
    if (block) {
        kernels.matrix_vector_pair(w[0], 3 * hidden, cols, v0, v1, gates0, gates1);
        return;
    }
    for (std::size_t g = 0; g < 3; ++g)
        kernels.matrix_vector_pair(w[g], hidden, cols, v0, v1, gates0 + g * hidden,
                                   gates1 + g * hidden);
}

} // namespace

gru_layer::gru_layer(uint32_t input_size, uint32_t hidden_size, const float* w_ir,
                     const float* w_iz, const float* w_in, const float* w_hr, const float* w_hz,
                     const float* w_hn, const float* b_ir, const float* b_iz, const float* b_in,
                     const float* b_hr, const float* b_hz, const float* b_hn,
                     const matvec_kernels& kernels)
    : input_size_(input_size), hidden_size_(hidden_size), w_input_{w_ir, w_iz, w_in},
      w_hidden_{w_hr, w_hz, w_hn}, b_input_{b_ir, b_iz, b_in}, b_hidden_{b_hr, b_hz, b_hn},
      input_block_(false), hidden_block_(false), kernels_(&kernels) {
    require_positive("gru", "input_size", input_size);
    require_positive("gru", "hidden_size", hidden_size);
    if (3 * uint64_t{hidden_size} * std::max(input_size, hidden_size) >
        static_cast<uint64_t>(std::numeric_limits<int32_t>::max()))
        throw quelora_exception(QEL_LOG_ERROR, QEL_ERROR_INVALID_VALUE, "gru: layer is too large");
    for (const float* p : {w_ir, w_iz, w_in, w_hr, w_hz, w_hn, b_ir, b_iz, b_in, b_hr, b_hz, b_hn})
        if (p == nullptr)
            throw quelora_exception(QEL_LOG_ERROR, QEL_ERROR_INVALID_VALUE,
                                    "gru: a weight or bias pointer is null");
    const std::size_t input_matrix = std::size_t{hidden_size} * input_size;
    const std::size_t hidden_matrix = std::size_t{hidden_size} * hidden_size;
    input_block_ = w_iz == w_ir + input_matrix && w_in == w_iz + input_matrix;
    hidden_block_ = w_hz == w_hr + hidden_matrix && w_hn == w_hz + hidden_matrix;
    // Kernels that stream packed matrices get the blocks' shared packed copies.
    if (kernels.packed_matrix_vector != nullptr) {
        if (input_block_) packed_input_ = shared_packed_matrix(w_ir, 3 * hidden_size, input_size);
        if (hidden_block_)
            packed_hidden_ = shared_packed_matrix(w_hr, 3 * hidden_size, hidden_size);
    }
    hidden_.assign(hidden_size, 0.0f);
    input_gates_.assign(3 * std::size_t{hidden_size}, 0.0f);
    input_gates_b_.assign(3 * std::size_t{hidden_size}, 0.0f);
    hidden_gates_.assign(3 * std::size_t{hidden_size}, 0.0f);
}

// The gate vectors are scratch: each step's products write them whole first.
void gru_layer::reset() { std::fill(hidden_.begin(), hidden_.end(), 0.0f); }

void gru_layer::forward(const float* input, float* output) {
    multiply_gates(*kernels_, w_input_, input_block_, packed_input_, hidden_size_, input_size_,
                   input, input_gates_.data());
    step(input_gates_.data(), output);
}

void gru_layer::forward_pair(const float* input_a, const float* input_b, float* output_a,
                             float* output_b) {
    multiply_gates_pair(*kernels_, w_input_, input_block_, packed_input_, hidden_size_, input_size_,
                        input_a, input_b, input_gates_.data(), input_gates_b_.data());
    step(input_gates_.data(), output_a);
    step(input_gates_b_.data(), output_b);
}

void gru_layer::step(float* input_gates, float* output) {
    const uint32_t n_h = hidden_size_;
    multiply_gates(*kernels_, w_hidden_, hidden_block_, packed_hidden_, n_h, n_h, hidden_.data(),
                   hidden_gates_.data());

    float* r = input_gates;
    float* z = r + n_h;
    float* n = z + n_h;
    const float* hr = hidden_gates_.data();
    const float* hz = hr + n_h;
    const float* hn = hz + n_h;
    // Reset and update pre-activations, then both sigmoids in one pass.
    for (uint32_t j = 0; j < n_h; ++j) {
        r[j] += b_input_[0][j] + hr[j] + b_hidden_[0][j];
        z[j] += b_input_[1][j] + hz[j] + b_hidden_[1][j];
    }
    kernels_->sigmoid(r, r, 2 * std::size_t{n_h});
    for (uint32_t j = 0; j < n_h; ++j) n[j] += b_input_[2][j] + r[j] * (hn[j] + b_hidden_[2][j]);
    kernels_->tanh(n, n, n_h);
    float* h = hidden_.data();
    for (uint32_t j = 0; j < n_h; ++j) {
        h[j] = (1.0f - z[j]) * n[j] + z[j] * h[j];
        output[j] = h[j];
    }
}

} // namespace quelora::denoise
