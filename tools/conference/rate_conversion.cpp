#include "rate_conversion.h"

#include <soxr.h>

#include <cmath>

namespace quelora::conference {

bool convert_rate(audio_clip& clip, int target_rate, std::string& message) {
    if (clip.rate == target_rate) return true;
    const auto in_frames = static_cast<size_t>(clip.frames());
    const double ratio = static_cast<double>(target_rate) / static_cast<double>(clip.rate);
    const auto out_capacity = static_cast<size_t>(std::ceil(static_cast<double>(in_frames) * ratio)) + 1;
    std::vector<float> converted(out_capacity * static_cast<size_t>(clip.channels));

    const soxr_io_spec_t io = soxr_io_spec(SOXR_FLOAT32_I, SOXR_FLOAT32_I);
    const soxr_quality_spec_t quality = soxr_quality_spec(SOXR_HQ, 0);
    size_t done = 0;
    const soxr_error_t error =
        soxr_oneshot(clip.rate, target_rate, static_cast<unsigned>(clip.channels), clip.samples.data(),
                     in_frames, nullptr, converted.data(), out_capacity, &done, &io, &quality, nullptr);
    if (error != nullptr) {
        message = std::string("libsoxr: ") + error;
        return false;
    }
    converted.resize(done * static_cast<size_t>(clip.channels));
    clip.samples = std::move(converted);
    clip.rate = target_rate;
    return true;
}

} // namespace quelora::conference
