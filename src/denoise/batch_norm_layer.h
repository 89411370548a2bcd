// The inference batch norm. It is the only layer that
// derives parameter data: the per-channel factor gamma / sqrt(var + 1e-5),
// computed once at construction; the shift and mean stay in the table.
#pragma once

#include "denoise/matvec_kernels.h"

#include <cstdint>
#include <vector>

namespace quelora::denoise {

class batch_norm_layer {
public:
    batch_norm_layer(const float* gamma, const float* beta, const float* mean,
                     const float* variance, uint32_t channels, uint32_t time_length,
                     uint32_t freq_length);
    // y = (x - mean[c]) x factor[c] + beta[c] over channels x time x freq
    // floats; input and output may be the same buffer. Never allocates.
    void forward(const float* input, float* output);
    // The precomputed gamma[c] / sqrt(variance[c] + 1e-5).
    const float* factors() const { return factor_.data(); }
    // This norm, then a ReLU when relu is set, as a product's epilogue
    // (one row per channel; valid while the layer lives).
    row_epilogue epilogue(bool relu) const { return {mean_, factor_.data(), beta_, relu}; }

private:
    const float* beta_;
    const float* mean_;
    uint32_t channels_;
    uint32_t plane_; // time x frequency floats per channel
    std::vector<float> factor_;
};

} // namespace quelora::denoise
