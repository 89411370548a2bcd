#include "dsp/vector_ops.h"

#include <cstring>

namespace quelora::dsp {

void copy(const float* source, float* destination, int32_t count) {
    if (count <= 0 || source == destination) return;
    std::memmove(destination, source, static_cast<size_t>(count) * sizeof(float));
}

void zero(float* destination, int32_t count) {
    if (count <= 0) return;
    std::memset(destination, 0, static_cast<size_t>(count) * sizeof(float));
}

void scale(float* destination, float factor, int32_t count) {
    for (int32_t i = 0; i < count; ++i) destination[i] *= factor;
}

void add(const float* __restrict source, float* __restrict destination, int32_t count) {
    for (int32_t i = 0; i < count; ++i) destination[i] += source[i];
}

void multiply_add(const float* __restrict source, float factor, float* __restrict destination,
                  int32_t count) {
    for (int32_t i = 0; i < count; ++i) destination[i] += source[i] * factor;
}

void multiply_add_twice(const float* __restrict source, float factor, float* __restrict first,
                        float* __restrict second, int32_t count) {
    for (int32_t i = 0; i < count; ++i) {
        const float scaled = source[i] * factor;
        first[i] += scaled;
        second[i] += scaled;
    }
}

} // namespace quelora::dsp
