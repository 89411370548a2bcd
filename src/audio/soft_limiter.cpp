#include "audio/soft_limiter.h"

#include "dsp/vector_ops.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace quelora {

namespace {

float from_db(float db) {
    return static_cast<float>(std::pow(10.0, static_cast<double>(db) / 20.0));
}

} // namespace

soft_limiter::soft_limiter(int32_t channels, int32_t processing_frames)
    : channels_(channels), frames_(processing_frames), knee_(from_db(knee_db)),
      ceiling_(from_db(ceiling_db)), span_(ceiling_ - knee_) {
    if (channels < 1 || channels > 2) throw std::invalid_argument("soft limiter: 1 or 2 channels");
    if (processing_frames < 1) throw std::invalid_argument("soft limiter: frames must be >= 1");
}

float soft_limiter::shape(float x) const {
    const float magnitude = std::fabs(x);
    if (!(magnitude > knee_)) return x; // NaN passes as it came
    // tanh rounds to 1 for large arguments and the sum may round up: the
    // min keeps the ceiling a hard bound.
    const float shaped = std::min(knee_ + span_ * std::tanh((magnitude - knee_) / span_), ceiling_);
    return std::copysign(shaped, x);
}

void soft_limiter::process(float* block) {
    for (int32_t i = 0; i < frames_; ++i) block[i] = shape(block[i]);
    if (channels_ == 2) dsp::copy(block, block + frames_, frames_);
}

} // namespace quelora
