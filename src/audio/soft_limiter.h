// The final shaping stage after automatic gain control and auto EQ: a
// memoryless soft limiter on the first channel. Below the knee (-3 dBFS) a
// sample passes bit-exactly; above it the magnitude follows
//   knee + (ceiling - knee) tanh((|x| - knee) / (ceiling - knee)),
// which leaves the knee with slope 1 and approaches the ceiling (-0.5 dBFS)
// without reaching it (docs/levelling.md). No latency, no state, no
// allocation after construction.
#pragma once

#include "audio/input_stages.h"

#include <cstdint>

namespace quelora {

class soft_limiter final : public shaping_stage {
public:
    static constexpr float knee_db = -3.0f;
    static constexpr float ceiling_db = -0.5f;

    // channels: 1 or 2; processing_frames: N >= 1. Throws
    // std::invalid_argument otherwise.
    soft_limiter(int32_t channels, int32_t processing_frames);

    // Shapes channel 1 of the planar block in place; with two channels,
    // copies it over channel 2.
    void process(float* block) override;

    // The curve on its own, for one sample.
    float shape(float x) const;

private:
    int32_t channels_;
    int32_t frames_;
    float knee_;
    float ceiling_;
    float span_; // ceiling - knee
};

} // namespace quelora
