#include "conference/participant_stages.h"

#include "audio/processing_rate.h"
#include "denoise/noise_canceller.h"

#include <memory>

namespace quelora {

namespace {

// The DFN noise canceller behind the input chain's noise_canceller_stage.
class dfn_stage final : public noise_canceller_stage {
public:
    dfn_stage(int32_t channels, int32_t processing_frames)
        : canceller_(static_cast<uint32_t>(processing_rate), static_cast<uint32_t>(channels),
                     static_cast<uint32_t>(processing_frames)) {}

    void process(const float* input, float* output, float* dry_output) override {
        canceller_.process(input, output, dry_output);
    }

private:
    denoise::noise_canceller canceller_;
};

} // namespace

input_stage_set make_input_stages(int32_t channels, int32_t processing_frames) {
    input_stage_set stages;
    stages.noise_canceller = std::make_unique<dfn_stage>(channels, processing_frames);
    return stages;
}

} // namespace quelora
