#include "conference/participant_stages.h"

#include "audio/auto_eq.h"
#include "audio/automatic_gain_control.h"
#include "audio/processing_rate.h"
#include "audio/soft_limiter.h"
#include "denoise/noise_canceller.h"
#include "denoise/voice_activity_detector.h"

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
    void reset() override { canceller_.reset(); }

private:
    denoise::noise_canceller canceller_;
};

// The light recurrent suppressor, which also yields the voice probability.
class suppressor_stage final : public speech_model {
public:
    suppressor_stage(int32_t channels, int32_t processing_frames)
        : detector_(static_cast<uint32_t>(processing_frames), static_cast<uint32_t>(channels)) {}

    float process(float* input, float* output, float* dry_copy) override {
        return detector_.process(input, output, dry_copy);
    }
    int32_t hop_length() const override { return denoise::voice_activity_detector::hop; }

private:
    denoise::voice_activity_detector detector_;
};

} // namespace

input_stage_set make_input_stages(int32_t channels, int32_t processing_frames) {
    input_stage_set stages;
    stages.speech = std::make_unique<suppressor_stage>(channels, processing_frames);
    stages.noise_canceller = std::make_unique<dfn_stage>(channels, processing_frames);
    stages.gain_control = std::make_unique<automatic_gain_control>(channels, processing_frames);
    stages.auto_eq = std::make_unique<auto_eq>(channels, processing_frames);
    stages.shaping = std::make_unique<soft_limiter>(channels, processing_frames);
    return stages;
}

} // namespace quelora
