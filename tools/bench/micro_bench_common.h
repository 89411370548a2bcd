// Shared pieces of the Google Benchmark suite (quelora_micro_bench). One
// benchmark iteration handles one 10 ms block, so the time Google Benchmark
// reports is the time per block.
#pragma once

#include "audio/listener_engine.h"
#include "bench_signal.h"

#include <benchmark/benchmark.h>

#include <cstdint>
#include <vector>

namespace quelora::bench {

inline constexpr int32_t block_frames = 480; // 10 ms at 48000 Hz
inline constexpr double block_seconds = 0.010;

// items/s = samples/s; bytes/s where a byte count is meaningful (conversions);
// x_realtime = seconds of audio per second of CPU time (above 1: this piece
// alone keeps up with real time that many times over on one core).
inline void set_block_counters(benchmark::State& state, int64_t samples_per_block,
                               int64_t bytes_per_block = 0) {
    state.SetItemsProcessed(state.iterations() * samples_per_block);
    if (bytes_per_block > 0) state.SetBytesProcessed(state.iterations() * bytes_per_block);
    state.counters["x_realtime"] =
        benchmark::Counter(block_seconds, benchmark::Counter::kIsIterationInvariantRate);
}

// "rtf": CPU time per second of audio on one core (the real-time factor; its
// inverse is how many such streams one core carries).
inline void set_realtime_counter(benchmark::State& state, double seconds_per_iteration) {
    state.counters["rtf"] =
        benchmark::Counter(static_cast<double>(state.iterations()) * seconds_per_iteration,
                           benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

// A talker with background noise, long enough that the state keeps moving.
inline std::vector<float> noisy_talker(int32_t frames) {
    std::vector<float> x(static_cast<std::size_t>(frames));
    talker_signal(0, 48000, 0, x.data(), frames);
    uint32_t seed = 1u;
    for (float& v : x) {
        seed = seed * 1664525u + 1013904223u;
        v += 0.01f * (static_cast<float>(seed >> 8) / 16777216.0f - 0.5f);
    }
    return x;
}

// A listener engine with `count` mono 48 kHz talkers (ids 1..count), each
// with its own block; submit_all() is one block period of their input calls.
struct listener_with_talkers {
    explicit listener_with_talkers(int32_t count)
        : engine(block_frames, static_cast<size_t>(count)) {
        for (int32_t s = 0; s < count; ++s) {
            engine.add_source(s + 1, 1);
            blocks.push_back(talker_block(s, 48000, block_frames));
        }
    }
    void submit_all() {
        for (size_t s = 0; s < blocks.size(); ++s) {
            engine.submit(static_cast<int32_t>(s) + 1, blocks[s].data(), 1.0f);
        }
    }

    listener_engine engine;
    std::vector<std::vector<float>> blocks;
};

} // namespace quelora::bench
