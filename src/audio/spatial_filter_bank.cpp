#include "audio/spatial_filter_bank.h"

#include "audio/hrtf_grid.h"
#include "dsp/real_fft.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>

namespace quelora {

namespace {

static_assert(spatial_filter_bank::grid_points == grid_point_count);
static_assert(spatial_filter_bank::response_taps == grid_response_builder::max_taps);

} // namespace

spatial_filter_bank::spatial_filter_bank(const measured_hrtf_set& measured, int32_t filter_length,
                                         int32_t block, int32_t transform_size)
    : partitions_(block > 0 ? filter_length / block : 0), bins_(transform_size / 2 + 1),
      block_(block), name_(measured.name()), used_(grid_points, 0) {
    if (block <= 0 || filter_length < 512 || filter_length > response_taps ||
        filter_length % block != 0 || transform_size < 2 * block) {
        throw std::invalid_argument("spatial_filter_bank: filter length " +
                                    std::to_string(filter_length) + ", block " +
                                    std::to_string(block) + ", transform " +
                                    std::to_string(transform_size) + " do not fit together");
    }
    dsp::real_fft fft(transform_size);
    const size_t per_ear = static_cast<size_t>(grid_points) * partitions_ * bins_;
    // Partitions that stay zero are never written: their pages stay unbacked.
    left_ = dsp::make_aligned_zeros<std::complex<float>>(per_ear);
    right_ = dsp::make_aligned_zeros<std::complex<float>>(per_ear);

    grid_response_builder builder(measured);
    std::vector<float> taps[2] = {std::vector<float>(filter_length),
                                  std::vector<float>(filter_length)};
    std::vector<float> frame(transform_size, 0.0f); // only the first block is ever written
    for (int32_t point = 0; point < grid_points; ++point) {
        builder.build(point, filter_length, taps[0].data(), taps[1].data());
        const size_t offset = static_cast<size_t>(point) * partitions_ * bins_;
        std::complex<float>* const out[2] = {left_.get() + offset, right_.get() + offset};
        for (int32_t ear = 0; ear < 2; ++ear) {
            for (int32_t p = 0; p < partitions_; ++p) {
                const float* piece = taps[ear].data() + static_cast<size_t>(p) * block;
                if (std::all_of(piece, piece + block, [](float x) { return x == 0.0f; })) continue;
                std::memcpy(frame.data(), piece, sizeof(float) * static_cast<size_t>(block));
                fft.forward(frame.data(), out[ear] + static_cast<size_t>(p) * bins_);
                used_[point] = std::max(used_[point], p + 1);
            }
        }
    }
}

} // namespace quelora
