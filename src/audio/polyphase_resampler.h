// The fixed-ratio polyphase resampler of the input and output sides (filter
// length 254, roll-off 0.95, Kaiser beta 9.0, history 128, output
// normalisation 0.98). Everything is allocated at construction; process()
// never allocates. Not thread-safe. docs/resampler.md has the measurements.
//
// Design. L / M = output_rate / input_rate reduced by their gcd; time is
// counted in input samples. Each channel's state buffer (input_frames + 258
// floats) holds 2 x 128 history samples, then the new block, then 2 spare
// floats. Output sample j of a call sits at buffer position
// t_j = 128 + j * M / L and is the dot product of the 254 input samples k
// with t_j - 127 < k <= t_j + 127 and the taps of phase p = (j * M) mod L,
// h(tau) = (2 fc / input_rate) sinc(2 fc tau / input_rate) kaiser(tau / 127, 9)
// at tau = k - t_j, fc = 0.95 x min(input_rate, output_rate) / 2. The taps
// are computed in double and each phase is scaled so that its taps sum to
// 0.98: the DC gain is 0.98 in both directions, with no ripple between
// phases. After the block the last 2 x 128 samples move to the front and the
// time restarts at 128.0, so blocks join seamlessly and the output lags the
// input by exactly 128 input samples (8 ms at 16 kHz, 2.667 ms at 48 kHz).
#pragma once

#include <cstdint>
#include <vector>

namespace quelora {

class polyphase_resampler {
public:
    static constexpr int32_t filter_length = 254;
    static constexpr float roll_off = 0.95f;
    static constexpr float kaiser_beta = 9.0f;
    static constexpr int32_t history = 128;
    static constexpr float output_normalisation = 0.98f;

    // Rates in Hz (8000, 16000, 24000, 32000, 48000 in this library; any pair
    // with a rational ratio works). output_frames is the block length at
    // output_rate; input_frames = (input_rate x output_frames) / output_rate,
    // truncated. Throws std::invalid_argument for non-positive arguments or a
    // block length that does not give a whole number of input frames.
    polyphase_resampler(int32_t input_rate, int32_t output_rate, int32_t channels,
                        int32_t output_frames);

    int32_t input_frames() const { return input_frames_; }
    int32_t output_frames() const { return output_frames_; }
    int32_t channels() const { return channels_; }

    // Resamples one block of one channel: reads input_frames() samples from
    // `input`, writes output_frames() samples to `output`. input and output
    // may be the same pointer or overlap in any way: the block is copied into
    // the state before any output is written.
    void process(int32_t channel, const float* input, float* output);

    // Clears the histories (silence before the next block).
    void reset();

private:
    // Taps per phase in the table: filter_length padded with two zero taps to
    // a multiple of 8, so the dot product runs in whole vector steps. For the
    // last output sample of a block the zero taps land on the last history
    // sample and the first spare float, which stays 0.
    static constexpr int32_t taps_stride = 256;

    void design_filters();

    int32_t input_rate_;
    int32_t output_rate_;
    int32_t channels_;
    int32_t input_frames_;
    int32_t output_frames_;
    int32_t interpolation_;             // L = output_rate / gcd
    int32_t decimation_;                // M = input_rate / gcd
    int32_t state_length_;              // input_frames + 258 floats per channel
    std::vector<float> taps_;           // L phases x taps_stride, phase p at fraction p / L
    std::vector<float> state_;          // channels x state_length_: 2 x 128 history, block, 2 spare
    std::vector<int32_t> output_start_; // per output sample: first state index it reads
    std::vector<int32_t> output_taps_;  // per output sample: offset of its phase in taps_
};

} // namespace quelora
