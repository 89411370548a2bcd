// Audio calls allocate nothing once a listener's queues have reached their depth: hosts make them
// on real-time threads that must not wait in the allocator. One room holds a 48 kHz mono, a 16 kHz
// mono (input resampler), a 48 kHz stereo and a listener-only participant, in a 48 kHz stereo
// interleaved library and in a 16 kHz mono one (output resampler).
#include "allocation_counter.h"
#include "denoise/noise_canceller.h"
#include "dsp/denormal_guard.h"
#include "support/kernel_versions.h"
#include "support/library_fixture.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <new>
#include <numbers>
#include <string>
#include <vector>

namespace qt = quelora::testing;

TEST(AudioAllocation, SteadyBlockPeriodsAllocateNothingInEveryFormatAndSetting) {
    // Defaults, each noise canceller with AGC and auto EQ, stereo bypass, and
    // all muted (every output then takes the no-input path).
    // clang-format off
    const std::vector<std::pair<qel_audio_control, int>> settings[] = {
        {}, {{QEL_CONTROL_ANC_ENABLE, 1}, {QEL_CONTROL_ANC_HIGH, 1}, {QEL_CONTROL_ANC_MIX, 70},
             {QEL_CONTROL_AGC_ENABLE, 1}, {QEL_CONTROL_AUTO_EQ_ENABLE, 1}},
        {{QEL_CONTROL_ANC_ENABLE, 1}, {QEL_CONTROL_ANC_HIGH, 0}, {QEL_CONTROL_AGC_ENABLE, 1},
         {QEL_CONTROL_AUTO_EQ_ENABLE, 1}, {QEL_CONTROL_MASTER_GAIN, 50},
         {QEL_CONTROL_MIXING_3D_ENABLE, 1}, {QEL_CONTROL_DEVICE, QEL_DEVICE_SPEAKER}},
        {{QEL_CONTROL_STEREO_BYPASS_ENABLE, 1}}, {{QEL_CONTROL_MUTE_ENABLE, 1}}};
    const qel_participant_configuration members[] = {
        {48000, 1, QEL_PARTICIPANT_REGULAR}, {16000, 1, QEL_PARTICIPANT_REGULAR},
        {48000, 2, QEL_PARTICIPANT_REGULAR}, {48000, 1, QEL_PARTICIPANT_LISTENER_ONLY}};
    // clang-format on
    for (const auto& format :
         {qel_library_configuration{48000, 480, 2, true, 3}, {16000, 160, 1, false, 3}}) {
        for (size_t setting = 0; setting < std::size(settings); ++setting) {
            SCOPED_TRACE(std::to_string(format.output_sampling_rate) + " Hz, setting " +
                         std::to_string(setting));
            qt::library_handle lib(nullptr, format);
            ASSERT_EQ(qel_create_room(lib, 1), QEL_ERROR_NONE);
            // Made before counting: a 440 Hz tone at 0.3 of full scale in each sample type, room
            // for any output.
            struct {
                int16_t s16[960];
                float f32[960];
                double f64[960];
                int frames;
            } in[4];
            double out[960];
            for (uint32_t id = 0; id < 4; ++id) {
                const qel_participant_configuration& m = members[id];
                ASSERT_EQ(qel_add_participant(lib, 1, id, "p", m), QEL_ERROR_NONE);
                in[id].frames = format.output_number_frames * m.input_sampling_rate /
                                format.output_sampling_rate;
                for (int k = 0; k < 960; ++k) {
                    const double t =
                        k / m.input_number_channels / static_cast<double>(m.input_sampling_rate);
                    in[id].f64[k] = 0.3 * std::sin(2 * std::numbers::pi * 440 * t);
                    in[id].f32[k] = static_cast<float>(in[id].f64[k]);
                    in[id].s16[k] = static_cast<int16_t>(in[id].f64[k] * 32767.0);
                }
            }
            for (const auto& [control, value] : settings[setting]) {
                if (control != QEL_CONTROL_AUTO_EQ_ENABLE) {
                    ASSERT_EQ(qel_set_all_participants_state(lib, 1, control, value),
                              QEL_ERROR_NONE);
                    continue;
                }
                for (uint32_t id : {0u, 2u}) // auto EQ takes 48 kHz input only
                    ASSERT_EQ(qel_set_participant_state(lib, 1, id, control, value),
                              QEL_ERROR_NONE);
            }
            const int heard =
                setting == std::size(settings) - 1 ? QEL_ERROR_NO_INPUT_AUDIO : QEL_ERROR_NONE;
            for (int period = 0; period < 220; ++period) { // 20 fill the queues, then 200 counted
                if (period == 20) qt::start_counting_allocations();
                // The sample types rotate over periods and participants.
                for (uint32_t id = 0; id < 3; ++id) {
                    const int type = (period + static_cast<int>(id)) % 3;
                    ASSERT_EQ(
                        type == 0   ? qel_input_audio_short(lib, 1, id, in[id].s16, in[id].frames)
                        : type == 1 ? qel_input_audio_float(lib, 1, id, in[id].f32, in[id].frames)
                                    : qel_input_audio_double(lib, 1, id, in[id].f64, in[id].frames),
                        QEL_ERROR_NONE);
                }
                for (uint32_t id = 0; id < 4; ++id) {
                    const int type = (period + 2 * static_cast<int>(id)) % 3;
                    ASSERT_EQ(type == 0   ? qel_output_audio_short(lib, 1, id,
                                                                   reinterpret_cast<int16_t*>(out))
                              : type == 1 ? qel_output_audio_float(lib, 1, id,
                                                                   reinterpret_cast<float*>(out))
                                          : qel_output_audio_double(lib, 1, id, out),
                              heard);
                }
            }
            EXPECT_EQ(qt::stop_counting_allocations(), 0) << "over 200 block periods";
        }
    }
}

