// The library's one failure type: a code and a formatted message, logged
// once when constructed, at the thrower's level.
#pragma once

#include <quelora/quelora.h>

#include <exception>
#include <vector>

class quelora_exception : public std::exception {
public:
    quelora_exception(qel_log_level level, int error_code, const char* format, ...)
        __attribute__((format(printf, 4, 5)));

    int error_code() const noexcept { return error_code_; }
    const char* what() const noexcept override { return message_.data(); }

private:
    int error_code_;
    std::vector<char> message_;
};
