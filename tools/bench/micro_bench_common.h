// Shared pieces of the Google Benchmark suite (quelora_micro_bench). One
// benchmark iteration handles one 10 ms block, so the time Google Benchmark
// reports is the time per block.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdint>

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

} // namespace quelora::bench
