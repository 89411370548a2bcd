// The real FFT facade over KissFFT (dsp/real_fft.h), used by the noise
// canceller of spec Part 5.2: forward and inverse against a direct DFT in
// double, the round trip, irfft's treatment of bins 0 and size / 2, and the
// sizes it refuses.
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

std::vector<float> random_signal(int size, unsigned seed) {
    std::mt19937 generator(seed);
    std::uniform_real_distribution<float> uniform(-1.0f, 1.0f);
    std::vector<float> x(static_cast<size_t>(size));
    for (float& v : x) v = uniform(generator);
    return x;
}

// e^(2 pi i m / size), m = 0..size-1: indexing by k n mod size keeps every
// phase exact however large k n gets.
std::vector<std::complex<double>> unit_roots(int size) {
    std::vector<std::complex<double>> roots(static_cast<size_t>(size));
    for (int m = 0; m < size; ++m) roots[m] = std::polar(1.0, 2.0 * std::numbers::pi * m / size);
    return roots;
}

std::vector<std::complex<double>> direct_dft(const std::vector<float>& x) {
    const int size = static_cast<int>(x.size());
    const std::vector<std::complex<double>> roots = unit_roots(size);
    std::vector<std::complex<double>> bins(static_cast<size_t>(size / 2 + 1));
    for (int k = 0; k <= size / 2; ++k) {
        std::complex<double> sum = 0.0;
        for (int n = 0; n < size; ++n) {
            sum += static_cast<double>(x[n]) * std::conj(roots[(k * n) % size]);
        }
        bins[k] = sum;
    }
    return bins;
}

// Hermitian extension; like irfft, only the real parts of bins 0 and size/2.
std::vector<double> direct_inverse(const std::vector<std::complex<float>>& bins, int size) {
    const std::vector<std::complex<double>> roots = unit_roots(size);
    std::vector<double> x(static_cast<size_t>(size));
    for (int n = 0; n < size; ++n) {
        double sum = static_cast<double>(bins[0].real()) +
                     static_cast<double>(bins[size / 2].real()) * ((n % 2 == 0) ? 1.0 : -1.0);
        for (int k = 1; k < size / 2; ++k) {
            sum += 2.0 * (std::complex<double>(bins[k]) * roots[(k * n) % size]).real();
        }
        x[n] = sum;
    }
    return x;
}

// A float FFT's error per bin grows like eps x log2(size) x ||x||_2 (the
// rounding of each of the log2(size) stages, spread over all bins); the
// factor 2 covers the constants of the radix-4/3/5 butterflies.
double fft_tolerance(const std::vector<float>& x) {
    double energy = 0.0;
    for (float v : x) energy += static_cast<double>(v) * v;
    const double eps = std::ldexp(1.0, -24);
    return 2.0 * eps * std::log2(static_cast<double>(x.size())) * std::sqrt(energy);
}

// The noise canceller's size and two of the later ones (docs/design.md).
constexpr int sizes[] = {480, 1024, 16384};

void check_forward(int size) {
    real_fft fft(size);
    EXPECT_EQ(fft.size(), size);
    const std::vector<float> x = random_signal(size, 11u + static_cast<unsigned>(size));
    std::vector<std::complex<float>> bins(static_cast<size_t>(size / 2 + 1));
    fft.forward(x.data(), bins.data());
    const std::vector<std::complex<double>> expected = direct_dft(x);
    const double tolerance = fft_tolerance(x);
    for (int k = 0; k <= size / 2; ++k) {
        EXPECT_NEAR(bins[k].real(), expected[k].real(), tolerance) << "bin " << k;
        EXPECT_NEAR(bins[k].imag(), expected[k].imag(), tolerance) << "bin " << k;
    }
    EXPECT_EQ(bins[0].imag(), 0.0f);
    EXPECT_EQ(bins[size / 2].imag(), 0.0f);
}

