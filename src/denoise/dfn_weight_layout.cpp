#include "denoise/dfn_weight_layout.h"

#include "api/quelora_exception.h"

#include <array>

namespace quelora::denoise {

namespace {

struct row_shape {
    enum class form : uint8_t { weight, batch_norm, gru };
    uint8_t row;
    form shape;
    uint32_t count;  // weights: floats; batch norm: channels; GRU: hidden size
    uint32_t fan_in; // weights only
};

using form = row_shape::form;

// The 48 rows of the weight table. fan_in = in channels / groups x kernel size
// for a convolution, out channels / groups x kernel size for a transposed one,
// in / groups for a grouped linear layer.
constexpr std::array<row_shape, 48> rows{{
    {1, form::weight, 576, 9},       {2, form::batch_norm, 64, 0},
    {3, form::weight, 192, 3},       {4, form::weight, 4096, 64},
    {5, form::batch_norm, 64, 0},    {6, form::weight, 192, 3},
    {7, form::weight, 4096, 64},     {8, form::batch_norm, 64, 0},
    {9, form::weight, 192, 3},       {10, form::weight, 4096, 64},
    {11, form::batch_norm, 64, 0},   {12, form::weight, 576, 9},
    {13, form::weight, 4096, 64},    {14, form::batch_norm, 64, 0},
    {15, form::weight, 192, 3},      {16, form::weight, 4096, 64},
    {17, form::batch_norm, 64, 0},   {18, form::weight, 196608, 384},
    {19, form::weight, 32768, 128},  {20, form::gru, 256, 256},
    {21, form::weight, 8192, 32},    {22, form::gru, 256, 256},
    {23, form::weight, 16384, 32},   {24, form::weight, 64, 1},
    {25, form::batch_norm, 64, 0},   {26, form::weight, 192, 3},
    {27, form::weight, 4096, 64},    {28, form::batch_norm, 64, 0},
    {29, form::weight, 64, 1},       {30, form::batch_norm, 64, 0},
    {31, form::weight, 192, 3},      {32, form::weight, 4096, 64},
    {33, form::batch_norm, 64, 0},   {34, form::weight, 64, 1},
    {35, form::batch_norm, 64, 0},   {36, form::weight, 192, 3},
    {37, form::weight, 4096, 64},    {38, form::batch_norm, 64, 0},
    {39, form::weight, 64, 1},       {40, form::batch_norm, 64, 0},
    {41, form::weight, 192, 192},    {42, form::batch_norm, 1, 0},
    {43, form::weight, 1600, 160},   {44, form::weight, 100, 10},
    {45, form::batch_norm, 10, 0},   {46, form::weight, 8192, 32},
    {47, form::gru, 256, 256},       {48, form::weight, 30720, 32},
}};

constexpr std::size_t tensors_in(const row_shape& r) {
    switch (r.shape) {
    case form::weight: return 1;
    case form::batch_norm: return 4;
    case form::gru: return 12;
    }
    return 0;
}

constexpr std::size_t tensor_total() {
    std::size_t n = 0;
    for (const row_shape& r : rows) n += tensors_in(r);
    return n;
}

constexpr auto expand() {
    std::array<weight_tensor, tensor_total()> out{};
    std::size_t i = 0;
    for (const row_shape& r : rows) {
        switch (r.shape) {
        case form::weight:
            out[i++] = {r.row, tensor_kind::weight, r.count, r.fan_in};
            break;
        case form::batch_norm:
            for (tensor_kind k : {tensor_kind::bn_scale, tensor_kind::bn_shift,
                                  tensor_kind::bn_mean, tensor_kind::bn_variance})
                out[i++] = {r.row, k, r.count, 0};
            break;
        case form::gru:
            // W_ir, W_iz, W_in, W_hr, W_hz, W_hn, then the six biases (docs/dfn.md).
            for (int m = 0; m < 6; ++m)
                out[i++] = {r.row, tensor_kind::weight, r.count * r.fan_in, r.count};
            for (int b = 0; b < 6; ++b) out[i++] = {r.row, tensor_kind::gru_bias, r.count, 0};
            break;
        }
    }
    return out;
}

constexpr auto tensors = expand();

constexpr std::size_t float_total() {
    std::size_t n = 0;
    for (const weight_tensor& t : tensors) n += t.count;
    return n;
}
static_assert(float_total() == dfn_weight_count, "the DFN weight table holds 1 517 904 floats");

} // namespace

std::span<const weight_tensor> dfn_weight_tensors() { return tensors; }

const float* dfn_weight_reader::take(tensor_kind kind, uint32_t count) {
    if (next_ >= tensors.size() || tensors[next_].kind != kind || tensors[next_].count != count)
        throw quelora_exception(QEL_LOG_ERROR, QEL_ERROR_INVALID_VALUE,
                                "DFN weight table: tensor %i (%u floats) does not match the "
                                "network's weight layout",
                                static_cast<int>(next_), count);
    const float* tensor = table_ + offset_;
    offset_ += count;
    ++next_;
    return tensor;
}

void dfn_weight_reader::finish() const {
    if (next_ != tensors.size())
        throw quelora_exception(QEL_LOG_ERROR, QEL_ERROR_INVALID_VALUE,
                                "DFN weight table: %i of %i tensors used",
                                static_cast<int>(next_), static_cast<int>(tensors.size()));
}

} // namespace quelora::denoise
