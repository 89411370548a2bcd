// The first step of the noise canceller's block routine: a deterministic
// dither of +-2^-18 at positions 12, 140, 268 and 396 of every 480-sample
// block, so that digital silence never reaches the network (its log-power
// features would sit at the floor). The state sequence starts at 2 and
// carries across blocks.
#pragma once

#include <cstdint>

namespace quelora::denoise {

class block_dither {
public:
    static constexpr float step = 3.8146973e-6f; // 2^-18

    // block: 480 samples, changed in place.
    void apply(float* block) {
        for (int32_t position = 12; position < 480; position += 128) {
            state_ = (3 * state_ + 20) % 256;
            block[position] += static_cast<float>(state_ % 3 - 1) * step;
        }
    }

    int32_t state() const { return state_; }

private:
    int32_t state_ = 2;
};

} // namespace quelora::denoise
