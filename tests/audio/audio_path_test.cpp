// The audio path through the C interface: every host format round-tripped against a model in double
// precision, the codes and log lines of the audio calls, mute, queues and flushes (and, on the
// listener's engine itself, the freeing of a long queue), who hears whom across whisper and sidebar
// rooms, and the listener's master gain and stereo bypass.
#include "audio/listener_engine.h"
#include "direct_resampler.h"
#include "support/library_fixture.h"
#include "support/log_capture.h"
#include "support/log_expect.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <memory>
#include <string>
#include <tuple>
#include <type_traits>
#include <vector>

namespace {

using namespace quelora::testing;

constexpr uint32_t room = 1;
constexpr float ear = 0.70710677f; // a mono source in each ear, and the mono output downmix
constexpr size_t look_ahead = 9;   // the limiter's delay

template <typename T> struct calls;
template <> struct calls<int16_t> {
    static constexpr auto input = qel_input_audio_short;
    static constexpr auto output = qel_output_audio_short;
};
template <> struct calls<float> {
    static constexpr auto input = qel_input_audio_float;
    static constexpr auto output = qel_output_audio_float;
};
template <> struct calls<double> {
    static constexpr auto input = qel_input_audio_double;
    static constexpr auto output = qel_output_audio_double;
};

struct session {
    explicit session(qel_library_configuration c = default_configuration())
        : output_size(c.output_number_frames * c.output_number_channels), library(nullptr, c) {
        EXPECT_EQ(qel_create_room(library, room), QEL_ERROR_NONE);
    }
    void add(uint32_t id, int32_t rate = 48000, int32_t channels = 1,
             int32_t type = QEL_PARTICIPANT_REGULAR) {
        const qel_participant_configuration c{rate, channels, type};
        ASSERT_EQ(qel_add_participant(library, room, id, "p", c), QEL_ERROR_NONE);
    }
    void set(uint32_t id, qel_audio_control control, int value) {
        ASSERT_EQ(qel_set_participant_state(library, room, id, control, value), QEL_ERROR_NONE);
    }
    template <typename T> int input(uint32_t id, const std::vector<T>& block, int channels = 1) {
        const auto frames = static_cast<int>(block.size()) / channels;
        return calls<T>::input(library, room, id, block.data(), frames);
    }
    // One output block (filled with 77 first); its code goes to *code, or must be none.
    template <typename T = float> std::vector<T> output(uint32_t id, int* code = nullptr) {
        std::vector<T> out(output_size, T(77));
        const int c = calls<T>::output(library, room, id, out.data());
        if (code != nullptr)
            *code = c;
        else
            EXPECT_EQ(c, QEL_ERROR_NONE);
        return out;
    }
    int code(uint32_t id) {
        int c = 0;
        (void)output(id, &c);
        return c;
    }
    size_t output_size; // samples per output block
    library_handle library;
};

std::vector<float> block(float value) { return std::vector<float>(480, value); }

// A host sample for v, and the values the library reads from it and writes:
// shorts in interleaved stereo blocks come in scaled by the rounded literal
// 3.0518e-05 (kept for the hosts tuned to it), all others by exactly 2^-15.
template <typename T> T encode(double v) {
    return std::is_same_v<T, int16_t> ? static_cast<T>(std::lround(v * 32768)) : static_cast<T>(v);
}
template <typename T> double read(T sample, bool interleaved_stereo) {
    if constexpr (std::is_same_v<T, int16_t>)
        return sample * (interleaved_stereo ? 3.0518e-05 : 1.0 / 32768);
    else
        return static_cast<float>(sample);
}
template <typename T> double written(T sample) {
    return std::is_same_v<T, int16_t> ? sample / 32768.0 : sample;
}

// A stereo talker at the output rate and a mono talker at 48 kHz, heard for four blocks. The model
// brings the stereo talker to 48 kHz, adds the mono talker at 1/sqrt(2) to each ear, delays by the
// limiter's look-ahead (below its threshold the gain is 1), downmixes for a mono output and brings
// the mix to the output rate.
template <typename T>
void round_trip(bool interleaved, int32_t channels, int32_t rate, int32_t frames) {
    const size_t F = frames, N = F * 48000 / rate, blocks = 4;
    const bool interleaved_out = interleaved && channels == 2;
    session s({rate, frames, channels, interleaved, 3});
    s.add(1, rate, 2);
    for (const uint32_t id : {2u, 3u}) s.add(id);
    std::vector<std::vector<double>> talker(3), heard(channels); // left, right, mono
    for (size_t b = 0; b < blocks; ++b) {
        std::vector<T> stereo(2 * F), mono(N);
        for (size_t i = 0; i < F; ++i) {
            T& left = stereo[interleaved ? 2 * i : i];
            T& right = stereo[interleaved ? 2 * i + 1 : F + i];
            left = encode<T>(0.3 * std::sin(0.05 * static_cast<double>(b * F + i)));
            right = encode<T>(0.3 * std::cos(0.7 * static_cast<double>(b * F + i)));
            talker[0].push_back(read(left, interleaved));
            talker[1].push_back(read(right, interleaved));
        }
        for (size_t i = 0; i < N; ++i) {
            mono[i] = encode<T>(0.45 * std::sin(0.04 * static_cast<double>(b * N + i)));
            talker[2].push_back(read(mono[i], false));
        }
        ASSERT_EQ(s.input(1, stereo, 2), QEL_ERROR_NONE);
        ASSERT_EQ(s.input(2, mono), QEL_ERROR_NONE);
        const std::vector<T> out = s.output<T>(3);
        for (size_t c = 0; c < heard.size(); ++c)
            for (size_t j = 0; j < F; ++j)
                heard[c].push_back(written(out[interleaved_out ? 2 * j + c : c * F + j]));
    }
    direct_resampler up(rate, 48000), down(48000, rate);
    for (size_t c : {0, 1}) talker[c] = rate == 48000 ? talker[c] : up.run(talker[c], blocks * N);
    std::vector<std::vector<double>> mix(2, std::vector<double>(blocks * N));
    for (size_t n = look_ahead; n < blocks * N; ++n) {
        const double mono = ear * talker[2][n - look_ahead];
        for (size_t c : {0, 1}) mix[c][n] = talker[c][n - look_ahead] + mono;
        if (channels == 1) mix[0][n] = ear * (mix[0][n] + mix[1][n]);
    }
    // Shorts: a step of 2^-15 when truncated, half of one when rounded. Floats:
    // the rounding of the mix (2e-8 to 5e-8) and of the resamplers' sums (2e-7).
    const double tolerance = !std::is_same_v<T, int16_t> ? (rate == 48000 ? 2e-7 : 1e-6)
                                                         : (interleaved_out ? 1.01 : 0.51) / 32768;
    for (size_t c = 0; c < heard.size(); ++c) {
        const std::vector<double> expected = rate == 48000 ? mix[c] : down.run(mix[c], blocks * F);
        for (size_t j = 0; j < heard[c].size(); ++j)
            ASSERT_NEAR(heard[c][j], expected[j], tolerance) << c << " " << j;
    }
}

// Sample type (short, float, double), interleaved, channels, output rate and frames.
using format = std::tuple<int, bool, int32_t, std::pair<int32_t, int32_t>>;
class AudioRoundTrip : public ::testing::TestWithParam<format> {};

TEST_P(AudioRoundTrip, ListenerHearsTheModelOfBothTalkers) {
    const auto [type, interleaved, channels, rate_frames] = GetParam();
    const auto [rate, frames] = rate_frames;
    if (type == 0) round_trip<int16_t>(interleaved, channels, rate, frames);
    if (type == 1) round_trip<float>(interleaved, channels, rate, frames);
    if (type == 2) round_trip<double>(interleaved, channels, rate, frames);
}

std::string format_name(const ::testing::TestParamInfo<format>& p) {
    const auto [type, interleaved, channels, rate_frames] = p.param;
    const char* const types[] = {"short", "float", "double"};
    return types[type] + std::string(interleaved ? "_interleaved_" : "_planar_") +
           (channels == 1 ? "mono_" : "stereo_") + std::to_string(rate_frames.first) + "Hz_" +
           std::to_string(rate_frames.second);
}

INSTANTIATE_TEST_SUITE_P(
    Formats, AudioRoundTrip,
    ::testing::Combine(::testing::Values(0, 1, 2), ::testing::Bool(), ::testing::Values(1, 2),
                       ::testing::Values(std::pair{8000, 80}, std::pair{16000, 320},
                                         std::pair{24000, 256}, std::pair{32000, 320},
                                         std::pair{48000, 480}, std::pair{48000, 1024})),
    format_name);

TEST(AudioCalls, RefusalsAndSilenceWithTheirCodesAndLogLines) {
    session s;
    s.add(1, 16000);
    s.add(2);
    s.add(7, 48000, 1, QEL_PARTICIPANT_LISTENER_ONLY);
    s.add(4, 48000, 1, QEL_PARTICIPANT_SOURCE_ONLY);
    log_capture log;
    std::vector<float> samples(960, 0.5f);
    const auto input = [&](uint32_t id, int n) {
        return [&, id, n] { return qel_input_audio_float(s.library, room, id, samples.data(), n); };
    };
    expect_call(log, QEL_ERROR_DATA_LENGTH,
                {warning("the number of input frames 480 does not match the required number of "
                         "frames 160")},
                input(1, 480));
    // A listener-only participant's length is checked first.
    expect_call(log, QEL_ERROR_DATA_LENGTH,
                {warning("the number of input frames 479 does not match the required number of "
                         "frames 480")},
                input(7, 479));
    expect_call(
        log, QEL_ERROR_PARTICIPANT_TYPE,
        {warning("Cannot input audio to participant 7 in room 1 because it is LISTENER ONLY")},
        input(7, 480));
    expect_call(log, QEL_ERROR_PARTICIPANT_TYPE,
                {warning("Participant 4 has no output because it is source only")},
                [&] { return qel_output_audio_float(s.library, room, 4, samples.data()); });
    // Successful calls log nothing. A talker does not hear itself, and a
    // listener with nothing queued gets zeros in every sample type.
    expect_call(log, QEL_ERROR_NONE, {}, input(1, 160));
    expect_call(log, QEL_ERROR_NONE, {}, [&] { return s.code(2); });
    expect_call(
        log, QEL_ERROR_NO_INPUT_AUDIO,
        {log_line{QEL_LOG_DEBUG, "There was no input audio for this participant 1 to process"}},
        [&] { return s.code(1); });
    int code = 0;
    EXPECT_EQ(s.output(1, &code), std::vector<float>(960, 0.0f));
    EXPECT_EQ(s.output<int16_t>(1, &code), std::vector<int16_t>(960, 0));
    EXPECT_EQ(s.output<double>(1, &code), std::vector<double>(960, 0.0));
}

TEST(AudioCalls, MutedInputIsDroppedUnread) {
    session s;
    for (const uint32_t id : {1u, 2u}) s.add(id);
    s.set(1, QEL_CONTROL_MUTE_ENABLE, 1);
    EXPECT_EQ(s.input(1, block(0.5f)), QEL_ERROR_NONE);
    EXPECT_EQ(qel_input_audio_float(s.library, room, 1, nullptr, 480), QEL_ERROR_NONE);
    EXPECT_EQ(s.code(2), QEL_ERROR_NO_INPUT_AUDIO);
    s.set(1, QEL_CONTROL_MUTE_ENABLE, 0);
    ASSERT_EQ(s.input(1, block(0.5f)), QEL_ERROR_NONE);
    EXPECT_EQ(s.output(2)[100], 0.5f * ear);
}

TEST(AudioCalls, BlocksComeOutOnePerCallInOrderUntilFlushedOrTheSourceLeaves) {
    session s;
    for (const uint32_t id : {1u, 2u, 3u}) s.add(id);
    for (const float v : {0.1f, 0.2f, 0.3f}) ASSERT_EQ(s.input(1, block(v)), QEL_ERROR_NONE);
    ASSERT_EQ(s.input(2, block(0.4f)), QEL_ERROR_NONE);
    EXPECT_FLOAT_EQ(s.output(3)[100], (0.1f + 0.4f) * ear);
    EXPECT_FLOAT_EQ(s.output(3)[100], 0.2f * ear);
    // Flushing 1 empties its own queue and takes its blocks out of the others'.
    ASSERT_EQ(qel_flush_data(s.library, room, 1), QEL_ERROR_NONE);
    for (const uint32_t id : {1u, 2u, 3u}) EXPECT_EQ(s.code(id), QEL_ERROR_NO_INPUT_AUDIO) << id;
    ASSERT_EQ(s.input(2, block(0.5f)), QEL_ERROR_NONE); // into recycled queue nodes
    EXPECT_EQ(s.output(3)[100], 0.5f * ear);
    ASSERT_EQ(s.input(1, block(0.1f)), QEL_ERROR_NONE);
    ASSERT_EQ(qel_remove_participant(s.library, room, 1), QEL_ERROR_NONE);
    EXPECT_EQ(s.code(3), QEL_ERROR_NO_INPUT_AUDIO);
}

TEST(ListenerEngine, LongQueuesAreFreedWithoutRecursion) {
    auto e = std::make_unique<quelora::listener_engine>(8, 1);
    e->add_source(1, 1);
    const std::vector<float> samples = block(0.1f);
    for (int i = 0; i < 200000; ++i) e->submit(1, samples.data(), 1.0f);
    e.reset(); // a recursive chain of 200000 unique_ptrs would overflow the stack
}

TEST(PairGain, WhisperAndSidebarRoomsDecideWhoHearsWhom) {
    struct row {
        int source_whisper, source_sidebar, listener_whisper, listener_sidebar;
        float gain;
    };
    const row rows[] = {
        {0, 0, 0, 0, 1},     {3, 0, 3, 0, 1}, {3, 0, 4, 0, 0},
        {3, 0, 0, 0, 0},     {3, 1, 3, 2, 1}, // the whisper room decides before the sidebar
        {0, 5, 0, 5, 1},     {0, 5, 0, 6, 0}, {0, 5, 0, 0, 0},
        {0, 5, 1, 5, 1},     {0, 0, 0, 7, 0}, {0, 0, 2, 7, 0}, // the main room reaches no sidebar,
        {0, 0, 9, 0, 0.25f},                                   // and a whisper room at a quarter
    };
    for (const row& r : rows) {
        SCOPED_TRACE(testing::Message() << r.source_whisper << r.source_sidebar << " to "
                                        << r.listener_whisper << r.listener_sidebar);
        session s;
        for (const uint32_t id : {1u, 2u, 3u}) s.add(id);
        s.set(1, QEL_CONTROL_WHISPER_ROOM, r.source_whisper);
        s.set(1, QEL_CONTROL_SIDEBAR_ROOM, r.source_sidebar);
        for (const uint32_t id : {2u, 3u}) { // two listeners: the gain must not touch the block
            s.set(id, QEL_CONTROL_WHISPER_ROOM, r.listener_whisper);
            s.set(id, QEL_CONTROL_SIDEBAR_ROOM, r.listener_sidebar);
        }
        ASSERT_EQ(s.input(1, block(0.8f)), QEL_ERROR_NONE);
        for (const uint32_t id : {2u, 3u}) {
            int code = 0;
            EXPECT_FLOAT_EQ(s.output(id, &code)[100], 0.8f * r.gain * ear);
            EXPECT_EQ(code, r.gain > 0 ? QEL_ERROR_NONE : QEL_ERROR_NO_INPUT_AUDIO);
        }
    }
}

TEST(AudioOutput, MasterGainScalesTwoOutputBlocksOfTheMixAndStereoBypassSkipsItAndTheLimiter) {
    // At 16 kHz 2 x 160 of the 2 x 480 mix samples are scaled: the first two thirds of the left
    // channel, kept for the hosts that tuned their levels to it. Output j is centred on mix sample
    // 3j - 128 (the resampler's delay) and reaches 127 either side: j = 96 sees only scaled
    // samples, j = 0 mostly the previous block's unscaled end; the right channel is whole. The
    // limiter's look-ahead of 9 samples is 3 output samples.
    session s({16000, 160, 2, false, 3});
    for (const uint32_t id : {1u, 2u, 3u, 4u}) s.add(id);
    for (const uint32_t id : {3u, 4u}) s.set(id, QEL_CONTROL_MASTER_GAIN, 50);
    s.set(4, QEL_CONTROL_STEREO_BYPASS_ENABLE, 1);
    std::vector<float> full, half, bypassed, in(480);
    for (int b = 0; b < 6; ++b) {
        for (size_t i = 0; i < 480; ++i) in[i] = 0.5f + 0.3f * std::sin(0.01f * float(i));
        ASSERT_EQ(s.input(1, in), QEL_ERROR_NONE);
        full = s.output(2), half = s.output(3), bypassed = s.output(4);
    }
    for (size_t i = 160; i < 320; ++i) ASSERT_EQ(half[i], full[i]) << i;
    EXPECT_NEAR(half[96], 0.5f * full[96], 1e-6f);
    EXPECT_GT(half[0], 0.9f * full[0]);
    for (size_t i = 0; i < 157; ++i) {
        ASSERT_EQ(bypassed[i], full[i + 3]) << i;
        ASSERT_EQ(bypassed[160 + i], full[160 + i + 3]) << i;
    }
}

TEST(AudioCalls, SubnormalSamplesComeOutAsZeros) {
    session s;
    for (const uint32_t id : {1u, 2u}) s.add(id);
    ASSERT_EQ(s.input(1, block(std::numeric_limits<float>::denorm_min() * 1000)), QEL_ERROR_NONE);
    EXPECT_EQ(s.output(2), std::vector<float>(960, 0.0f));
}

} // namespace
