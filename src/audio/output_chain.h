// A listening participant's output side: mixes its listener engine, runs the
// speaker stage, the peak limiter and the master gain, reduces to the output
// channel count and rate, and converts to the host's sample type.
//
// Everything is allocated in the constructor; process() allocates nothing
// and must be called under the participant's output mutex (the caller's).
#pragma once

#include "api/controls.h"
#include "audio/listener_engine.h"
#include "audio/output_stages.h"
#include "audio/peak_limiter.h"
#include "audio/polyphase_resampler.h"
#include "audio/processing_rate.h"
#include "audio/sample_conversion.h"

#include <cstdint>
#include <memory>
#include <optional>

namespace quelora {

// The mono output downmix, deliberately 1/sqrt(2) per channel (the input
// side's stereo downmix uses 0.5).
inline constexpr float mono_downmix_gain = 0.70710677f;

class output_chain {
public:
    // processing_frames: N at 48000 Hz; the rest is the library's output format.
    output_chain(int32_t processing_frames, int32_t output_rate, int32_t output_frames,
                 int32_t output_channels, bool interleaved);

    // Mixes, processes and converts one host block. Returns false (the host
    // block is then zeros) when no source had a block; the caller reports it.
    bool process(listener_engine& engine, const control_values& controls, sample_type type,
                 void* samples);

    // The loudspeaker (crosstalk) stage; none is attached until its filter bank
    // exists (docs/status.md), and QEL_DEVICE_SPEAKER then skips the stage.
    void attach_speaker_processor(std::unique_ptr<speaker_processor> processor);

    int32_t output_frames() const { return output_frames_; }
    int32_t output_channels() const { return output_channels_; }

private:
    void write_silence(sample_type type, void* samples) const;

    int32_t processing_frames_;
    int32_t output_frames_;
    int32_t output_channels_;
    bool interleaved_;
    std::unique_ptr<float[]> mix_; // 2 x N planar
    std::optional<polyphase_resampler> resampler_;
    peak_limiter limiter_;
    std::unique_ptr<speaker_processor> speaker_;
};

} // namespace quelora
