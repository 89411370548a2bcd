#include "api/quelora_exception.h"

#include "api/format_message.h"

#include <quelora/qel_logger.h>

#include <cstdarg>

quelora_exception::quelora_exception(qel_log_level level, int error_code, const char* format, ...)
    : error_code_(error_code) {
    va_list args;
    va_start(args, format);
    message_ = quelora::format_message(format, args);
    va_end(args);
    qel_logger::get_logger().log(level, "%s", message_.data());
}
