// conv2d_layer: im2col + one matrix product per group, with
// two shortcuts chosen at construction (a direct loop for depthwise layers,
// no unfolding when the input already is the patch matrix). The weight
// order [Cout][Cin/G][Kt][Kf] already is each group's row-major
// (Cout/G) x (Cin/G·Kt·Kf) matrix with patch rows ordered (cin, kt, kf), so
// no reordered copy of the weights is kept.
#include "denoise/conv2d_layer.h"

#include "api/quelora_exception.h"
#include "denoise/layer_checks.h"
#include "denoise/matvec_kernels.h"

#include <algorithm>
#include <cstring>
#include <limits>

namespace quelora::denoise {

namespace {

// Keeps every buffer size and Eigen index well inside int32.
uint32_t checked_size(const char* name, uint64_t value) {
    if (value > static_cast<uint64_t>(std::numeric_limits<int32_t>::max()))
        throw quelora_exception(QEL_LOG_ERROR, QEL_ERROR_INVALID_VALUE, "conv2d: %s is too large",
                                name);
    return static_cast<uint32_t>(value);
}

// out[i] += tap x from[i], the inner loop of the depthwise form.
void accumulate_tap(float* __restrict out, const float* __restrict from, float tap,
                    uint32_t count) {
    for (uint32_t i = 0; i < count; ++i) out[i] += tap * from[i];
}

// The model's depthwise kernels are all 1x3: one pass for the three taps.
void accumulate_three_taps(float* __restrict out, const float* __restrict a,
                           const float* __restrict b, const float* __restrict c, const float* w,
                           uint32_t count) {
    const float w0 = w[0], w1 = w[1], w2 = w[2];
    for (uint32_t i = 0; i < count; ++i) out[i] += w0 * a[i] + w1 * b[i] + w2 * c[i];
}

// Splits a row into `stride` phases of `length` floats, phase p holding
// row[j x stride + p]: every tap of a strided kernel then reads one phase
// contiguously (tap kf starts at phase kf % stride, index kf / stride).
void split_phases(const float* __restrict row, uint32_t row_length, uint32_t stride,
                  uint32_t length, float* __restrict phases) {
    if (stride == 2) {
        float* __restrict odd = phases + length;
        const uint32_t pairs = row_length / 2;
        for (uint32_t j = 0; j < pairs; ++j) {
            phases[j] = row[2 * j];
            odd[j] = row[2 * j + 1];
        }
        if (row_length % 2 != 0) phases[pairs] = row[row_length - 1];
        return;
    }
    for (uint32_t p = 0; p < stride; ++p)
        for (uint32_t j = 0; j * stride + p < row_length; ++j)
            phases[std::size_t{p} * length + j] = row[std::size_t{j} * stride + p];
}

} // namespace

conv2d_layer::conv2d_layer(uint32_t time_length, uint32_t freq_length, uint32_t in_channels,
                           const float* weights, uint32_t kernel_time, uint32_t kernel_freq,
                           int32_t freq_stride, uint32_t out_channels, uint32_t time_pad_before,
                           uint32_t time_pad_after, uint32_t groups, const matvec_kernels& kernels)
    : weights_(weights), kernels_(&kernels), time_(time_length), freq_(freq_length),
      in_channels_(in_channels), out_channels_(out_channels), groups_(groups),
      kernel_time_(kernel_time), kernel_freq_(kernel_freq), stride_(0),
      time_pad_before_(time_pad_before), freq_pad_(kernel_freq / 2), padded_time_(0),
      padded_freq_(0), out_time_(0), out_freq_(0), patch_rows_(0), positions_(0),
      method_(method::im2col), needs_padding_(false) {
    if (weights == nullptr)
        throw quelora_exception(QEL_LOG_ERROR, QEL_ERROR_INVALID_VALUE,
                                "conv2d: weights pointer is null");
    require_positive("conv2d", "time_length", time_length);
    require_positive("conv2d", "freq_length", freq_length);
    require_positive("conv2d", "in_channels", in_channels);
    require_positive("conv2d", "out_channels", out_channels);
    require_positive("conv2d", "kernel_time", kernel_time);
    require_positive("conv2d", "kernel_freq", kernel_freq);
    require_positive("conv2d", "groups", groups);
    if (freq_stride < 1)
        throw quelora_exception(QEL_LOG_ERROR, QEL_ERROR_INVALID_VALUE,
                                "conv2d: freq_stride is %i, must be >= 1", freq_stride);
    require_divisible("conv2d", "in_channels", in_channels, groups);
    require_divisible("conv2d", "out_channels", out_channels, groups);
    stride_ = static_cast<uint32_t>(freq_stride);
    padded_time_ = checked_size("padded time length",
                                uint64_t{time_length} + time_pad_before + time_pad_after);
    padded_freq_ = checked_size("padded freq length", uint64_t{freq_length} + 2ull * freq_pad_);
    if (kernel_time > padded_time_)
        throw quelora_exception(QEL_LOG_ERROR, QEL_ERROR_INVALID_VALUE,
                                "conv2d: kernel_time is %i, must be <= padded time length = %i",
                                static_cast<int>(kernel_time), static_cast<int>(padded_time_));
    if (kernel_freq > padded_freq_)
        throw quelora_exception(QEL_LOG_ERROR, QEL_ERROR_INVALID_VALUE,
                                "conv2d: kernel_freq is %i, must be <= padded freq length = %i",
                                static_cast<int>(kernel_freq), static_cast<int>(padded_freq_));
    out_time_ = padded_time_ - kernel_time + 1;
    out_freq_ = (padded_freq_ - kernel_freq) / stride_ + 1;
    positions_ = checked_size("output size", uint64_t{out_time_} * out_freq_);
    patch_rows_ =
        checked_size("patch rows", uint64_t{in_channels / groups} * kernel_time * kernel_freq);
    checked_size("weight count", uint64_t{out_channels} * patch_rows_);
    const uint32_t padded_size =
        checked_size("padded input size", uint64_t{in_channels} * padded_time_ * padded_freq_);
    needs_padding_ = freq_pad_ > 0 || time_pad_before > 0 || time_pad_after > 0;

    const bool depthwise = in_channels == groups && out_channels == groups;
    if (depthwise && time_length == 1 && kernel_time == 1 && time_pad_before == 0 &&
        time_pad_after == 0 && (kernel_freq == 1 || kernel_freq == 3) && stride_ <= 2) {
        method_ = method::row_taps;
        needs_padding_ = false;
    } else if (depthwise) {
        method_ = method::depthwise;
        if (stride_ > 1)
            phases_.assign(std::size_t{stride_} * ((padded_freq_ + stride_ - 1) / stride_), 0.0f);
    } else if (kernel_freq == 1 && stride_ == 1 && !needs_padding_ &&
               (kernel_time == 1 || kernel_time == time_length)) {
        method_ = method::input_is_patches;
    } else {
        method_ = method::im2col;
        patches_.assign(
            checked_size("patch matrix size", uint64_t{groups} * patch_rows_ * positions_), 0.0f);
    }
    if (needs_padding_) padded_.assign(padded_size, 0.0f);
}

void conv2d_layer::forward(const float* input, float* output, const row_epilogue* after) {
    const float* source = input;
    if (needs_padding_) {
        pad_input(input);
        source = padded_.data();
    }
    switch (method_) {
    case method::row_taps:
        kernels_->row_taps(input, out_channels_, freq_, weights_, kernel_freq_, stride_, output,
                           after);
        break;
    case method::depthwise:
        forward_depthwise(source, output);
        if (after != nullptr) apply_row_epilogue(output, out_channels_, positions_, *after);
        break;
    case method::input_is_patches:
        multiply(source, output, after);
        break;
    case method::im2col:
        unfold(source);
        multiply(patches_.data(), output, after);
        break;
    }
}

// Only the interior is written: the zero borders were set at construction.
void conv2d_layer::pad_input(const float* input) {
    for (uint32_t c = 0; c < in_channels_; ++c) {
        float* channel = padded_.data() + std::size_t{c} * padded_time_ * padded_freq_;
        for (uint32_t t = 0; t < time_; ++t)
            std::memcpy(channel + std::size_t{time_pad_before_ + t} * padded_freq_ + freq_pad_,
                        input + (std::size_t{c} * time_ + t) * freq_, sizeof(float) * freq_);
    }
}

// Row (c, kt, kf) of the patch matrix holds source[c][to + kt][fo * S + kf]
// for every output position (to, fo); group g's rows are block g.
void conv2d_layer::unfold(const float* source) {
    float* row = patches_.data();
    for (uint32_t c = 0; c < in_channels_; ++c) {
        const float* channel = source + std::size_t{c} * padded_time_ * padded_freq_;
        for (uint32_t kt = 0; kt < kernel_time_; ++kt) {
            for (uint32_t kf = 0; kf < kernel_freq_; ++kf) {
                for (uint32_t to = 0; to < out_time_; ++to) {
                    const float* from = channel + std::size_t{to + kt} * padded_freq_ + kf;
                    if (stride_ == 1) {
                        std::memcpy(row, from, sizeof(float) * out_freq_);
                    } else {
                        for (uint32_t fo = 0; fo < out_freq_; ++fo) row[fo] = from[fo * stride_];
                    }
                    row += out_freq_;
                }
            }
        }
    }
}

// Tap by tap over whole output rows, which vectorises along frequency;
// with a stride the source row is first split into its phases.
void conv2d_layer::forward_depthwise(const float* source, float* output) {
    const uint32_t taps = kernel_time_ * kernel_freq_;
    const uint32_t phase_length = (padded_freq_ + stride_ - 1) / stride_;
    for (uint32_t c = 0; c < out_channels_; ++c) {
        const float* channel = source + std::size_t{c} * padded_time_ * padded_freq_;
        const float* w = weights_ + std::size_t{c} * taps;
        for (uint32_t to = 0; to < out_time_; ++to) {
            float* out = output + std::size_t{c} * positions_ + std::size_t{to} * out_freq_;
            std::fill(out, out + out_freq_, 0.0f);
            for (uint32_t kt = 0; kt < kernel_time_; ++kt) {
                const float* row = channel + std::size_t{to + kt} * padded_freq_;
                if (stride_ > 1) {
                    split_phases(row, padded_freq_, stride_, phase_length, phases_.data());
                    row = phases_.data();
                }
                auto tap_source = [&](uint32_t kf) {
                    return stride_ > 1
                               ? row + std::size_t{kf % stride_} * phase_length + kf / stride_
                               : row + kf;
                };
                const float* tap_weights = w + std::size_t{kt} * kernel_freq_;
                if (kernel_freq_ == 3) {
                    accumulate_three_taps(out, tap_source(0), tap_source(1), tap_source(2),
                                          tap_weights, out_freq_);
                } else {
                    for (uint32_t kf = 0; kf < kernel_freq_; ++kf)
                        accumulate_tap(out, tap_source(kf), tap_weights[kf], out_freq_);
                }
            }
        }
    }
}

// Per group: (Cout/G x patch rows) weights times (patch rows x positions),
// through the dispatched kernels of matvec_kernels.h.
void conv2d_layer::multiply(const float* patches, float* output, const row_epilogue* after) const {
    const uint32_t group_out = out_channels_ / groups_;
    row_epilogue shifted{};
    for (uint32_t g = 0; g < groups_; ++g)
        kernels_->matrix_matrix(weights_ + std::size_t{g} * group_out * patch_rows_,
                                patches + std::size_t{g} * patch_rows_ * positions_, group_out,
                                patch_rows_, positions_,
                                output + std::size_t{g} * group_out * positions_,
                                rows_from(after, g * group_out, shifted));
}

} // namespace quelora::denoise
