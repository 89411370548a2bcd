// The per-participant DFN noise canceller: re-blocks host
// frames to 480-sample blocks, frames each block as two hops of the model,
// overlap-adds, dithers and clips, and returns the input delayed to line up
// with the cleaned signal (1200 samples; + frame_length for 512 and 1024).
// Created and destroyed with its participant, logging a line at each; used
// only by the thread that feeds the participant's input; process() never
// allocates, locks or fails.
#pragma once

#include "denoise/block_dither.h"
#include "denoise/dfn_model.h"
#include "denoise/dfn_weights.h"
#include "dsp/float_ring_buffer.h"

#include <array>
#include <cstdint>
#include <memory>

namespace quelora::denoise {

class noise_canceller {
public:
    // sample_rate is stored only (the model always runs at 48000 Hz); channels
    // 1 or 2; frame_length >= 1 samples per channel per call. table defaults to
    // the compiled-in weights, kernels to the fastest this processor runs.
    noise_canceller(uint32_t sample_rate, uint32_t channels, uint32_t frame_length,
                    const float* table = dfn_default_weights(),
                    const matvec_kernels& kernels = selected_matvec_kernels());
    ~noise_canceller();
    noise_canceller(const noise_canceller&) = delete;
    noise_canceller& operator=(const noise_canceller&) = delete;

    // `input` is frame_length mono samples; output receives frame_length
    // samples per channel (planar; input and output may be the same buffer);
    // dry_output receives frame_length samples of the delayed unprocessed
    // input.
    void process(const float* input, float* output, float* dry_output);

    // Returns the canceller to its state right after construction: the
    // model's recurrent states, normalisation means and histories, the
    // overlap, the dither sequence, the muted first block, and the FIFOs with
    // the dry line holding silence again. For the input chain when the
    // canceller runs again after a pause, so that no audio from before the
    // pause is replayed. Like process(), never allocates, locks or logs.
    void reset();

    uint32_t sample_rate() const { return sample_rate_; }
    uint32_t frame_length() const { return frame_length_; }
    // Hops processed, saturating at INT32_MAX (the count only has to tell
    // the first block's two hops, which are muted, from the rest).
    int32_t frame_count() const { return frame_count_; }
    const dfn_model& model() const { return *model_; }

private:
    // The block routine: dithers `block` in place, then writes 480 samples
    // to output (which may be block).
    void process_block(float* block, float* output);
    // Writes the dry delay line's silence into the (empty) dry FIFO.
    void fill_dry_line();

    int32_t frame_count_ = 0;
    uint32_t sample_rate_;
    uint32_t channels_;
    uint32_t frame_length_;
    std::unique_ptr<dfn_model> model_;
    std::array<float, 480> window_in_{};
    std::array<float, 240> overlap_{};
    std::array<float, 480> out_a_{};
    std::array<float, 480> out_b_{};
    std::array<float, 480> previous_input_{};
    dsp::float_ring_buffer input_fifo_;
    dsp::float_ring_buffer output_fifo_;
    dsp::float_ring_buffer dry_fifo_;
    std::array<float, 480> block_{};
    block_dither dither_;
};

} // namespace quelora::denoise
