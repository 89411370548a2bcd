// What one listener-source pair of the binaural renderer costs per block,
// counted from the processing sizes, and the rate a measured 3D run reached
// against this core's measured peak (machine_peak.h).
//
// Per pair, block and filter partition the renderer's kernel makes four
// complex multiply-accumulates per bin (frames A and B times the two ears),
// four real multiply-adds each, and reads both ears' filter partition. A
// pair farther than 100 units convolves every partition (the modelled room's
// reverberation fills them); a nearer pair only the partitions of the direct
// sound, which this benchmark, driving the library through its C interface,
// cannot see: the achieved rates are given as a range, from those pairs
// convolving one partition to their convolving all.
#pragma once

#include "conference_scenario.h"
#include "machine_peak.h"

#include <cstdint>
#include <vector>

namespace quelora::bench {

// The renderer's sizes at 48000 Hz and 480 frames: partitions of 512 taps
// (the block rounded up to a power of two), a 1024-point transform.
struct pair_sizes {
    int32_t quality = 0;
    int32_t taps = 0;
    int32_t partitions = 0;
    int32_t bins = 0;

    int64_t multiply_adds_per_partition() const { return 4 * 4 * static_cast<int64_t>(bins); }
    int64_t filter_bytes_per_partition() const { return 2 * 8 * static_cast<int64_t>(bins); }
    // Per pair and block, every partition convolved.
    int64_t complex_macs() const { return 4 * static_cast<int64_t>(bins) * partitions; }
    int64_t multiply_adds() const { return multiply_adds_per_partition() * partitions; }
    int64_t filter_bytes() const { return filter_bytes_per_partition() * partitions; }
};

pair_sizes pair_sizes_for(int32_t quality);

// A range: low counts the near pairs at one partition, high at all of them.
struct bounds {
    double low = 0.0;
    double high = 0.0;
};

struct achieved_rate {
    pair_sizes sizes;
    int32_t participants = 0;
    int64_t pairs = 0;      // listener-source pairs, P (P - 1)
    int64_t near_pairs = 0; // of them at 100 units or less
    double cpu_seconds = 0.0; // CPU time of one period of the run (everything in it)
    bounds multiply_adds_per_second;
    bounds filter_bytes_per_second;
    bounds peak_fraction;     // of the measured multiply-add peak
    int64_t working_set = 0;  // every pair's filters, all partitions: what one period walks
    read_rate reference;      // the read rate of a buffer that holds the working set
    bounds read_fraction;
};

// The rate of a 3D run of `participants` seated by seat_on_circle at one
// spatial quality, from its CPU time per period.
achieved_rate achieved_at(int32_t quality, int32_t participants, double cpu_seconds,
                          const core_peak& peak);

void print_core_peak(const core_peak& peak);
void print_pair_sizes();
void print_achieved(const std::vector<achieved_rate>& rates);

} // namespace quelora::bench
