// The tensor order of the DFN weight table (48 rows; element order inside
// each tensor: docs/dfn.md section 1). The model takes
// its tensors through a dfn_weight_reader in exactly this order, so the
// layout below is the single statement of where each tensor sits; the
// portable test table (docs/dfn.md section 6) is generated from it too.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace quelora::denoise {

// 1 517 904 float32 values (6 071 616 bytes).
inline constexpr std::size_t dfn_weight_count = 1517904;

enum class tensor_kind : uint8_t {
    weight,      // convolution, transposed convolution, grouped linear or GRU matrix
    gru_bias,
    bn_scale,
    bn_shift,
    bn_mean,
    bn_variance,
};

struct weight_tensor {
    uint8_t row;         // the row of the table, 1..48
    tensor_kind kind;
    uint32_t count;      // floats
    uint32_t fan_in;     // weights only: inputs per output (docs/dfn.md section 6)
};

// Every tensor of the table, in table order.
std::span<const weight_tensor> dfn_weight_tensors();

// Hands out consecutive tensors of a table, checking each request against
// the layout, so that model and layout cannot drift apart unnoticed.
class dfn_weight_reader {
public:
    explicit dfn_weight_reader(const float* table) : table_(table) {}
    // The next tensor; throws quelora_exception (-9990) when its kind or
    // size is not what the layout has next.
    const float* take(tensor_kind kind, uint32_t count);
    // Throws unless every tensor has been taken.
    void finish() const;

private:
    const float* table_;
    std::size_t next_ = 0;     // index into dfn_weight_tensors()
    std::size_t offset_ = 0;   // floats taken so far
};

} // namespace quelora::denoise
