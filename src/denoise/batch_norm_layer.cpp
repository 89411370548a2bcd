// batch_norm_layer. The factor is computed in double and rounded once, the
// closest float to the exact scale. There is no time x frequency scratch
// buffer: forward works element by element, so in-place use needs no copy.
#include "denoise/batch_norm_layer.h"

#include "api/quelora_exception.h"
#include "denoise/layer_checks.h"

#include <Eigen/Core>

#include <cmath>
#include <limits>

namespace quelora::denoise {

namespace {

constexpr double epsilon = 1e-5;

} // namespace

batch_norm_layer::batch_norm_layer(const float* gamma, const float* beta, const float* mean,
                                   const float* variance, uint32_t channels, uint32_t time_length,
                                   uint32_t freq_length)
    : beta_(beta), mean_(mean), channels_(channels), plane_(0) {
    if (gamma == nullptr || beta == nullptr || mean == nullptr || variance == nullptr)
        throw quelora_exception(QEL_LOG_ERROR, QEL_ERROR_INVALID_VALUE,
                                "batch_norm: a parameter pointer is null");
    require_positive("batch_norm", "channels", channels);
    require_positive("batch_norm", "time_length", time_length);
    require_positive("batch_norm", "freq_length", freq_length);
    if (uint64_t{channels} * time_length * freq_length >
        static_cast<uint64_t>(std::numeric_limits<int32_t>::max()))
        throw quelora_exception(QEL_LOG_ERROR, QEL_ERROR_INVALID_VALUE,
                                "batch_norm: layer is too large");
    plane_ = time_length * freq_length;
    factor_.resize(channels);
    for (uint32_t c = 0; c < channels; ++c)
        factor_[c] = static_cast<float>(static_cast<double>(gamma[c]) /
                                        std::sqrt(static_cast<double>(variance[c]) + epsilon));
}

void batch_norm_layer::forward(const float* input, float* output) {
    for (uint32_t c = 0; c < channels_; ++c) {
        const float m = mean_[c];
        const float f = factor_[c];
        const float b = beta_[c];
        const auto n = static_cast<Eigen::Index>(plane_);
        // Element-wise, so in-place use is safe; Eigen vectorises it without
        // the overlap test a plain loop would get.
        Eigen::Map<Eigen::ArrayXf>(output + std::size_t{c} * plane_, n) =
            (Eigen::Map<const Eigen::ArrayXf>(input + std::size_t{c} * plane_, n) - m) * f + b;
    }
}

} // namespace quelora::denoise
