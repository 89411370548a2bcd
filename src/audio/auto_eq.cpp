#include "audio/auto_eq.h"

#include "audio/processing_rate.h"
#include "dsp/vector_ops.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <stdexcept>

namespace quelora {

namespace {

constexpr double rate = processing_rate;
// The correction filters are about 1.4 octaves wide, so that neighbours
// (1.3 octaves apart) blend into a smooth curve. The measuring band-passes
// have the same Q but run twice: a single section's skirts fall 6 dB per
// octave in power, slower than speech gains towards the low frequencies, so
// the 6 kHz band would mostly measure the 1-2 kHz region.
constexpr double band_q = 1.0;
constexpr double filter_gain_limit = 12.0; // a single peaking filter's gain, dB

// The universal long-term average speech spectrum of Byrne et al. (1994),
// "An international comparison of long-term average speech spectra", JASA
// 96(4), 2108-2120: third-octave band levels in dB SPL for speech at 70 dB.
constexpr int ltass_bands = 25;
constexpr double ltass_hz[ltass_bands] = {63,   80,   100,  125,  160,   200,   250,  315,  400,
                                          500,  630,  800,  1000, 1250,  1600,  2000, 2500, 3150,
                                          4000, 5000, 6300, 8000, 10000, 12500, 16000};
constexpr double ltass_db[ltass_bands] = {38.6, 43.5, 54.4, 57.7, 56.8, 60.2, 60.3, 59.0, 62.1,
                                          62.1, 60.5, 56.8, 53.7, 53.0, 52.0, 48.7, 48.1, 46.8,
                                          45.6, 44.5, 44.3, 43.7, 43.4, 41.3, 40.7};

// Band level to density: a third-octave band is 2^(1/6) - 2^(-1/6) = 0.2316 f wide.
double ltass_density_db(int k) {
    return ltass_db[k] -
           10.0 * std::log10((std::exp2(1.0 / 6.0) - std::exp2(-1.0 / 6.0)) * ltass_hz[k]);
}

std::complex<double> unit_delay(double hz) {
    return std::polar(1.0, -2.0 * std::numbers::pi * hz / rate);
}

using biquad = auto_eq::biquad;
using biquad_state = auto_eq::biquad_state;

// The two filter shapes of the audio-EQ cookbook, normalised to a0 = 1.
biquad make_biquad(double b0, double b1, double b2, double a0, double a1, double a2) {
    return biquad{b0 / a0, b1 / a0, b2 / a0, a1 / a0, a2 / a0};
}

biquad band_pass(double hz) { // 0 dB at the centre
    const double w = 2.0 * std::numbers::pi * hz / rate, alpha = std::sin(w) / (2.0 * band_q);
    return make_biquad(alpha, 0.0, -alpha, 1.0 + alpha, -2.0 * std::cos(w), 1.0 - alpha);
}

biquad peaking(double hz, double gain_db) {
    const double w = 2.0 * std::numbers::pi * hz / rate, alpha = std::sin(w) / (2.0 * band_q);
    const double a = std::pow(10.0, gain_db / 40.0), c = -2.0 * std::cos(w);
    return make_biquad(1.0 + alpha * a, c, 1.0 - alpha * a, 1.0 + alpha / a, c, 1.0 - alpha / a);
}

double magnitude(const biquad& f, std::complex<double> z) {
    return std::abs((f.b0 + z * (f.b1 + z * f.b2)) / (1.0 + z * (f.a1 + z * f.a2)));
}

double finite_or_zero(float x) { return std::isfinite(x) ? x : 0.0; }

// One sample through a section in direct form I.
double run(const biquad& f, biquad_state& s, double x) {
    const double y = f.b0 * x + f.b1 * s.x1 + f.b2 * s.x2 - f.a1 * s.y1 - f.a2 * s.y2;
    s = {x, s.x1, y, s.y1};
    return y;
}

} // namespace

double auto_eq::speech_spectrum_db(double hz) {
    if (hz <= ltass_hz[0]) return ltass_density_db(0);
    for (int k = 0; k + 1 < ltass_bands; ++k) {
        if (hz < ltass_hz[k + 1]) {
            const double t = std::log(hz / ltass_hz[k]) / std::log(ltass_hz[k + 1] / ltass_hz[k]);
            return (1.0 - t) * ltass_density_db(k) + t * ltass_density_db(k + 1);
        }
    }
    return ltass_density_db(ltass_bands - 1);
}

auto_eq::auto_eq(int32_t channels, int32_t processing_frames)
    : channels_(channels), frames_(processing_frames) {
    if (channels < 1 || channels > 2) throw std::invalid_argument("auto EQ: 1 or 2 channels");
    if (processing_frames < 1) throw std::invalid_argument("auto EQ: frames must be >= 1");
    const double seconds_per_call = processing_frames / rate;
    measure_rate_ = 1.0 - std::exp(-seconds_per_call / measure_seconds);
    adapt_rate_ = 1.0 - std::exp(-seconds_per_call / adapt_seconds);
    for (int32_t b = 0; b < band_count; ++b) {
        centre_z_[b] = unit_delay(centres_hz[b]);
        analysis_[b] = band_pass(centres_hz[b]);
        // What the measuring band passes of the speech spectrum: its power
        // integrated over 20 Hz .. 20 kHz on a logarithmic grid.
        constexpr int steps = 2000;
        const double step = std::log(1000.0) / steps;
        double power = 0.0;
        for (int i = 0; i < steps; ++i) {
            const double hz = 20.0 * std::exp((i + 0.5) * step);
            const double gain = std::pow(magnitude(analysis_[b], unit_delay(hz)), 4); // 2 sections
            power += std::pow(10.0, speech_spectrum_db(hz) / 10.0) * gain * hz * step;
        }
        target_db_[b] = 10.0 * std::log10(power);
    }
}

double auto_eq::response_db(const biquad& filter, int32_t band) const {
    return 20.0 * std::log10(magnitude(filter, centre_z_[band]));
}

void auto_eq::measure(const float* input, bool speech) {
    for (int32_t b = 0; b < band_count; ++b) {
        const biquad& f = analysis_[b];
        auto [s, t] = analysis_state_[b];
        double sum = 0.0;
        for (int32_t i = 0; i < frames_; ++i) {
            const double z = run(f, t, run(f, s, finite_or_zero(input[i])));
            sum += z * z;
        }
        analysis_state_[b] = {s, t};
        if (speech) energy_[b] += measure_rate_ * (sum / frames_ - energy_[b]);
    }
}

void auto_eq::adapt() {
    std::array<double, band_count> deviation{};
    for (int32_t b = 0; b < band_count; ++b) {
        // Silence tells nothing about the balance; an overflow resets.
        if (!std::isfinite(energy_[b])) energy_.fill(0.0);
        if (!(energy_[b] > 1e-30)) return;
        deviation[b] = target_db_[b] - 10.0 * std::log10(energy_[b]);
    }
    // Only the balance is corrected, not the level: deviations count from
    // their median, so that one empty band (a band-limited input) does not
    // tilt the others.
    std::array<double, band_count> sorted = deviation;
    std::nth_element(sorted.begin(), sorted.begin() + band_count / 2, sorted.end());
    const double reference = sorted[band_count / 2];
    std::array<double, band_count> error{};
    for (int32_t b = 0; b < band_count; ++b) {
        const double wanted =
            std::clamp(deviation[b] - reference, -max_correction_db, max_correction_db);
        desired_db_[b] += adapt_rate_ * (wanted - desired_db_[b]);
        error[b] = desired_db_[b];
        for (int32_t j = 0; j < band_count; ++j) error[b] -= response_db(eq_[j], b);
    }
    // Each call moves every filter's setting by what its centre still lacks. A filter shows
    // at most 0.19 dB per dB at a neighbouring centre (0.44 at all other centres together), so
    // the step shrinks the remaining error at least 2.2 times per call, and the settings track
    // the slowly moving corrections.
    for (int32_t j = 0; j < band_count; ++j) {
        filter_gain_db_[j] =
            std::clamp(filter_gain_db_[j] + error[j], -filter_gain_limit, filter_gain_limit);
        eq_[j] = peaking(centres_hz[j], filter_gain_db_[j]);
    }
}

void auto_eq::equalise(float* output) {
    for (int32_t b = 0; b < band_count; ++b) {
        biquad_state s = eq_state_[b];
        if (filter_gain_db_[b] == 0.0) {
            // A flat band passes the samples bit for bit; its state follows
            // them, so that it joins in seamlessly once it moves.
            s.x2 = frames_ > 1 ? finite_or_zero(output[frames_ - 2]) : s.x1;
            s.x1 = finite_or_zero(output[frames_ - 1]);
            eq_state_[b] = {s.x1, s.x2, s.x1, s.x2};
            continue;
        }
        const biquad& f = eq_[b];
        for (int32_t i = 0; i < frames_; ++i) {
            output[i] = static_cast<float>(run(f, s, finite_or_zero(output[i])));
        }
        if (!std::isfinite(s.y1) || !std::isfinite(s.y2)) s = {};
        eq_state_[b] = s;
    }
}

void auto_eq::process(const float* input, float* output, float speech_value,
                      int32_t /*hops_per_second*/) {
    const bool speech = speech_value >= speech_threshold;
    measure(input, speech);
    if (speech) adapt();
    if (input != output) dsp::copy(input, output, frames_);
    equalise(output);
    if (channels_ == 2) dsp::copy(output, output + frames_, frames_);
}

} // namespace quelora
