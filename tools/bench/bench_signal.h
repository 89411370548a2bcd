// Deterministic talker signals for the benchmarks (make bench). Every talker
// gets its own tone plus low-level noise, so no two sources carry the same
// block, and a mix of many talkers drives the peak limiter the way a room of
// people all talking at once would. No randomness from the environment: two
// runs feed identical samples.
#pragma once

#include <cmath>
#include <cstdint>
#include <vector>

namespace quelora::bench {

// splitmix64: a stateless hash, so sample i of talker t is the same whatever
// order the blocks are generated in.
inline uint64_t mix_bits(uint64_t x) {
    x += 0x9e3779b97f4a7c15ULL;
    x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ULL;
    x = (x ^ (x >> 27)) * 0x94d049bb133111ebULL;
    return x ^ (x >> 31);
}

// Uniform in [-1, 1).
inline float noise_sample(int32_t talker, int64_t index) {
    const uint64_t bits = mix_bits((static_cast<uint64_t>(talker) << 40) ^ static_cast<uint64_t>(index));
    return static_cast<float>(static_cast<double>(bits >> 40) / 8388608.0 - 1.0);
}

// Tone frequencies are multiples of 12.5 Hz, so a loop of 8 blocks of 10 ms
// (80 ms) holds whole periods and repeats without a click.
inline double talker_frequency(int32_t talker) {
    return 12.5 * static_cast<double>(8 + (talker * 7) % 60); // 100 .. 837.5 Hz
}

// `frames` samples of talker `talker` at `rate` Hz, from sample `offset` on:
// a tone of amplitude 0.25 plus noise of amplitude 0.05 (peak about 0.3).
inline void talker_signal(int32_t talker, int32_t rate, int64_t offset, float* out,
                          int32_t frames) {
    constexpr double two_pi = 6.283185307179586;
    const double step = two_pi * talker_frequency(talker) / static_cast<double>(rate);
    for (int32_t i = 0; i < frames; ++i) {
        const int64_t n = offset + i;
        const double tone = 0.25 * std::sin(step * static_cast<double>(n));
        out[i] = static_cast<float>(tone) + 0.05f * noise_sample(talker, n);
    }
}

inline std::vector<float> talker_block(int32_t talker, int32_t rate, int32_t frames) {
    std::vector<float> block(static_cast<size_t>(frames));
    talker_signal(talker, rate, 0, block.data(), frames);
    return block;
}

} // namespace quelora::bench