// Else the test above could pass vacuously.
TEST(AudioAllocation, CounterSeesOperatorNewAndTheMallocFamily) {
    qt::start_counting_allocations();
    void* e = nullptr;
    // clang-format off
    void* volatile blocks[] = {::operator new(24), ::operator new(64, std::align_val_t{64}),
                               std::malloc(64), std::calloc(4, 16), std::realloc(nullptr, 32),
                               std::aligned_alloc(64, 128),
                               posix_memalign(&e, 64, 128) == 0 ? e : nullptr};
    // clang-format on
    EXPECT_EQ(qt::stop_counting_allocations(), 7);
    ::operator delete(blocks[0]);
    ::operator delete (blocks[1], std::align_val_t{64});
    for (int i = 2; i < 7; ++i) std::free(blocks[i]);
}

// The library runs the canceller on the widest kernels the processor has;
// hosts on older processors get the others, which must not allocate either.
class CancellerAllocation : public ::testing::TestWithParam<qt::kernel_version> {};

TEST_P(CancellerAllocation, BlocksAllocateNothingOnEveryKernelVersion) {
    const quelora::denoise::matvec_kernels* kernels = qt::kernels_of(GetParam());
    if (kernels == nullptr)
        GTEST_SKIP() << "the processor lacks " << qt::kernel_version_name(GetParam());
    for (const uint32_t frames : {480u, 441u}) {
        quelora::denoise::noise_canceller canceller(
            48000, 2, frames, quelora::denoise::dfn_default_weights(), *kernels);
        std::vector<float> in(frames), out(2 * frames), dry(frames);
        const quelora::dsp::denormal_guard no_denormals;
        for (int block = 0; block < 60; ++block) {
            for (uint32_t i = 0; i < frames; ++i)
                in[i] = 0.1f * std::sin(0.05f * float(block * frames + i));
            if (block == 10) qt::start_counting_allocations();
            canceller.process(in.data(), out.data(), dry.data());
        }
        EXPECT_EQ(qt::stop_counting_allocations(), 0) << frames << " frames";
    }
}

INSTANTIATE_TEST_SUITE_P(, CancellerAllocation, qt::all_kernel_versions(),
                         [](const ::testing::TestParamInfo<qt::kernel_version>& param) {
                             return std::string(qt::kernel_version_name(param.param));
                         });
