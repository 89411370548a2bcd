// Part 1.4: control names, value texts and the value checks.
#include "api/controls.h"
#include "api/quelora_exception.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>
#include <quelora/quelora.h>

using quelora::testing::log_capture;

TEST(Part1_4_Vocabulary, ControlNamesRoundTrip) {
    for (int control = 1; control <= 16; ++control) {
        const char* name = qel_audio_control_to_string(static_cast<qel_audio_control>(control));
        EXPECT_EQ(qel_string_to_audio_control(name), control) << name;
    }
    EXPECT_STREQ(qel_audio_control_to_string(QEL_CONTROL_MASTER_GAIN), "QEL_CONTROL_MASTER_GAIN");
}

TEST(Part1_4_Vocabulary, UnknownControlNumbersGiveEmptyTextAndOneWarningEach) {
    log_capture capture;
    EXPECT_STREQ(qel_audio_control_to_string(static_cast<qel_audio_control>(0)), "");
    EXPECT_STREQ(qel_audio_control_to_string(static_cast<qel_audio_control>(17)), "");
    EXPECT_EQ(capture.messages_at(QEL_LOG_WARNING),
              (std::vector<std::string>{"State 0 is not valid, must be between 1 and 16.",
                                        "State 17 is not valid, must be between 1 and 16."}));
}

TEST(Part1_4_Vocabulary, NamesAreUpperCasedAndMatchedWhole) {
    log_capture capture;
    EXPECT_EQ(qel_string_to_audio_control("qel_control_mute_enable"), QEL_CONTROL_MUTE_ENABLE);
    EXPECT_EQ(qel_string_to_audio_control("QEL_CONTROL_MUTE_ENABLE "), 17);
    EXPECT_EQ(qel_string_to_audio_control("QEL_CONTROL"), 17);
    EXPECT_EQ(capture.messages(), (std::vector<std::string>{"QEL_CONTROL_MUTE_ENABLE  is not a valid control.",
                                                            "QEL_CONTROL is not a valid control."}));
}

TEST(Part1_4_Vocabulary, ParticipantValueTexts) {
    log_capture capture;
    EXPECT_EQ(qel_string_to_participant_value("true"), 1);
    EXPECT_EQ(qel_string_to_participant_value("False"), 0);
    EXPECT_EQ(qel_string_to_participant_value("qel_enable"), 1);
    EXPECT_EQ(qel_string_to_participant_value("QEL_DISABLE"), 0);
    EXPECT_EQ(qel_string_to_participant_value("qel_device_speaker"), 2);
    EXPECT_EQ(qel_string_to_participant_value("QEL_DEVICE_HEADPHONE"), 1);
    EXPECT_EQ(qel_string_to_participant_value("  42abc"), 42);
    EXPECT_EQ(qel_string_to_participant_value("-17"), -17);
    EXPECT_EQ(qel_string_to_participant_value("+5"), 5);
    EXPECT_TRUE(capture.messages().empty());
}

TEST(Part1_4_Vocabulary, RejectedValueTexts) {
    log_capture capture;
    EXPECT_EQ(qel_string_to_participant_value("letters"), -9990);
    EXPECT_EQ(qel_string_to_participant_value("12345678901"), -9990);
    EXPECT_EQ(qel_string_to_participant_value(""), -9990);
    // A caller cannot tell the code from the integer -9990 given as text (accepted by the spec).
    EXPECT_EQ(qel_string_to_participant_value("-9990"), -9990);
    const std::string tail =
        " is invalid. You must enter an integer value, the string QEL_DEVICE_HEADPHONE, the string "
        "QEL_DEVICE_SPEAKER, the string QEL_ENABLE, or the string QEL_DISABLE ";
    EXPECT_EQ(capture.messages_at(QEL_LOG_WARNING),
              (std::vector<std::string>{"State value letters" + tail, "State value 12345678901" + tail,
                                        "State value " + tail}));
}

TEST(Part1_4_Vocabulary, Int32LimitsAreAcceptedAndOneBeyondRejected) {
    log_capture capture;
    EXPECT_EQ(qel_string_to_participant_value("2147483647"), 2147483647);
    EXPECT_EQ(qel_string_to_participant_value("-2147483648"), INT32_MIN);
    EXPECT_EQ(qel_string_to_participant_value("2147483648"), -9990);
}

TEST(Part1_4_Vocabulary, NullTextsDoNotCrash) {
    log_capture capture;
    EXPECT_EQ(qel_string_to_audio_control(nullptr), 17);
    EXPECT_EQ(qel_string_to_participant_value(nullptr), -9990);
}

namespace {

int set_code(quelora::control_values& values, int32_t control, int32_t value) {
    try {
        values.set(control, value);
        return QEL_ERROR_NONE;
    } catch (const quelora_exception& e) {
        return e.error_code();
    }
}

} // namespace

