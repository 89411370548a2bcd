#include "machine_peak.h"

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <new>

#if defined(__x86_64__) || defined(__i386__)
#define QUELORA_BENCH_X86 1
#include <immintrin.h>
#endif

namespace quelora::bench {

namespace {

// Independent accumulation chains: a multiply-add has a latency of about four
// cycles and a core starts up to two per cycle, so fewer than eight chains
// would measure the latency instead of the throughput. Twelve leave margin.
constexpr int32_t chains = 12;
constexpr int32_t lanes = 8;

// Keeps results alive without letting the compiler see through them.
volatile float sink = 0.0f;

#if QUELORA_BENCH_X86
#define QUELORA_BENCH_AVX2 __attribute__((target("avx2,fma")))

QUELORA_BENCH_AVX2 float multiply_adds_avx2(int64_t rounds) {
    __m256 acc[chains];
    for (int32_t i = 0; i < chains; ++i) acc[i] = _mm256_set1_ps(0.001f * static_cast<float>(i));
    // x -> 0.999999 x + 1e-7 settles near 0.1: no overflow, no subnormals.
    const __m256 m = _mm256_set1_ps(0.999999f);
    const __m256 c = _mm256_set1_ps(1e-7f);
    for (int64_t r = 0; r < rounds; ++r) {
        for (int32_t i = 0; i < chains; ++i) acc[i] = _mm256_fmadd_ps(acc[i], m, c);
    }
    __m256 total = acc[0];
    for (int32_t i = 1; i < chains; ++i) total = _mm256_add_ps(total, acc[i]);
    return _mm256_cvtss_f32(total);
}

// Eight accumulators of 8 floats: two loads per cycle against an add latency
// of three to four cycles.
QUELORA_BENCH_AVX2 float read_avx2(const float* data, int64_t floats, int64_t passes) {
    __m256 acc[8];
    for (auto& a : acc) a = _mm256_setzero_ps();
    for (int64_t p = 0; p < passes; ++p) {
        for (int64_t i = 0; i < floats; i += 64) {
            for (int32_t k = 0; k < 8; ++k) {
                acc[k] = _mm256_add_ps(acc[k], _mm256_load_ps(data + i + 8 * k));
            }
        }
    }
    __m256 total = acc[0];
    for (int32_t k = 1; k < 8; ++k) total = _mm256_add_ps(total, acc[k]);
    return _mm256_cvtss_f32(total);
}

bool has_avx2_fma() { return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma"); }
#else
bool has_avx2_fma() { return false; }
#endif

float multiply_adds_portable(int64_t rounds) {
    float acc[chains][lanes];
    for (int32_t i = 0; i < chains; ++i) {
        for (int32_t j = 0; j < lanes; ++j) acc[i][j] = 0.001f * static_cast<float>(i + j);
    }
    for (int64_t r = 0; r < rounds; ++r) {
        for (auto& chain : acc) {
            for (float& x : chain) x = x * 0.999999f + 1e-7f;
        }
    }
    float total = 0.0f;
    for (auto& chain : acc) {
        for (float x : chain) total += x;
    }
    return total;
}

float read_portable(const float* data, int64_t floats, int64_t passes) {
    float acc[64] = {};
    for (int64_t p = 0; p < passes; ++p) {
        for (int64_t i = 0; i < floats; i += 64) {
            for (int32_t k = 0; k < 64; ++k) acc[k] += data[i + k];
        }
    }
    float total = 0.0f;
    for (float x : acc) total += x;
    return total;
}

// Runs work(count) with count doubled until one run takes a millisecond,
// then sized to spend `seconds` over five runs; returns the best rate in
// units of count per second.
template <typename Work> double best_rate(Work work, double seconds) {
    int64_t count = 1;
    double elapsed = 0.0;
    for (;;) {
        const int64_t start = thread_cpu_nanoseconds();
        work(count);
        elapsed = 1e-9 * static_cast<double>(thread_cpu_nanoseconds() - start);
        if (elapsed >= 1e-3) break;
        count *= 2;
    }
    constexpr int32_t runs = 5;
    count = std::max<int64_t>(1, static_cast<int64_t>(static_cast<double>(count) *
                                                      (seconds / runs) / elapsed));
    double best = 0.0;
    for (int32_t r = 0; r < runs; ++r) {
        const int64_t start = thread_cpu_nanoseconds();
        work(count);
        const double t = 1e-9 * static_cast<double>(thread_cpu_nanoseconds() - start);
        if (t > 0.0) best = std::max(best, static_cast<double>(count) / t);
    }
    return best;
}

} // namespace

int64_t thread_cpu_nanoseconds() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

std::vector<int64_t> default_read_sizes() {
    return {int64_t{16} << 10, int64_t{512} << 10, int64_t{8} << 20, int64_t{32} << 20,
            int64_t{256} << 20};
}

core_peak measure_core_peak(double seconds, const std::vector<int64_t>& read_sizes) {
    core_peak peak;
    const bool vector = has_avx2_fma();
    peak.fma_kind = vector ? "avx2+fma" : "portable";
    const auto multiply_adds = [vector](int64_t rounds) {
#if QUELORA_BENCH_X86
        if (vector) {
            sink = multiply_adds_avx2(rounds);
            return;
        }
#endif
        sink = multiply_adds_portable(rounds);
    };
    peak.multiply_adds = best_rate(multiply_adds, seconds) * chains * lanes;

    for (int64_t bytes : read_sizes) {
        const int64_t floats = bytes / static_cast<int64_t>(sizeof(float)) / 64 * 64;
        const size_t size = static_cast<size_t>(floats) * sizeof(float);
        std::unique_ptr<float, decltype(&std::free)> buffer(
            static_cast<float*>(std::aligned_alloc(64, size)), &std::free);
        if (!buffer) throw std::bad_alloc();
        // Written once, so every page is backed before timing.
        std::fill_n(buffer.get(), floats, 1.0f);
        const float* data = buffer.get();
        const auto reads = [vector, data, floats](int64_t passes) {
#if QUELORA_BENCH_X86
            if (vector) {
                sink = read_avx2(data, floats, passes);
                return;
            }
#endif
            sink = read_portable(data, floats, passes);
        };
        const double passes_per_second = best_rate(reads, seconds);
        peak.reads.push_back(
            {bytes, passes_per_second * static_cast<double>(floats) * sizeof(float)});
    }
    return peak;
}

const read_rate& read_rate_for(const core_peak& peak, int64_t bytes) {
    for (const read_rate& r : peak.reads) {
        if (r.bytes >= bytes) return r;
    }
    return peak.reads.back();
}

} // namespace quelora::bench
