// Part 2.1: library configuration checks, derived sizes and initialisation.
#include "config/library_configuration.h"
#include "support/library_fixture.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>
#include <quelora/quelora.h>

using quelora::testing::library_handle;
using quelora::testing::log_capture;

namespace {

int init_code(qel_library_configuration configuration) {
    int error = 0;
    qel_handle handle = qel_initialize_library(nullptr, nullptr, configuration, &error);
    if (handle != nullptr) {
        EXPECT_EQ(error, QEL_ERROR_NONE);
        EXPECT_EQ(qel_destroy_library(handle), QEL_ERROR_NONE);
    } else {
        EXPECT_NE(error, QEL_ERROR_NONE);
    }
    return error;
}

} // namespace

TEST(Part2_1_Configuration, RateOutsideTheListFails) {
    log_capture capture;
    EXPECT_EQ(init_code({44100, 441, 2, false, 3}), QEL_ERROR_SAMPLE_RATE);
    const auto errors = capture.messages_at(QEL_LOG_ERROR);
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0], "You provided 44100 but you must choose a sampling rate of either 8000, "
                         "16000, 24000, 32000, or 48000");
}

TEST(Part2_1_Configuration, WrongFrameCountNamesTheTenAndTwentyMillisecondCounts) {
    log_capture capture;
    EXPECT_EQ(init_code({48000, 441, 2, false, 3}), QEL_ERROR_DATA_LENGTH);
    const auto errors = capture.messages_at(QEL_LOG_ERROR);
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0],
              "You configured number of output frames to 441 but you must choose an output number of "
              "frames corresponding to 10 or 20 milliseconds in length. Based on your chosen sampling "
              "rate of 48000 this would be either 480 frames or 960 frames.");
}

TEST(Part2_1_Configuration, AcceptedFrameCounts) {
    EXPECT_EQ(init_code({48000, 512, 2, false, 3}), QEL_ERROR_NONE);
    EXPECT_EQ(init_code({48000, 1024, 2, false, 3}), QEL_ERROR_NONE);
    EXPECT_EQ(init_code({24000, 256, 2, false, 3}), QEL_ERROR_NONE);
    EXPECT_EQ(init_code({8000, 160, 2, false, 3}), QEL_ERROR_NONE);
    for (int rate : {8000, 16000, 24000, 32000, 48000}) {
        EXPECT_EQ(init_code({rate, rate / 100, 1, false, 1}), QEL_ERROR_NONE) << rate;
        EXPECT_EQ(init_code({rate, rate / 50, 2, true, 5}), QEL_ERROR_NONE) << rate;
    }
}

TEST(Part2_1_Configuration, SixteenKilohertzWith170FramesFails) {
    log_capture capture;
    EXPECT_EQ(quelora::frames_at_processing_rate(16000, 170), 510);
    EXPECT_EQ(init_code({16000, 170, 2, false, 3}), QEL_ERROR_DATA_LENGTH);
}

TEST(Part2_1_Configuration, ChannelsAndQuality) {
    log_capture capture;
    EXPECT_EQ(init_code({48000, 480, 0, false, 3}), QEL_ERROR_NUM_CHANNELS);
    EXPECT_EQ(init_code({48000, 480, 3, false, 3}), QEL_ERROR_NUM_CHANNELS);
    EXPECT_EQ(init_code({48000, 480, 2, false, 0}), QEL_ERROR_SPATIAL_QUALITY);
    EXPECT_EQ(init_code({48000, 480, 2, false, 6}), QEL_ERROR_SPATIAL_QUALITY);
    const auto errors = capture.messages_at(QEL_LOG_ERROR);
    ASSERT_EQ(errors.size(), 4u);
    EXPECT_EQ(errors[0], "You provided 0 but you must choose either 1 or 2 for output number of channels");
    EXPECT_EQ(errors[3], "You provided 6 but you must choose a spatial quality between 1 and 5");
}

TEST(Part2_1_Configuration, OnlyTheFirstFailingFieldIsReported) {
    log_capture capture;
    EXPECT_EQ(init_code({44100, 441, 3, false, 9}), QEL_ERROR_SAMPLE_RATE);
    EXPECT_EQ(capture.messages_at(QEL_LOG_ERROR).size(), 1u);
}

