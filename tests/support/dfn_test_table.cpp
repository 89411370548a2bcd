#include "support/dfn_test_table.h"

#include "denoise/dfn_weight_layout.h"

#include <cmath>
#include <cstdint>
#include <vector>

namespace quelora::testing {
namespace {

// u_i: SplitMix64's output for index i, top 24 bits, in [0, 1).
double uniform(uint64_t i) {
    uint64_t z = (i + 1) * 0x9E3779B97F4A7C15ull;
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return static_cast<double>((z ^ (z >> 31)) >> 40) / 16777216.0;
}

double value(const denoise::weight_tensor& t, double u) {
    using denoise::tensor_kind;
    switch (t.kind) {
    case tensor_kind::weight:
        return (2.0 * u - 1.0) * std::sqrt(3.0 / t.fan_in);
    case tensor_kind::gru_bias:
        return (2.0 * u - 1.0) * 0.0625;
    case tensor_kind::bn_scale:
        return 0.75 + 0.5 * u;
    case tensor_kind::bn_shift:
    case tensor_kind::bn_mean:
        return 0.2 * (2.0 * u - 1.0);
    case tensor_kind::bn_variance:
        return 0.5 + u;
    }
    return 0.0;
}

} // namespace

const float* portable_random_dfn_table() {
    static const std::vector<float> table = [] {
        std::vector<float> values;
        values.reserve(denoise::dfn_weight_count);
        for (const denoise::weight_tensor& t : denoise::dfn_weight_tensors())
            for (uint32_t k = 0; k < t.count; ++k)
                values.push_back(static_cast<float>(value(t, uniform(values.size()))));
        return values;
    }();
    return table.data();
}

} // namespace quelora::testing