void check_inverse(int size) {
    real_fft fft(size);
    const std::vector<float> re = random_signal(size / 2 + 1, 23u);
    const std::vector<float> im = random_signal(size / 2 + 1, 29u);
    std::vector<std::complex<float>> bins(static_cast<size_t>(size / 2 + 1));
    for (size_t k = 0; k < bins.size(); ++k) bins[k] = {re[k], im[k]};
    // Nonzero imaginary parts at bins 0 and size / 2: ignored, as irfft does.
    EXPECT_NE(bins[0].imag(), 0.0f);
    EXPECT_NE(bins[size / 2].imag(), 0.0f);
    std::vector<float> out(static_cast<size_t>(size));
    fft.inverse(bins.data(), out.data());
    const std::vector<double> expected = direct_inverse(bins, size);
    // The same error model over the whole Hermitian spectrum, whose norm is
    // sqrt(2) x that of the half given (unnormalised: no 1 / size).
    std::vector<float> flat;
    for (const auto& b : bins) {
        flat.push_back(b.real());
        flat.push_back(b.imag());
    }
    const double tolerance = fft_tolerance(flat) * std::sqrt(2.0);
    for (int n = 0; n < size; ++n) EXPECT_NEAR(out[n], expected[n], tolerance) << "n " << n;

    std::vector<std::complex<float>> zeroed = bins;
    zeroed[0] = {bins[0].real(), 0.0f};
    zeroed[size / 2] = {bins[size / 2].real(), 0.0f};
    std::vector<float> out_zeroed(static_cast<size_t>(size));
    fft.inverse(zeroed.data(), out_zeroed.data());
    EXPECT_EQ(out, out_zeroed);
}

void check_round_trip(int size) {
    real_fft fft(size);
    const std::vector<float> x = random_signal(size, 5u);
    std::vector<std::complex<float>> bins(static_cast<size_t>(size / 2 + 1));
    std::vector<float> back(static_cast<size_t>(size));
    fft.forward(x.data(), bins.data());
    fft.inverse(bins.data(), back.data());
    // Two transforms of the error above, relative to the scaled signal.
    const double tolerance = 2.0 * fft_tolerance(x) * std::sqrt(static_cast<double>(size));
    for (int n = 0; n < size; ++n) {
        EXPECT_NEAR(back[n], static_cast<double>(size) * x[n], tolerance) << "n " << n;
    }
}

TEST(Part5_2_RealFft, ForwardMatchesDirectDft) {
    for (int size : sizes) {
        SCOPED_TRACE(size);
        check_forward(size);
    }
}

TEST(Part5_2_RealFft, InverseMatchesDirectInverseAndIgnoresEdgeImaginaryParts) {
    for (int size : sizes) {
        SCOPED_TRACE(size);
        check_inverse(size);
    }
}

TEST(Part5_2_RealFft, RoundTripScalesBySize) {
    for (int size : sizes) {
        SCOPED_TRACE(size);
        check_round_trip(size);
    }
}

TEST(Part5_2_RealFftSizes, RefusesOddSizesAndSizesKissFftWouldAllocateFor) {
    EXPECT_THROW(real_fft(0), std::invalid_argument);
    EXPECT_THROW(real_fft(-480), std::invalid_argument);
    EXPECT_THROW(real_fft(481), std::invalid_argument);
    EXPECT_THROW(real_fft(14), std::invalid_argument);   // 7: generic butterfly
    EXPECT_THROW(real_fft(2 * 11 * 16), std::invalid_argument);
    EXPECT_NO_THROW(real_fft(2));
    EXPECT_NO_THROW(real_fft(2 * 3 * 5 * 4));
}

TEST(Part5_2_RealFftSizes, MovedObjectKeepsWorking) {
    real_fft first(480);
    real_fft second(std::move(first));
    const std::vector<float> x = random_signal(480, 3u);
    std::vector<std::complex<float>> bins(241);
    second.forward(x.data(), bins.data());
    const std::vector<std::complex<double>> expected = direct_dft(x);
    EXPECT_NEAR(bins[7].real(), expected[7].real(), fft_tolerance(x));
    EXPECT_EQ(second.size(), 480);
}

} // namespace
