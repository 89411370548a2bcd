#include "denoise/noise_canceller.h"

#include "denoise/dfn_constants.h"
#include "dsp/vector_ops.h"

#include <quelora/qel_logger.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

namespace quelora::denoise {

namespace {

constexpr int32_t block = static_cast<int32_t>(dfn_block_length); // 480
constexpr int32_t hop = static_cast<int32_t>(dfn_hop);            // 240

// The base capacities (2048, 2048, 4096) hold every frame length a participant
// can have (at most 1024); larger ones, which only a direct user of this class
// could ask for, get rings large enough that nothing is lost.
int32_t capacity(int32_t part_capacity, int64_t needed) {
    return static_cast<int32_t>(std::max<int64_t>(part_capacity, needed));
}

int32_t dry_delay(uint32_t frame_length) {
    const auto delay = static_cast<int32_t>(dfn_dry_delay);
    return frame_length == 512 || frame_length == 1024
               ? delay + static_cast<int32_t>(frame_length)
               : delay;
}

} // namespace

noise_canceller::noise_canceller(uint32_t sample_rate, uint32_t channels,
                                 uint32_t frame_length, const float* table,
                                 const matvec_kernels& kernels)
    : sample_rate_(sample_rate), channels_(channels), frame_length_(frame_length),
      model_(std::make_unique<dfn_model>(table, kernels)),
      input_fifo_(1, capacity(2048, int64_t{frame_length} + block)),
      output_fifo_(1, capacity(2048, int64_t{frame_length} + 2 * block)),
      dry_fifo_(1, capacity(4096, int64_t{dry_delay(frame_length)} + 2 * int64_t{frame_length})) {
    fill_dry_line();
    qel_logger::get_logger().log(QEL_LOG_INFO, "Noise cancellation model: DFN (created)");
}

noise_canceller::~noise_canceller() {
    qel_logger::get_logger().log(QEL_LOG_INFO, "Noise cancellation model: DFN (destroyed)");
}

// The dry delay line starts full of silence.
void noise_canceller::fill_dry_line() {
    const std::array<float, 256> silence{};
    for (int32_t left = dry_delay(frame_length_); left > 0;) {
        const int32_t n = std::min<int32_t>(left, silence.size());
        dry_fifo_.write(silence.data(), 0, n);
        left -= n;
    }
}

// window_in_, out_a_, out_b_ and block_ are scratch: every block writes them
// whole before reading them.
void noise_canceller::reset() {
    frame_count_ = 0;
    model_->reset();
    overlap_.fill(0.0f);
    previous_input_.fill(0.0f);
    input_fifo_.clear();
    output_fifo_.clear();
    dry_fifo_.clear();
    fill_dry_line();
    dither_ = block_dither();
}

void noise_canceller::process(const float* input, float* output, float* dry_output) {
    const auto n = static_cast<int32_t>(frame_length_);
    if (n == block) {
        // No re-blocking: the block routine runs on a copy, so the dither
        // touches neither the host's input nor, in place, the dry signal.
        dsp::copy(input, block_.data(), block);
        dry_fifo_.write(input, 0, block);
        dry_fifo_.read(dry_output, 0, block);
        process_block(block_.data(), output);
    } else {
        input_fifo_.write(input, 0, n);
        dry_fifo_.write(input, 0, n);
        dry_fifo_.read(dry_output, 0, n);
        while (input_fifo_.frames_available() >= block) {
            input_fifo_.read(block_.data(), 0, block);
            process_block(block_.data(), block_.data());
            output_fifo_.write(block_.data(), 0, block);
        }
        // Too little buffered takes nothing: the output keeps what it held (the
        // unprocessed input when the caller runs in place).
        output_fifo_.read(output, 0, n);
    }
    if (channels_ == 2) dsp::copy(output, output + n, n);
}

void noise_canceller::process_block(float* samples, float* output) {
    // A NaN or infinity would stay in the recurrent states and the
    // normalisation means for good, silencing the participant until it is
    // re-created; such samples enter the network as silence.
    for (int32_t i = 0; i < block; ++i)
        if (!std::isfinite(samples[i])) samples[i] = 0.0f;

    dither_.apply(samples);

    // The block's two hops; those of the first block (counts 1 and 2) are
    // muted. The count saturates: wrapping (after some 124 days of input)
    // would be undefined and would mute again.
    const auto count_hop = [this] {
        frame_count_ += frame_count_ < std::numeric_limits<int32_t>::max() ? 1 : 0;
    };
    std::memcpy(window_in_.data(), previous_input_.data() + hop, hop * sizeof(float));
    std::memcpy(window_in_.data() + hop, samples, hop * sizeof(float));
    // The model runs both hops at once (dfn_model::process_block), which
    // equals two process_hop calls in turn.
    model_->process_block(window_in_.data(), samples, out_a_.data(), out_b_.data());
    count_hop();
    if (frame_count_ < 3) out_a_.fill(0.0f);
    count_hop();
    if (frame_count_ < 3) out_b_.fill(0.0f);

    // The next block's first window reads this block's input: keep it before
    // the overlap-add, which may overwrite `samples`.
    std::memcpy(previous_input_.data(), samples, block * sizeof(float));

    // Overlap-add and clip.
    for (int32_t i = 0; i < hop; ++i) {
        output[i] = std::clamp(overlap_[i] + out_a_[i], -1.0f, 1.0f);
        output[hop + i] = std::clamp(out_a_[hop + i] + out_b_[i], -1.0f, 1.0f);
        overlap_[i] = out_b_[hop + i];
    }
}

} // namespace quelora::denoise
