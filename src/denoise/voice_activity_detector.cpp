#include "denoise/voice_activity_detector.h"

#include "dsp/vector_ops.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace quelora::denoise {

namespace {

// The suppressor works in the 16-bit sample range. The way back multiplies by
// this rounded constant rather than dividing by 32768; hosts compare levels
// against earlier releases that did the same.
constexpr float to_sample_range = 32768.0f;
constexpr float from_sample_range = 3.0518e-05f;

// Far outside any real signal (+30 dB over full scale) yet small enough that
// the suppressor's energies stay finite: a NaN, an infinity or a wild value
// would otherwise stay in its recurrent state for good.
constexpr float sample_limit = 1.0e6f;

// The FIFOs hold 4096 samples, enough for every frame length a participant
// can have; a longer frame, which only a direct user of this class could ask
// for, gets rings large enough that nothing is lost.
int32_t capacity(int64_t needed) { return static_cast<int32_t>(std::max<int64_t>(4096, needed)); }

} // namespace

voice_activity_detector::voice_activity_detector(uint32_t frame_length, uint32_t channels,
                                                 const rnn_model& model)
    : state_(model), frame_length_(frame_length), channels_(channels),
      input_fifo_(1, capacity(int64_t{frame_length} + hop)),
      output_fifo_(1, capacity(int64_t{frame_length} + hop)),
      dry_fifo_(1, capacity(2 * int64_t{frame_length})) {
    if (frame_length < 1 || frame_length > (1u << 24)) {
        throw std::invalid_argument("voice_activity_detector: frame length out of range");
    }
    if (channels != 1 && channels != 2) {
        throw std::invalid_argument("voice_activity_detector: channels must be 1 or 2");
    }
    // Frames of 512 and 1024 get a dry line one frame long, which lines the
    // dry signal up with the FIFO-delayed output in the noise-cancellation mix.
    if (frame_length == 512 || frame_length == 1024) {
        const std::array<float, hop> silence{};
        for (auto left = static_cast<int32_t>(frame_length); left > 0; left -= hop) {
            dry_fifo_.write(silence.data(), 0, std::min(left, hop));
        }
    }
}

float voice_activity_detector::process_hops(const float* input, float* output, int32_t samples) {
    float probability = 0.0f;
    for (int32_t start = 0; start + hop <= samples; start += hop) {
        for (int32_t i = 0; i < hop; ++i) {
            const float x = input[start + i] * to_sample_range;
            scaled_[static_cast<size_t>(i)] =
                std::isfinite(x) ? std::clamp(x, -sample_limit, sample_limit) : 0.0f;
        }
        const float p = state_.process_frame(scaled_.data(), output + start);
        dsp::scale(output + start, from_sample_range, hop);
        probability = std::max(probability, p);
    }
    return probability;
}

float voice_activity_detector::process(float* input, float* output, float* dry_output) {
    const auto n = static_cast<int32_t>(frame_length_);
    float probability = 0.0f;
    if (n == hop || n == 2 * hop) {
        if (dry_output != nullptr) dsp::copy(input, dry_output, n);
        probability = process_hops(input, output, n);
    } else {
        input_fifo_.write(input, 0, n);
        if (dry_output != nullptr) {
            dry_fifo_.write(input, 0, n);
            dry_fifo_.read(dry_output, 0, n);
        }
        while (input_fifo_.frames_available() >= hop) {
            input_fifo_.read(block_.data(), 0, hop);
            probability = std::max(probability, process_hops(block_.data(), block_.data(), hop));
            output_fifo_.write(block_.data(), 0, hop);
        }
        // Too little buffered takes nothing: the output keeps what it held.
        output_fifo_.read(output, 0, n);
    }
    if (channels_ == 2) {
        dsp::copy(output, output + n, n);
        if (input != output) dsp::copy(input, input + n, n);
    }
    return probability;
}

} // namespace quelora::denoise
