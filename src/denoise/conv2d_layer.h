// The 2-D convolution layer: time x frequency, no bias (a
// batch norm always follows), frequency padding floor(Kf/2) on each side,
// time stride 1. Weights stay in the weight table ([Cout][Cin/G][Kt][Kf],
// docs/dfn.md section 1); all scratch is allocated at construction.
#pragma once

#include "denoise/matvec_kernels.h"

#include <cstdint>
#include <vector>

namespace quelora::denoise {

class conv2d_layer {
public:
    conv2d_layer(uint32_t time_length, uint32_t freq_length, uint32_t in_channels,
                 const float* weights, uint32_t kernel_time, uint32_t kernel_freq,
                 int32_t freq_stride, uint32_t out_channels, uint32_t time_pad_before,
                 uint32_t time_pad_after, uint32_t groups,
                 const matvec_kernels& kernels = selected_matvec_kernels());
    // input: in_channels x time_length x freq_length;
    // output: out_channels x output_time_length() x output_freq_length().
    // after, when given, is applied to each output channel's map (one row
    // per output channel) before it is stored. Never allocates; input and
    // output must not alias.
    void forward(const float* input, float* output, const row_epilogue* after = nullptr);
    uint32_t output_time_length() const { return out_time_; }
    uint32_t output_freq_length() const { return out_freq_; }
    // Multiply-adds of one forward call.
    uint64_t multiply_adds() const { return uint64_t{out_channels_} * patch_rows_ * positions_; }

private:
    // How forward runs, chosen once at construction.
    enum class method : uint8_t {
        // The model's depthwise layers: one row per channel, 1 or 3 taps,
        // stride 1 or 2; computed straight from the unpadded input.
        row_taps,
        // Any other with one input channel per output channel: a direct
        // loop beats G tiny matrix products.
        depthwise,
        // Kf = 1, stride 1, no time padding, Kt = 1 or Kt = T: the input map
        // already is the patch matrix (pointwise 1x1, the DF path's 5x1).
        input_is_patches,
        // Unfold into patches_, then one matrix product per group.
        im2col,
    };

    void pad_input(const float* input);
    void unfold(const float* source);
    void forward_depthwise(const float* source, float* output);
    void multiply(const float* patches, float* output, const row_epilogue* after) const;

    const float* weights_;
    const matvec_kernels* kernels_;
    uint32_t time_, freq_, in_channels_, out_channels_, groups_;
    uint32_t kernel_time_, kernel_freq_, stride_;
    uint32_t time_pad_before_, freq_pad_;
    uint32_t padded_time_, padded_freq_;
    uint32_t out_time_, out_freq_;
    uint32_t patch_rows_; // Cin/G x Kt x Kf: rows of one group's patch matrix
    uint32_t positions_;  // out_time_ x out_freq_: columns of it
    method method_;
    bool needs_padding_;
    std::vector<float> padded_;  // Cin x padded time x padded freq; borders stay zero
    std::vector<float> patches_; // G blocks of patch_rows_ x positions_ (im2col only)
    std::vector<float> phases_;  // one padded row split by the stride (depthwise only)
};

} // namespace quelora::denoise
