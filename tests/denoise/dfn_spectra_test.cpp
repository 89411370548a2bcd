// The spectral side of the DFN noise canceller (spec Part 5.2 `dfn_analysis`
// and `dfn_synthesis`, made exact by docs/dfn.md sections 2 and 4): the
// design values built at construction, the features recomputed in double
// from the documented formulas, the histories, the mask and deep filter
// against a direct inverse DFT in double, and the exact reconstruction with
// unit gains and a unit centre tap (the input delayed by 1200 samples).
#include "denoise/dfn_analysis.h"
#include "denoise/dfn_constants.h"
#include "denoise/dfn_synthesis.h"

#include "api/quelora_exception.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstdint>
#include <numbers>
#include <random>
#include <vector>

namespace {

using namespace quelora::denoise;

const std::vector<uint16_t> expected_widths = {2,  2,  2,  2,  2,  2,  2,  2,  2,  2,  2,
                                               2,  2,  2,  2,  2,  2,  2,  2,  2,  6,  8,
                                               9,  10, 12, 14, 16, 18, 21, 25, 28, 34};

using spectrum_d = std::vector<std::complex<double>>;

// X[k] = wnorm sum x[n] w[n] e^(-2 pi i k n / 480) in double, from the float
// window the analysis uses and the exact wnorm 1/480.
spectrum_d direct_spectrum(const float* hop, const float* window) {
    spectrum_d x(static_cast<size_t>(dfn_bins));
    for (int k = 0; k < dfn_bins; ++k) {
        std::complex<double> sum = 0.0;
        for (int n = 0; n < dfn_transform_size; ++n) {
            const double phase = -2.0 * std::numbers::pi * ((k * n) % dfn_transform_size) /
                                 dfn_transform_size;
            sum += static_cast<double>(hop[n]) * window[n] * std::polar(1.0, phase);
        }
        x[k] = sum / 480.0;
    }
    return x;
}

// docs/dfn.md section 2 in double: one hop's features from its spectrum.
// alpha is the float32 constant 0.995f, as in the float32 state updates: its
// 1 - alpha is 0.0049999952, 1e-6 below 0.005, enough to move a unit-norm
// state by several float ulps after one hop.
struct reference_features {
    std::vector<double> erb_state, unit_state;

    reference_features() : erb_state(dfn_erb_bands), unit_state(dfn_df_bins) {
        for (int b = 0; b < dfn_erb_bands; ++b) erb_state[b] = -60.0 - 30.0 * b / 31.0;
        for (int k = 0; k < dfn_df_bins; ++k) unit_state[k] = 0.001 - 0.0009 * k / 95.0;
    }

