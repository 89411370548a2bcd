// conv_transpose2d_layer: scatter form. Every input position
// i of an input channel adds weight x input to output position
// i·SF + k - P for each kernel tap k (the dilated map cropped by the
// padding); the crop is precomputed per tap as a range of input positions.
#include "denoise/conv_transpose2d_layer.h"

#include "api/quelora_exception.h"
#include "denoise/layer_checks.h"

#include <algorithm>
#include <cstddef>
#include <limits>

namespace quelora::denoise {

conv_transpose2d_layer::conv_transpose2d_layer(uint32_t in_time, uint32_t in_freq,
                                               uint32_t in_channels, const float* weights,
                                               uint32_t kernel_time, uint32_t kernel_freq,
                                               uint32_t pad_time, uint32_t pad_freq,
                                               uint32_t out_pad_time, uint32_t out_pad_freq,
                                               uint32_t stride_time, uint32_t stride_freq,
                                               uint32_t out_channels, uint32_t groups)
    : weights_(weights), in_freq_(in_freq), in_channels_(in_channels), out_channels_(out_channels),
      groups_(groups), kernel_freq_(kernel_freq), pad_freq_(pad_freq), stride_freq_(stride_freq),
      out_time_(0), out_freq_(0), time_row_kept_(pad_time == 0), doubles_rows_(false) {
    // First the checks whose messages name the argument (input_dim_1 ...), in
    // this order; the first that fails is reported.
    if (in_time != 1)
        throw quelora_exception(QEL_LOG_ERROR, QEL_ERROR_INVALID_VALUE,
                                "input_dim_1 is %i, must be 1", static_cast<int>(in_time));
    if (kernel_time != in_time)
        throw quelora_exception(QEL_LOG_ERROR, QEL_ERROR_INVALID_VALUE,
                                "kernel_dim_1 is %i, must be 1", static_cast<int>(kernel_time));
    if (out_pad_time >= stride_time)
        throw quelora_exception(QEL_LOG_ERROR, QEL_ERROR_INVALID_VALUE,
                                "out_pad_1 is %i, must be < stride_1 = %i",
                                static_cast<int>(out_pad_time), static_cast<int>(stride_time));
    if (out_pad_freq >= stride_freq)
        throw quelora_exception(QEL_LOG_ERROR, QEL_ERROR_INVALID_VALUE,
                                "out_pad_2 is %i, must be < stride_2 = %i",
                                static_cast<int>(out_pad_freq), static_cast<int>(stride_freq));
    // Then what would otherwise make forward read or write out of bounds.
    if (weights == nullptr)
        throw quelora_exception(QEL_LOG_ERROR, QEL_ERROR_INVALID_VALUE,
                                "conv_transpose2d: weights pointer is null");
    require_positive("conv_transpose2d", "in_freq", in_freq);
    require_positive("conv_transpose2d", "in_channels", in_channels);
    require_positive("conv_transpose2d", "out_channels", out_channels);
    require_positive("conv_transpose2d", "kernel_freq", kernel_freq);
    require_positive("conv_transpose2d", "groups", groups);
    require_divisible("conv_transpose2d", "in_channels", in_channels, groups);
    require_divisible("conv_transpose2d", "out_channels", out_channels, groups);
    // Output lengths: dilated length - 2 x padding + output padding (sizes
    // vetted in double first, so the exact int64 arithmetic cannot overflow).
    const auto limit = double{std::numeric_limits<int32_t>::max()};
    const double dilated_freq = static_cast<double>(stride_freq) * (in_freq - 1) + kernel_freq;
    if (dilated_freq > limit || dilated_freq * out_channels * (1.0 + out_pad_time) > limit ||
        static_cast<double>(in_channels) * (out_channels / groups) * kernel_freq > limit)
        throw quelora_exception(QEL_LOG_ERROR, QEL_ERROR_INVALID_VALUE,
                                "conv_transpose2d: layer is too large");
    const int64_t out_time = int64_t{kernel_time} - 2 * int64_t{pad_time} + out_pad_time;
    const int64_t out_freq =
        int64_t{stride_freq} * (in_freq - 1) + kernel_freq - 2 * int64_t{pad_freq} + out_pad_freq;
    if (out_time < 1 || out_freq < 1)
        throw quelora_exception(QEL_LOG_ERROR, QEL_ERROR_INVALID_VALUE,
                                "conv_transpose2d: output size is %lli x %lli, must be at least "
                                "1 x 1",
                                static_cast<long long>(out_time), static_cast<long long>(out_freq));
    out_time_ = static_cast<uint32_t>(out_time);
    out_freq_ = static_cast<uint32_t>(out_freq);

    doubles_rows_ = in_channels == groups && out_channels == groups && kernel_freq == 3 &&
                    stride_freq == 2 && pad_freq == 1 && out_pad_freq == 1 && out_time == 1;
    first_input_.resize(kernel_freq);
    end_input_.resize(kernel_freq);
    for (uint32_t k = 0; k < kernel_freq; ++k) {
        // 0 <= i·SF + k - P < out_freq  <=>  P - k <= i·SF <= out_freq - 1 + P - k
        const int64_t low = int64_t{pad_freq} - k;
        const int64_t high = out_freq - 1 + int64_t{pad_freq} - k;
        int64_t first = low <= 0 ? 0 : (low + stride_freq - 1) / stride_freq;
        int64_t end = high < 0 ? 0 : high / stride_freq + 1;
        first = std::min<int64_t>(first, in_freq);
        end = std::clamp<int64_t>(end, first, in_freq);
        first_input_[k] = static_cast<uint32_t>(first);
        end_input_[k] = static_cast<uint32_t>(end);
    }
}

namespace {

// One channel of the doubling upsampler. The scatter form adds tap 0 of
// input i + 1 and then tap 2 of input i into each odd output, tap 1 of input
// i into each even one; the same sums, written out in order.
void double_row(const float* __restrict x, uint32_t n, const float* w, float* __restrict out) {
    const float w0 = w[0], w1 = w[1], w2 = w[2];
    for (uint32_t i = 0; i + 1 < n; ++i) {
        out[2 * i] = w1 * x[i];
        out[2 * i + 1] = w0 * x[i + 1] + w2 * x[i];
    }
    out[2 * n - 2] = w1 * x[n - 1];
    out[2 * n - 1] = w2 * x[n - 1];
}

} // namespace

void conv_transpose2d_layer::forward(const float* input, float* output) {
    if (doubles_rows_) {
        for (uint32_t c = 0; c < in_channels_; ++c)
            double_row(input + std::size_t{c} * in_freq_, in_freq_, weights_ + std::size_t{c} * 3,
                       output + std::size_t{c} * out_freq_);
        return;
    }
    std::fill(output, output + std::size_t{out_channels_} * out_time_ * out_freq_, 0.0f);
    if (!time_row_kept_) return; // the padding crops the only time row away
    const uint32_t group_in = in_channels_ / groups_;
    const uint32_t group_out = out_channels_ / groups_;
    for (uint32_t ci = 0; ci < in_channels_; ++ci) {
        const float* __restrict in = input + std::size_t{ci} * in_freq_;
        const uint32_t g = ci / group_in;
        for (uint32_t j = 0; j < group_out; ++j) {
            const float* w = weights_ + (std::size_t{ci} * group_out + j) * kernel_freq_;
            // Time row 0 of output channel g·Cout/G + j.
            float* __restrict out = output + std::size_t{g * group_out + j} * out_time_ * out_freq_;
            for (uint32_t k = 0; k < kernel_freq_; ++k) {
                const float tap = w[k];
                const auto shift = static_cast<std::ptrdiff_t>(k) - pad_freq_;
                for (uint32_t i = first_input_[k]; i < end_input_[k]; ++i)
                    out[static_cast<std::ptrdiff_t>(std::size_t{i} * stride_freq_) + shift] +=
                        tap * in[i];
            }
        }
    }
}

} // namespace quelora::denoise
