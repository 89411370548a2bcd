// The loudspeaker crosstalk filters: for a listener between two loudspeakers
// at +-h degrees (h = 1 .. 90), the 2 x 2 filters that feed the binaural mix
// to the loudspeakers so that, at the listener's ears, the left ear hears the
// left channel and the right ear the right one (docs/loudspeakers.md).
//
// Every entry is a Tikhonov-regularised inverse of the 2 x 2 loudspeaker-to-
// ear matrix H(f), taken from the measured set's horizontal row:
//     C(f) = H^H (H H^H + beta(f) I)^-1 e^(-j 2 pi f D / 48000),
// computed on a 4096-point grid, brought back to time, windowed to 2048 taps
// and scaled to pass uncorrelated in-band noise at unity power gain. Built
// once at initialisation, in about 20 ms; read-only afterwards, so any number
// of processors may share one bank across threads.
#pragma once

#include <complex>
#include <cstdint>
#include <vector>

namespace quelora {

class measured_hrtf_set;

class crosstalk_filter_bank {
public:
    static constexpr int32_t taps = 2048;
    static constexpr int32_t partition_frames = 1024; // the processor's block
    static constexpr int32_t partitions = taps / partition_frames;
    static constexpr int32_t transform_size = 2 * partition_frames;
    static constexpr int32_t bins = transform_size / 2 + 1;
    static constexpr int32_t max_half_span = 90;
    // The modelling delay D in samples (16 ms): the ears hear the mix this
    // late. The regularised inverse anticipates by a few hundred samples; with
    // half this room the truncation cost 25 dB of separation at 315 Hz.
    static constexpr int32_t modelling_delay = 768;

    // Input channel to loudspeaker.
    enum path : int32_t { left_to_left, left_to_right, right_to_left, right_to_right };
    static constexpr int32_t path_count = 4;

    // Throws std::invalid_argument when the set has no horizontal row of at
    // least two directions to take the loudspeakers from.
    explicit crosstalk_filter_bank(const measured_hrtf_set& measured);

    // The spectra of one path of entry h (1 .. 90): `partitions` spectra of
    // `bins` bins back to back, partition p at p x bins. Each is the 2048-point
    // real transform of taps [1024 p, 1024 p + 1024) zero-padded, scaled by
    // 1 / 2048, so that the unnormalised inverse of (input spectrum x this) is
    // the convolution itself.
    const std::complex<float>* spectra(int32_t half_span, path p) const;

    // Writes the four time responses of entry h (1 .. 90), `taps` samples
    // each, in path order.
    void write_time_responses(int32_t half_span, float* out) const;

private:
    std::vector<std::complex<float>> spectra_; // 90 x 4 x partitions x bins
    std::vector<float> taps_;                  // 90 x 4 x taps
};

} // namespace quelora