TEST(Part2_1_Configuration, AbsurdFrameCountsFailCleanly) {
    log_capture capture;
    EXPECT_EQ(init_code({8000, INT32_MAX, 2, false, 3}), QEL_ERROR_DATA_LENGTH);
    EXPECT_EQ(init_code({8000, INT32_MIN, 2, false, 3}), QEL_ERROR_DATA_LENGTH);
    EXPECT_EQ(init_code({48000, 0, 2, false, 3}), QEL_ERROR_DATA_LENGTH);
    EXPECT_EQ(init_code({INT32_MIN, 480, 2, false, 3}), QEL_ERROR_SAMPLE_RATE);
}

TEST(Part2_1_Configuration, DerivedSizesOfTheSpecExamples) {
    const auto a = quelora::derive_processing_sizes({48000, 480, 2, false, 3});
    EXPECT_EQ(a.processing_frame_length, 480);
    EXPECT_EQ(a.processing_block, 512);
    EXPECT_EQ(a.transform_size, 1024);
    EXPECT_EQ(a.spatial_filter_length, 2048);
    EXPECT_EQ(a.partition_count, 4);

    const auto b = quelora::derive_processing_sizes({16000, 320, 2, false, 1});
    EXPECT_EQ(b.processing_frame_length, 960);
    EXPECT_EQ(b.spatial_filter_length, 1024);
    EXPECT_EQ(b.processing_block, 1024);
    EXPECT_EQ(b.transform_size, 2048);
    EXPECT_EQ(b.partition_count, 1);
}

TEST(Part2_1_Configuration, DerivedSizesAcrossQualities) {
    for (int quality = 1; quality <= 5; ++quality) {
        const auto s = quelora::derive_processing_sizes({48000, 1024, 2, false, quality});
        EXPECT_EQ(s.processing_block, 1024);
        EXPECT_EQ(s.spatial_filter_length, std::max(1024, 512 << (quality - 1)));
        EXPECT_EQ(s.partition_count, s.spatial_filter_length / 1024);
    }
}

TEST(Part2_1_Configuration, PowerOfTwoHelpers) {
    EXPECT_EQ(quelora::next_power_of_two(480), 512);
    EXPECT_EQ(quelora::next_power_of_two(960), 1024);
    EXPECT_EQ(quelora::next_power_of_two(512), 512);
    EXPECT_EQ(quelora::next_power_of_two(1), 1);
    EXPECT_FALSE(quelora::is_power_of_two(0));
    EXPECT_TRUE(quelora::is_power_of_two(1024));
    EXPECT_FALSE(quelora::is_power_of_two(480));
}

TEST(Part2_1_Initialisation, ConfigurationIsStoredUnchanged) {
    const qel_library_configuration configuration{24000, 480, 1, true, 4};
    library_handle library(nullptr, configuration);
    ASSERT_NE(library.get(), nullptr);
    const qel_library_configuration stored = qel_get_library_configuration(library);
    EXPECT_EQ(stored.output_sampling_rate, 24000);
    EXPECT_EQ(stored.output_number_frames, 480);
    EXPECT_EQ(stored.output_number_channels, 1);
    EXPECT_TRUE(stored.interleaved);
    EXPECT_EQ(stored.spatial_quality, 4);
}

TEST(Part2_1_Initialisation, MissingLayoutFileFailsStrictlyAndFallsBackFromMemory) {
    log_capture capture;
    const char* missing = "/nonexistent/quelora/layouts.json";
    int error = 0;
    EXPECT_EQ(qel_initialize_library(missing, nullptr, quelora::testing::default_configuration(), &error),
              nullptr);
    EXPECT_EQ(error, -9980);
    EXPECT_STREQ(qel_error_code_to_string(error), "QEL_ERROR_NONE");
    EXPECT_TRUE(capture.contains("/nonexistent/quelora/layouts.json does not exist. Please check if the "
                                 "path to your room configuration file is correct."));

    capture.clear();
    qel_handle handle = qel_initialize_library_from_memory(
        missing, nullptr, quelora::testing::default_configuration(), &error);
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(error, QEL_ERROR_NONE);
    const auto warnings = capture.messages_at(QEL_LOG_WARNING);
    ASSERT_GE(warnings.size(), 2u);
    EXPECT_EQ(warnings[0], "/nonexistent/quelora/layouts.json does not exist. Please check the path to "
                           "your room configuration file is correct");
    EXPECT_EQ(warnings[1], "The library will still function but it will use the fallback room layout");
    EXPECT_NE(std::string(qel_get_json_all_room_layouts(handle)).find("fallback_layout"), std::string::npos);
    EXPECT_EQ(qel_destroy_library(handle), QEL_ERROR_NONE);
}

