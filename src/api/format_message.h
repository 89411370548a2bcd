// printf-style formatting without a length limit, shared by the logger and
// quelora_exception: the length is measured first, then a zero-filled buffer
// of length + 1 receives the text.
#pragma once

#include <cstdarg>
#include <vector>

namespace quelora {

std::vector<char> format_message(const char* format, va_list args);

} // namespace quelora