    // Returns 32 ERB features then 96 real and 96 imaginary complex features.
    std::vector<double> next(const spectrum_d& x) {
        const double alpha = static_cast<double>(0.995f);
        std::vector<double> out;
        int bin = 0;
        for (int b = 0; b < dfn_erb_bands; ++b) {
            double power = 0.0;
            for (int j = 0; j < expected_widths[b]; ++j, ++bin) power += std::norm(x[bin]);
            power /= expected_widths[b];
            const double db = 10.0 * std::log10(power + 1e-10);
            erb_state[b] = db * (1.0 - alpha) + erb_state[b] * alpha;
            out.push_back((db - erb_state[b]) / 40.0);
        }
        std::vector<double> imag;
        for (int k = 0; k < dfn_df_bins; ++k) {
            unit_state[k] = std::abs(x[k]) * (1.0 - alpha) + unit_state[k] * alpha;
            out.push_back(x[k].real() / std::sqrt(unit_state[k]));
            imag.push_back(x[k].imag() / std::sqrt(unit_state[k]));
        }
        out.insert(out.end(), imag.begin(), imag.end());
        return out;
    }
};

std::vector<float> test_signal(int length, unsigned seed) {
    std::mt19937 generator(seed);
    std::uniform_real_distribution<float> noise(-0.3f, 0.3f);
    std::vector<float> x(static_cast<size_t>(length));
    for (int n = 0; n < length; ++n) {
        x[n] = 0.4f * static_cast<float>(std::sin(2.0 * std::numbers::pi * 440.0 * n / 48000.0)) +
               noise(generator);
    }
    return x;
}

// ---- Construction ---------------------------------------------------------

TEST(Part5_2_AnalysisDesign, ErbBandWidthsFollowThePartsAlgorithm) {
    EXPECT_EQ(dfn_design::erb_band_widths(48000, 480, 32, 2), expected_widths);
    dfn_analysis analysis;
    EXPECT_EQ(std::vector<uint16_t>(analysis.band_widths(), analysis.band_widths() + 32),
              expected_widths);
}

TEST(Part5_2_AnalysisDesign, AlphaIsRoundedToTheFewestDecimalsBelowOne) {
    dfn_analysis analysis;
    EXPECT_EQ(analysis.alpha(), 0.995f); // e^(-0.005) = 0.99501..., 3 decimals
    // e^(-1/48000) = 0.9999792...: 1.000 and 1.0000 are not below 1, 0.99998 is.
    EXPECT_EQ(dfn_design::normalisation_alpha(48000, 1), 0.99998f);
}

TEST(Part5_2_AnalysisDesign, VorbisWindowAndItsNormalisation) {
    dfn_analysis analysis;
    const float* w = analysis.window();
    double sum_of_squares = 0.0;
    for (int n = 0; n < 480; ++n) {
        const double s = std::sin(std::numbers::pi * (n + 0.5) / 480.0);
        // The double formula rounded once to float: within half a float ulp.
        EXPECT_NEAR(w[n], std::sin(std::numbers::pi / 2.0 * s * s), 0.5 * 0x1p-24) << n;
        sum_of_squares += static_cast<double>(w[n]) * w[n];
    }
    // Princen-Bradley: the two hops overlapping a sample have w^2 adding to 1
    // (to the float rounding of two window values).
    for (int n = 0; n < 240; ++n) {
        EXPECT_NEAR(static_cast<double>(w[n]) * w[n] + static_cast<double>(w[n + 240]) * w[n + 240],
                    1.0, 2.5e-7)
            << n;
    }
    // The float window's squares sum to 240.0000012; the factor is taken from
    // the window in double, whose squares sum to 240 within rounding.
    EXPECT_NEAR(sum_of_squares, 240.0, 1e-5);
    double exact_sum = 0.0;
    for (int n = 0; n < 480; ++n) {
        const double s = std::sin(std::numbers::pi * (n + 0.5) / 480.0);
        exact_sum += std::pow(std::sin(std::numbers::pi / 2.0 * s * s), 2.0);
    }
    EXPECT_NEAR(exact_sum, 240.0, 1.3e-11); // 480 roundings of a sum <= 240: 480 x 2^-53 x 240
    EXPECT_EQ(analysis.window_norm(), static_cast<float>(240.0 / 480.0 / exact_sum));
    EXPECT_EQ(analysis.window_norm(), 1.0f / 480.0f);
}

TEST(Part5_2_AnalysisDesign, InitialStatesAndZeroHistories) {
    dfn_analysis analysis;
    EXPECT_EQ(analysis.erb_state()[0], -60.0f);
    EXPECT_EQ(analysis.erb_state()[31], -90.0f);
    for (int b = 0; b < 32; ++b) {
        EXPECT_FLOAT_EQ(analysis.erb_state()[b], static_cast<float>(-60.0 - 30.0 * b / 31.0));
    }
    EXPECT_EQ(analysis.unit_state()[0], 0.001f);
    EXPECT_EQ(analysis.unit_state()[95], 0.0001f);
    for (int k = 0; k < 96; ++k) {
        EXPECT_FLOAT_EQ(analysis.unit_state()[k], static_cast<float>(0.001 - 0.0009 * k / 95.0));
    }
    EXPECT_TRUE(std::all_of(analysis.erb_features(), analysis.erb_features() + 96,
                            [](float v) { return v == 0.0f; }));
    EXPECT_TRUE(std::all_of(analysis.complex_features(), analysis.complex_features() + 576,
                            [](float v) { return v == 0.0f; }));
    for (int h = 0; h < dfn_spectrum_history; ++h) {
        for (int k = 0; k < dfn_bins; ++k) EXPECT_EQ(analysis.spectrum(h)[k], 0.0f);
    }
}

// ---- Features and histories -----------------------------------------------

// Tolerances (float32 against double). The float FFT rounds each bin by up to
// about 1e-8 here (2 eps log2(480) ||x w / 480||, the real_fft test's rule).
// A band whose power sits near the 1e-10 floor sees that as up to 2e-4 dB,
// 5e-6 after the division by 40 (measured: 4e-6). The complex features are
// up to about 5, where a few float roundings of the division, the square root
// and the spectrum make 1e-6 (measured: 7e-7).
constexpr double erb_tolerance = 1e-5;
constexpr double complex_tolerance = 2e-6;
constexpr double spectrum_tolerance = 2e-8;

void expect_row(const dfn_analysis& analysis, int row, const std::vector<double>& expected,
                const char* what) {
    for (int b = 0; b < 32; ++b) {
        EXPECT_NEAR(analysis.erb_features()[row * 32 + b], expected[b], erb_tolerance)
            << what << " erb row " << row << " band " << b;
    }
    for (int k = 0; k < 96; ++k) {
        EXPECT_NEAR(analysis.complex_features()[row * 96 + k], expected[32 + k], complex_tolerance)
            << what << " re row " << row << " bin " << k;
        EXPECT_NEAR(analysis.complex_features()[288 + row * 96 + k], expected[128 + k],
                    complex_tolerance)
            << what << " im row " << row << " bin " << k;
    }
}

TEST(Part5_2_AnalysisFeatures, FirstHopOfACosineAtBinTen) {
    dfn_analysis analysis;
    std::vector<float> hop(480);
    for (int n = 0; n < 480; ++n) {
        hop[n] = 0.5f * static_cast<float>(std::cos(2.0 * std::numbers::pi * 10.0 * n / 480.0));
    }
    analysis.process(hop.data());

    const spectrum_d x = direct_spectrum(hop.data(), analysis.window());
    // By hand: the cosine's own half gives X[10] = 0.5 / 2 x sum w / 480; its
    // mirror half adds 0.25 / 480 x the window's transform at bin 20, which
    // the smooth Vorbis window keeps near 1e-8 of it (1.4e-9; a double sum).
    double window_sum = 0.0;
    for (int n = 0; n < 480; ++n) window_sum += analysis.window()[n];
    EXPECT_NEAR(x[10].real(), 0.25 * window_sum / 480.0, 0.15 * 1e-8);
    EXPECT_NEAR(analysis.spectrum(0)[10].real(), 0.25 * window_sum / 480.0,
                spectrum_tolerance + 0.15 * 1e-8);
    for (int k = 0; k < dfn_bins; ++k) {
        EXPECT_NEAR(analysis.spectrum(0)[k].real(), x[k].real(), spectrum_tolerance) << k;
        EXPECT_NEAR(analysis.spectrum(0)[k].imag(), x[k].imag(), spectrum_tolerance) << k;
    }

    reference_features reference;
    const std::vector<double> expected = reference.next(x);
    // Band 5 holds bins 10 and 11 (the main lobe reaches bin 11).
    const double band5_db =
        10.0 * std::log10((std::norm(x[10]) + std::norm(x[11])) / 2.0 + 1e-10);
    const double band5_state = -60.0 - 30.0 * 5 / 31.0;
    const double alpha = static_cast<double>(0.995f);
    EXPECT_NEAR(expected[5],
                (band5_db - ((1.0 - alpha) * band5_db + alpha * band5_state)) / 40.0, 1e-12);
    expect_row(analysis, 2, expected, "first hop");
    expect_row(analysis, 1, std::vector<double>(224, 0.0), "first hop");
    expect_row(analysis, 0, std::vector<double>(224, 0.0), "first hop");
    // States: two float roundings of values up to 90 (ulp 7.6e-6) and up to
    // 1e-3 (ulp 1.2e-10), over the rounding of the initial float state.
    for (int b = 0; b < 32; ++b) {
        EXPECT_NEAR(analysis.erb_state()[b], reference.erb_state[b], 2e-5) << b;
    }
    for (int k = 0; k < 96; ++k) {
        EXPECT_NEAR(analysis.unit_state()[k], reference.unit_state[k], 3e-10) << k;
    }
}

TEST(Part5_2_AnalysisFeatures, HistoriesShiftAndStatesCarryOver) {
    const int hops = 9;
    const std::vector<float> signal = test_signal(240 * (hops + 1), 7u);
    dfn_analysis analysis;
    reference_features reference;
    std::vector<std::vector<double>> expected_rows;
    std::vector<std::vector<std::complex<float>>> spectra;
    for (int t = 0; t < hops; ++t) {
        const float* hop = signal.data() + 240 * t;
        analysis.process(hop);
        expected_rows.push_back(reference.next(direct_spectrum(hop, analysis.window())));
        spectra.emplace_back(analysis.spectrum(0), analysis.spectrum(0) + dfn_bins);
        for (int row = 0; row < 3; ++row) {
            const int frame = t - 2 + row;
            expect_row(analysis, row,
                       frame >= 0 ? expected_rows[frame] : std::vector<double>(224, 0.0),
                       "hop");
        }
        for (int h = 0; h < dfn_spectrum_history; ++h) {
            for (int k = 0; k < dfn_bins; ++k) {
                const std::complex<float> want =
                    t - h >= 0 ? spectra[t - h][k] : std::complex<float>(0.0f, 0.0f);
                ASSERT_EQ(analysis.spectrum(h)[k], want) << "hop " << t << " back " << h;
            }
        }
    }
}

// ---- Synthesis ------------------------------------------------------------

TEST(Part5_2_Synthesis, RejectsBandWidthsThatDoNotCoverTheBins) {
    quelora::testing::log_capture capture;
    std::vector<uint16_t> widths = expected_widths;
    widths.back() = 33;
    try {
        dfn_synthesis synthesis(widths.data());
        ADD_FAILURE();
    } catch (const quelora_exception& error) {
        EXPECT_EQ(error.error_code(), -9990);
    }
}

TEST(Part5_2_Synthesis, GainsSpreadOverTheirBands) {
    dfn_analysis analysis;
    dfn_synthesis synthesis(analysis.band_widths());
    std::vector<float> gains(32), coefficients(960, 0.0f), output(480);
    for (int b = 0; b < 32; ++b) gains[b] = static_cast<float>(b + 1) / 64.0f;
    synthesis.process(analysis, gains.data(), coefficients.data(), output.data());
    int bin = 0;
    for (int b = 0; b < 32; ++b) {
        for (int j = 0; j < expected_widths[b]; ++j, ++bin) {
            EXPECT_EQ(synthesis.bin_gains()[bin], gains[b]) << bin;
        }
    }
    EXPECT_EQ(bin, 241);
}

// Every hop, random gains and coefficients; the reference builds Y in double
// from spectra saved hop by hop (not through the analysis's ring), with tap i
// on hop t - 6 + i and the gains on hop t - 4, and inverts it directly.
TEST(Part5_2_Synthesis, MaskAndDeepFilterMatchDirectInverse) {
    const int hops = 12;
    const std::vector<float> signal = test_signal(240 * (hops + 1), 3u);
    std::mt19937 generator(99u);
    std::uniform_real_distribution<float> unit(0.0f, 1.0f), symmetric(-1.0f, 1.0f);
    dfn_analysis analysis;
    dfn_synthesis synthesis(analysis.band_widths());
    std::vector<std::vector<std::complex<float>>> saved;
    const std::vector<std::complex<float>> silence(dfn_bins);
    const auto hop_spectrum = [&](int t) -> const std::vector<std::complex<float>>& {
        return t >= 0 ? saved[t] : silence;
    };
    std::vector<float> gains(32), coefficients(960), output(480);
    for (int t = 0; t < hops; ++t) {
        analysis.process(signal.data() + 240 * t);
        saved.emplace_back(analysis.spectrum(0), analysis.spectrum(0) + dfn_bins);
        for (float& g : gains) g = unit(generator);
        for (float& c : coefficients) c = symmetric(generator);
        synthesis.process(analysis, gains.data(), coefficients.data(), output.data());

        spectrum_d y(static_cast<size_t>(dfn_bins));
        int bin = 0;
        for (int b = 0; b < 32; ++b) {
            for (int j = 0; j < expected_widths[b]; ++j, ++bin) {
                if (bin >= 96) y[bin] = static_cast<double>(gains[b]) *
                                        std::complex<double>(hop_spectrum(t - 4)[bin]);
            }
        }
        for (int k = 0; k < 96; ++k) {
            for (int i = 0; i < 5; ++i) {
                const std::complex<double> c(coefficients[k * 10 + i * 2],
                                             coefficients[k * 10 + i * 2 + 1]);
                y[k] += c * std::complex<double>(hop_spectrum(t - 6 + i)[k]);
            }
        }
        // Unnormalised real inverse: the imaginary parts of bins 0 and 240 drop out.
        double y_norm = 0.0;
        for (const auto& v : y) y_norm += std::norm(v);
        for (int n = 0; n < 480; ++n) {
            double sum = y[0].real() + y[240].real() * (n % 2 == 0 ? 1.0 : -1.0);
            for (int k = 1; k < 240; ++k) {
                const double phase = 2.0 * std::numbers::pi * ((k * n) % 480) / 480.0;
                sum += 2.0 * (y[k] * std::polar(1.0, phase)).real();
            }
            const double expected = sum * analysis.window()[n];
            // The real_fft test's rule for the inverse, 2 eps log2(480) times
            // the norm of the whole Hermitian spectrum (sqrt(2 sum |Y|^2)),
            // also covers the float rounding of the five-tap sums (measured:
            // under half of it).
            const double tolerance =
                2.0 * 0x1p-24 * std::log2(480.0) * std::sqrt(2.0 * y_norm);
            EXPECT_NEAR(output[n], expected, tolerance) << "hop " << t << " n " << n;
        }
        // From hop 2 on, tap 4 reaches hop 0: the comparison sees signal
        // (before, every tap and the target lie before the first hop: Y = 0).
        if (t >= 2) {
            ASSERT_GT(y_norm, 1e-4) << "hop " << t;
        }
    }
}

// docs/dfn.md section 5's framing: 240 zeros, then hop j = samples
// [240 j, 240 j + 480). Unit gains and a unit centre tap (tap 2, hop t - 4,
// like the mask) overlap-add back to the input delayed by 1200 samples.
TEST(Part5_2_Synthesis, UnitGainsAndCentreTapReconstructDelayedBy1200) {
    const int length = 4800; // 10 blocks, 20 hops
    const std::vector<float> x = test_signal(length, 1u);
    std::vector<float> padded(240, 0.0f);
    padded.insert(padded.end(), x.begin(), x.end());
    padded.resize(static_cast<size_t>(length + 480), 0.0f);
    const int hops = length / 240;

    dfn_analysis analysis;
    dfn_synthesis synthesis(analysis.band_widths());
    std::vector<float> gains(32, 1.0f), coefficients(960, 0.0f), output(480);
    for (int k = 0; k < 96; ++k) coefficients[k * 10 + 2 * 2] = 1.0f;
    std::vector<float> result(static_cast<size_t>(length + 480), 0.0f);
    for (int j = 0; j < hops; ++j) {
        analysis.process(padded.data() + 240 * j);
        synthesis.process(analysis, gains.data(), coefficients.data(), output.data());
        for (int n = 0; n < 480; ++n) result[240 * j + n] += output[n];
    }
    // Every sample below 240 x hops has both of its overlapping hops. The
    // error is a few float roundings of values below 1: 1e-6.
    for (int m = 0; m < length; ++m) {
        const float expected = m >= dfn_dry_delay ? x[m - dfn_dry_delay] : 0.0f;
        ASSERT_NEAR(result[m], expected, 1e-6) << "sample " << m;
    }
}

} // namespace
