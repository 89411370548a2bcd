#include "api/quelora_exception.h"

#include <quelora/qel_logger.h>

#include <cstdarg>
#include <cstdio>

quelora_exception::quelora_exception(qel_log_level level, int error_code, const char* format, ...)
    : error_code_(error_code) {
    va_list args;
    va_start(args, format);
    va_list measure;
    va_copy(measure, args);
    const int length = std::vsnprintf(nullptr, 0, format, measure);
    va_end(measure);
    message_.assign(static_cast<size_t>(length < 0 ? 0 : length) + 1, '\0');
    std::vsnprintf(message_.data(), message_.size(), format, args);
    va_end(args);
    qel_logger::get_logger().log(level, "%s", message_.data());
}