TEST(Part1_4_Vocabulary, RangesAndDeliberateQuirks) {
    log_capture capture;
    quelora::control_values values;
    EXPECT_EQ(set_code(values, QEL_CONTROL_HALF_SPAN_ANGLE, 0), QEL_ERROR_NONE);
    EXPECT_EQ(set_code(values, QEL_CONTROL_HALF_SPAN_ANGLE, 89), QEL_ERROR_NONE);
    EXPECT_EQ(set_code(values, QEL_CONTROL_HALF_SPAN_ANGLE, 90), QEL_ERROR_INVALID_VALUE);
    EXPECT_EQ(set_code(values, QEL_CONTROL_MIXING_3D_ATTENUATION, -1), QEL_ERROR_INVALID_VALUE);
    EXPECT_EQ(set_code(values, QEL_CONTROL_MIXING_3D_ATTENUATION, 40), QEL_ERROR_NONE);
    EXPECT_EQ(set_code(values, QEL_CONTROL_MIXING_3D_MAX_DISTANCE, 1000000), QEL_ERROR_NONE);
    EXPECT_EQ(set_code(values, QEL_CONTROL_MIXING_3D_MAX_DISTANCE, -1), QEL_ERROR_INVALID_VALUE);
    EXPECT_EQ(set_code(values, QEL_CONTROL_DEVICE, 0), QEL_ERROR_INVALID_VALUE);
    EXPECT_EQ(set_code(values, QEL_CONTROL_DEVICE, 3), QEL_ERROR_INVALID_VALUE);
    EXPECT_EQ(set_code(values, QEL_CONTROL_DEVICE, 2), QEL_ERROR_NONE);
    EXPECT_EQ(set_code(values, QEL_CONTROL_MASTER_GAIN, 55), QEL_ERROR_NONE);
    EXPECT_EQ(values.get(QEL_CONTROL_MASTER_GAIN), 55);
    EXPECT_EQ(set_code(values, QEL_CONTROL_MUTE_ENABLE, 2), QEL_ERROR_INVALID_VALUE);
    EXPECT_EQ(set_code(values, 0, 0), QEL_ERROR_INVALID_CONTROL);
    EXPECT_EQ(set_code(values, 17, 0), QEL_ERROR_INVALID_CONTROL);
    EXPECT_EQ(capture.messages_at(QEL_LOG_WARNING),
              (std::vector<std::string>{
                  "You must use a value of between 1 and 90 for half span angle control",
                  "You must use a value of between 0 and 40 dB for distance attenuation",
                  "You must use a value of 0 or greater for max distance",
                  "You must use a valid qel_device_types value to change the device",
                  "You must use a valid qel_device_types value to change the device",
                  "You must use a value of either 0 or 1 for mute control",
                  "You must use a valid control to edit from the qel_audio_control list",
                  "You must use a valid control to edit from the qel_audio_control list"}));
}

TEST(Part1_4_Vocabulary, EveryControlMessageAndDefault) {
    log_capture capture;
    const struct {
        int32_t control;
        int32_t default_value;
        int32_t first_bad;
        const char* message;
    } table[] = {
        {1, 0, 2, "You must use a value of either 0 or 1 for stereo bypass control"},
        {2, 0, 2, "You must use a value of either 0 or 1 for mute control"},
        {3, 0, 2, "You must use a value of either 0 or 1 for noise cancellation control"},
        {4, 1, 2, "You must use a value of either 0 or 1 for noise cancellation level control"},
        {5, 100, 101, "You must use a value from 0 to 100 for anc level control"},
        {6, 0, 2, "You must use a value of either 0 or 1 for automatic gain control"},
        {7, 0, 2, "You must use a value of either 0 or 1 for auto EQ control"},
        {8, 0, 2, "You must use a value of either 0 or 1 for 3d mixing control"},
        {9, 6, 41, "You must use a value of between 0 and 40 dB for distance attenuation"},
        {10, 300, -1, "You must use a value of 0 or greater for max distance"},
        {11, 1, 2, "You must use a value of either 0 or 1 for reverb control"},
        {12, 1, 3, "You must use a valid qel_device_types value to change the device"},
        {13, 15, 90, "You must use a value of between 1 and 90 for half span angle control"},
        {14, 100, 101, "You must use a value of between 0 and 100 for master gain control"},
        {15, 0, 101, "You must use a value of between 0 and 100 for whisper room control"},
        {16, 0, 101, "You must use a value of between 0 and 100 for sidebar room control"},
    };
    quelora::control_values values;
    for (const auto& row : table) {
        EXPECT_EQ(values.get(row.control), row.default_value) << row.control;
        capture.clear();
        EXPECT_EQ(set_code(values, row.control, row.first_bad), QEL_ERROR_INVALID_VALUE) << row.control;
        EXPECT_EQ(capture.messages(), std::vector<std::string>{row.message});
        EXPECT_EQ(values.get(row.control), row.default_value) << "unchanged after a refusal";
        // Negative values fail every test that has an upper bound (tested as unsigned).
        if (row.control != QEL_CONTROL_MIXING_3D_MAX_DISTANCE) {
            EXPECT_EQ(set_code(values, row.control, -1), QEL_ERROR_INVALID_VALUE) << row.control;
        }
    }
}

TEST(Part1_4_Vocabulary, FetchingAnInvalidControl) {
    log_capture capture;
    const quelora::control_values values;
    EXPECT_THROW(values.get(0), quelora_exception);
    EXPECT_THROW(values.get(17), quelora_exception);
    EXPECT_EQ(capture.messages(), (std::vector<std::string>{"You did not input a valid control to edit",
                                                            "You did not input a valid control to edit"}));
}
