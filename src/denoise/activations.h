// The network's element-wise functions and the channel/frequency transpose
// between the convolution maps and the linear layers.
// None allocates; each works over `count` floats.
#pragma once

#include <cstddef>

namespace quelora::denoise {

// y = max(0, x), four floats at a time; in place allowed.
void relu(const float* input, float* output, std::size_t count);
// y = 1 / (exp(-x) + 1); in place allowed.
void sigmoid(const float* input, float* output, std::size_t count);
// y = tanh(x); in place allowed.
void tanh(const float* input, float* output, std::size_t count);
// [rows][cols] -> [cols][rows]; input and output must not alias.
void transpose(const float* input, float* output, std::size_t rows, std::size_t cols);

} // namespace quelora::denoise
