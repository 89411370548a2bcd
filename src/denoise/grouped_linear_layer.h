// The grouped linear layer (the embedding and decoder maps of the DFN
// network): input cut into G slices, slice g times the g-th (I/G) x (O/G)
// block of the table's [G][I/G][O/G] weights, no bias.
#pragma once

#include "denoise/matvec_kernels.h"

#include <cstdint>

namespace quelora::denoise {

class grouped_linear_layer {
public:
    grouped_linear_layer(const float* weights, uint32_t input_size, uint32_t output_size,
                         uint32_t groups,
                         const matvec_kernels& kernels = selected_matvec_kernels());
    // input_size floats in, output_size floats out. Never allocates.
    void forward(const float* input, float* output); // output must not alias input
    // forward(input_a, output_a) and forward(input_b, output_b) in one pass
    // over the weights (the two hops of a block). No output may alias an
    // input or the other output. Never allocates.
    void forward_pair(const float* input_a, const float* input_b, float* output_a, float* output_b);
    uint32_t input_size() const { return group_in_ * groups_; }
    uint32_t output_size() const { return group_out_ * groups_; }
    // Weights, and multiply-adds of one forward call.
    uint64_t weight_count() const { return uint64_t{input_size()} * group_out_; }

private:
    const float* weights_;
    const matvec_kernels* kernels_;
    uint32_t groups_;
    uint32_t group_in_;  // I / G
    uint32_t group_out_; // O / G
};

} // namespace quelora::denoise
