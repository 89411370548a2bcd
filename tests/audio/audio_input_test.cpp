// The audio input path (spec Part 4.1) through the C interface: the entry
// checks with their codes and messages, mute, the stereo downmix rule, the
// frame counts of resampled inputs and the pair gains of whisper and sidebar
// rooms. The listener side uses 3D off, where a mono source reaches each ear
// at 0.70710677 and the limiter (below its threshold) only delays by 9.
#include "support/audio_session.h"
#include "support/log_capture.h"
#include "support/log_expect.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

namespace {

using quelora::testing::audio_room;
using quelora::testing::audio_session;
using quelora::testing::ear;
using quelora::testing::expect_call;
using quelora::testing::limiter_delay;
using quelora::testing::log_capture;
using quelora::testing::stereo_block;
using quelora::testing::warning;


std::vector<float> ramp(size_t n, float start, float step) {
    std::vector<float> v(n);
    for (size_t i = 0; i < n; ++i) v[i] = start + step * static_cast<float>(i);
    return v;
}

qel_library_configuration interleaved_stereo() {
    return qel_library_configuration{48000, 480, 2, true, 3};
}

TEST(Part4_1_InputEntry, FrameCountMismatchIsRefusedWithGivenAndRequired) {
    audio_session s;
    s.add(1, 16000);
    log_capture log;
    std::vector<float> block(480, 0.0f);
    expect_call(log, QEL_ERROR_DATA_LENGTH,
                {warning("the number of input frames 480 does not match the required number of "
                         "frames 160")},
                [&] { return qel_input_audio_float(s.handle(), audio_room, 1, block.data(), 480); });
}

TEST(Part4_1_InputEntry, ListenerOnlyIsRefusedAfterTheFrameCheck) {
    audio_session s;
    s.add(7, 48000, 1, QEL_PARTICIPANT_LISTENER_ONLY);
    log_capture log;
    std::vector<float> block(480, 0.0f);
    expect_call(log, QEL_ERROR_DATA_LENGTH,
                {warning("the number of input frames 479 does not match the required number of "
                         "frames 480")},
                [&] { return qel_input_audio_float(s.handle(), audio_room, 7, block.data(), 479); });
    expect_call(log, QEL_ERROR_PARTICIPANT_TYPE,
                {warning("Cannot input audio to participant 7 in room 1 because it is LISTENER ONLY")},
                [&] { return qel_input_audio_float(s.handle(), audio_room, 7, block.data(), 480); });
}

TEST(Part4_1_InputEntry, NullSamplesAreRefusedForEverySampleType) {
    audio_session s;
    s.add(1);
    log_capture log;
    const std::vector<quelora::testing::log_line> line{warning("input buffer not initialized")};
    expect_call(log, QEL_ERROR_DATA_NULL, line,
                [&] { return qel_input_audio_float(s.handle(), audio_room, 1, nullptr, 480); });
    expect_call(log, QEL_ERROR_DATA_NULL, line,
                [&] { return qel_input_audio_short(s.handle(), audio_room, 1, nullptr, 480); });
    expect_call(log, QEL_ERROR_DATA_NULL, line,
                [&] { return qel_input_audio_double(s.handle(), audio_room, 1, nullptr, 480); });
}

TEST(Part4_1_InputEntry, UnknownRoomParticipantAndNullHandle) {
    audio_session s;
    s.add(1);
    log_capture log;
    std::vector<float> block(480, 0.0f);
    expect_call(log, QEL_ERROR_INVALID_ROOM_ID, {warning("Room 9 does not exist.")},
                [&] { return qel_input_audio_float(s.handle(), 9, 1, block.data(), 480); });
    expect_call(log, QEL_ERROR_INVALID_PARTICIPANT_ID,
                {warning("The participant id 5 is not in room 1")},
                [&] { return qel_input_audio_float(s.handle(), audio_room, 5, block.data(), 480); });
    EXPECT_EQ(qel_input_audio_float(nullptr, audio_room, 1, block.data(), 480),
              QEL_ERROR_HANDLE_NULL);
}

TEST(Part4_1_InputEntry, SuccessfulCallsLogNothing) {
    audio_session s;
    s.add(1);
    s.add(2);
    log_capture log;
    EXPECT_EQ(s.input(1, std::vector<float>(480, 0.25f)), QEL_ERROR_NONE);
    (void)s.output(2);
    EXPECT_TRUE(log.lines().empty());
}

TEST(Part4_1_Mute, MutedParticipantReturnsNoneAndListenersGetNothing) {
    audio_session s;
    s.add(1);
    s.add(2);
    s.set(1, QEL_CONTROL_MUTE_ENABLE, 1);
    EXPECT_EQ(s.input(1, std::vector<float>(480, 0.5f)), QEL_ERROR_NONE);
    int code = 0;
    const std::vector<float> out = s.output(2, &code);
    EXPECT_EQ(code, QEL_ERROR_NO_INPUT_AUDIO);
    for (float v : out) ASSERT_EQ(v, 0.0f);
    // Unmuted, the next block is heard.
    s.set(1, QEL_CONTROL_MUTE_ENABLE, 0);
    EXPECT_EQ(s.input(1, std::vector<float>(480, 0.5f)), QEL_ERROR_NONE);
    (void)s.output(2);
}

TEST(Part4_1_Mute, MutedBlockIsNotProcessedEvenWhenInvalid) {
    // Step 4 returns before the chain: a null block of a muted participant
    // is not inspected (the null check is step 1 of the chain).
    audio_session s;
    s.add(1);
    s.set(1, QEL_CONTROL_MUTE_ENABLE, 1);
    EXPECT_EQ(qel_input_audio_float(s.handle(), audio_room, 1, nullptr, 480), QEL_ERROR_NONE);
}

// A stereo source heard by a 3D-off listener: its left reaches the left ear
// and its right the right ear, delayed by the limiter.
class Part4_1_StereoSource : public ::testing::TestWithParam<bool> {};

TEST_P(Part4_1_StereoSource, AllProcessingOffKeepsBothChannels) {
    const bool interleaved = GetParam();
    audio_session s(qel_library_configuration{48000, 480, 2, interleaved, 3});
    s.add(1, 48000, 2);
    s.add(2);
    const std::vector<float> l = ramp(480, 0.1f, 0.0005f);
    const std::vector<float> r = ramp(480, -0.1f, -0.0005f);
    ASSERT_EQ(s.input(1, stereo_block(l, r, interleaved)), QEL_ERROR_NONE);
    const std::vector<float> out = s.output(2);
    for (int i = limiter_delay; i < 480; ++i) {
        const size_t at = static_cast<size_t>(i - limiter_delay);
        const float got_l = interleaved ? out[2 * static_cast<size_t>(i)] : out[static_cast<size_t>(i)];
        const float got_r =
            interleaved ? out[2 * static_cast<size_t>(i) + 1] : out[480 + static_cast<size_t>(i)];
        ASSERT_EQ(got_l, l[at]) << i;
        ASSERT_EQ(got_r, r[at]) << i;
    }
}

TEST_P(Part4_1_StereoSource, AnyProcessingFlagCarriesTheMonoMixOnBothChannels) {
    const bool interleaved = GetParam();
    // Each of the four flags of step 3 downmixes. AGC and auto EQ have no
    // stage object yet and 3D mixing none on the input side (docs/status.md),
    // so their mono mix arrives unchanged; ANC sends it through the noise
    // canceller of Part 5.2, checked on its own below.
    for (qel_audio_control flag : {QEL_CONTROL_ANC_ENABLE, QEL_CONTROL_AGC_ENABLE,
                                   QEL_CONTROL_AUTO_EQ_ENABLE, QEL_CONTROL_MIXING_3D_ENABLE}) {
        SCOPED_TRACE(flag);
        audio_session s(qel_library_configuration{48000, 480, 2, interleaved, 3});
        s.add(1, 48000, 2);
        s.add(2);
        s.set(1, flag, 1);
        if (flag == QEL_CONTROL_ANC_ENABLE) s.set(1, QEL_CONTROL_ANC_MIX, 100);
        const std::vector<float> l = ramp(480, 0.1f, 0.0005f);
        const std::vector<float> r = ramp(480, -0.3f, 0.0002f);
        if (flag == QEL_CONTROL_ANC_ENABLE) {
            // ANC high is on by default and the mix is all processed signal,
            // so the block goes through the noise canceller of Part 5.2 and
            // is not the mono mix itself. Its first block is muted; later
            // blocks are the network's output, which lags the input by up to
            // 1200 samples (docs/dfn.md section 4) and, by the third block,
            // has the signal's own frames to work on. The canceller copies
            // its mono result to both halves (Part 5.2 step 3) and step 10
            // carries the processed mono on both channels, so the listener
            // hears two equal channels; the unprocessed stereo it is not (l
            // and r differ at every sample).
            for (int block = 0; block < 3; ++block) {
                SCOPED_TRACE(block);
                ASSERT_EQ(s.input(1, stereo_block(l, r, interleaved)), QEL_ERROR_NONE);
                const std::vector<float> out = s.output(2);
                bool heard = false;
                bool unprocessed_stereo = true;
                for (int i = 0; i < 480; ++i) {
                    const size_t k = static_cast<size_t>(i);
                    const float got_l = interleaved ? out[2 * k] : out[k];
                    const float got_r = interleaved ? out[2 * k + 1] : out[480 + k];
                    ASSERT_EQ(got_l, got_r) << i;
                    heard = heard || got_l != 0.0f;
                    if (i >= limiter_delay) {
                        const size_t at = static_cast<size_t>(i - limiter_delay);
                        unprocessed_stereo = unprocessed_stereo && got_l == l[at] && got_r == r[at];
                    }
                }
                // The second block's content depends on the weights (the
                // deep filter's lookahead taps); the third, heard, shows
                // that the equal channels are the copy, not two silences.
                if (block == 0) {
                    EXPECT_FALSE(heard) << "the first block is muted";
                } else if (block == 2) {
                    EXPECT_TRUE(heard);
                }
                EXPECT_FALSE(unprocessed_stereo);
            }
            continue;
        }
        ASSERT_EQ(s.input(1, stereo_block(l, r, interleaved)), QEL_ERROR_NONE);
        const std::vector<float> out = s.output(2);
        for (int i = limiter_delay; i < 480; ++i) {
            const size_t at = static_cast<size_t>(i - limiter_delay);
            const float mono = 0.5f * (l[at] + r[at]);
            const size_t k = static_cast<size_t>(i);
            ASSERT_EQ(interleaved ? out[2 * k] : out[k], mono) << i;
            ASSERT_EQ(interleaved ? out[2 * k + 1] : out[480 + k], mono) << i;
        }
    }
}

TEST_P(Part4_1_StereoSource, StereoBypassKeepsBothChannelsDespiteFlags) {
    const bool interleaved = GetParam();
    audio_session s(qel_library_configuration{48000, 480, 2, interleaved, 3});
    s.add(1, 48000, 2);
    s.add(2);
    s.set(1, QEL_CONTROL_STEREO_BYPASS_ENABLE, 1);
    s.set(1, QEL_CONTROL_AGC_ENABLE, 1);
    s.set(1, QEL_CONTROL_MIXING_3D_ENABLE, 1);
    const std::vector<float> l = ramp(480, 0.2f, -0.0004f);
    const std::vector<float> r = ramp(480, -0.2f, 0.0003f);
    ASSERT_EQ(s.input(1, stereo_block(l, r, interleaved)), QEL_ERROR_NONE);
    const std::vector<float> out = s.output(2);
    for (int i = limiter_delay; i < 480; ++i) {
        const size_t at = static_cast<size_t>(i - limiter_delay);
        const size_t k = static_cast<size_t>(i);
        ASSERT_EQ(interleaved ? out[2 * k] : out[k], l[at]) << i;
        ASSERT_EQ(interleaved ? out[2 * k + 1] : out[480 + k], r[at]) << i;
    }
}

INSTANTIATE_TEST_SUITE_P(Layouts, Part4_1_StereoSource, ::testing::Bool(),
                         [](const auto& p) { return p.param ? "interleaved" : "planar"; });

TEST(Part4_1_Conversion, ShortsScaleBy2PowMinus15OnThePlanarPath) {
    audio_session s;
    s.add(1);
    s.add(2);
    std::vector<int16_t> block(480);
    for (size_t i = 0; i < block.size(); ++i) block[i] = static_cast<int16_t>(100 * i - 20000);
    ASSERT_EQ(s.input(1, block), QEL_ERROR_NONE);
    const std::vector<float> out = s.output(2);
    for (int i = limiter_delay; i < 480; ++i) {
        const float x = static_cast<float>(block[static_cast<size_t>(i - limiter_delay)]) / 32768.0f;
        ASSERT_EQ(out[static_cast<size_t>(i)], ear * x) << i;
    }
}

TEST(Part4_1_Conversion, InterleavedShortsUseTheRoundedLiteral) {
    audio_session s(interleaved_stereo());
    s.add(1, 48000, 2);
    s.add(2);
    std::vector<int16_t> l(480), r(480);
    for (size_t i = 0; i < 480; ++i) {
        l[i] = static_cast<int16_t>(31000 - 3 * i);
        r[i] = static_cast<int16_t>(-30000 + 7 * i);
    }
    ASSERT_EQ(s.input(1, stereo_block(l, r, true)), QEL_ERROR_NONE);
    const std::vector<float> out = s.output(2);
    for (int i = limiter_delay; i < 480; ++i) {
        const size_t at = static_cast<size_t>(i - limiter_delay);
        ASSERT_EQ(out[2 * static_cast<size_t>(i)], static_cast<float>(l[at]) * 3.0518e-05f) << i;
        ASSERT_EQ(out[2 * static_cast<size_t>(i) + 1], static_cast<float>(r[at]) * 3.0518e-05f);
    }
    // The literal is not 2^-15: the test would notice the difference.
    EXPECT_NE(static_cast<float>(l[0]) * 3.0518e-05f, static_cast<float>(l[0]) / 32768.0f);
}

TEST(Part4_1_Conversion, DoublesAreNarrowedToFloat) {
    audio_session s;
    s.add(1);
    s.add(2);
    std::vector<double> block(480);
    for (size_t i = 0; i < block.size(); ++i) block[i] = 0.123456789012345 * std::sin(0.01 * static_cast<double>(i));
    ASSERT_EQ(s.input(1, block), QEL_ERROR_NONE);
    const std::vector<float> out = s.output(2);
    for (int i = limiter_delay; i < 480; ++i) {
        const float x = static_cast<float>(block[static_cast<size_t>(i - limiter_delay)]);
        ASSERT_EQ(out[static_cast<size_t>(i)], ear * x) << i;
    }
}

TEST(Part4_1_Rates, SixteenKilohertzInputTakes160FramesAndGives480) {
    audio_session s;
    s.add(1, 16000);
    s.add(2);
    const std::vector<float> block(160, 0.25f);
    ASSERT_EQ(qel_input_audio_float(s.handle(), audio_room, 1, block.data(), 160), QEL_ERROR_NONE);
    // One whole 480-frame block at 48000 Hz reaches the listener.
    int code = 0;
    (void)s.output(2, &code);
    EXPECT_EQ(code, QEL_ERROR_NONE);
    (void)s.output(2, &code);
    EXPECT_EQ(code, QEL_ERROR_NO_INPUT_AUDIO);
}

TEST(Part4_1_Rates, EveryInputRateReachesTheListenerAtItsLevel) {
    // A DC block after the resampler has settled: 0.98 (the resampler's
    // normalisation) x 0.70710677 per ear.
    for (int32_t rate : {8000, 16000, 24000, 32000, 48000}) {
        SCOPED_TRACE(rate);
        audio_session s;
        s.add(1, rate);
        s.add(2);
        const size_t frames = static_cast<size_t>(480 * rate / 48000);
        std::vector<float> out;
        for (int block = 0; block < 8; ++block) {
            ASSERT_EQ(s.input(1, std::vector<float>(frames, 0.5f)), QEL_ERROR_NONE);
            out = s.output(2);
        }
        const float expected = 0.5f * ear * (rate == 48000 ? 1.0f : 0.98f);
        for (size_t i = 0; i < 480; ++i) ASSERT_NEAR(out[i], expected, 2e-4f) << i;
    }
}

TEST(Part4_1_PairGain, WhisperListenerHearsTheMainRoomAtAQuarter) {
    audio_session s;
    s.add(1);
    s.add(2);
    s.set(2, QEL_CONTROL_WHISPER_ROOM, 3);
    ASSERT_EQ(s.input(1, std::vector<float>(480, 0.8f)), QEL_ERROR_NONE);
    const std::vector<float> out = s.output(2);
    EXPECT_EQ(out[100], 0.8f * 0.25f * ear);
}

TEST(Part4_1_PairGain, WhisperSpeakerReachesOnlyItsWhisperRoom) {
    audio_session s;
    s.add(1);
    s.add(2);
    s.add(3);
    s.set(1, QEL_CONTROL_WHISPER_ROOM, 4);
    s.set(3, QEL_CONTROL_WHISPER_ROOM, 4);
    ASSERT_EQ(s.input(1, std::vector<float>(480, 0.4f)), QEL_ERROR_NONE);
    int code = 0;
    (void)s.output(2, &code);
    EXPECT_EQ(code, QEL_ERROR_NO_INPUT_AUDIO);
    const std::vector<float> out = s.output(3);
    EXPECT_EQ(out[100], 0.4f * ear);
}

TEST(Part4_1_PairGain, SidebarListenerHearsOnlyTheSameSidebar) {
    audio_session s;
    s.add(1);
    s.add(2);
    s.add(3);
    s.add(4);
    s.set(2, QEL_CONTROL_SIDEBAR_ROOM, 5);
    s.set(3, QEL_CONTROL_SIDEBAR_ROOM, 5);
    s.set(4, QEL_CONTROL_SIDEBAR_ROOM, 6);
    ASSERT_EQ(s.input(1, std::vector<float>(480, 0.3f)), QEL_ERROR_NONE); // main room
    ASSERT_EQ(s.input(3, std::vector<float>(480, 0.2f)), QEL_ERROR_NONE); // sidebar 5
    const std::vector<float> heard_by_2 = s.output(2);
    EXPECT_EQ(heard_by_2[100], 0.2f * ear); // sidebar 5 only, not the main room
    int code = 0;
    (void)s.output(4, &code); // sidebar 6: nobody
    EXPECT_EQ(code, QEL_ERROR_NO_INPUT_AUDIO);
    const std::vector<float> heard_by_1 = s.output(1, &code); // main room hears no sidebar
    EXPECT_EQ(code, QEL_ERROR_NO_INPUT_AUDIO);
    EXPECT_EQ(heard_by_1[100], 0.0f);
}

TEST(Part4_1_PairGain, SourceOnlyParticipantsAreNeverListenedFor) {
    audio_session s;
    s.add(1);
    s.add(2, 48000, 1, QEL_PARTICIPANT_SOURCE_ONLY);
    ASSERT_EQ(s.input(1, std::vector<float>(480, 0.3f)), QEL_ERROR_NONE);
    ASSERT_EQ(s.input(2, std::vector<float>(480, 0.1f)), QEL_ERROR_NONE);
    const std::vector<float> out = s.output(1);
    EXPECT_EQ(out[100], 0.1f * ear); // 1 hears the source-only talker
}

} // namespace
