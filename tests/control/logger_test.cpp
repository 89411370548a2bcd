// Part 1.3: the process-wide logger and its default handler.
#include "support/log_capture.h"

#include <gtest/gtest.h>
#include <quelora/qel_logger.h>

#include <regex>
#include <string>

using quelora::testing::log_capture;

namespace {

// Runs body with stdout captured; the logger is enabled at `threshold`.
template <typename Body>
std::string stdout_of(qel_log_level threshold, bool enabled, Body&& body) {
    qel_logger& logger = qel_logger::get_logger();
    logger.initialize(nullptr);
    logger.set_log_level(threshold);
    logger.set_enabled(enabled);
    testing::internal::CaptureStdout();
    body(logger);
    std::string out = testing::internal::GetCapturedStdout();
    logger.set_enabled(false);
    logger.set_log_level(QEL_LOG_WARNING);
    return out;
}

} // namespace

TEST(Part1_3_Logging, DisabledPrintsNothingAtAnyLevel) {
    const std::string out = stdout_of(QEL_LOG_VERBOSE, false, [](qel_logger& logger) {
        for (int level = 0; level <= 4; ++level) logger.log(static_cast<qel_log_level>(level), "x %d", level);
    });
    EXPECT_EQ(out, "");
}

TEST(Part1_3_Logging, ThresholdDropsLowerLevels) {
    const std::string out = stdout_of(QEL_LOG_ERROR, true, [](qel_logger& logger) {
        logger.log(QEL_LOG_WARNING, "dropped");
        logger.log(QEL_LOG_ERROR, "printed");
    });
    EXPECT_EQ(out.find("dropped"), std::string::npos);
    EXPECT_NE(out.find("printed"), std::string::npos);
}

TEST(Part1_3_Logging, LineFormat) {
    const std::string out = stdout_of(QEL_LOG_VERBOSE, true, [](qel_logger& logger) {
        logger.log(QEL_LOG_WARNING, "Room %d does not exist.", 3);
    });
    const std::regex line(R"(\[Quelora\] \[(Mon|Tue|Wed|Thu|Fri|Sat|Sun), \d\d\.\d\d\.\d{4} )"
                          R"(\d\d:\d\d:\d\d\] \[WARNING\]: Room 3 does not exist\.\n)");
    EXPECT_TRUE(std::regex_match(out, line)) << out;
}

TEST(Part1_3_Logging, LevelNames) {
    EXPECT_EQ(qel_logger::to_string(QEL_LOG_VERBOSE), "VERBOSE");
    EXPECT_EQ(qel_logger::to_string(QEL_LOG_DEBUG), "DEBUG");
    EXPECT_EQ(qel_logger::to_string(QEL_LOG_INFO), "INFO");
    EXPECT_EQ(qel_logger::to_string(QEL_LOG_WARNING), "WARNING");
    EXPECT_EQ(qel_logger::to_string(QEL_LOG_ERROR), "ERROR");
    EXPECT_EQ(qel_logger::to_string(static_cast<qel_log_level>(7)), "ERROR");
    EXPECT_EQ(qel_logger::to_string(static_cast<qel_log_level>(-1)), "ERROR");
}

TEST(Part1_3_Logging, TenThousandCharacterMessagePrintedWhole) {
    const std::string message(10000, 'q');
    const std::string out = stdout_of(QEL_LOG_VERBOSE, true, [&](qel_logger& logger) {
        logger.log(QEL_LOG_ERROR, "%s", message.c_str());
    });
    EXPECT_NE(out.find("]: " + message + "\n"), std::string::npos);
}

TEST(Part1_3_Logging, InitializeNullRestoresStandardOutput) {
    {
        log_capture capture;
        testing::internal::CaptureStdout();
        qel_logger::get_logger().log(QEL_LOG_ERROR, "to the capture");
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
        EXPECT_TRUE(capture.contains("to the capture"));
    }
    const std::string out = stdout_of(QEL_LOG_VERBOSE, true, [](qel_logger& logger) {
        logger.log(QEL_LOG_ERROR, "back on stdout");
    });
    EXPECT_NE(out.find("[ERROR]: back on stdout\n"), std::string::npos);
}

TEST(Part1_3_Logging, ThresholdComparisonIsSigned) {
    log_capture capture(static_cast<qel_log_level>(-5));
    qel_logger::get_logger().log(QEL_LOG_VERBOSE, "verbose passes a negative threshold");
    EXPECT_EQ(capture.messages().size(), 1u);
}

TEST(Part1_3_Logging, ExportedSwitchesDriveTheSameLogger) {
    log_capture capture;
    EXPECT_EQ(qel_enable_logging(false), QEL_ERROR_NONE);
    qel_logger::get_logger().log(QEL_LOG_ERROR, "off");
    EXPECT_EQ(qel_enable_logging(true), QEL_ERROR_NONE);
    EXPECT_EQ(qel_set_log_level(QEL_LOG_ERROR), QEL_ERROR_NONE);
    qel_logger::get_logger().log(QEL_LOG_WARNING, "below");
    qel_logger::get_logger().log(QEL_LOG_ERROR, "on");
    EXPECT_EQ(capture.messages(), std::vector<std::string>{"on"});
}
