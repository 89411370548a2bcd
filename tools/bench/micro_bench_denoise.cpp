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

using quelora::bench::noisy_talker;
using quelora::bench::set_realtime_counter;
using quelora::denoise::noise_canceller;

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
