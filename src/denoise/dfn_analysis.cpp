// The DFN analysis (docs/dfn.md section 2).
// The feature formulas run in float32 in exactly the order that page gives, so
// the PyTorch twin (training/dfn/) can mirror them.
#include "denoise/dfn_analysis.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <numeric>

namespace quelora::denoise {

namespace dfn_design {

namespace {

double vorbis(int n, int size) {
    const double s = std::sin(std::numbers::pi * (n + 0.5) / size);
    return std::sin(std::numbers::pi / 2.0 * s * s);
}

} // namespace

std::vector<float> vorbis_window(int size) {
    std::vector<float> window(static_cast<size_t>(size));
    for (int n = 0; n < size; ++n) window[n] = static_cast<float>(vorbis(n, size));
    return window;
}

float window_norm(int size, int hop) {
    double sum_of_squares = 0.0;
    for (int n = 0; n < size; ++n) sum_of_squares += vorbis(n, size) * vorbis(n, size);
    return static_cast<float>(static_cast<double>(hop) / size / sum_of_squares);
}

std::vector<uint16_t> erb_band_widths(int sample_rate, int size, int bands, int min_bins) {
    const auto erb = [](double f) { return 9.265 * std::log(1.0 + f / (24.7 * 9.265)); };
    const auto erb_inverse = [](double e) { return (std::exp(e / 9.265) - 1.0) * 228.8455; };
    const double bin_width = static_cast<double>(sample_rate) / size;
    const double step = erb(sample_rate / 2.0) / bands;
    std::vector<int> widths(static_cast<size_t>(bands));
    int previous_edge = 0;
    int carried = 0; // bins lent to a too-narrow band, paid back by the next
    for (int i = 1; i <= bands; ++i) {
        const int edge = static_cast<int>(std::lround(erb_inverse(i * step) / bin_width));
        int width = edge - previous_edge - carried;
        if (width < min_bins) {
            carried = min_bins - width;
            width = min_bins;
        } else {
            carried = 0;
        }
        widths[i - 1] = width;
        previous_edge = edge;
    }
    widths.back() += 1; // size / 2 + 1 bins: the Nyquist bin joins the last band
    const int bins = size / 2 + 1;
    const int total = std::accumulate(widths.begin(), widths.end(), 0);
    if (total > bins) widths.back() -= total - bins;
    return std::vector<uint16_t>(widths.begin(), widths.end());
}

float normalisation_alpha(int sample_rate, int hop) {
    const double alpha = std::exp(-static_cast<double>(hop) / sample_rate);
    for (int places = 3;; ++places) {
        const double scale = std::pow(10.0, places);
        const double rounded = std::round(alpha * scale) / scale;
        if (rounded < 1.0) return static_cast<float>(rounded);
    }
}

std::vector<float> linear_spacing(double first, double last, int count) {
    std::vector<float> values(static_cast<size_t>(count));
    fill_linear_spacing(first, last, values);
    return values;
}

void fill_linear_spacing(double first, double last, std::span<float> values) {
    const auto count = static_cast<int>(values.size());
    for (int i = 0; i < count; ++i) {
        values[i] = static_cast<float>(first + (last - first) * i / (count - 1));
    }
}

} // namespace dfn_design

namespace {

// The normalisation means' starting values, spread over the bands and bins.
constexpr double erb_state_first = -60.0, erb_state_last = -90.0;
constexpr double unit_state_first = 0.001, unit_state_last = 0.0001;

} // namespace

dfn_analysis::dfn_analysis()
    : fft_(dfn_transform_size),
      window_(dfn_design::vorbis_window(dfn_transform_size)),
      window_norm_(dfn_design::window_norm(dfn_transform_size, dfn_hop)),
      band_widths_(dfn_design::erb_band_widths(dfn_sample_rate, dfn_transform_size,
                                               dfn_erb_bands, dfn_min_bins_per_band)),
      alpha_(dfn_design::normalisation_alpha(dfn_sample_rate, dfn_hop)),
      one_minus_alpha_(1.0f - alpha_),
      erb_state_(dfn_design::linear_spacing(erb_state_first, erb_state_last, dfn_erb_bands)),
      unit_state_(dfn_design::linear_spacing(unit_state_first, unit_state_last, dfn_df_bins)),
      erb_history_(static_cast<size_t>(dfn_feature_history * dfn_erb_bands), 0.0f),
      complex_history_(static_cast<size_t>(2 * dfn_feature_history * dfn_df_bins), 0.0f),
      frame_(static_cast<size_t>(dfn_transform_size), 0.0f),
      spectra_(static_cast<size_t>(dfn_spectrum_history * dfn_bins)),
      newest_(0) {}

// frame_ is scratch (process writes all of it before the transform), and
// the transform keeps nothing between calls.
void dfn_analysis::reset() {
    dfn_design::fill_linear_spacing(erb_state_first, erb_state_last, erb_state_);
    dfn_design::fill_linear_spacing(unit_state_first, unit_state_last, unit_state_);
    std::fill(erb_history_.begin(), erb_history_.end(), 0.0f);
    std::fill(complex_history_.begin(), complex_history_.end(), 0.0f);
    std::fill(spectra_.begin(), spectra_.end(), std::complex<float>());
    newest_ = 0;
}

const std::complex<float>* dfn_analysis::spectrum(int hops_back) const {
    const int slot = (newest_ - hops_back + dfn_spectrum_history) % dfn_spectrum_history;
    return spectra_.data() + slot * dfn_bins;
}

void dfn_analysis::process(const float* hop) {
    for (int n = 0; n < dfn_transform_size; ++n) frame_[n] = hop[n] * window_[n] * window_norm_;
    newest_ = (newest_ + 1) % dfn_spectrum_history;
    std::complex<float>* x = spectra_.data() + newest_ * dfn_bins;
    fft_.forward(frame_.data(), x);

    // ERB feature: the three frames move one place towards the front.
    constexpr int erb_kept = (dfn_feature_history - 1) * dfn_erb_bands;
    std::copy(erb_history_.begin() + dfn_erb_bands, erb_history_.end(), erb_history_.begin());
    float* erb_now = erb_history_.data() + erb_kept;
    int bin = 0;
    for (int b = 0; b < dfn_erb_bands; ++b) {
        const int width = band_widths_[b];
        float sum = 0.0f;
        for (int j = 0; j < width; ++j, ++bin) {
            sum += x[bin].real() * x[bin].real() + x[bin].imag() * x[bin].imag();
        }
        const float power = sum / static_cast<float>(width);
        const float db = 10.0f * std::log10(power + 1e-10f);
        erb_state_[b] = db * one_minus_alpha_ + erb_state_[b] * alpha_;
        erb_now[b] = (db - erb_state_[b]) / 40.0f;
    }

    // Complex feature of the lowest bins, real and imaginary planes.
    constexpr int plane = dfn_feature_history * dfn_df_bins;
    constexpr int complex_kept = (dfn_feature_history - 1) * dfn_df_bins;
    float* real_plane = complex_history_.data();
    float* imag_plane = real_plane + plane;
    std::copy(real_plane + dfn_df_bins, real_plane + plane, real_plane);
    std::copy(imag_plane + dfn_df_bins, imag_plane + plane, imag_plane);
    float* real_now = real_plane + complex_kept;
    float* imag_now = imag_plane + complex_kept;
    for (int k = 0; k < dfn_df_bins; ++k) {
        unit_state_[k] = std::abs(x[k]) * one_minus_alpha_ + unit_state_[k] * alpha_;
        const float norm = std::sqrt(unit_state_[k]);
        real_now[k] = x[k].real() / norm;
        imag_now[k] = x[k].imag() / norm;
    }
}

} // namespace quelora::denoise
