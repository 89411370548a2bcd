// The shape checks the layers share beyond their own argument-named messages:
// quelora_exception with code -9990 (QEL_ERROR_INVALID_VALUE, every layer's
// failure code) and "<layer>: <what> ..." messages, so that forward can never
// read or write out of bounds.
#pragma once

#include "api/quelora_exception.h"

#include <cstdint>

namespace quelora::denoise {

inline void require_positive(const char* layer, const char* name, uint64_t value) {
    if (value == 0)
        throw quelora_exception(QEL_LOG_ERROR, QEL_ERROR_INVALID_VALUE,
                                "%s: %s is 0, must be >= 1", layer, name);
}

inline void require_divisible(const char* layer, const char* name, uint32_t value,
                              uint32_t groups) {
    if (value % groups != 0)
        throw quelora_exception(QEL_LOG_ERROR, QEL_ERROR_INVALID_VALUE,
                                "%s: %s is %i, must be divisible by groups = %i", layer, name,
                                static_cast<int>(value), static_cast<int>(groups));
}

} // namespace quelora::denoise
