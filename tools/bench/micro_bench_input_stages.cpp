// quelora_micro_bench (make bench): the input stages a talker can switch on,
// each on its own per 10 ms block, and the whole input chain with all of them
// on. The "rtf" counter is CPU time per second of audio on one core; its
// inverse is the number of such talkers one core carries. The suppressor's
// target is at most 0.01. The loops run with flush-to-zero and
// denormals-are-zero set, as every audio call of the library does.
#include "micro_bench_common.h"

#include "audio/auto_eq.h"
#include "audio/automatic_gain_control.h"
#include "audio/input_chain.h"
#include "audio/soft_limiter.h"
#include "conference/participant_stages.h"
#include "denoise/rnn_suppressor.h"
#include "denoise/voice_activity_detector.h"
#include "dsp/denormal_guard.h"

#include <vector>

namespace {

using namespace quelora;
using bench::block_frames;
using bench::noisy_talker;
using bench::set_realtime_counter;

constexpr int32_t blocks = 100; // a second of signal, cycled

// One 480-sample frame through the suppressor core (16-bit range).
void BM_RnnSuppressorFrame(benchmark::State& state) {
    denoise::rnn_suppressor suppressor;
    std::vector<float> input = noisy_talker(block_frames * blocks);
    for (float& v : input) v *= 32768.0f;
    std::vector<float> out(block_frames);
    int32_t b = 0;
    const dsp::denormal_guard no_denormals;
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            suppressor.process_frame(input.data() + b * block_frames, out.data()));
        b = (b + 1) % blocks;
    }
    set_realtime_counter(state, block_frames / 48000.0);
}
BENCHMARK(BM_RnnSuppressorFrame);

// A block through the voice activity detector as the chain runs it with
// ANC high off: in place, with the dry copy.
void BM_VoiceActivityDetector(benchmark::State& state) {
    const auto frames = static_cast<int32_t>(state.range(0));
    denoise::voice_activity_detector detector(static_cast<uint32_t>(frames), 1);
    const std::vector<float> input = noisy_talker(frames * blocks);
    std::vector<float> work(static_cast<size_t>(frames)), dry(work.size());
    int32_t b = 0;
    const dsp::denormal_guard no_denormals;
    for (auto _ : state) {
        std::copy_n(input.data() + b * frames, frames, work.data());
        benchmark::DoNotOptimize(detector.process(work.data(), work.data(), dry.data()));
        b = (b + 1) % blocks;
    }
    set_realtime_counter(state, frames / 48000.0);
}
BENCHMARK(BM_VoiceActivityDetector)->ArgName("frames")->Arg(480)->Arg(441);

// One levelling stage on 480-sample blocks of a talker, speech value 0.9.
template <typename Stage, typename Run> void run_levelling_stage(benchmark::State& state, Run run) {
    Stage stage(1, block_frames);
    const std::vector<float> input = noisy_talker(block_frames * blocks);
    std::vector<float> work(block_frames);
    int32_t b = 0;
    const dsp::denormal_guard no_denormals;
    for (auto _ : state) {
        std::copy_n(input.data() + b * block_frames, block_frames, work.data());
        run(stage, work.data());
        benchmark::DoNotOptimize(work.data());
        b = (b + 1) % blocks;
    }
    set_realtime_counter(state, block_frames / 48000.0);
}

void BM_AutomaticGainControl(benchmark::State& state) {
    run_levelling_stage<automatic_gain_control>(
        state, [](automatic_gain_control& s, float* x) { s.process(x, 0.9f); });
}
BENCHMARK(BM_AutomaticGainControl);

void BM_AutoEq(benchmark::State& state) {
    run_levelling_stage<auto_eq>(state, [](auto_eq& s, float* x) { s.process(x, x, 0.9f, 100); });
}
BENCHMARK(BM_AutoEq);

void BM_SoftLimiter(benchmark::State& state) {
    run_levelling_stage<soft_limiter>(state, [](soft_limiter& s, float* x) { s.process(x); });
}
BENCHMARK(BM_SoftLimiter);

// The whole input chain of a mono 48 kHz talker with noise cancellation, AGC
// and auto EQ on, with the light suppressor (anc_high 0) or the DFN
// canceller (anc_high 1) cleaning the voice.
void BM_InputChainAllStages(benchmark::State& state) {
    const auto anc_high = static_cast<int32_t>(state.range(0));
    input_chain chain(48000, 1, block_frames, block_frames, false,
                      make_input_stages(1, block_frames));
    control_values controls;
    controls.set(QEL_CONTROL_ANC_ENABLE, 1);
    controls.set(QEL_CONTROL_ANC_HIGH, anc_high);
    controls.set(QEL_CONTROL_ANC_MIX, 100);
    controls.set(QEL_CONTROL_AGC_ENABLE, 1);
    controls.set(QEL_CONTROL_AUTO_EQ_ENABLE, 1);
    const std::vector<float> input = noisy_talker(block_frames * blocks);
    int32_t b = 0;
    const dsp::denormal_guard no_denormals;
    for (auto _ : state) {
        chain.process(input.data() + b * block_frames, sample_type::float32, controls);
        benchmark::DoNotOptimize(chain.work_buffer());
        b = (b + 1) % blocks;
    }
    set_realtime_counter(state, block_frames / 48000.0);
}
BENCHMARK(BM_InputChainAllStages)->ArgName("anc_high")->Arg(0)->Arg(1);

} // namespace
