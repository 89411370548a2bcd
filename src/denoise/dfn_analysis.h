// The analysis half of the DFN noise canceller (docs/dfn.md section 2): per
// 480-sample hop, the windowed spectrum, the normalised ERB and complex
// features with their 3-frame histories (the encoders' inputs), and the last 8
// spectra that the synthesis (docs/dfn.md section 4) reads. Everything is
// allocated in the constructor; process never allocates, locks or logs.
#pragma once

#include "denoise/dfn_constants.h"
#include "dsp/real_fft.h"

#include <complex>
#include <cstdint>
#include <span>
#include <vector>

namespace quelora::denoise {

class dfn_analysis {
public:
    dfn_analysis();

    // hop: 480 samples (the wrapper's window_in or block).
    void process(const float* hop);
    // Back to the state at construction: the normalisation means at their
    // starting values, the feature histories and spectra zero. Never allocates.
    void reset();

    // [1][3][32]: time t-2, t-1, t (oldest first), band fastest.
    const float* erb_features() const { return erb_history_.data(); }
    // [2][3][96]: the real plane, then the imaginary plane; each oldest first.
    const float* complex_features() const { return complex_history_.data(); }
    // The 241 bins of hop t - hops_back, 0 <= hops_back < dfn_spectrum_history
    // (all zeros for hops before the first).
    const std::complex<float>* spectrum(int hops_back) const;

    const uint16_t* band_widths() const { return band_widths_.data(); }
    // The Vorbis window (480 values), shared with the synthesis.
    const float* window() const { return window_.data(); }

    // For tests.
    float window_norm() const { return window_norm_; }
    float alpha() const { return alpha_; }
    const float* erb_state() const { return erb_state_.data(); }
    const float* unit_state() const { return unit_state_.data(); }

private:
    dsp::real_fft fft_;
    std::vector<float> window_;
    float window_norm_;
    std::vector<uint16_t> band_widths_;
    float alpha_;
    float one_minus_alpha_;
    std::vector<float> erb_state_;
    std::vector<float> unit_state_;
    std::vector<float> erb_history_;
    std::vector<float> complex_history_;
    std::vector<float> frame_; // the windowed hop
    // dfn_spectrum_history spectra of dfn_bins; newest_ is the slot of hop t.
    std::vector<std::complex<float>> spectra_;
    int newest_;
};

// The analysis's building blocks, exposed so the tests can check each one.
namespace dfn_design {
// w[n] = sin(pi/2 sin^2(pi (n + 0.5) / size)), evaluated in double.
std::vector<float> vorbis_window(int size);
// hop / size / sum w[n]^2, with the window in double: for 480 and 240 the
// sum is 240 and the factor 1/480 exactly as docs/dfn.md states (summing the
// float window's squares gives 240.0000012 and a factor one float ulp lower).
float window_norm(int size, int hop);
// The ERB band widths (sum: size / 2 + 1).
std::vector<uint16_t> erb_band_widths(int sample_rate, int size, int bands, int min_bins);
// e^(-hop / sample_rate) rounded to the fewest decimals, from 3, giving < 1.
float normalisation_alpha(int sample_rate, int hop);
// count values from first to last, evenly spaced (first + (last - first) i / (count - 1)).
std::vector<float> linear_spacing(double first, double last, int count);
// The same into values (values.size() of them), without allocating.
void fill_linear_spacing(double first, double last, std::span<float> values);
} // namespace dfn_design

} // namespace quelora::denoise
