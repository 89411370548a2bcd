// Float vector primitives of the audio path (copy, set, scale, add,
// multiply-add by a constant). Plain loops
// over restrict pointers, written so the compiler vectorises them; none
// allocates. Counts are sample counts; a count of 0 or less does nothing.
#pragma once

#include <cstdint>

namespace quelora::dsp {

void copy(const float* source, float* destination, int32_t count);
void zero(float* destination, int32_t count);
// destination[i] *= factor
void scale(float* destination, float factor, int32_t count);
// destination[i] += source[i]
void add(const float* source, float* destination, int32_t count);
// destination[i] += source[i] * factor
void multiply_add(const float* source, float factor, float* destination, int32_t count);
// first[i] += source[i] * factor; second[i] += source[i] * factor (one pass,
// the same rounding as two multiply_add calls)
void multiply_add_twice(const float* source, float factor, float* first, float* second,
                        int32_t count);

} // namespace quelora::dsp
