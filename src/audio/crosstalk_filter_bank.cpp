#include "audio/crosstalk_filter_bank.h"

#include "audio/measured_hrtf.h"
#include "audio/processing_rate.h"
#include "dsp/real_fft.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>
#include <stdexcept>

namespace quelora {

namespace {

using complex = std::complex<double>;

// The grid the inverse is taken on: 11.7 Hz apart, twice the kept taps. What
// wraps into the kept window on it is at most -31 dB of a filter's energy,
// mostly below 100 Hz; the kept filters separate the ears the same, to
// 0.1 dB, when designed on 8192 or 16384 points instead.
constexpr int32_t grid_size = 4096;
constexpr int32_t grid_bins = grid_size / 2 + 1;

// beta(f) relative to the bin's mean |H|^2. Small from 200 Hz to 6 kHz, where
// the canceller must separate the ears; larger below 100 Hz (the loudspeakers
// hardly radiate there, and the matrix is near singular: both ears hear both
// loudspeakers alike) and above 12 kHz (a head movement of a centimetre
// already changes the paths there; from 6 kHz up the pinna notches, which are
// the dummy head's own, would otherwise be boosted). Log-frequency
// raised-cosine ramps between, so C(f) has no sharp edge to ring in time.
constexpr double beta_in_band = 0.005;
constexpr double beta_low = 1.0;
constexpr double beta_high = 0.3;
// The mean |H|^2 a bin is regularised against never counts as less than this
// (H is scaled to an in-band ipsilateral level of 1). A purely relative beta
// bounds the gain only relative to 1 / |H|, so it would let the inverse grow
// without bound above the measurement's band edge and in its notches, and
// invert the weak low end of the measuring loudspeaker; with the floor every
// singular value of C stays below 1 / (2 sqrt(beta_in_band x level_floor)),
// 25.2 dB.
constexpr double level_floor = 0.15;

// The kept window: half-Hann fades over the first 384 taps (half the
// modelling delay: the inverse's anticipation, which the regularised inverse
// of a non-minimum-phase H has) and over the last 512.
constexpr int32_t fade_in = 384;
constexpr int32_t fade_out = 512;

// 0 below f0, 1 above f1, a raised cosine in log frequency between.
double log_ramp(double f, double f0, double f1) {
    if (f <= f0) return 0.0;
    if (f >= f1) return 1.0;
    const double x = std::log(f / f0) / std::log(f1 / f0);
    return 0.5 - 0.5 * std::cos(std::numbers::pi * x);
}

double regularisation(double f) {
    const double below = 1.0 - log_ramp(f, 100.0, 200.0);
    const double above = log_ramp(f, 6000.0, 12000.0);
    return beta_in_band * std::pow(beta_low / beta_in_band, below) *
           std::pow(beta_high / beta_in_band, above);
}

double window(int32_t n) {
    constexpr int32_t taps = crosstalk_filter_bank::taps;
    if (n < fade_in) return 0.5 - 0.5 * std::cos(std::numbers::pi * (n + 0.5) / fade_in);
    if (n >= taps - fade_out) {
        return 0.5 - 0.5 * std::cos(std::numbers::pi * (taps - n - 0.5) / fade_out);
    }
    return 1.0;
}

// Products written out: std::complex's own carry a NaN fallback that costs
// more than the arithmetic in the per-bin loop below.
complex mul(complex a, complex b) {
    return {a.real() * b.real() - a.imag() * b.imag(), a.real() * b.imag() + a.imag() * b.real()};
}
complex mul_conj(complex a, complex b) { // conj(a) b
    return {a.real() * b.real() + a.imag() * b.imag(), a.real() * b.imag() - a.imag() * b.real()};
}

// C = H^H (H H^H + beta I)^-1 for one bin, H[ear][speaker], C[speaker][input],
// with beta relative to the bin's mean |H|^2 (never less than the floor).
// For each singular value s of H, C has the gain s / (s^2 + beta) <= 1 / (2 sqrt(beta)).
std::array<std::array<complex, 2>, 2> regularised_inverse(const complex (&m)[2][2],
                                                          double relative_beta) {
    const double n00 = std::norm(m[0][0]), n01 = std::norm(m[0][1]);
    const double n10 = std::norm(m[1][0]), n11 = std::norm(m[1][1]);
    const double b = relative_beta * std::max(0.25 * (n00 + n01 + n10 + n11), level_floor);
    // A = H H^H + b I (Hermitian), A^-1 = adj(A) / det.
    const double a00 = n00 + n01 + b, a11 = n10 + n11 + b;
    const complex a01 = mul_conj(m[1][0], m[0][0]) + mul_conj(m[1][1], m[0][1]);
    const double r = 1.0 / (a00 * a11 - std::norm(a01));
    const complex inv[2][2] = {{a11 * r, -a01 * r}, {-std::conj(a01) * r, a00 * r}};
    std::array<std::array<complex, 2>, 2> c;
    for (int32_t s = 0; s < 2; ++s) {
        for (int32_t i = 0; i < 2; ++i) {
            c[s][i] = mul_conj(m[0][s], inv[0][i]) + mul_conj(m[1][s], inv[1][i]);
        }
    }
    return c;
}

struct row_direction {
    float azimuth;
    int32_t index;
};

// The measured directions of the row nearest the horizontal plane, by
// azimuth (the lower index where two share one).
std::vector<row_direction> horizontal_row(const measured_hrtf_set& measured) {
    const float elevation = measured.elevation(measured.nearest(0.0f, 0.0f));
    std::vector<row_direction> row;
    for (int32_t i = 0; i < measured.count(); ++i) {
        if (std::fabs(measured.elevation(i) - elevation) < 0.01f) {
            row.push_back({measured.azimuth(i), i});
        }
    }
    std::stable_sort(row.begin(), row.end(), [](const row_direction& a, const row_direction& b) {
        return a.azimuth < b.azimuth;
    });
    row.erase(std::unique(row.begin(), row.end(),
                          [](const row_direction& a, const row_direction& b) {
                              return a.azimuth == b.azimuth;
                          }),
              row.end());
    if (row.size() < 2) {
        throw std::invalid_argument("crosstalk_filter_bank: the measured set has no horizontal "
                                    "row of two or more directions");
    }
    return row;
}

// A loudspeaker between measured azimuths is the linear interpolation in time
// of the two neighbours of the row (weight by angle); at a measured azimuth,
// that direction alone. KEMAR's row is 5 degrees apart, so the interpolated
// responses differ in delay by at most about two samples, and the comb this
// makes lies above 12 kHz, where beta is large anyway.
struct blend {
    int32_t first; // row positions
    int32_t second;
    double weight; // of the second
};

blend bracket(const std::vector<row_direction>& row, double azimuth) {
    const auto size = static_cast<int32_t>(row.size());
    int32_t first = size - 1; // below the first azimuth: wrap to the last
    for (int32_t i = 0; i < size; ++i) {
        if (row[i].azimuth <= azimuth) first = i;
    }
    const int32_t second = (first + 1) % size;
    const double from = azimuth - row[first].azimuth;
    const double span = row[second].azimuth - row[first].azimuth;
    const double weight = std::fmod(from + 360.0, 360.0) / std::fmod(span + 360.0, 360.0);
    return {first, second, weight < 1e-9 ? 0.0 : weight};
}

} // namespace

crosstalk_filter_bank::crosstalk_filter_bank(const measured_hrtf_set& measured)
    : spectra_(static_cast<size_t>(max_half_span) * path_count * partitions * bins),
      taps_(static_cast<size_t>(max_half_span) * path_count * taps) {
    const std::vector<row_direction> row = horizontal_row(measured);
    dsp::real_fft grid_fft(grid_size);
    dsp::real_fft partition_fft(transform_size);

    // Both ears' spectra of each row direction a loudspeaker uses, on the grid.
    const int32_t response_taps = std::min(measured.taps(), grid_size / 2);
    std::vector<float> response(static_cast<size_t>(std::max(measured.taps(), grid_size)));
    std::vector<std::vector<std::complex<float>>> row_spectra(row.size());
    auto row_spectrum = [&](int32_t position) -> const std::complex<float>* {
        auto& spectrum = row_spectra[position];
        if (spectrum.empty()) {
            spectrum.resize(2 * grid_bins);
            for (int32_t ear = 0; ear < 2; ++ear) {
                measured.decode(row[position].index, ear, response.data());
                std::fill(response.begin() + response_taps, response.end(), 0.0f);
                grid_fft.forward(response.data(), spectrum.data() + ear * grid_bins);
            }
        }
        return spectrum.data();
    };

    std::vector<complex> delay(grid_bins);
    std::vector<double> beta(grid_bins);
    for (int32_t k = 0; k < grid_bins; ++k) {
        const double phase = -2.0 * std::numbers::pi * k * modelling_delay / grid_size;
        delay[k] = std::polar(1.0 / grid_size, phase); // with the inverse's 1 / M
        beta[k] = regularisation(static_cast<double>(k) * processing_rate / grid_size);
    }
    std::vector<double> taper(taps);
    for (int32_t n = 0; n < taps; ++n) taper[n] = window(n);

    // The bins of the level reference, 200 Hz .. 10 kHz.
    const auto level_from = static_cast<int32_t>(std::ceil(200.0 * grid_size / processing_rate));
    const auto level_to = static_cast<int32_t>(10000.0 * grid_size / processing_rate);
    std::vector<complex> matrix(4 * grid_bins); // H[ear][speaker], row-major, bin innermost
    std::vector<std::complex<float>> inverse(path_count * grid_bins);
    std::vector<float> time(grid_size);
    std::vector<float> padded(transform_size);
    for (int32_t h = 1; h <= max_half_span; ++h) {
        // speaker 0 (left) at 360 - h, speaker 1 (right) at h; ear 0 left.
        const blend speakers[2] = {bracket(row, 360.0 - h), bracket(row, h)};
        const std::complex<float>* sources[2][2];
        for (int32_t s = 0; s < 2; ++s) {
            sources[s][0] = row_spectrum(speakers[s].first);
            sources[s][1] = row_spectrum(speakers[s].second);
        }
        // H[ear][speaker] on the grid, and the entry's in-band ipsilateral
        // level, so the filters do not depend on the data set's arbitrary scale.
        double level = 0.0;
        for (int32_t e = 0; e < 2; ++e) {
            for (int32_t s = 0; s < 2; ++s) {
                const double w = speakers[s].weight;
                const std::complex<float>* a = sources[s][0] + e * grid_bins;
                const std::complex<float>* b = sources[s][1] + e * grid_bins;
                complex* out = matrix.data() + (2 * e + s) * grid_bins;
                for (int32_t k = 0; k < grid_bins; ++k) {
                    out[k] = (1.0 - w) * complex(a[k]) + w * complex(b[k]);
                }
                if (e != s) continue;
                for (int32_t k = level_from; k <= level_to; ++k) level += 0.5 * std::norm(out[k]);
            }
        }
        const double scale = 1.0 / std::sqrt(level / (level_to - level_from + 1));
        double power = 0.0; // of C over the same bins, both inputs
        for (int32_t k = 0; k < grid_bins; ++k) {
            const complex m[2][2] = {
                {scale * matrix[k], scale * matrix[grid_bins + k]},
                {scale * matrix[2 * grid_bins + k], scale * matrix[3 * grid_bins + k]}};
            const auto c = regularised_inverse(m, beta[k]);
            if (k >= level_from && k <= level_to) {
                power += std::norm(c[0][0]) + std::norm(c[0][1]) + std::norm(c[1][0]) +
                         std::norm(c[1][1]);
            }
            inverse[left_to_left * grid_bins + k] = std::complex<float>(mul(c[0][0], delay[k]));
            inverse[left_to_right * grid_bins + k] = std::complex<float>(mul(c[1][0], delay[k]));
            inverse[right_to_left * grid_bins + k] = std::complex<float>(mul(c[0][1], delay[k]));
            inverse[right_to_right * grid_bins + k] = std::complex<float>(mul(c[1][1], delay[k]));
        }
        // Each entry passes uncorrelated in-band noise at unity power gain, so
        // the loudness stays when the span changes or the listener moves from
        // headphones to loudspeakers, and the limiter behind sees about the
        // level it would see on headphones. (Scaled to the ipsilateral level
        // alone, C is 6 dB louder at 90 degrees and 15 dB at 1 degree: the
        // narrower the span, the more cancelling costs.)
        const double loudness = std::sqrt(2.0 * (level_to - level_from + 1) / power);

        for (int32_t p = 0; p < path_count; ++p) {
            // The anticipation beyond D wraps to the end of the grid and is dropped.
            grid_fft.inverse(inverse.data() + p * grid_bins, time.data());
            float* kept = taps_.data() + (static_cast<size_t>(h - 1) * path_count + p) * taps;
            for (int32_t n = 0; n < taps; ++n) {
                kept[n] = static_cast<float>(loudness * taper[n] * time[n]);
            }
            for (int32_t q = 0; q < partitions; ++q) {
                std::copy_n(kept + q * partition_frames, partition_frames, padded.begin());
                std::fill(padded.begin() + partition_frames, padded.end(), 0.0f);
                std::complex<float>* out =
                    spectra_.data() +
                    ((static_cast<size_t>(h - 1) * path_count + p) * partitions + q) * bins;
                partition_fft.forward(padded.data(), out);
                for (int32_t k = 0; k < bins; ++k) out[k] *= 1.0f / transform_size;
            }
        }
    }
}

const std::complex<float>* crosstalk_filter_bank::spectra(int32_t half_span, path p) const {
    const size_t entry = static_cast<size_t>(half_span - 1) * path_count + p;
    return spectra_.data() + entry * partitions * bins;
}

void crosstalk_filter_bank::write_time_responses(int32_t half_span, float* out) const {
    const size_t entry = static_cast<size_t>(half_span - 1) * path_count;
    std::copy_n(taps_.data() + entry * taps, path_count * taps, out);
}

} // namespace quelora
