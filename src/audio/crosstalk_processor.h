// The loudspeaker crosstalk stage of one listener: the planar stereo mix
// through the 2 x 2 filters of the crosstalk_filter_bank entry for the
// listener's half span angle (0 uses the 1-degree filters, the narrowest
// pair there is), in place, as one exact linear convolution.
//
// The filters run in blocks of 1024 frames (one uniformly partitioned
// convolution, 2 partitions of 1024 taps, 2048-point transforms), so the mix
// is re-blocked through an input ring and an output ring. The output ring
// starts holding latency() frames of silence: the fewest that keep it from
// ever running dry when N does not divide 1024 (a stage that began reading at
// its first full block would, for N = 480, find 448 frames at the 17th call
// and slip), so the delay is constant from the first call. The ears hear the
// mix latency() + the bank's modelling delay (768) samples later.
// Allocation-free after construction; not thread-safe.
#pragma once

#include "audio/crosstalk_filter_bank.h"
#include "audio/output_stages.h"
#include "dsp/float_ring_buffer.h"
#include "dsp/real_fft.h"

#include <complex>
#include <cstdint>
#include <vector>

namespace quelora {

class crosstalk_processor final : public speaker_processor {
public:
    // frames: the block length N every process() call gives, 1 .. 1024.
    // The bank must outlive the processor.
    crosstalk_processor(const crosstalk_filter_bank& bank, int32_t frames);

    // Re-blocking delay in samples: 1024 - gcd(N, 1024) (992 for N = 480,
    // 512 for 512, 960 for 960, 0 for 1024).
    int32_t latency() const { return latency_; }

    // mix: 2 x frames, planar; frames <= N. half_span_angle is clamped to
    // 1 .. 90, so 0 gets the 1-degree filters.
    void process(float* mix, int32_t frames, int32_t half_span_angle) override;

private:
    static constexpr int32_t block = crosstalk_filter_bank::partition_frames;
    static constexpr int32_t bins = crosstalk_filter_bank::bins;
    static constexpr int32_t partitions = crosstalk_filter_bank::partitions;

    void process_block(int32_t half_span);

    const crosstalk_filter_bank& bank_;
    int32_t frames_;
    int32_t latency_;
    dsp::float_ring_buffer input_;
    dsp::float_ring_buffer output_;
    dsp::real_fft fft_;
    std::vector<float> block_;                  // 2 x block, planar
    std::vector<float> time_;                   // one transform
    std::vector<float> overlap_;                // 2 x block: the previous inverse's second half
    std::vector<std::complex<float>> spectrum_; // 2 x bins: this block's input spectra
    std::vector<std::complex<float>> pending_;  // 2 outputs x partitions x bins
    int32_t ring_position_ = 0;
    // The DC blocker's state per channel: last input, last output.
    float last_in_[2] = {0.0f, 0.0f};
    float last_out_[2] = {0.0f, 0.0f};
};

} // namespace quelora
