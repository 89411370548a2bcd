// quelora_micro_bench (make bench): the DFN noise canceller with the
// compiled-in weights: one 10 ms block (two network hops) through the whole
// wrapper, one hop of the model alone, and a 20 ms block. The "rtf" counter is
// CPU time per second of audio on one core (the target: at most 0.03). Like
// every audio call of the library, the loops run with flush-to-zero and
// denormals-are-zero set.
#include "micro_bench_common.h"

#include "bench_signal.h"
#include "denoise/noise_canceller.h"
#include "dsp/denormal_guard.h"

#include <vector>

namespace {

using quelora::denoise::noise_canceller;

void set_realtime_counter(benchmark::State& state, double seconds_per_iteration) {
    state.counters["rtf"] = benchmark::Counter(
        static_cast<double>(state.iterations()) * seconds_per_iteration,
        benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

// A talker with background noise, long enough that the state keeps moving.
std::vector<float> noisy_talker(int32_t frames) {
    std::vector<float> x(static_cast<std::size_t>(frames));
    quelora::bench::talker_signal(0, 48000, 0, x.data(), frames);
    uint32_t seed = 1u;
    for (float& v : x) {
        seed = seed * 1664525u + 1013904223u;
        v += 0.01f * (static_cast<float>(seed >> 8) / 16777216.0f - 0.5f);
    }
    return x;
}

void BM_NoiseCancellerBlock(benchmark::State& state) {
    const auto frames = static_cast<int32_t>(state.range(0));
    constexpr int32_t blocks = 100;
    noise_canceller canceller(48000, 1, static_cast<uint32_t>(frames));
    const std::vector<float> input = noisy_talker(frames * blocks);
    std::vector<float> out(static_cast<std::size_t>(frames)), dry(out.size());
    int32_t b = 0;
    const quelora::dsp::denormal_guard no_denormals;
    for (auto _ : state) {
        canceller.process(input.data() + b * frames, out.data(), dry.data());
        benchmark::DoNotOptimize(out.data());
        b = (b + 1) % blocks;
    }
    set_realtime_counter(state, frames / 48000.0);
}
BENCHMARK(BM_NoiseCancellerBlock)->ArgName("frames")->Arg(480)->Arg(960);

void BM_DfnModelHop(benchmark::State& state) {
    quelora::denoise::dfn_model model(quelora::denoise::dfn_default_weights());
    const std::vector<float> input = noisy_talker(480 * 100);
    std::vector<float> out(480);
    int32_t h = 0;
    const quelora::dsp::denormal_guard no_denormals;
    for (auto _ : state) {
        model.process_hop(input.data() + h * 240, out.data());
        benchmark::DoNotOptimize(out.data());
        h = (h + 1) % 199;
    }
    set_realtime_counter(state, 240 / 48000.0);
}
BENCHMARK(BM_DfnModelHop);

} // namespace
