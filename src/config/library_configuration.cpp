#include "config/library_configuration.h"

#include "api/quelora_exception.h"

#include <cmath>

namespace quelora {

int32_t frames_at_processing_rate(int32_t rate, int32_t frames) {
    // Single precision, truncated toward zero, deliberately; the input-rate
    // test reuses it (docs/design.md). The range guard keeps absurd inputs
    // from an undefined float-to-int conversion.
    const float length = 48000.0f / static_cast<float>(rate) * static_cast<float>(frames);
    if (!(length > -2.0e9f && length < 2.0e9f)) {
        return -1;
    }
    return static_cast<int32_t>(length);
}

bool is_accepted_processing_length(int32_t length) {
    // 512 and 1024 (power-of-two blocks) are deliberately accepted beside the
    // 10/20 ms lengths.
    return length == 480 || length == 512 || length == 960 || length == 1024;
}

void validate_library_configuration(const qel_library_configuration& configuration) {
    const int32_t rate = configuration.output_sampling_rate;
    if (rate != 8000 && rate != 16000 && rate != 24000 && rate != 32000 && rate != 48000) {
        throw quelora_exception(QEL_LOG_ERROR, QEL_ERROR_SAMPLE_RATE,
                                "You provided %i but you must choose a sampling rate of either "
                                "8000, 16000, 24000, 32000, or 48000",
                                rate);
    }
    const int32_t frames = configuration.output_number_frames;
    if (!is_accepted_processing_length(frames_at_processing_rate(rate, frames))) {
        throw quelora_exception(
            QEL_LOG_ERROR, QEL_ERROR_DATA_LENGTH,
            "You configured number of output frames to %i but you must choose an output number of "
            "frames corresponding to 10 or 20 milliseconds in length. Based on your chosen "
            "sampling rate of %i this would be either %i frames or %i frames.",
            frames, rate, static_cast<int32_t>(rate * 0.01), static_cast<int32_t>(rate * 0.02));
    }
    const int32_t channels = configuration.output_number_channels;
    if (channels != 1 && channels != 2) {
        throw quelora_exception(QEL_LOG_ERROR, QEL_ERROR_NUM_CHANNELS,
                                "You provided %i but you must choose either 1 or 2 for output "
                                "number of channels",
                                channels);
    }
    const int32_t quality = configuration.spatial_quality;
    if (quality < 1 || quality > 5) {
        throw quelora_exception(QEL_LOG_ERROR, QEL_ERROR_SPATIAL_QUALITY,
                                "You provided %i but you must choose a spatial quality between 1 "
                                "and 5",
                                quality);
    }
}

int32_t next_power_of_two(int32_t n) {
    return static_cast<int32_t>(std::pow(2.0, std::ceil(std::log(static_cast<double>(n)) /
                                                        std::log(2.0))));
}

bool is_power_of_two(int32_t n) { return n > 0 && (n & (n - 1)) == 0; }

processing_sizes derive_processing_sizes(const qel_library_configuration& configuration) {
    processing_sizes sizes;
    sizes.spatial_filter_length = 512 << (configuration.spatial_quality - 1);
    sizes.processing_frame_length = frames_at_processing_rate(configuration.output_sampling_rate,
                                                              configuration.output_number_frames);
    if (sizes.spatial_filter_length < sizes.processing_frame_length) {
        sizes.spatial_filter_length = next_power_of_two(sizes.processing_frame_length);
    }
    sizes.processing_block = is_power_of_two(sizes.processing_frame_length)
                                 ? sizes.processing_frame_length
                                 : next_power_of_two(sizes.processing_frame_length);
    sizes.transform_size = 2 * sizes.processing_block;
    sizes.partition_count = sizes.spatial_filter_length / sizes.processing_block;
    return sizes;
}

} // namespace quelora
