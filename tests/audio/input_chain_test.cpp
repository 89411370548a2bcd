// A participant's input chain: the noise cancellation's dry mix, with a stand-in for the canceller
// (the real one is tested in tests/denoise/), and the stereo downmix for processing.
#include "audio/input_chain.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

namespace {

using namespace quelora;

constexpr int32_t n = 480;

// Output x 0.25 and dry output x 2, so the two terms of the mix differ.
struct canceller : noise_canceller_stage {
    void process(const float* in, float* out, float* dry) override {
        for (int32_t i = 0; i < n; ++i) dry[i] = 2.0f * in[i], out[i] = 0.25f * in[i];
    }
    void reset() override { ++*resets; }
    int* resets;
    explicit canceller(int* counter = nullptr) : resets(counter) {}
};

control_values controls(std::initializer_list<std::pair<qel_audio_control, int32_t>> values) {
    control_values c;
    for (const auto& [control, value] : values) c.set(control, value);
    return c;
}

TEST(InputChain, NoiseCancellationWeighsTheProcessedSignalByMixToThePower0602) {
    const double w50 = 0.65883998; // (50 / 100)^0.602, by hand
    for (const auto& [mix, expected] :
         {std::pair{100, 0.1}, {0, 0.8}, {50, 0.1 * w50 + 0.8 * (1 - w50)}}) {
        input_stage_set stages;
        stages.noise_canceller = std::make_unique<canceller>();
        input_chain chain(48000, 1, n, n, false, std::move(stages));
        const std::vector<float> in(n, 0.4f);
        chain.process(in.data(), sample_type::float32,
                      controls({{QEL_CONTROL_ANC_ENABLE, 1}, {QEL_CONTROL_ANC_MIX, mix}}));
        EXPECT_NEAR(chain.work_buffer()[n - 1], expected, 1e-7) << mix;
    }
}

TEST(InputChain, CancellerSwitchedBackOnStartsFromACleanState) {
    // Calls with the canceller path on (ANC and ANC high) or off in some way;
    // only a call that runs it after one that did not resets it first.
    int resets = 0;
    input_stage_set stages;
    stages.noise_canceller = std::make_unique<canceller>(&resets);
    input_chain chain(48000, 1, n, n, false, std::move(stages));
    const std::vector<float> in(n, 0.1f);
    const std::pair<int, int> calls[] = {{1, 1}, {1, 1}, {1, 0}, {1, 1}, {0, 1}, {0, 0}, {1, 1}};
    const int expected[] = {0, 0, 0, 1, 1, 1, 2};
    for (size_t i = 0; i < std::size(calls); ++i) {
        chain.process(in.data(), sample_type::float32,
                      controls({{QEL_CONTROL_ANC_ENABLE, calls[i].first},
                                {QEL_CONTROL_ANC_HIGH, calls[i].second}}));
        EXPECT_EQ(resets, expected[i]) << "call " << i;
    }
}

TEST(InputChain, StereoIsDownmixedByHalvesForAnyProcessingFlagUnlessBypassed) {
    // The stages work on one channel; both channels then carry the result.
    std::vector<float> in(2 * n, 0.6f);
    std::fill(in.begin() + n, in.end(), -0.2f);
    for (const int bypass : {0, 1}) {
        for (const qel_audio_control flag :
             {QEL_CONTROL_ANC_ENABLE, QEL_CONTROL_AGC_ENABLE, QEL_CONTROL_AUTO_EQ_ENABLE,
              QEL_CONTROL_MIXING_3D_ENABLE}) {
            SCOPED_TRACE(testing::Message() << flag << " bypass " << bypass);
            // No stage objects, and so no dry mix either: nothing but the downmix.
            input_chain chain(48000, 2, n, n, false, {});
            chain.process(in.data(), sample_type::float32,
                          controls({{flag, 1},
                                    {QEL_CONTROL_ANC_MIX, 30},
                                    {QEL_CONTROL_STEREO_BYPASS_ENABLE, bypass}}));
            const std::vector<float> out(chain.work_buffer(), chain.work_buffer() + 2 * n);
            EXPECT_EQ(out, bypass ? in : std::vector<float>(2 * n, 0.5f * (0.6f + -0.2f)));
        }
    }
}

} // namespace
