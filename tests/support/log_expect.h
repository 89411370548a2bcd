// Expectations on the exact log lines of one call (level and text, in order).
#pragma once

#include "support/call_site.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace quelora::testing {

inline log_line info(const std::string& message) { return {QEL_LOG_INFO, message}; }
inline log_line warning(const std::string& message) { return {QEL_LOG_WARNING, message}; }
inline log_line error(const std::string& message) { return {QEL_LOG_ERROR, message}; }

// The noise canceller's own lines (spec Part 5.2): one "created" while a
// participant with an input side (regular or source only) is built, one
// "destroyed" when such a participant is freed. Listener-only participants
// own no canceller and log neither.
inline log_line dfn_created() { return info("Noise cancellation model: DFN (created)"); }
inline log_line dfn_destroyed() { return info("Noise cancellation model: DFN (destroyed)"); }

inline std::string describe(const std::vector<log_line>& lines) {
    std::string out;
    for (const auto& line : lines) {
        out += "\n    [" + std::to_string(static_cast<int>(line.level)) + "] " + line.message;
    }
    return out.empty() ? " (none)" : out;
}

inline void check_lines(const std::vector<log_line>& got, const std::vector<log_line>& expected) {
    bool same = got.size() == expected.size();
    for (size_t i = 0; same && i < got.size(); ++i) {
        same = got[i].level == expected[i].level && got[i].message == expected[i].message;
    }
    EXPECT_TRUE(same) << "expected lines:" << describe(expected) << "\nactual lines:" << describe(got);
}

// Runs one call on a cleared log and checks its code and that it logged
// exactly `expected`.
template <typename Call>
void expect_call(log_capture& log, int code, const std::vector<log_line>& expected, Call&& call,
                 call_site where = call_site::current()) {
    ::testing::ScopedTrace trace(where.file_name(), static_cast<int>(where.line()), "expect_call");
    log.clear();
    EXPECT_EQ(call(), code);
    check_lines(log.lines(), expected);
}

// As expect_call, for failures whose log level the spec leaves open: checks
// the code and that exactly one line with this text was logged.
template <typename Call>
void expect_failure_message(log_capture& log, int code, const std::string& message, Call&& call,
                            call_site where = call_site::current()) {
    ::testing::ScopedTrace trace(where.file_name(), static_cast<int>(where.line()),
                                 "expect_failure_message");
    log.clear();
    EXPECT_EQ(call(), code);
    EXPECT_EQ(log.messages(), std::vector<std::string>{message}) << "actual lines:" << describe(log.lines());
}

} // namespace quelora::testing
