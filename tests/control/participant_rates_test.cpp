// Part 3.2 step 3d: the input-rate ratio test and the required input frames.
#include "conference/participant.h"

#include <gtest/gtest.h>

TEST(Part3_2_ParticipantRates, RequiredInputFramesOfTheSupportedRates) {
    struct row {
        int32_t output_rate, output_frames, input_rate, frames;
    } rows[] = {
        {48000, 480, 16000, 160}, {48000, 480, 8000, 80},   {48000, 480, 24000, 240},
        {48000, 480, 32000, 320}, {48000, 480, 48000, 480}, {48000, 960, 32000, 640},
        {16000, 160, 48000, 480}, {16000, 160, 8000, 80},   {8000, 80, 48000, 480},
        {24000, 240, 16000, 160}, {32000, 320, 48000, 480}, {24000, 240, 32000, 320},
        {48000, 512, 24000, 256}, {48000, 1024, 48000, 1024},
    };
    for (const auto& r : rows) {
        EXPECT_EQ(quelora::required_input_frames(r.output_frames, r.input_rate, r.output_rate), r.frames)
            << r.output_rate << "/" << r.output_frames << " <- " << r.input_rate;
    }
}

TEST(Part3_2_ParticipantRates, FortyFourPointOneKilohertzRoundsBelowItsFrameCount) {
    // The float ratio 0.91874998 times 480, taken exactly, is 440.99999.
    EXPECT_EQ(quelora::required_input_frames(480, 44100, 48000), 440);
    EXPECT_EQ(quelora::required_input_frames(80, 44100, 8000), 440);
}

TEST(Part3_2_ParticipantRates, AbsurdRatesDoNotOverflow) {
    // The largest ratio (INT32_MAX / 8000) times 480 is about 1.29e8: in range.
    const int32_t frames = quelora::required_input_frames(480, INT32_MAX, 8000);
    EXPECT_GT(frames, 128000000);
    EXPECT_LT(frames, 130000000);
    EXPECT_LT(quelora::required_input_frames(480, INT32_MIN, 48000), 0);
}
