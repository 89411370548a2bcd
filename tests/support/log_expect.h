// Expectations on the exact log lines of one call (level and text, in order).
#pragma once

#include "support/log_capture.h"

#include <gtest/gtest.h>

namespace quelora::testing {

inline log_line info(const std::string& message) { return {QEL_LOG_INFO, message}; }
inline log_line warning(const std::string& message) { return {QEL_LOG_WARNING, message}; }
inline log_line error(const std::string& message) { return {QEL_LOG_ERROR, message}; }

// The noise canceller's lines while a participant with an input side (regular or source only) is
// built and freed; listener-only participants own no canceller and log neither.
inline log_line dfn_created() { return info("Noise cancellation model: DFN (created)"); }
inline log_line dfn_destroyed() { return info("Noise cancellation model: DFN (destroyed)"); }

// The caller's file and line (std::source_location, which clang 14 lacks with libstdc++ 12).
struct call_site {
    const char* file;
    unsigned line;
    static call_site current(const char* file = __builtin_FILE(),
                             unsigned line = __builtin_LINE()) {
        return {file, line};
    }
};

inline void check_lines(const std::vector<log_line>& got, const std::vector<log_line>& expected) {
    const auto describe = [](const std::vector<log_line>& lines) {
        std::string out;
        for (const auto& l : lines)
            out += "\n    [" + std::to_string(static_cast<int>(l.level)) + "] " + l.message;
        return out.empty() ? std::string(" (none)") : out;
    };
    bool same = got.size() == expected.size();
    for (size_t i = 0; same && i < got.size(); ++i) {
        same = got[i].level == expected[i].level && got[i].message == expected[i].message;
    }
    EXPECT_TRUE(same) << "expected lines:" << describe(expected)
                      << "\nactual lines:" << describe(got);
}

// Runs one call on a cleared log and checks its code and that it logged exactly `expected`.
template <typename Call>
void expect_call(log_capture& log, int code, const std::vector<log_line>& expected, Call&& call,
                 call_site where = call_site::current()) {
    ::testing::ScopedTrace trace(where.file, static_cast<int>(where.line), "expect_call");
    log.clear();
    EXPECT_EQ(call(), code);
    check_lines(log.lines(), expected);
}

} // namespace quelora::testing
