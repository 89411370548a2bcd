// quelora_micro_bench (make bench): the per-block building blocks of the audio
// path in isolation: sample conversion (in and out), the polyphase resampler,
// the peak limiter, the float ring buffer and the listener engine's submit and
// mix. micro_bench_calls.cpp adds the input and output chains and whole audio
// calls through the C interface.
#include "micro_bench_common.h"

#include "dsp/float_ring_buffer.h"
#include "audio/listener_engine.h"
#include "audio/peak_limiter.h"
#include "audio/polyphase_resampler.h"
#include "audio/sample_conversion.h"
#include "bench_signal.h"

#include <cstring>
#include <type_traits>
#include <vector>

namespace {

using namespace quelora;
using bench::block_frames;
using bench::set_block_counters;

constexpr int32_t stereo = 2;

template <typename T> constexpr sample_type type_of();
template <> constexpr sample_type type_of<int16_t>() { return sample_type::int16; }
template <> constexpr sample_type type_of<float>() { return sample_type::float32; }
template <> constexpr sample_type type_of<double>() { return sample_type::float64; }

// A stereo host block of talkers 0 and 1 in the host's sample type.
template <typename T> std::vector<T> host_block() {
    std::vector<float> planar(stereo * block_frames);
    bench::talker_signal(0, 48000, 0, planar.data(), block_frames);
    bench::talker_signal(1, 48000, 0, planar.data() + block_frames, block_frames);
    std::vector<T> host(planar.size());
    for (size_t i = 0; i < planar.size(); ++i) {
        if constexpr (std::is_same_v<T, int16_t>) {
            host[i] = static_cast<int16_t>(planar[i] * 32767.0f);
        } else {
            host[i] = static_cast<T>(planar[i]);
        }
    }
    return host;
}

// Host block (interleaved or planar) -> planar float work buffer.
template <typename T> void BM_ConvertInput(benchmark::State& state) {
    const bool interleaved = state.range(0) != 0;
    const std::vector<T> host = host_block<T>();
    std::vector<float> planar(stereo * block_frames);
    for (auto _ : state) {
        convert_input(host.data(), type_of<T>(), stereo, block_frames, interleaved, planar.data(),
                      block_frames);
        benchmark::DoNotOptimize(planar.data());
        benchmark::ClobberMemory();
    }
    set_block_counters(state, stereo * block_frames, stereo * block_frames * sizeof(T));
}
BENCHMARK_TEMPLATE(BM_ConvertInput, int16_t)->ArgName("interleaved")->Arg(0)->Arg(1);
BENCHMARK_TEMPLATE(BM_ConvertInput, float)->ArgName("interleaved")->Arg(0)->Arg(1);
BENCHMARK_TEMPLATE(BM_ConvertInput, double)->ArgName("interleaved")->Arg(0)->Arg(1);

// Planar float mix -> host block (interleaved or planar).
template <typename T> void BM_ConvertOutput(benchmark::State& state) {
    const bool interleaved = state.range(0) != 0;
    const std::vector<float> planar = [] {
        std::vector<float> p(stereo * block_frames);
        bench::talker_signal(2, 48000, 0, p.data(), block_frames);
        bench::talker_signal(3, 48000, 0, p.data() + block_frames, block_frames);
        return p;
    }();
    std::vector<T> host(planar.size());
    for (auto _ : state) {
        convert_output(planar.data(), block_frames, stereo, block_frames, interleaved, type_of<T>(),
                       host.data());
        benchmark::DoNotOptimize(host.data());
        benchmark::ClobberMemory();
    }
    set_block_counters(state, stereo * block_frames, stereo * block_frames * sizeof(T));
}
BENCHMARK_TEMPLATE(BM_ConvertOutput, int16_t)->ArgName("interleaved")->Arg(0)->Arg(1);
BENCHMARK_TEMPLATE(BM_ConvertOutput, float)->ArgName("interleaved")->Arg(0)->Arg(1);
BENCHMARK_TEMPLATE(BM_ConvertOutput, double)->ArgName("interleaved")->Arg(0)->Arg(1);

// One channel's 10 ms block; items are output samples.
void BM_Resample(benchmark::State& state) {
    const auto input_rate = static_cast<int32_t>(state.range(0));
    const auto output_rate = static_cast<int32_t>(state.range(1));
    const int32_t output_frames = output_rate / 100;
    polyphase_resampler resampler(input_rate, output_rate, 1, output_frames);
    const std::vector<float> input = bench::talker_block(0, input_rate, resampler.input_frames());
    std::vector<float> output(static_cast<size_t>(output_frames));
    for (auto _ : state) {
        resampler.process(0, input.data(), output.data());
        benchmark::DoNotOptimize(output.data());
        benchmark::ClobberMemory();
    }
    set_block_counters(state, output_frames);
}
BENCHMARK(BM_Resample)
    ->ArgNames({"in_rate", "out_rate"})
    ->Args({16000, 48000})
    ->Args({48000, 16000})
    ->Args({8000, 48000})
    ->Args({32000, 48000});

// The limiter works in place, so every iteration restores a block that
// exceeds the threshold (peak 1.5): the limiter is busy, as under a loud mix.
// The restoring copy (2 x 480 floats) is part of the measured time.
void BM_PeakLimiter(benchmark::State& state) {
    std::vector<float> loud(stereo * block_frames);
    bench::talker_signal(0, 48000, 0, loud.data(), block_frames);
    bench::talker_signal(1, 48000, 0, loud.data() + block_frames, block_frames);
    for (float& x : loud) x *= 5.0f;
    std::vector<float> block(loud.size());
    peak_limiter limiter(block_frames);
    for (auto _ : state) {
        std::memcpy(block.data(), loud.data(), loud.size() * sizeof(float));
        limiter.process(block.data(), block.data() + block_frames, block_frames);
        benchmark::DoNotOptimize(block.data());
        benchmark::ClobberMemory();
    }
    set_block_counters(state, stereo * block_frames);
}
BENCHMARK(BM_PeakLimiter);

// Re-blocking as a stage with its own hop length uses it: one stereo block in,
// one out.
void BM_RingBufferWriteRead(benchmark::State& state) {
    dsp::float_ring_buffer ring(stereo, 2048);
    std::vector<float> in(stereo * block_frames, 0.25f);
    std::vector<float> out(in.size());
    for (auto _ : state) {
        ring.write(in.data(), block_frames, block_frames);
        ring.read(out.data(), block_frames, block_frames);
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    set_block_counters(state, stereo * block_frames);
}
BENCHMARK(BM_RingBufferWriteRead);

// Steady state of one listener: every iteration each mono source submits one
// block (queue node reuse, copy) and the listener mixes once (pop, plain sum).
void BM_ListenerSubmitMix(benchmark::State& state) {
    const auto sources = static_cast<int32_t>(state.range(0));
    bench::listener_with_talkers room(sources);
    const control_values listener;
    std::vector<float> mix(stereo * block_frames);
    for (auto _ : state) {
        room.submit_all();
        benchmark::DoNotOptimize(room.engine.mix(mix.data(), listener));
        benchmark::ClobberMemory();
    }
    set_block_counters(state, static_cast<int64_t>(sources) * block_frames);
}
BENCHMARK(BM_ListenerSubmitMix)->ArgName("sources")->Arg(1)->Arg(4)->Arg(16);

} // namespace

BENCHMARK_MAIN();
