// The binaural renderer's filters: the 672 grid responses of hrtf_grid.h, per
// ear, cut into partitions of one block and transformed, ready for uniformly
// partitioned convolution. Built once per library at initialisation and then
// shared read-only by every listener (no method changes it).
//
// Memory: 672 x 2 x partitions x bins complex floats (88 MB at 8192 taps).
// Partitions that are all zero (the rest of the direct-sound layers) are never
// written, and the storage comes zeroed from calloc, so the pages they span
// stay untouched and cost no resident memory on Linux.
#pragma once

#include "audio/measured_hrtf.h"
#include "dsp/aligned_array.h"

#include <complex>
#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

namespace quelora {

class spatial_filter_bank {
public:
    static constexpr int32_t grid_points = 672;
    static constexpr int32_t response_taps = 8192;

    // filter_length: taps used (512..8192, a multiple of block); block: taps
    // per partition; transform_size: at least 2 x block, a size dsp::real_fft
    // takes. Throws std::invalid_argument otherwise.
    spatial_filter_bank(const measured_hrtf_set& measured, int32_t filter_length, int32_t block,
                        int32_t transform_size);

    int32_t partitions() const { return partitions_; }
    int32_t bins() const { return bins_; } // transform_size / 2 + 1
    int32_t block() const { return block_; }

    // partitions() x bins() complex values, partition p starting at p x bins().
    const std::complex<float>* left(int32_t point) const { return ear(left_.get(), point); }
    const std::complex<float>* right(int32_t point) const { return ear(right_.get(), point); }

    // 1 + the last partition of either ear that is not all zero.
    int32_t used_partitions(int32_t point) const { return used_[point]; }

    std::string_view name() const { return name_; }

private:
    const std::complex<float>* ear(const std::complex<float>* base, int32_t point) const {
        return base + static_cast<size_t>(point) * partitions_ * bins_;
    }

    int32_t partitions_;
    int32_t bins_;
    int32_t block_;
    std::string_view name_;
    dsp::aligned_array<std::complex<float>> left_;
    dsp::aligned_array<std::complex<float>> right_;
    std::vector<int32_t> used_;
};

} // namespace quelora