TEST(Part2_1_Initialisation, NullLayoutPathUsesTheFallbackSilently) {
    log_capture capture;
    library_handle library;
    ASSERT_NE(library.get(), nullptr);
    for (const auto& message : capture.messages()) {
        EXPECT_EQ(message.find("fallback"), std::string::npos) << message;
        EXPECT_EQ(message.find("room layout"), std::string::npos) << message;
    }
    EXPECT_NE(std::string(qel_get_json_all_room_layouts(library)).find("fallback_layout"), std::string::npos);
}

TEST(Part2_1_Initialisation, FromMemoryWithNullPathLogsTheDisabledLine) {
    log_capture capture;
    int error = 0;
    qel_handle handle = qel_initialize_library_from_memory(nullptr, nullptr,
                                                           quelora::testing::default_configuration(), &error);
    ASSERT_NE(handle, nullptr);
    EXPECT_TRUE(capture.contains(
        "You disabled custom room layouts by using NULL for the room layout file path."));
    EXPECT_TRUE(capture.contains("The library will still function but it will use the fallback room layout"));
    EXPECT_EQ(qel_destroy_library(handle), QEL_ERROR_NONE);
}

TEST(Part2_1_Initialisation, InvalidJsonFailsWith9988OrFallsBack) {
    log_capture capture;
    const std::string path = quelora::testing::write_temp_file("bad.json", "{ not json");
    int error = 0;
    EXPECT_EQ(qel_initialize_library(path.c_str(), nullptr, quelora::testing::default_configuration(), &error),
              nullptr);
    EXPECT_EQ(error, -9988);
    EXPECT_TRUE(capture.contains(path + " contains invalid JSON data."));

    qel_handle handle = qel_initialize_library_from_memory(path.c_str(), nullptr,
                                                           quelora::testing::default_configuration(), &error);
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(error, QEL_ERROR_NONE);
    EXPECT_EQ(qel_destroy_library(handle), QEL_ERROR_NONE);
}

TEST(Part2_1_Initialisation, StructuralFaultsEndWithTheirCodes) {
    log_capture capture;
    library_handle no_list = library_handle::from_layout_text(R"({"default": "a"})");
    EXPECT_EQ(no_list.get(), nullptr);
    EXPECT_EQ(no_list.init_error(), -9988);
    EXPECT_TRUE(capture.contains("The Room Configuration file is missing the 'room_list' property"));

    library_handle no_default = library_handle::from_layout_text(R"({"room_list": {}})");
    EXPECT_EQ(no_default.get(), nullptr);
    EXPECT_EQ(no_default.init_error(), -9988);
    EXPECT_TRUE(capture.contains("The Room Configuration file is missing its 'default' property"));
}

TEST(Part2_1_Initialisation, WebsocketLinesForBothEntryPoints) {
    log_capture capture;
    {
        library_handle library;
        EXPECT_EQ(capture.messages_at(QEL_LOG_ERROR),
                  std::vector<std::string>{"The library will work properly except qel_enable_websockets "
                                           "and qel_send_custom_websocket_event."});
    }
    capture.clear();
    int error = 0;
    qel_handle handle = qel_initialize_library_from_memory(nullptr, nullptr,
                                                           quelora::testing::default_configuration(), &error);
    EXPECT_TRUE(capture.contains("The library will work properly except qel_enable_websockets and "
                                 "qel_send_custom_websocket_event"));
    EXPECT_EQ(qel_destroy_library(handle), QEL_ERROR_NONE);
}

TEST(Part2_1_Initialisation, NullErrorPointerIsAllowed) {
    qel_handle handle = qel_initialize_library(nullptr, nullptr, quelora::testing::default_configuration(), nullptr);
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(qel_destroy_library(handle), QEL_ERROR_NONE);
    EXPECT_EQ(qel_initialize_library(nullptr, nullptr, {1, 1, 1, false, 1}, nullptr), nullptr);
}

TEST(Part2_1_Initialisation, LibrariesLiveSideBySide) {
    library_handle first;
    library_handle second;
    EXPECT_EQ(qel_create_room(first, 1), QEL_ERROR_NONE);
    int count = -1;
    EXPECT_EQ(qel_get_room_count(second, &count), QEL_ERROR_NONE);
    EXPECT_EQ(count, 0);
}
