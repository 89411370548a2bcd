// The loudspeaker crosstalk stage against the measured ear paths and a direct convolution.
#include "audio/crosstalk_filter_bank.h"
#include "audio/crosstalk_processor.h"
#include "audio/measured_hrtf.h"
#include "dsp/real_fft.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <complex>
#include <random>
#include <span>
#include <vector>

namespace quelora {
namespace {

using samples = std::vector<float>;
const measured_hrtf_set& measured = measured_hrtf_set::compiled_in();
const crosstalk_filter_bank& filters() {
    static const crosstalk_filter_bank bank(measured);
    return bank;
}

// Both channels through a fresh processor in calls of n frames.
std::vector<samples> run(std::vector<samples> s, int32_t n, int32_t half_span) {
    crosstalk_processor processor(filters(), n);
    samples mix(2 * static_cast<size_t>(n));
    for (size_t at = 0; at + n <= s[0].size(); at += n) {
        for (int32_t c = 0; c < 2; ++c) std::copy_n(&s[c][at], n, &mix[c * n]);
        processor.process(mix.data(), n, half_span);
        for (int32_t c = 0; c < 2; ++c) std::copy_n(&mix[c * n], n, &s[c][at]);
    }
    return s;
}

// y[t + d] += (x * h)[t], directly, in double.
void convolve_into(const samples& x, std::span<const float> h, std::vector<double>& y, size_t d) {
    for (size_t i = 0; i < x.size(); ++i) {
        const double xi = x[i];
        for (size_t j = 0; j < h.size() && d + i + j < y.size(); ++j) y[d + i + j] += xi * h[j];
    }
}

// An impulse on each channel in turn, to the ears through the measured paths at -h and +h.
TEST(CrosstalkCanceller, SeparatesTheEarsByFifteenDecibels) {
    constexpr int32_t spectrum_size = 16384;
    dsp::real_fft fft(spectrum_size);
    for (int32_t h : {10, 30}) {
        std::vector path(2, std::vector<samples>(2, samples(measured.taps())));
        for (int32_t i = 0; i < 4; ++i) { // path[loudspeaker][ear]: left at 360 - h, right at h
            const float azimuth = static_cast<float>(i < 2 ? 360 - h : h);
            measured.decode(measured.nearest(azimuth, 0.0f), i % 2, path[i / 2][i % 2].data());
        }
        for (int32_t input = 0; input < 2; ++input) {
            std::vector<samples> in(2, samples(8192, 0.0f));
            in[input][0] = 1.0f;
            const auto out = run(in, 1024, h);
            std::vector ear(2, std::vector<std::complex<float>>(spectrum_size / 2 + 1));
            for (int32_t e = 0; e < 2; ++e) {
                std::vector<double> sum(spectrum_size, 0.0);
                for (int32_t s = 0; s < 2; ++s) convolve_into(out[s], path[s][e], sum, 0);
                fft.forward(samples(sum.begin(), sum.end()).data(), ear[e].data());
            }
            double energy[12][2] = {}; // [band][ear], band b centred on 1 kHz x 2^((b - 5) / 3)
            for (int32_t k = 1; k <= spectrum_size / 2; ++k) {
                const double third = std::round(3.0 * std::log2(48.0 * k / spectrum_size)) + 5;
                if (third < 0 || third > 11) continue;
                for (int32_t e = 0; e < 2; ++e) energy[int(third)][e] += std::norm(ear[e][k]);
            }
            for (int32_t b = 0; b < 12; ++b) {
                EXPECT_GE(10.0 * std::log10(energy[b][input] / energy[b][1 - input]), 15.0)
                    << "h " << h << ", input " << input << ", band " << b;
            }
        }
    }
}

TEST(CrosstalkProcessor, IsTheDirectConvolutionDelayedByTheReblocking) {
    for (const auto& [n, angle, entry, latency] :
         {std::array{480, 0, 1, 992}, std::array{480, 47, 47, 992}, std::array{1024, 30, 30, 0}}) {
        std::mt19937 rng(static_cast<uint32_t>(angle));
        std::vector<samples> in(2, samples(15360)), blocked(2); // 32 x 480, 15 x 1024 frames
        for (int32_t c = 0; c < 2; ++c) {
            double previous = 0.0, y = 0.0; // the DC blocker, in double, on noise with an offset
            for (float& x : in[c]) {
                x = 0.01f + std::normal_distribution<float>(0.0f, 0.3f)(rng);
                y = x - previous + double{0.9974f} * y, previous = x;
                blocked[c].push_back(static_cast<float>(y));
            }
        }
        const auto out = run(in, n, angle);
        samples taps(4 * crosstalk_filter_bank::taps);
        filters().write_time_responses(entry, taps.data());
        for (int32_t o = 0; o < 2; ++o) { // loudspeaker o: left input via path o, right via 2 + o
            std::vector<double> expected(in[0].size(), 0.0);
            for (int32_t c = 0; c < 2; ++c) {
                const auto path = std::span(taps).subspan((2 * c + o) * 2048, 2048);
                convolve_into(blocked[c], path, expected, static_cast<size_t>(latency));
            }
            for (size_t t = 0; t < in[0].size(); ++t) {
                ASSERT_NEAR(out[o][t], expected[t], 5e-6) << n << " frames, sample " << t;
            }
        }
    }
}

} // namespace
} // namespace quelora
