// quelora_micro_bench (make bench): the DFN noise canceller with the
// compiled-in weights: one 10 ms block (two network hops) through the whole
// wrapper, one hop of the model alone, and a 20 ms block. The "rtf" counter is
// CPU time per second of audio on one core (the target: at most 0.02). For the
// 10 ms block, "bound_us" is what the block would cost at this core's measured
// limits and "x_bound" how far the measured time is above it. Like every audio
// call of the library, the loops run with flush-to-zero and denormals-are-zero
// set.
#include "micro_bench_common.h"

#include "bench_signal.h"
#include "denoise/noise_canceller.h"
#include "dsp/denormal_guard.h"
#include "machine_peak.h"

#include <cstdio>
#include <memory>
#include <vector>

namespace {

using quelora::bench::noisy_talker;
using quelora::bench::set_realtime_counter;
using quelora::denoise::noise_canceller;

// The realistic bound of one 10 ms block (two hops), from the model's shapes
// and this core's peak measured once: the convolutions at the FMA rate, every
// matrix-vector weight read once at the rate of a buffer as large as all of
// them (the block's two hops share that pass), and the GRUs' recurrent
// weights read again by the second hop at the rate of a buffer the size of
// one GRU's (they are still in L2). The small element-wise work is left out.
double block_bound_seconds() {
    static const double bound = [] {
        const quelora::denoise::dfn_work w =
            quelora::denoise::dfn_model(quelora::denoise::dfn_default_weights()).work();
        const auto streamed = static_cast<int64_t>(w.streamed_weight_bytes);
        const auto one_gru = static_cast<int64_t>(w.recurrent_weight_bytes / 3);
        const quelora::bench::core_peak peak =
            quelora::bench::measure_core_peak(0.1, {one_gru, streamed});
        const double convolutions =
            2.0 * static_cast<double>(w.convolution_multiply_adds) / peak.multiply_adds;
        const double stream = static_cast<double>(streamed) / peak.reads[1].bytes_per_second;
        const double again =
            static_cast<double>(w.recurrent_weight_bytes) / peak.reads[0].bytes_per_second;
        std::printf("DFN block bound: convolutions %.1f M multiply-adds at %.1f G/s = %.1f us; "
                    "%.2f MB of weights at %.1f GB/s = %.1f us; recurrent %.2f MB again at "
                    "%.1f GB/s = %.1f us; total %.1f us\n",
                    2e-6 * static_cast<double>(w.convolution_multiply_adds),
                    peak.multiply_adds * 1e-9, convolutions * 1e6,
                    static_cast<double>(streamed) * 1e-6, peak.reads[1].bytes_per_second * 1e-9,
                    stream * 1e6, static_cast<double>(w.recurrent_weight_bytes) * 1e-6,
                    peak.reads[0].bytes_per_second * 1e-9, again * 1e6,
                    (convolutions + stream + again) * 1e6);
        return convolutions + stream + again;
    }();
    return bound;
}

// Times one canceller's blocks of `frames` samples of a noisy talker.
void time_blocks(benchmark::State& state, noise_canceller& canceller, int32_t frames) {
    constexpr int32_t blocks = 100;
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

void BM_NoiseCancellerBlock(benchmark::State& state) {
    const auto frames = static_cast<int32_t>(state.range(0));
    noise_canceller canceller(48000, 1, static_cast<uint32_t>(frames));
    time_blocks(state, canceller, frames);
    if (frames == 480) {
        const double bound = block_bound_seconds();
        state.counters["bound_us"] = bound * 1e6;
        state.counters["x_bound"] =
            benchmark::Counter(static_cast<double>(state.iterations()) * bound,
                               benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
    }
}
BENCHMARK(BM_NoiseCancellerBlock)->ArgName("frames")->Arg(480)->Arg(960);

// The 10 ms block on each kernel version this processor runs (0 portable,
// 1 AVX2+FMA, 2 AVX-512): what hosts on older processors get.
void BM_NoiseCancellerKernels(benchmark::State& state) {
    const quelora::denoise::matvec_kernels* versions[] = {
        &quelora::denoise::portable_matvec_kernels(), quelora::denoise::avx2_fma_matvec_kernels(),
        quelora::denoise::avx512_matvec_kernels()};
    const quelora::denoise::matvec_kernels* kernels = versions[state.range(0)];
    if (kernels == nullptr) {
        state.SkipWithError("this processor lacks the version");
        return;
    }
    noise_canceller canceller(48000, 1, 480, quelora::denoise::dfn_default_weights(), *kernels);
    time_blocks(state, canceller, 480);
    state.SetLabel(kernels->name);
}
BENCHMARK(BM_NoiseCancellerKernels)->ArgName("version")->Arg(0)->Arg(1)->Arg(2);

// A server's view: N talkers' cancellers take their blocks in turn, so each
// finds its own state (histories, scratch, GRU states) evicted by the
// others' and only the shared weights stay warm. Time per block per talker.
void BM_NoiseCancellerTalkers(benchmark::State& state) {
    const auto talkers = static_cast<int32_t>(state.range(0));
    constexpr int32_t frames = 480, blocks = 100;
    std::vector<std::unique_ptr<noise_canceller>> cancellers;
    for (int32_t t = 0; t < talkers; ++t)
        cancellers.push_back(std::make_unique<noise_canceller>(48000, 1, frames));
    const std::vector<float> input = noisy_talker(frames * blocks);
    std::vector<float> out(frames), dry(frames);
    int32_t b = 0;
    const quelora::dsp::denormal_guard no_denormals;
    for (auto _ : state) {
        for (auto& c : cancellers) c->process(input.data() + b * frames, out.data(), dry.data());
        benchmark::DoNotOptimize(out.data());
        b = (b + 1) % blocks;
    }
    state.SetItemsProcessed(state.iterations() * talkers);
    set_realtime_counter(state, talkers * frames / 48000.0);
}
BENCHMARK(BM_NoiseCancellerTalkers)->ArgName("talkers")->Arg(1)->Arg(16)->Arg(48);

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
