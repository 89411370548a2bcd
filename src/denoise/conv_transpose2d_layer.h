// The transposed 2-D convolution (frequency upsampling in
// the ERB decoder). Input time length and kernel time length are 1; weights
// stay in the table as [Cin][Cout/G][Kt][Kf] (docs/dfn.md section 1).
// The trailing `groups` is there because the model's rows 31 and 36 are
// depthwise (docs/dfn.md section 1).
#pragma once

#include <cstdint>
#include <vector>

namespace quelora::denoise {

class conv_transpose2d_layer {
public:
    conv_transpose2d_layer(uint32_t in_time, uint32_t in_freq, uint32_t in_channels,
                           const float* weights, uint32_t kernel_time, uint32_t kernel_freq,
                           uint32_t pad_time, uint32_t pad_freq, uint32_t out_pad_time,
                           uint32_t out_pad_freq, uint32_t stride_time, uint32_t stride_freq,
                           uint32_t out_channels, uint32_t groups);
    // input: in_channels x 1 x in_freq; output: out_channels x
    // output_time_length() x output_freq_length(). Never allocates; input and
    // output must not alias.
    void forward(const float* input, float* output);
    uint32_t output_time_length() const { return out_time_; }
    uint32_t output_freq_length() const { return out_freq_; }
    // Multiply-adds of one forward call (every input bin times every tap).
    uint64_t multiply_adds() const {
        return uint64_t{in_channels_} * (out_channels_ / groups_) * kernel_freq_ * in_freq_;
    }

private:
    const float* weights_;
    uint32_t in_freq_, in_channels_, out_channels_, groups_;
    uint32_t kernel_freq_, pad_freq_, stride_freq_;
    uint32_t out_time_, out_freq_;
    bool time_row_kept_; // the one input time row lands inside the cropped output
    // The model's upsampling: depthwise, 3 taps, stride 2, padding 1, output
    // padding 1, one time row; each output bin is written once, in order.
    bool doubles_rows_;
    // Per kernel tap k: the input positions [first, end) whose target
    // i·SF + k - P lies inside the cropped output, so the scatter loop needs
    // no bounds test.
    std::vector<uint32_t> first_input_;
    std::vector<uint32_t> end_input_;
};

} // namespace quelora::denoise
