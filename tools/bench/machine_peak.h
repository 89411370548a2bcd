// What one core of this machine can do at best, measured rather than taken
// from a data sheet, so that the benchmarks can say how close the binaural
// renderer's kernel comes to it: the rate of independent fused multiply-adds
// (AVX2+FMA, eight floats each, the width of the renderer's kernel) and the
// rate of streaming reads from buffers of several sizes (which land in L1,
// L2, L3 or memory depending on the machine). Each figure is the best of a
// few repetitions, timed on the thread's CPU clock: on a shared machine the
// best run is the one least disturbed.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace quelora::bench {

struct read_rate {
    int64_t bytes = 0;           // buffer size
    double bytes_per_second = 0; // best streaming read rate over it
};

struct core_peak {
    std::string fma_kind;        // "avx2+fma" or "portable" (no AVX2 on this processor)
    double multiply_adds = 0.0;  // real (single-precision) multiply-adds per second
    std::vector<read_rate> reads; // ascending buffer size
};

// Buffer sizes for the read rates: 16 KiB, 512 KiB, 8 MiB, 32 MiB and 256 MiB.
std::vector<int64_t> default_read_sizes();

// Measures the peak; seconds is the CPU time to spend on each figure (best of
// five runs that share it), so the whole takes about (1 + sizes) x seconds.
// read_sizes must not be empty.
core_peak measure_core_peak(double seconds, const std::vector<int64_t>& read_sizes);

// The read rate of the smallest measured buffer that holds `bytes` (the
// largest buffer's rate when none does): the rate a kernel streaming over a
// working set of that size could hope for.
const read_rate& read_rate_for(const core_peak& peak, int64_t bytes);

// Nanoseconds of CPU time of the calling thread.
int64_t thread_cpu_nanoseconds();

} // namespace quelora::bench
