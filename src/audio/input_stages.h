// The calling contracts of the input chain's later stages: the speech model,
// the high-quality noise canceller, automatic gain control, auto EQ and the
// final shaping stage. The input chain calls them through these interfaces;
// every regular and source-only participant holds one of each
// (conference/participant_stages.cpp), and a null stage is skipped.
// Every process call runs on the participant's input thread under its input
// mutex, on preallocated buffers: implementations must not allocate or lock.
#pragma once

#include <cstdint>

namespace quelora {

// The speech model (voice activity detector): processes the block's first
// channel from input into output (they may be the same buffer); when dry_copy
// is not null, first copies the unprocessed block there. For two channels it
// leaves the processed mono in both halves of the output and copies the
// input's first channel over its second. Returns the speech value of the
// block (largest over its hops).
class speech_model {
public:
    virtual ~speech_model() = default;
    virtual float process(float* input, float* output, float* dry_copy) = 0;
    // Samples per hop (480 at 48000 Hz); the hop rate auto EQ receives is
    // 48000 / hop_length, truncated.
    virtual int32_t hop_length() const = 0;
};

// The noise canceller of ANC high: denoises one block (in place allowed)
// and writes the time-aligned dry signal to dry_output. reset() returns it to
// its state at creation; the chain calls it when the canceller runs again
// after calls without it, so that no audio from before the pause is replayed.
class noise_canceller_stage {
public:
    virtual ~noise_canceller_stage() = default;
    virtual void process(const float* input, float* output, float* dry_output) = 0;
    virtual void reset() = 0;
};

// Automatic gain control: levels the first channel of the block in place.
class gain_control_stage {
public:
    virtual ~gain_control_stage() = default;
    virtual void process(float* block, float speech_value) = 0;
};

// Auto EQ: a 48000 Hz equaliser on the first channel.
class auto_eq_stage {
public:
    virtual ~auto_eq_stage() = default;
    virtual void process(const float* input, float* output, float speech_value,
                         int32_t hops_per_second) = 0;
};

// Final shaping: in-place shaping of the first channel after AGC / auto EQ.
class shaping_stage {
public:
    virtual ~shaping_stage() = default;
    virtual void process(float* block) = 0;
};

} // namespace quelora
