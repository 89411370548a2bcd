// The calling contracts of the output side's filter-driven stages: the spatial
// renderer and the speaker processor. Both need filter banks that are not
// generated yet (docs/status.md); the listener engine and the output chain call
// them through these interfaces, and skip them while none is attached.
#pragma once

#include "api/controls.h"

#include <cstdint>

namespace quelora {

struct source_direction;

// What the renderer sees of one source slot in one mix.
struct rendered_source {
    int32_t source_id;
    int32_t channels;
    source_direction* direction; // the renderer clears its dirty (moved) flag
    const float* left;           // the popped block, N samples per channel
    const float* right;          // null for a mono source
    bool received;               // whether the slot got a block in this mix
};

class spatial_renderer {
public:
    virtual ~spatial_renderer() = default;
    // Renders every source into the planar stereo mix (2 x N, already
    // zeroed), reading the listener's 3D controls from `listener`.
    virtual void render(const rendered_source* sources, int32_t count,
                        const control_values& listener, float* mix) = 0;
    virtual void reset() = 0;
};

class speaker_processor {
public:
    virtual ~speaker_processor() = default;
    // Crosstalk handling of a planar stereo block (2 x frames) in place.
    virtual void process(float* mix, int32_t frames, int32_t half_span_angle) = 0;
};

} // namespace quelora
