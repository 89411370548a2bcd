// The network's element-wise functions. ReLU takes four floats at a time
// with SSE (a plain loop where SSE is missing); the sigmoid and tanh use
// Eigen's vectorised exp and tanh (a few ulp from the libm functions,
// several times faster than calling them per element).
#include "denoise/activations.h"

#include <Eigen/Core>

#if defined(__SSE__)
#include <xmmintrin.h>
#endif

namespace quelora::denoise {

namespace {

using array_map = Eigen::Map<Eigen::ArrayXf>;
using const_array_map = Eigen::Map<const Eigen::ArrayXf>;

} // namespace

void relu(const float* input, float* output, std::size_t count) {
    std::size_t i = 0;
#if defined(__SSE__)
    // Explicit packets: the compiler's own vectorisation would be guarded by
    // an overlap test that sends the in-place call (the usual one) to a
    // scalar loop. NaN gives 0, as in the scalar tail.
    const __m128 zero = _mm_setzero_ps();
    for (; i + 4 <= count; i += 4)
        _mm_storeu_ps(output + i, _mm_max_ps(_mm_loadu_ps(input + i), zero));
#endif
    for (; i < count; ++i) output[i] = input[i] > 0.0f ? input[i] : 0.0f;
}

void sigmoid(const float* input, float* output, std::size_t count) {
    const auto n = static_cast<Eigen::Index>(count);
    array_map(output, n) = ((-const_array_map(input, n)).exp() + 1.0f).inverse();
}

void tanh(const float* input, float* output, std::size_t count) {
    const auto n = static_cast<Eigen::Index>(count);
    array_map(output, n) = const_array_map(input, n).tanh();
}

void transpose(const float* input, float* output, std::size_t rows, std::size_t cols) {
    for (std::size_t r = 0; r < rows; ++r)
        for (std::size_t c = 0; c < cols; ++c) output[c * rows + r] = input[r * cols + c];
}

} // namespace quelora::denoise
