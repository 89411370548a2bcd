// The output mix (spec Part 4.2) through the C interface: the entry checks,
// silence with QEL_ERROR_NO_INPUT_AUDIO, one block per source per call, the
// plain mix, limiter delay, master gain with its output-frames quirk, the
// mono downmix, the output resampler and the three sample types with the
// interleaved wrap and planar saturation of shorts.
#include "support/audio_session.h"
#include "support/log_capture.h"
#include "support/log_expect.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <numbers>
#include <vector>

namespace {

using quelora::testing::audio_room;
using quelora::testing::audio_session;
using quelora::testing::ear;
using quelora::testing::expect_call;
using quelora::testing::limiter_delay;
using quelora::testing::log_capture;
using quelora::testing::log_line;
using quelora::testing::stereo_block;
using quelora::testing::warning;


qel_library_configuration format(int32_t rate, int32_t channels, bool interleaved) {
    return qel_library_configuration{rate, rate / 100, channels, interleaved, 3};
}

std::vector<float> tone(size_t n, float amplitude, double frequency, double rate, size_t offset) {
    std::vector<float> v(n);
    for (size_t i = 0; i < n; ++i) {
        v[i] = amplitude * static_cast<float>(std::sin(2.0 * std::numbers::pi * frequency *
                                                       static_cast<double>(i + offset) / rate));
    }
    return v;
}

TEST(Part4_2_OutputEntry, SourceOnlyHasNoOutput) {
    audio_session s;
    s.add(4, 48000, 1, QEL_PARTICIPANT_SOURCE_ONLY);
    log_capture log;
    std::vector<float> out(960);
    expect_call(log, QEL_ERROR_PARTICIPANT_TYPE,
                {warning("Participant 4 has no output because it is source only")},
                [&] { return qel_output_audio_float(s.handle(), audio_room, 4, out.data()); });
}

TEST(Part4_2_OutputEntry, NullOutputBufferForEverySampleType) {
    audio_session s;
    s.add(1);
    log_capture log;
    const std::vector<log_line> line{warning("your output buffer is not initialized")};
    expect_call(log, QEL_ERROR_DATA_NULL, line,
                [&] { return qel_output_audio_float(s.handle(), audio_room, 1, nullptr); });
    expect_call(log, QEL_ERROR_DATA_NULL, line,
                [&] { return qel_output_audio_short(s.handle(), audio_room, 1, nullptr); });
    expect_call(log, QEL_ERROR_DATA_NULL, line,
                [&] { return qel_output_audio_double(s.handle(), audio_room, 1, nullptr); });
}

TEST(Part4_2_OutputEntry, UnknownRoomParticipantAndNullHandle) {
    audio_session s;
    s.add(1);
    log_capture log;
    std::vector<float> out(960);
    expect_call(log, QEL_ERROR_INVALID_ROOM_ID, {warning("Room 2 does not exist.")},
                [&] { return qel_output_audio_float(s.handle(), 2, 1, out.data()); });
    expect_call(log, QEL_ERROR_INVALID_PARTICIPANT_ID,
                {warning("The participant id 3 is not in room 1")},
                [&] { return qel_output_audio_float(s.handle(), audio_room, 3, out.data()); });
    EXPECT_EQ(qel_output_audio_float(nullptr, audio_room, 1, out.data()), QEL_ERROR_HANDLE_NULL);
}

TEST(Part4_2_Silence, NoSourceGivesZerosAndNoInputAudioAtLevelOne) {
    audio_session s;
    s.add(1);
    s.add(2);
    s.set(2, QEL_CONTROL_MUTE_ENABLE, 1);
    ASSERT_EQ(s.input(2, std::vector<float>(480, 0.5f)), QEL_ERROR_NONE); // muted
    log_capture log;
    expect_call(log, QEL_ERROR_NO_INPUT_AUDIO,
                {log_line{QEL_LOG_DEBUG, "There was no input audio for this participant 1 to process"}},
                [&] {
                    int code = 0;
                    const std::vector<float> out = s.output(1, &code);
                    for (float v : out) EXPECT_EQ(v, 0.0f);
                    return code;
                });
    // Every sample type is zero-filled.
    int code = 0;
    for (int16_t v : s.output_short(1, &code)) ASSERT_EQ(v, 0);
    EXPECT_EQ(code, QEL_ERROR_NO_INPUT_AUDIO);
    for (double v : s.output_double(1, &code)) ASSERT_EQ(v, 0.0);
    EXPECT_EQ(code, QEL_ERROR_NO_INPUT_AUDIO);
}

TEST(Part4_2_Silence, AParticipantAloneHearsNothing) {
    audio_session s;
    s.add(1);
    ASSERT_EQ(s.input(1, std::vector<float>(480, 0.5f)), QEL_ERROR_NONE);
    int code = 0;
    (void)s.output(1, &code);
    EXPECT_EQ(code, QEL_ERROR_NO_INPUT_AUDIO);
}

TEST(Part4_2_Queue, TwoSubmissionsLeaveOneBlockForTheNextCall) {
    audio_session s;
    s.add(1);
    s.add(2);
    ASSERT_EQ(s.input(1, std::vector<float>(480, 0.1f)), QEL_ERROR_NONE);
    ASSERT_EQ(s.input(1, std::vector<float>(480, 0.2f)), QEL_ERROR_NONE);
    const std::vector<float> first = s.output(2);
    EXPECT_EQ(first[200], 0.1f * ear);
    const std::vector<float> second = s.output(2);
    EXPECT_EQ(second[200], 0.2f * ear);
    int code = 0;
    (void)s.output(2, &code);
    EXPECT_EQ(code, QEL_ERROR_NO_INPUT_AUDIO);
}

TEST(Part4_2_Queue, FlushDiscardsWhatIsQueuedForAListenerAndFromASource) {
    audio_session s;
    s.add(1);
    s.add(2);
    s.add(3);
    ASSERT_EQ(s.input(1, std::vector<float>(480, 0.1f)), QEL_ERROR_NONE);
    ASSERT_EQ(s.input(2, std::vector<float>(480, 0.2f)), QEL_ERROR_NONE);
    // Flushing 1 discards 1's blocks in 2's and 3's queues and 1's own queues.
    ASSERT_EQ(qel_flush_data(s.handle(), audio_room, 1), QEL_ERROR_NONE);
    int code = 0;
    (void)s.output(1, &code);
    EXPECT_EQ(code, QEL_ERROR_NO_INPUT_AUDIO); // 2's block to 1 was flushed
    (void)s.output(2, &code);
    EXPECT_EQ(code, QEL_ERROR_NO_INPUT_AUDIO); // 1's block to 2 was flushed
    const std::vector<float> heard_by_3 = s.output(3);
    EXPECT_EQ(heard_by_3[200], 0.2f * ear); // only 2's block is left for 3
}

TEST(Part4_2_Queue, RemovedSourceLeavesNothingBehind) {
    audio_session s;
    s.add(1);
    s.add(2);
    ASSERT_EQ(s.input(1, std::vector<float>(480, 0.1f)), QEL_ERROR_NONE);
    ASSERT_EQ(qel_remove_participant(s.handle(), audio_room, 1), QEL_ERROR_NONE);
    int code = 0;
    (void)s.output(2, &code);
    EXPECT_EQ(code, QEL_ERROR_NO_INPUT_AUDIO);
}

TEST(Part4_2_Mix, MonoSourceReachesEachEarAt1OverSqrt2DelayedByTheLimiter) {
    // The round trip: 3D off, full scale mono at 48 kHz.
    audio_session s(format(48000, 2, true));
    s.add(1);
    s.add(2);
    std::vector<float> previous(480, 0.0f);
    for (int block = 0; block < 3; ++block) {
        const std::vector<float> in = tone(480, 1.0f, 440.0, 48000.0, 480 * static_cast<size_t>(block));
        ASSERT_EQ(s.input(1, in), QEL_ERROR_NONE);
        const std::vector<float> out = s.output(2);
        for (size_t i = 0; i < 480; ++i) {
            const float x = i < limiter_delay ? previous[480 - limiter_delay + i]
                                              : in[i - limiter_delay];
            ASSERT_EQ(out[2 * i], ear * x) << block << ":" << i;
            ASSERT_EQ(out[2 * i + 1], ear * x) << block << ":" << i;
        }
        previous = in;
    }
}

TEST(Part4_2_Mix, SourcesAreSummed) {
    audio_session s;
    s.add(1);
    s.add(2, 48000, 2);
    s.add(3);
    ASSERT_EQ(s.input(1, std::vector<float>(480, 0.2f)), QEL_ERROR_NONE);
    ASSERT_EQ(s.input(2, stereo_block(std::vector<float>(480, 0.1f), std::vector<float>(480, -0.3f),
                                      false)),
              QEL_ERROR_NONE);
    const std::vector<float> out = s.output(3);
    EXPECT_EQ(out[100], 0.2f * ear + 0.1f);
    EXPECT_EQ(out[480 + 100], 0.2f * ear + -0.3f);
}

TEST(Part4_2_MasterGain, HundredLeavesTheMixAndFiftyHalvesIt) {
    audio_session s(format(48000, 2, false));
    s.add(1);
    s.add(2);
    s.add(3);
    s.set(3, QEL_CONTROL_MASTER_GAIN, 50);
    const std::vector<float> in = tone(480, 0.9f, 300.0, 48000.0, 0);
    ASSERT_EQ(s.input(1, in), QEL_ERROR_NONE);
    const std::vector<float> full = s.output(2);
    const std::vector<float> half = s.output(3);
    for (size_t i = 0; i < 960; ++i) ASSERT_EQ(half[i], full[i] * 0.5f) << i;
    for (size_t i = limiter_delay; i < 480; ++i) ASSERT_EQ(full[i], ear * in[i - limiter_delay]);
}

TEST(Part4_2_MasterGain, BelowFortyEightKilohertzOnlyTheStartOfTheMixIsScaled) {
    // Deliberate quirk of step 6: 2 x output frames (2 x 160 at 16 kHz) of
    // the 2 x 480 mix are scaled, i.e. the first two thirds of the left
    // channel; the right channel is untouched.
    audio_session s(format(16000, 2, false));
    s.add(1);
    s.add(2);
    s.add(3);
    s.set(3, QEL_CONTROL_MASTER_GAIN, 50);
    std::vector<float> full, half;
    for (int block = 0; block < 6; ++block) {
        ASSERT_EQ(s.input(1, std::vector<float>(480, 0.5f)), QEL_ERROR_NONE);
        full = s.output(2);
        half = s.output(3);
    }
    // Right channel: identical. Left output sample j is centred on mix sample
    // 3j - 128 (the resampler's delay of 128 input samples) and reaches 127
    // samples either side: j = 96 sees only the scaled samples 33..287, while
    // j = 0 is centred on the unscaled tail (352) of the previous block.
    for (size_t i = 0; i < 160; ++i) ASSERT_EQ(half[160 + i], full[160 + i]) << i;
    EXPECT_NEAR(half[96], 0.5f * full[96], 1e-6f);
    EXPECT_GT(half[0], 0.9f * full[0]);
    EXPECT_GT(full[0], 0.3f);
}

TEST(Part4_2_Mono, MonoOutputOfAMonoSourceEqualsTheSource) {
    audio_session s(format(48000, 1, false));
    s.add(1);
    s.add(2);
    const std::vector<float> in = tone(480, 0.6f, 1000.0, 48000.0, 0);
    ASSERT_EQ(s.input(1, in), QEL_ERROR_NONE);
    const std::vector<float> out = s.output(2);
    ASSERT_EQ(out.size(), 480u);
    for (size_t i = limiter_delay; i < 480; ++i) {
        ASSERT_NEAR(out[i], in[i - limiter_delay], 1e-7f) << i;
        ASSERT_EQ(out[i], 0.70710677f * (ear * in[i - limiter_delay] + ear * in[i - limiter_delay]));
    }
}

TEST(Part4_2_Mono, EqualChannelsCarry1Point414TimesOneChannel) {
    // Stereo bypass on the listener skips the limiter, so the downmix itself
    // is visible: 0.70710677 x (x + x).
    audio_session s(format(48000, 1, false));
    s.add(1, 48000, 2);
    s.add(2);
    s.set(2, QEL_CONTROL_STEREO_BYPASS_ENABLE, 1);
    const std::vector<float> x = tone(480, 0.5f, 700.0, 48000.0, 0);
    ASSERT_EQ(s.input(1, stereo_block(x, x, false)), QEL_ERROR_NONE);
    const std::vector<float> out = s.output(2);
    for (size_t i = 0; i < 480; ++i) {
        ASSERT_EQ(out[i], 0.70710677f * (x[i] + x[i])) << i;
        ASSERT_NEAR(out[i], 1.4142135f * x[i], 1e-6f);
    }
}

TEST(Part4_2_Shorts, FullScaleWrapsInterleavedAndSaturatesPlanar) {
    // Bypass on the listener: no limiter, so 1.0 reaches the converter.
    for (bool interleaved : {true, false}) {
        SCOPED_TRACE(interleaved);
        audio_session s(format(48000, 2, interleaved));
        s.add(1, 48000, 2);
        s.add(2);
        s.set(2, QEL_CONTROL_STEREO_BYPASS_ENABLE, 1);
        const std::vector<float> one(480, 1.0f);
        ASSERT_EQ(s.input(1, stereo_block(one, one, interleaved)), QEL_ERROR_NONE);
        const std::vector<int16_t> out = s.output_short(2);
        for (int16_t v : out) ASSERT_EQ(v, interleaved ? -32768 : 32767);
    }
}

TEST(Part4_2_Formats, EverySampleTypeChannelCountAndLayout) {
    // A 3D-off listener of one mono source, all combinations of output type,
    // channels and layout, and of input type; the expected block is the
    // float path's result converted as the spec says.
    for (int32_t channels : {1, 2}) {
        for (bool interleaved : {false, true}) {
            for (int input_type = 0; input_type < 3; ++input_type) {
                SCOPED_TRACE(testing::Message() << channels << " ch, interleaved " << interleaved
                                                << ", input type " << input_type);
                audio_session s(format(48000, channels, interleaved));
                s.add(1);
                s.add(2);
                s.add(3);
                s.add(4);
                std::vector<float> in(480);
                for (size_t i = 0; i < 480; ++i) {
                    in[i] = static_cast<float>(static_cast<int>(i * 37 % 200) - 100) / 256.0f;
                }
                // Exact in every input type: multiples of 1/256 below 1.
                std::vector<int16_t> in_short(480);
                std::vector<double> in_double(480);
                for (size_t i = 0; i < 480; ++i) {
                    in_short[i] = static_cast<int16_t>(in[i] * 32768.0f);
                    in_double[i] = in[i];
                }
                const int code = input_type == 0   ? s.input(1, in_short)
                                 : input_type == 1 ? s.input(1, in)
                                                   : s.input(1, in_double);
                ASSERT_EQ(code, QEL_ERROR_NONE);
                // Three listeners pull the same mix in three sample types.
                const std::vector<float> f = s.output(2);
                const std::vector<double> d = s.output_double(3);
                const std::vector<int16_t> sh = s.output_short(4);
                for (size_t i = limiter_delay; i < 480; ++i) {
                    const float per_ear = ear * in[i - limiter_delay];
                    const float value = channels == 1 ? 0.70710677f * (per_ear + per_ear) : per_ear;
                    for (int32_t c = 0; c < channels; ++c) {
                        const size_t k = channels == 2 && interleaved ? 2 * i + static_cast<size_t>(c)
                                                                      : static_cast<size_t>(c) * 480 + i;
                        ASSERT_EQ(f[k], value) << i;
                        ASSERT_EQ(d[k], static_cast<double>(value)) << i;
                        const int expected_short =
                            channels == 2 && interleaved
                                ? static_cast<int>(value * 32768.0f)                     // truncated
                                : static_cast<int>(std::lrint(value * 32768.0f)); // rounded
                        ASSERT_EQ(sh[k], expected_short) << i;
                    }
                }
            }
        }
    }
}

TEST(Part4_2_Resampling, AOneKilohertzToneThroughSixteenKilohertzKeepsItsLevel) {
    // 16 kHz in and out: the tone passes the input and the output resampler,
    // each with its 0.98 normalisation, and reaches each ear at 1/sqrt(2).
    audio_session s(format(16000, 2, true));
    s.add(1, 16000);
    s.add(2);
    const float amplitude = 0.5f;
    double sum_squares = 0.0;
    size_t counted = 0;
    for (int block = 0; block < 40; ++block) {
        ASSERT_EQ(s.input(1, tone(160, amplitude, 1000.0, 16000.0, 160 * static_cast<size_t>(block))),
                  QEL_ERROR_NONE);
        const std::vector<float> out = s.output(2);
        ASSERT_EQ(out.size(), 320u);
        if (block < 10) continue; // the resamplers' histories fill first
        for (size_t i = 0; i < 160; ++i) {
            sum_squares += static_cast<double>(out[2 * i]) * out[2 * i];
            ++counted;
        }
    }
    const double rms = std::sqrt(sum_squares / static_cast<double>(counted));
    const double expected = amplitude / std::sqrt(2.0) * ear * 0.98 * 0.98;
    EXPECT_NEAR(rms / expected, 1.0, 0.005); // passband ripple at 1 kHz is far below 0.5 %
}

TEST(Part4_2_Resampling, EveryOutputRateAndBlockLengthCarriesTheMix) {
    // Every output format of Part 2.1 (10 and 20 ms blocks, and the 512/1024
    // variants), both channel counts: a 48 kHz DC talker reaches the
    // listener at 0.70710677 per ear, times 0.98 through the output
    // resampler, in blocks of the configured length.
    const int32_t formats[][2] = {{8000, 80},   {8000, 160},  {16000, 160}, {16000, 320},
                                  {24000, 240}, {24000, 480}, {24000, 256}, {24000, 512},
                                  {32000, 320}, {32000, 640}, {48000, 480}, {48000, 960},
                                  {48000, 512}, {48000, 1024}};
    for (const auto& f : formats) {
        for (int32_t channels : {1, 2}) {
            SCOPED_TRACE(testing::Message() << f[0] << " Hz, " << f[1] << " frames, " << channels);
            audio_session s(qel_library_configuration{f[0], f[1], channels, true, 3});
            s.add(1);
            s.add(2);
            const size_t input_frames = static_cast<size_t>(f[1]) * 48000u / static_cast<size_t>(f[0]);
            std::vector<float> out;
            for (int block = 0; block < 6; ++block) {
                ASSERT_EQ(s.input(1, std::vector<float>(input_frames, 0.5f)), QEL_ERROR_NONE);
                out = s.output(2);
            }
            ASSERT_EQ(out.size(), static_cast<size_t>(f[1] * channels));
            const float per_ear = 0.5f * ear * (f[0] == 48000 ? 1.0f : 0.98f);
            const float expected = channels == 1 ? per_ear * 2.0f * 0.70710677f : per_ear;
            for (size_t i = 0; i < out.size(); ++i) ASSERT_NEAR(out[i], expected, 2e-4f) << i;
        }
    }
}

TEST(Part4_2_BadSamples, NaNAndInfinityDoNotPoisonLaterBlocks) {
    audio_session s;
    s.add(1);
    s.add(2);
    std::vector<float> bad(480, 0.25f);
    bad[100] = std::numeric_limits<float>::quiet_NaN();
    bad[200] = std::numeric_limits<float>::infinity();
    bad[300] = -std::numeric_limits<float>::infinity();
    ASSERT_EQ(s.input(1, bad), QEL_ERROR_NONE);
    (void)s.output(2);
    // After the bad samples have left the look-ahead line and the envelope has
    // released, the listener hears the source at its level again.
    std::vector<float> out;
    for (int block = 0; block < 60; ++block) {
        ASSERT_EQ(s.input(1, std::vector<float>(480, 0.25f)), QEL_ERROR_NONE);
        out = s.output(2);
    }
    for (float v : out) {
        ASSERT_TRUE(std::isfinite(v));
        ASSERT_NEAR(v, 0.25f * ear, 1e-6f);
    }
}

TEST(Part4_2_BadSamples, DenormalInputsComeOutAsZeros) {
    audio_session s;
    s.add(1);
    s.add(2);
    const float tiny = std::numeric_limits<float>::denorm_min() * 1000.0f;
    ASSERT_EQ(s.input(1, std::vector<float>(480, tiny)), QEL_ERROR_NONE);
    const std::vector<float> out = s.output(2);
    for (float v : out) ASSERT_EQ(std::fpclassify(v) == FP_SUBNORMAL, false);
}

} // namespace
