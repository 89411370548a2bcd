// The input processing chain of spec Part 4.1 on its own, with recording
// doubles for the stages whose implementations belong to later Parts (5.2,
// 5.3, 4.5, auto EQ, shaping): the order of the steps, which buffers each
// stage is given, the speech value hand-over and the noise-cancellation mix.
// The doubles are named as such; nothing here claims a real canceller ran.
#include "audio/input_chain.h"

#include "api/quelora_exception.h"

#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <string>
#include <vector>

namespace {

using namespace quelora;

constexpr int32_t n = 480;

struct call_log {
    std::vector<std::string> calls;
    float speech_seen_by_agc = -1.0f;
    float speech_seen_by_eq = -1.0f;
    int32_t hops_seen_by_eq = -1;
    bool speech_wrote_scratch = false;
    bool speech_got_dry_copy = false;
};

// Halves the block, reports speech value 0.75, copies the dry block if asked.
class double_speech_model : public speech_model {
public:
    explicit double_speech_model(call_log* l) : log_(l) {}
    float process(const float* input, float* output, float* dry_copy) override {
        log_->calls.push_back("speech");
        log_->speech_wrote_scratch = input != output;
        log_->speech_got_dry_copy = dry_copy != nullptr;
        if (dry_copy != nullptr) std::copy(input, input + n, dry_copy);
        for (int32_t i = 0; i < n; ++i) output[i] = input[i] * 0.5f;
        return 0.75f;
    }
    int32_t hop_length() const override { return 480; }

private:
    call_log* log_;
};

// Output = input x 0.25; dry output = input x 2 (so the mix terms differ).
class double_noise_canceller : public noise_canceller_stage {
public:
    explicit double_noise_canceller(call_log* l) : log_(l) {}
    void process(const float* input, float* output, float* dry_output) override {
        log_->calls.push_back("canceller");
        for (int32_t i = 0; i < n; ++i) {
            dry_output[i] = input[i] * 2.0f;
            output[i] = input[i] * 0.25f;
        }
    }

private:
    call_log* log_;
};

class double_agc : public gain_control_stage {
public:
    explicit double_agc(call_log* l) : log_(l) {}
    void process(float* block, float speech) override {
        log_->calls.push_back("agc");
        log_->speech_seen_by_agc = speech;
        for (int32_t i = 0; i < n; ++i) block[i] += 1.0f;
    }

private:
    call_log* log_;
};

class double_eq : public auto_eq_stage {
public:
    explicit double_eq(call_log* l) : log_(l) {}
    void process(const float* input, float* output, float speech, int32_t hops) override {
        log_->calls.push_back("eq");
        log_->speech_seen_by_eq = speech;
        log_->hops_seen_by_eq = hops;
        for (int32_t i = 0; i < n; ++i) output[i] = input[i] * 3.0f;
    }

private:
    call_log* log_;
};

class double_shaping : public shaping_stage {
public:
    explicit double_shaping(call_log* l) : log_(l) {}
    void process(float* block) override {
        log_->calls.push_back("shaping");
        for (int32_t i = 0; i < n; ++i) block[i] = -block[i];
    }

private:
    call_log* log_;
};

input_stage_set all_doubles(call_log* log) {
    input_stage_set s;
    s.speech = std::make_unique<double_speech_model>(log);
    s.noise_canceller = std::make_unique<double_noise_canceller>(log);
    s.gain_control = std::make_unique<double_agc>(log);
    s.auto_eq = std::make_unique<double_eq>(log);
    s.shaping = std::make_unique<double_shaping>(log);
    return s;
}

control_values controls_with(std::initializer_list<std::pair<int32_t, int32_t>> values) {
    control_values c;
    for (auto [control, value] : values) c.set(control, value);
    return c;
}

float anc_weight(int mix) { return static_cast<float>(std::pow(mix / 100.0, 0.602)); }

TEST(Part4_1_InputChain, NullBlockThrowsDataNull) {
    input_chain chain(48000, 1, n, n, false, {});
    try {
        chain.process(nullptr, sample_type::float32, control_values{});
        FAIL();
    } catch (const quelora_exception& e) {
        EXPECT_EQ(e.error_code(), QEL_ERROR_DATA_NULL);
        EXPECT_STREQ(e.what(), "input buffer not initialized");
    }
}

TEST(Part4_1_InputChain, AllOffPassesTheBlockAndCallsNoStage) {
    call_log log;
    input_chain chain(48000, 1, n, n, false, all_doubles(&log));
    const std::vector<float> in(n, 0.3f);
    chain.process(in.data(), sample_type::float32, control_values{});
    EXPECT_TRUE(log.calls.empty());
    EXPECT_EQ(chain.work_buffer()[7], 0.3f);
}

TEST(Part4_1_InputChain, AncHighMixHundredIsTheProcessedSignalAlone) {
    call_log log;
    input_chain chain(48000, 1, n, n, false, all_doubles(&log));
    const std::vector<float> in(n, 0.4f);
    chain.process(in.data(), sample_type::float32,
                  controls_with({{QEL_CONTROL_ANC_ENABLE, 1}, {QEL_CONTROL_ANC_MIX, 100}}));
    EXPECT_EQ((log.calls), (std::vector<std::string>{"canceller", "speech"}));
    EXPECT_TRUE(log.speech_wrote_scratch); // the model's output goes to scratch
    EXPECT_FALSE(log.speech_got_dry_copy);
    EXPECT_EQ(chain.work_buffer()[0], 0.4f * 0.25f);
    EXPECT_EQ(chain.chain_latency(), 1200);
}

TEST(Part4_1_InputChain, AncHighMixZeroIsTheAlignedDrySignalAlone) {
    call_log log;
    input_chain chain(48000, 1, n, n, false, all_doubles(&log));
    const std::vector<float> in(n, 0.4f);
    chain.process(in.data(), sample_type::float32,
                  controls_with({{QEL_CONTROL_ANC_ENABLE, 1}, {QEL_CONTROL_ANC_MIX, 0}}));
    EXPECT_EQ(chain.work_buffer()[0], 0.4f * 2.0f);
}

TEST(Part4_1_InputChain, AncMixFiftyWeighsWithPointSixFiveNine) {
    call_log log;
    input_chain chain(48000, 1, n, n, false, all_doubles(&log));
    const std::vector<float> in(n, 0.4f);
    chain.process(in.data(), sample_type::float32,
                  controls_with({{QEL_CONTROL_ANC_ENABLE, 1}, {QEL_CONTROL_ANC_MIX, 50}}));
    const float w = anc_weight(50);
    EXPECT_NEAR(w, 0.659f, 5e-4f);
    const float processed = 0.4f * 0.25f;
    const float dry = 0.4f * 2.0f;
    EXPECT_EQ(chain.work_buffer()[0], processed * w + dry * (1.0f - w));
}

TEST(Part4_1_InputChain, AncLowMixReadsTheStartOfTheDryBufferNotItsOwnCopy) {
    call_log log;
    input_chain chain(48000, 1, n, n, false, all_doubles(&log));
    const std::vector<float> in(n, 0.4f);
    // ANC high off, never on before: the start of the dry buffer is zeros.
    chain.process(in.data(), sample_type::float32,
                  controls_with({{QEL_CONTROL_ANC_ENABLE, 1}, {QEL_CONTROL_ANC_HIGH, 0},
                                 {QEL_CONTROL_ANC_MIX, 50}}));
    EXPECT_EQ((log.calls), (std::vector<std::string>{"speech"}));
    EXPECT_TRUE(log.speech_got_dry_copy);
    EXPECT_FALSE(log.speech_wrote_scratch); // in place
    const float w = anc_weight(50);
    EXPECT_EQ(chain.work_buffer()[0], 0.4f * 0.5f * w);
    EXPECT_EQ(chain.chain_latency(), 480);
    // After one high-quality block, the low path blends that stale dry block.
    chain.process(in.data(), sample_type::float32,
                  controls_with({{QEL_CONTROL_ANC_ENABLE, 1}, {QEL_CONTROL_ANC_MIX, 50}}));
    const std::vector<float> quieter(n, 0.1f);
    chain.process(quieter.data(), sample_type::float32,
                  controls_with({{QEL_CONTROL_ANC_ENABLE, 1}, {QEL_CONTROL_ANC_HIGH, 0},
                                 {QEL_CONTROL_ANC_MIX, 50}}));
    EXPECT_EQ(chain.work_buffer()[0], 0.1f * 0.5f * w + 0.4f * 2.0f * (1.0f - w));
}

TEST(Part4_1_InputChain, AgcAndEqGetTheSpeechValueThenShapingRuns) {
    call_log log;
    input_chain chain(48000, 1, n, n, false, all_doubles(&log));
    const std::vector<float> in(n, 0.2f);
    chain.process(in.data(), sample_type::float32,
                  controls_with({{QEL_CONTROL_AGC_ENABLE, 1}, {QEL_CONTROL_AUTO_EQ_ENABLE, 1}}));
    EXPECT_EQ((log.calls), (std::vector<std::string>{"speech", "eq", "agc", "shaping"}));
    EXPECT_TRUE(log.speech_wrote_scratch); // only its value is wanted
    EXPECT_EQ(log.speech_seen_by_agc, 0.75f);
    EXPECT_EQ(log.speech_seen_by_eq, 0.75f);
    EXPECT_EQ(log.hops_seen_by_eq, 100);
    EXPECT_EQ(chain.work_buffer()[0], -(0.2f * 3.0f + 1.0f));
}

TEST(Part4_1_InputChain, AbsentStagesAreSkipped) {
    // The state of this build: no stage objects (docs/status.md). Flags that
    // ask for them change nothing but the stereo downmix.
    input_chain chain(48000, 1, n, n, false, {});
    const std::vector<float> in(n, 0.2f);
    chain.process(in.data(), sample_type::float32,
                  controls_with({{QEL_CONTROL_ANC_ENABLE, 1}, {QEL_CONTROL_ANC_MIX, 30},
                                 {QEL_CONTROL_AGC_ENABLE, 1}}));
    EXPECT_EQ(chain.work_buffer()[0], 0.2f);
}

TEST(Part4_1_InputChain, StereoProcessingRunsOnTheDownmixAndCopiesItOver) {
    call_log log;
    input_chain chain(48000, 2, n, n, false, all_doubles(&log));
    std::vector<float> in(2 * n);
    for (int32_t i = 0; i < n; ++i) {
        in[static_cast<size_t>(i)] = 0.6f;
        in[static_cast<size_t>(n + i)] = 0.2f;
    }
    chain.process(in.data(), sample_type::float32, controls_with({{QEL_CONTROL_AGC_ENABLE, 1}}));
    const float expected = -(0.5f * (0.6f + 0.2f) + 1.0f);
    EXPECT_EQ(chain.work_buffer()[0], expected);
    EXPECT_EQ(chain.work_buffer()[n], expected);
}

TEST(Part4_1_InputChain, ResampledInputFillsTheProcessingBlock) {
    input_chain chain(16000, 1, 160, n, false, {});
    EXPECT_TRUE(chain.has_resampler());
    const std::vector<float> in(160, 0.5f);
    for (int block = 0; block < 4; ++block) {
        chain.process(in.data(), sample_type::float32, control_values{});
    }
    for (int32_t i = 0; i < n; ++i) EXPECT_NEAR(chain.work_buffer()[i], 0.5f * 0.98f, 1e-5f) << i;
}

} // namespace
