// The caller's file and line as a default argument: std::source_location
// without the library support that clang 14 lacks with libstdc++ 12.
#pragma once

namespace quelora::testing {

struct call_site {
    const char* file;
    unsigned line_number;

    static call_site current(const char* file = __builtin_FILE(), unsigned line = __builtin_LINE()) {
        return {file, line};
    }
    const char* file_name() const { return file; }
    unsigned line() const { return line_number; }
};

} // namespace quelora::testing
