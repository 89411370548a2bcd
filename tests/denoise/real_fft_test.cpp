// The real FFT: both directions against a direct DFT in double, and the sizes it refuses.
#include "dsp/real_fft.h"

#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <numbers>
#include <random>
#include <stdexcept>
#include <utility>
#include <vector>

namespace {

using quelora::dsp::real_fft;
using cvector = std::vector<std::complex<double>>;

// X[k] = sum_n x[n] e^(sign 2 pi i k n / size) for k < count, in double (the
// roots indexed by k n mod size keep every phase exact), and the tolerance
// of a float FFT of x: its error per value grows like eps log2(size) ||x||_2,
// the factor 2 covering the constants of the radix-4, 3 and 5 butterflies.
std::pair<cvector, double> direct_dft(const cvector& x, int count, double sign) {
    const int size = static_cast<int>(x.size());
    cvector roots(x.size()), out(static_cast<size_t>(count));
    double energy = 0.0;
    for (int m = 0; m < size; ++m) {
        roots[m] = std::polar(1.0, sign * 2 * std::numbers::pi * m / size);
        energy += std::norm(x[m]);
    }
    for (int k = 0; k < count; ++k)
        for (int n = 0, at = 0; n < size; ++n, at = at + k < size ? at + k : at + k - size)
            out[k] += std::complex<double>(
                x[n].real() * roots[at].real() - x[n].imag() * roots[at].imag(),
                x[n].real() * roots[at].imag() + x[n].imag() * roots[at].real());
    return {out, 2.0 * 0x1p-24 * std::log2(double(size)) * std::sqrt(energy)};
}

// The noise canceller's size and two of the larger ones docs/design.md plans.
TEST(RealFft, BothDirectionsMatchTheDirectDft) {
    std::mt19937 rng(11);
    std::uniform_real_distribution<float> u(-1.0f, 1.0f);
    for (const int size : {480, 1024, 16384}) {
        SCOPED_TRACE(size);
        real_fft fft(size);
        const auto half = static_cast<size_t>(size / 2 + 1);
        std::vector<float> x(static_cast<size_t>(size));
        for (float& v : x) v = u(rng);
        std::vector<std::complex<float>> bins(half);
        fft.forward(x.data(), bins.data());
        const auto [expected, forward_tolerance] =
            direct_dft({x.begin(), x.end()}, size / 2 + 1, -1);
        for (size_t k = 0; k < half; ++k)
            ASSERT_LE(std::abs(std::complex<double>(bins[k]) - expected[k]), forward_tolerance)
                << k;
        EXPECT_TRUE(bins[0].imag() == 0.0f && bins[half - 1].imag() == 0.0f);

        // Random bins, the imaginary parts of bins 0 and size / 2 included,
        // which the inverse ignores: the direct sum extends only their real parts.
        for (auto& b : bins) b = {u(rng), u(rng)};
        cvector full(static_cast<size_t>(size));
        for (size_t k = 0; k < half; ++k) {
            full[k] = k == 0 || k == half - 1 ? bins[k].real() : std::complex<double>(bins[k]);
            full[(size - k) % size] = std::conj(full[k]);
        }
        std::vector<float> out(static_cast<size_t>(size));
        fft.inverse(bins.data(), out.data());
        const auto [back, inverse_tolerance] = direct_dft(full, size, 1);
        for (int n = 0; n < size; ++n) ASSERT_NEAR(out[n], back[n].real(), inverse_tolerance) << n;
    }
}

TEST(RealFft, RefusesSizesItCannotTransformWithoutAllocating) {
    for (const int size : {0, -480, 481, 14, 2 * 11 * 16}) // odd, a factor 7 or 11 in size / 2
        EXPECT_THROW(real_fft{size}, std::invalid_argument) << size;
    for (const int size : {2, 2 * 3 * 5 * 4}) EXPECT_NO_THROW(real_fft{size}) << size;
}

} // namespace
