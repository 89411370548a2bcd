#include "api/format_message.h"

#include <cstdio>

namespace quelora {

std::vector<char> format_message(const char* format, va_list args) {
    va_list measure;
    va_copy(measure, args);
    const int length = std::vsnprintf(nullptr, 0, format, measure);
    va_end(measure);
    // A negative length (an encoding error) counts as zero: the message is
    // then empty instead of the call failing.
    std::vector<char> buffer(static_cast<size_t>(length < 0 ? 0 : length) + 1, '\0');
    std::vsnprintf(buffer.data(), buffer.size(), format, args);
    return buffer;
}

} // namespace quelora
