#include "sinc_interpolator.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <stdexcept>

#include "dsp/kaiser_window.h"

namespace quelora::hrtf_data {

namespace {

// Kaiser's design rules: beta for the stop-band attenuation, and the window
// length (in seconds) that a transition band of delta_f Hz needs,
// (A - 7.95) / (14.36 delta_f).
constexpr double kaiser_beta = 0.1102 * (sinc_interpolator::stop_band_db - 8.7);
constexpr double transition_factor = (sinc_interpolator::stop_band_db - 7.95) / 14.36;

double sinc(double x) {
    if (x == 0.0) return 1.0;
    const double pi_x = std::numbers::pi * x;
    return std::sin(pi_x) / pi_x;
}

} // namespace

sinc_interpolator::sinc_interpolator(double input_rate, double output_rate, int32_t input_length,
                                     int32_t output_length) {
    if (!(input_rate > 0.0) || !(output_rate > 0.0) || input_length <= 0 || output_length <= 0)
        throw std::invalid_argument("sinc_interpolator: rates and lengths must be positive");
    // The window lasts 2 x zero_crossings / (2 fc) = zero_crossings / fc
    // seconds, so its transition band is transition_factor x fc /
    // zero_crossings wide; half of it lies above fc and must end at Nyquist.
    const double nyquist = 0.5 * std::min(input_rate, output_rate);
    const double relative_transition = transition_factor / zero_crossings;
    const double cutoff = nyquist / (1.0 + 0.5 * relative_transition);
    pass_band_edge_ = cutoff * (1.0 - 0.5 * relative_transition);

    // In input samples: the band 2 fc / input_rate and the half width.
    const double band = 2.0 * cutoff / input_rate;
    const double half_width = zero_crossings / band;
    spans_.reserve(static_cast<std::size_t>(output_length));
    for (int32_t n = 0; n < output_length; ++n) {
        const double position = static_cast<double>(n) * input_rate / output_rate;
        const double low = std::max(0.0, std::ceil(position - half_width));
        const double high = std::min(static_cast<double>(input_length - 1),
                                     std::floor(position + half_width));
        output_span span{static_cast<int32_t>(low), 0, weights_.size()};
        for (double k = low; k <= high; k += 1.0, ++span.inputs) {
            const double offset = position - k;
            weights_.push_back(band * sinc(band * offset) *
                               dsp::kaiser_window(offset / half_width, kaiser_beta));
        }
        spans_.push_back(span);
    }
}

void sinc_interpolator::run(const double* input, double* output) const {
    for (std::size_t n = 0; n < spans_.size(); ++n) {
        const output_span& span = spans_[n];
        const double* x = input + span.first_input;
        const double* w = weights_.data() + span.first_weight;
        double sum = 0.0;
        for (int32_t i = 0; i < span.inputs; ++i) sum += x[i] * w[i];
        output[n] = sum;
    }
}

} // namespace quelora::hrtf_data
