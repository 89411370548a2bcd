// The calling contract of the output side's loudspeaker stage, which the
// output chain runs before the limiter for a listener on loudspeakers.
#pragma once

#include <cstdint>

namespace quelora {

class speaker_processor {
public:
    virtual ~speaker_processor() = default;
    // Crosstalk handling of a planar stereo block (2 x frames) in place.
    virtual void process(float* mix, int32_t frames, int32_t half_span_angle) = 0;
};

} // namespace quelora
