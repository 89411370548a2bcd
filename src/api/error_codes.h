// Error-code names.
#pragma once

#include <quelora/quelora.h>

namespace quelora {

// Codes deliberately without a name in the public enumeration.
inline constexpr int error_invalid_room_configuration = -9988;
inline constexpr int error_room_layout_file_missing = -9980;

// The name of the code as a literal; any code without a name gives "QEL_ERROR_NONE".
const char* error_code_name(int code);

} // namespace quelora
