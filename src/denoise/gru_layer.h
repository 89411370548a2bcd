// The GRU: one time step per call with torch.nn.GRU's
// formulas; the hidden state is zero at construction and carried across
// calls. The twelve tensors stay in the weight table (order in
// docs/dfn.md section 1).
#pragma once

#include "denoise/matvec_kernels.h"

#include <cstdint>
#include <vector>

namespace quelora::denoise {

class gru_layer {
public:
    // Matrices [hidden][input] (w_h*: [hidden][hidden]); gate order per docs/dfn.md.
    gru_layer(uint32_t input_size, uint32_t hidden_size, const float* w_ir, const float* w_iz,
              const float* w_in, const float* w_hr, const float* w_hz, const float* w_hn,
              const float* b_ir, const float* b_iz, const float* b_in, const float* b_hr,
              const float* b_hz, const float* b_hn,
              const matvec_kernels& kernels = selected_matvec_kernels());
    // output receives the new hidden state (hidden_size floats); may not alias input.
    // Never allocates.
    void forward(const float* input, float* output);
    // Two consecutive steps, forward(input_a, output_a) then
    // forward(input_b, output_b), with the input-side products of both
    // taken in one pass over the input weights (the recurrent ones cannot:
    // step b needs step a's state). No output may alias an input or the
    // other output. Never allocates.
    void forward_pair(const float* input_a, const float* input_b, float* output_a, float* output_b);
    // Zeroes the hidden state, as at construction. Never allocates.
    void reset();
    const float* hidden_state() const { return hidden_.data(); }
    uint32_t input_size() const { return input_size_; }
    uint32_t hidden_size() const { return hidden_size_; }

private:
    // The rest of a step once input_gates holds W_i· x: the recurrent
    // product, the gates and the new state. Overwrites input_gates.
    void step(float* input_gates, float* output);

    uint32_t input_size_, hidden_size_;
    // Gate order r, z, n; the weight table stores each triple as one
    // [3H][cols] block, which is then multiplied in a single product.
    const float* w_input_[3];
    const float* w_hidden_[3];
    const float* b_input_[3];
    const float* b_hidden_[3];
    bool input_block_, hidden_block_; // the three matrices lie back to back
    // The blocks in the packed order of packed_matrix.h, for kernels that
    // stream them so; null otherwise.
    const float* packed_input_ = nullptr;
    const float* packed_hidden_ = nullptr;
    const matvec_kernels* kernels_;
    std::vector<float> hidden_;        // h, zero at construction
    std::vector<float> input_gates_;   // W_i· x for r, z, n (3H)
    std::vector<float> input_gates_b_; // the same for forward_pair's second step
    std::vector<float> hidden_gates_;  // W_h· h for r, z, n (3H)
};

} // namespace quelora::denoise
