// The speech model of a participant's input: the light recurrent suppressor
// (rnn_suppressor) behind a wrapper that re-blocks the host's frames into the
// suppressor's 480-sample hops and reports, per call, the largest voice
// probability of the hops it completed. With QEL_CONTROL_ANC_HIGH off its
// output is the participant's noise-cancelled signal; otherwise it runs on
// the DFN canceller's output only for the probability.
//
// Frames of 480 and 960 samples are processed directly (one or two hops, no
// added delay); any other length goes through FIFOs, so the output then lags
// the input by up to one hop and, until the first hop completes, the output
// buffer keeps what it held. Created with its participant; used only by the
// thread that feeds the participant's input; process() never allocates,
// locks or fails. There is no reset: the recurrent state carries on.
#pragma once

#include "denoise/rnn_model.h"
#include "denoise/rnn_suppressor.h"
#include "dsp/float_ring_buffer.h"

#include <array>
#include <cstdint>

namespace quelora::denoise {

class voice_activity_detector {
public:
    static constexpr int32_t hop = 480;

    // frame_length >= 1 samples per channel per call; channels 1 or 2. The
    // model must outlive the detector.
    voice_activity_detector(uint32_t frame_length, uint32_t channels,
                            const rnn_model& model = builtin_rnn_model());

    // input: frame_length samples of the first channel (for two channels,
    // planar, the second channel follows at input + frame_length); output
    // receives frame_length processed samples, and for two channels its
    // second half a copy of them; output may be input. dry_output, when not
    // null, receives the unprocessed input (delayed by frame_length samples
    // for frames of 512 and 1024). For two channels the first channel of the
    // input is copied over its second. Returns the largest voice probability
    // in [0, 1] of the hops completed during the call, or 0 for none.
    float process(float* input, float* output, float* dry_output);

    uint32_t frame_length() const { return frame_length_; }
    uint32_t channels() const { return channels_; }

private:
    // Runs the suppressor on `samples` hops of 480 from input to output,
    // returning the largest probability.
    float process_hops(const float* input, float* output, int32_t samples);

    rnn_suppressor state_;
    uint32_t frame_length_;
    uint32_t channels_;
    std::array<float, hop> block_{};
    std::array<float, hop> scaled_{};
    dsp::float_ring_buffer input_fifo_;
    dsp::float_ring_buffer output_fifo_;
    dsp::float_ring_buffer dry_fifo_;
};

} // namespace quelora::denoise
