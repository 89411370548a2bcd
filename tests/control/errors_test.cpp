// Part 1.2: error codes and quelora_exception.
#include "api/quelora_exception.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>
#include <quelora/quelora.h>

#include <string>

using quelora::testing::log_capture;

TEST(Part1_2_Errors, NoneAndZeroBothNameNone) {
    EXPECT_STREQ(qel_error_code_to_string(-10000), "QEL_ERROR_NONE");
    EXPECT_STREQ(qel_error_code_to_string(0), "QEL_ERROR_NONE");
}

TEST(Part1_2_Errors, UnnamedCodesNameNone) {
    EXPECT_STREQ(qel_error_code_to_string(-9988), "QEL_ERROR_NONE");
    EXPECT_STREQ(qel_error_code_to_string(-9980), "QEL_ERROR_NONE");
}

TEST(Part1_2_Errors, EveryNamedCode) {
    const std::pair<int, const char*> table[] = {
        {-9999, "QEL_ERROR_HANDLE_NULL"},         {-9998, "QEL_ERROR_DATA_NULL"},
        {-9997, "QEL_ERROR_DATA_LENGTH"},         {-9996, "QEL_ERROR_NUM_CHANNELS"},
        {-9995, "QEL_ERROR_SAMPLE_RATE"},         {-9994, "QEL_ERROR_SPATIAL_QUALITY"},
        {-9993, "QEL_ERROR_INVALID_ROOM_ID"},     {-9992, "QEL_ERROR_INVALID_PARTICIPANT_ID"},
        {-9991, "QEL_ERROR_INVALID_CONTROL"},     {-9990, "QEL_ERROR_INVALID_VALUE"},
        {-9989, "QEL_ERROR_INVALID_HEADING"},     {-9987, "QEL_ERROR_NO_INPUT_AUDIO"},
        {-9986, "QEL_ERROR_PARTICIPANT_TYPE"},    {-9985, "QEL_ERROR_LIBRARY_NOT_YET_INITIALIZED"},
    };
    for (const auto& [code, name] : table) EXPECT_STREQ(qel_error_code_to_string(code), name) << code;
    EXPECT_STREQ(qel_error_code_to_string(-9984), "QEL_ERROR_NONE");
    EXPECT_STREQ(qel_error_code_to_string(-10001), "QEL_ERROR_NONE");
}

TEST(Part1_2_Errors, ExceptionLogsOnceAtTheThrowersLevel) {
    log_capture capture;
    const quelora_exception e(QEL_LOG_WARNING, QEL_ERROR_INVALID_ROOM_ID, "Room %d does not exist.", 7);
    EXPECT_EQ(e.error_code(), QEL_ERROR_INVALID_ROOM_ID);
    EXPECT_STREQ(e.what(), "Room 7 does not exist.");
    const auto lines = capture.lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].level, QEL_LOG_WARNING);
    EXPECT_EQ(lines[0].message, "Room 7 does not exist.");
}

TEST(Part1_2_Errors, LongMessageIsLoggedWhole) {
    log_capture capture;
    const std::string long_text(700, 'x');
    const quelora_exception e(QEL_LOG_ERROR, QEL_ERROR_INVALID_VALUE, "start %s end", long_text.c_str());
    const std::string expected = "start " + long_text + " end";
    EXPECT_EQ(std::string(e.what()), expected);
    ASSERT_EQ(capture.messages().size(), 1u);
    EXPECT_EQ(capture.messages()[0], expected);
}

TEST(Part1_2_Errors, PercentSignsInArgumentsAreNotReinterpreted) {
    log_capture capture;
    const quelora_exception e(QEL_LOG_ERROR, QEL_ERROR_INVALID_VALUE, "%s", "100% %s %n");
    ASSERT_EQ(capture.messages().size(), 1u);
    EXPECT_EQ(capture.messages()[0], "100% %s %n");
}
