// Auto EQ: a gentle, slowly adapting tonal correction of speech towards the
// long-term average speech spectrum (Byrne et al. 1994). Five band-pass
// filters measure the input's spectral balance while the speech value is
// high; five peaking filters at the same centres move the balance towards the
// target's, by at most 6 dB per band, over seconds; while the speech value is
// low nothing changes. docs/levelling.md gives the design. 48000 Hz only;
// allocation-free after construction; not thread-safe.
#pragma once

#include "audio/input_stages.h"

#include <array>
#include <complex>
#include <cstdint>

namespace quelora {

class auto_eq final : public auto_eq_stage {
public:
    static constexpr int32_t band_count = 5;
    static constexpr std::array<double, band_count> centres_hz = {150.0, 400.0, 1000.0, 2500.0,
                                                                  6000.0};
    static constexpr double max_correction_db = 6.0;
    static constexpr float speech_threshold = 0.6f; // below it nothing adapts
    static constexpr double measure_seconds = 1.0;  // time constant of the band levels
    static constexpr double adapt_seconds = 2.0;    // time constant of the corrections

    // channels: 1 or 2; processing_frames: N >= 1. Throws
    // std::invalid_argument otherwise.
    auto_eq(int32_t channels, int32_t processing_frames);

    // Equalises channel 1 of the planar block from input to output (the same
    // buffer allowed); with two channels, copies it over output channel 2.
    // The time constants run on N / 48000 s per call, which is what
    // hops_per_second describes too.
    void process(const float* input, float* output, float speech_value,
                 int32_t hops_per_second) override;

    // The correction aimed at, in dB at band b's centre.
    double correction_db(int32_t band) const { return desired_db_[band]; }

    // The long-term average speech spectrum as a power density in dB per Hz
    // (arbitrary reference), interpolated between its third-octave bands.
    static double speech_spectrum_db(double hz);

    // A second-order section, a0 = 1, and its direct form I state.
    struct biquad {
        double b0 = 1.0, b1 = 0.0, b2 = 0.0, a1 = 0.0, a2 = 0.0;
    };
    struct biquad_state {
        double x1 = 0.0, x2 = 0.0, y1 = 0.0, y2 = 0.0;
    };

private:
    void measure(const float* input, bool speech);
    void adapt();
    void equalise(float* output);
    double response_db(const biquad& filter, int32_t band) const;

    int32_t channels_;
    int32_t frames_;
    double measure_rate_; // one-pole coefficients per call
    double adapt_rate_;
    std::array<std::complex<double>, band_count> centre_z_; // e^{-j w} at each centre
    std::array<double, band_count> target_db_{};
    std::array<biquad, band_count> analysis_{}; // run twice in cascade per band
    std::array<std::array<biquad_state, 2>, band_count> analysis_state_{};
    std::array<double, band_count> energy_{};
    std::array<double, band_count> desired_db_{};
    std::array<double, band_count> filter_gain_db_{};
    std::array<biquad, band_count> eq_{};
    std::array<biquad_state, band_count> eq_state_{};
};

} // namespace quelora
