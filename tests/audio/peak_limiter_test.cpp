// The listener's peak limiter (spec Part 4.2, "Peak limiter"): coefficients,
// the 9-sample look-ahead, attack, hold and release in closed form, a
// double-precision reference, and what NaN and infinite samples do.
#include "audio/peak_limiter.h"

#include "dsp/denormal_guard.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

namespace quelora {
namespace {

// The spec's figures, computed here the textbook way (10^(dB/20), not the
// spec's exp form) so that the limiter's own constants are checked.
const double t_ref = std::pow(10.0, -0.2 / 20.0);
const double a_ref = std::pow(0.01, 1000.0 / (48000.0 * 0.2));
const double r_ref = std::pow(0.01, 1000.0 / (48000.0 * 10.0));
constexpr int32_t L_ref = 9;
constexpr float nan_f = std::numeric_limits<float>::quiet_NaN();
constexpr float inf_f = std::numeric_limits<float>::infinity();

struct stereo {
    std::vector<float> left, right;
    size_t size() const { return left.size(); }
};

// Runs a whole signal through a limiter in blocks of the given sizes
// (cycled), returning the output.
stereo run_blocks(peak_limiter& limiter, const stereo& input, const std::vector<int32_t>& sizes) {
    stereo out = input;
    size_t at = 0;
    size_t k = 0;
    while (at < out.size()) {
        const auto n = static_cast<int32_t>(
            std::min(out.size() - at, static_cast<size_t>(sizes[k++ % sizes.size()])));
        limiter.process(out.left.data() + at, out.right.data() + at, n);
        at += static_cast<size_t>(n);
    }
    return out;
}

// Independent straightforward reading of Part 4.2 over a whole signal, in
// double precision: envelope as c x env + (1 - c) x h, delay by indexing.
struct reference_output {
    std::vector<double> left, right, gain;
};

reference_output reference_limit(const stereo& in) {
    const auto magnitude = [](float x) {
        return std::isfinite(x) ? std::fabs(static_cast<double>(x)) : 9e20;
    };
    reference_output out;
    double held = t_ref, env = t_ref;
    int counter = 0;
    for (size_t n = 0; n < in.size(); ++n) {
        const double value = std::max(magnitude(in.left[n]), magnitude(in.right[n]));
        counter += 1;
        const double p = std::max(t_ref, value);
        if (counter >= L_ref || held < p) {
            held = p;
            counter = 0;
        }
        const double c = held > env ? a_ref : r_ref;
        env = c * env + (1.0 - c) * held;
        const double gain = std::min(1.0, t_ref / env);
        const double dl = n >= L_ref ? static_cast<double>(in.left[n - L_ref]) : 0.0;
        const double dr = n >= L_ref ? static_cast<double>(in.right[n - L_ref]) : 0.0;
        out.gain.push_back(gain);
        out.left.push_back(gain * dl);
        out.right.push_back(gain * dr);
    }
    return out;
}

// Delayed input sample n of a channel (zeros before the start).
float delayed(const std::vector<float>& x, size_t n) {
    return n >= static_cast<size_t>(L_ref) ? x[n - L_ref] : 0.0f;
}

stereo constant(size_t frames, float left, float right) {
    return {std::vector<float>(frames, left), std::vector<float>(frames, right)};
}

stereo quiet_sines(size_t frames, double amplitude) {
    stereo s{std::vector<float>(frames), std::vector<float>(frames)};
    for (size_t n = 0; n < frames; ++n) {
        s.left[n] = static_cast<float>(amplitude * std::sin(0.031 * static_cast<double>(n)));
        s.right[n] = static_cast<float>(amplitude * std::cos(0.017 * static_cast<double>(n)));
    }
    return s;
}

TEST(Part4_2_PeakLimiter, CoefficientsAreTheSpecFigures) {
    // Hand-checked values of the spec text.
    EXPECT_NEAR(t_ref, 0.97724, 1e-5);
    EXPECT_NEAR(a_ref, 0.61897, 1e-5);
    EXPECT_NEAR(r_ref, 0.99045, 1e-5);
    // r^480 = 0.01: one 10 ms block of release divides the excess by 100.
    EXPECT_NEAR(std::pow(r_ref, 480), 0.01, 1e-12);
    EXPECT_EQ(peak_limiter(480).look_ahead(), 9);
    EXPECT_EQ(peak_limiter(1).look_ahead(), 9);
}

TEST(Part4_2_PeakLimiter, QuietSignalIsDelayedByNineSamplesBitExact) {
    // |x| < t: the gain is exactly 1, so the output is the input 9 samples
    // late, bit for bit, across blocks of every size (shorter than L, not
    // a multiple of it, longer than max_frames).
    std::mt19937 rng(7);
    std::uniform_real_distribution<float> uniform(-0.977f, 0.977f);
    stereo in{std::vector<float>(6000), std::vector<float>(6000)};
    for (size_t n = 0; n < in.size(); ++n) {
        in.left[n] = uniform(rng);
        in.right[n] = uniform(rng);
    }
    in.left[100] = 1e-40f; // a subnormal also passes unchanged (no FTZ here)
    peak_limiter limiter(480);
    const stereo out = run_blocks(limiter, in, {480, 1, 7, 9, 10, 479, 1000, 3});
    for (size_t n = 0; n < in.size(); ++n) {
        ASSERT_EQ(out.left[n], delayed(in.left, n)) << n;
        ASSERT_EQ(out.right[n], delayed(in.right, n)) << n;
    }
}

TEST(Part4_2_PeakLimiter, SteadyLoudSignalSettlesAtTheThreshold) {
    peak_limiter limiter(480);
    stereo out = run_blocks(limiter, constant(4800, 3.0f, -2.0f), {480});
    // The envelope reaches the held peak 3.0; left comes out at t, right at 2/3 t.
    EXPECT_NEAR(out.left.back(), t_ref, 1e-6);
    EXPECT_NEAR(out.right.back(), -2.0 / 3.0 * t_ref, 1e-6);
}

TEST(Part4_2_PeakLimiter, AttackFollowsTheClosedFormAndLooksAhead) {
    // 0.5 for 100 samples, then a step to A. The held peak jumps to A at
    // sample 100 and is renewed with A every 9 samples, so
    // env(100 + k) = A - (A - t) a^(k+1).
    const double A = 4.0;
    stereo in = constant(1000, 0.5f, 0.0f);
    std::fill(in.left.begin() + 100, in.left.end(), static_cast<float>(A));
    peak_limiter limiter(480);
    const stereo out = run_blocks(limiter, in, {480});
    const auto envelope = [&](int k) { return A - (A - t_ref) * std::pow(a_ref, k + 1); };
    // Look-ahead: the 9 quiet samples still in the delay line are turned
    // down before the step reaches the output.
    for (int k = 0; k < 9; ++k) {
        const double expected = 0.5 * t_ref / envelope(k);
        EXPECT_NEAR(out.left[100 + static_cast<size_t>(k)], expected, 1e-6 * expected) << k;
    }
    for (int k = 9; k < 300; ++k) {
        const double expected = A * t_ref / envelope(k);
        EXPECT_NEAR(out.left[100 + static_cast<size_t>(k)], expected, 1e-6 * expected) << k;
    }
}

TEST(Part4_2_PeakLimiter, LoudStepExceedsTheThresholdOnlyByTheAttackResidue) {
    // The spec's envelope has gone through only 10 attack steps when the
    // step leaves the delay line, so the step comes out above t, by a
    // factor at most 1 / (1 - (1 - t/A) a^10) < 1 / (1 - a^10) = 1.00832,
    // falling towards t. What is asserted is that true property.
    const double bound_any_step = t_ref / (1.0 - std::pow(a_ref, 10));
    EXPECT_NEAR(bound_any_step / t_ref, 1.00832, 1e-5);
    for (const double A : {1.0, 2.0, 10.0, 1e6}) {
        peak_limiter limiter(480);
        stereo in = constant(960, 0.0f, 0.0f);
        std::fill(in.right.begin() + 200, in.right.end(), static_cast<float>(-A));
        const stereo out = run_blocks(limiter, in, {480});
        const double first = -out.right[209];
        const double bound = t_ref / (1.0 - (1.0 - t_ref / A) * std::pow(a_ref, 10));
        EXPECT_GT(first, t_ref) << A;
        EXPECT_LE(first, bound * (1 + 1e-6)) << A;
        EXPECT_LT(bound, bound_any_step) << A;
        for (size_t n = 210; n < out.size(); ++n) {
            ASSERT_LE(-out.right[n], -out.right[n - 1] * (1 + 1e-7)) << A << " " << n;
            ASSERT_GE(-out.right[n], t_ref * (1 - 1e-6)) << A << " " << n;
        }
        EXPECT_NEAR(-out.right.back(), t_ref, 1e-6) << A;
    }
}

TEST(Part4_2_PeakLimiter, HoldCanReleaseBeforeALaterPeakLeavesTheDelayLine) {
    // The hold counter runs from the last time the held peak was set, not
    // from the sample that needs it: a peak H at s and an equal peak at
    // s + 8 (no new hold: H is not above H) lose their hold at s + 9, and the
    // second peak leaves the delay line after 9 release steps:
    // out = H t / (t + (H - t)(1 - a^9) r^9), up to t / ((1 - a^9) r^9) =
    // 1.1049 t for a huge H. That is the spec's rule; the test pins it.
    const double beta = (1.0 - std::pow(a_ref, 9)) * std::pow(r_ref, 9);
    EXPECT_NEAR(1.0 / beta, 1.10491, 1e-5);
    for (const double H : {2.0, 1000.0}) {
        stereo in = constant(480, 0.0f, 0.0f);
        in.left[100] = static_cast<float>(H);
        in.left[108] = static_cast<float>(H);
        peak_limiter limiter(480);
        const stereo out = run_blocks(limiter, in, {480});
        const double expected = H * t_ref / (t_ref + (H - t_ref) * beta);
        EXPECT_NEAR(out.left[117], expected, 1e-6 * expected) << H;
        EXPECT_GT(out.left[117], t_ref * 1.02) << H;
    }
}

TEST(Part4_2_PeakLimiter, NoSampleExceedsTheProvableBound) {
    // For any signal, a sample x with |x| > t leaves the limiter with at most
    // |x| t / (t + (|x| - t)(1 - a^9) r^9): its value is held for 9
    // consecutive samples that start at most 8 samples before it, and the
    // envelope can release for at most 9 samples before it comes out.
    const double beta = (1.0 - std::pow(a_ref, 9)) * std::pow(r_ref, 9);
    std::mt19937 rng(11);
    std::uniform_real_distribution<float> uniform(-1.0f, 1.0f);
    std::uniform_int_distribution<int> spike(0, 40);
    stereo in{std::vector<float>(20000), std::vector<float>(20000)};
    for (size_t n = 0; n < in.size(); ++n) {
        const float scale = spike(rng) == 0 ? 50.0f : 1.5f;
        in.left[n] = scale * uniform(rng);
        in.right[n] = scale * uniform(rng);
    }
    peak_limiter limiter(480);
    const stereo out = run_blocks(limiter, in, {480, 33});
    double worst = 0.0;
    const auto check = [&](const std::vector<float>& input, const std::vector<float>& output) {
        for (size_t n = static_cast<size_t>(L_ref); n < input.size(); ++n) {
            const double x = std::fabs(static_cast<double>(input[n - L_ref]));
            const double y = std::fabs(static_cast<double>(output[n]));
            const double bound = x > t_ref ? x * t_ref / (t_ref + (x - t_ref) * beta) : x;
            ASSERT_LE(y, bound * (1 + 1e-6)) << n;
            worst = std::max(worst, y);
        }
    };
    check(in.left, out.left);
    check(in.right, out.right);
    EXPECT_LT(worst, t_ref / beta);
}

TEST(Part4_2_PeakLimiter, ReleaseFollowsTheClosedForm) {
    // A = 2 for samples 0..900, then 0.5. The hold renews at 0, 9, ..., 900;
    // at 909 the held peak falls to t and the envelope releases:
    // env(909 + j) = t + (A - t) r^(j+1).
    const double A = 2.0, q = 0.5;
    stereo in = constant(4000, q, -q);
    std::fill(in.left.begin(), in.left.begin() + 901, static_cast<float>(A));
    peak_limiter limiter(480);
    const stereo out = run_blocks(limiter, in, {480});
    for (size_t n = 910; n < 4000; ++n) {
        const double expected = q * t_ref / (t_ref + (A - t_ref) * std::pow(r_ref, static_cast<double>(n - 908)));
        ASSERT_NEAR(out.left[n], expected, 1e-6 * expected) << n;
        ASSERT_NEAR(out.right[n], -expected, 1e-6 * expected) << n;
    }
}

TEST(Part4_2_PeakLimiter, MatchesADoublePrecisionReference) {
    // Bursts, silence, sweeps and spikes in blocks of many sizes. Tolerance:
    // 5e-7 relative to the delayed input (the gain and the product are
    // rounded to float once each, ~1.2e-7).
    std::mt19937 rng(3);
    std::uniform_real_distribution<double> uniform(-1.0, 1.0);
    const size_t frames = 48000;
    stereo in{std::vector<float>(frames), std::vector<float>(frames)};
    double level = 0.5;
    for (size_t n = 0; n < frames; ++n) {
        if (n % 700 == 0) level = std::pow(10.0, 1.5 * uniform(rng)); // 0.03 .. 30
        if ((n / 3000) % 4 == 3) level = 0.0;
        const double phase = 0.0001 * static_cast<double>(n) * static_cast<double>(n % 9000);
        in.left[n] = static_cast<float>(level * std::sin(phase) + 0.05 * uniform(rng));
        in.right[n] = static_cast<float>(level * 0.7 * uniform(rng));
        if (n % 2345 == 0) in.right[n] = 40.0f;
    }
    const reference_output ref = reference_limit(in);
    peak_limiter limiter(480);
    const stereo out = run_blocks(limiter, in, {480, 480, 1, 8, 9, 17, 960, 250});
    for (size_t n = 0; n < frames; ++n) {
        const double tol_l = 5e-7 * std::fabs(static_cast<double>(delayed(in.left, n)));
        const double tol_r = 5e-7 * std::fabs(static_cast<double>(delayed(in.right, n)));
        ASSERT_NEAR(out.left[n], ref.left[n], tol_l) << n;
        ASSERT_NEAR(out.right[n], ref.right[n], tol_r) << n;
    }
}

// A quiet stereo signal in 480-sample blocks with one bad left sample at
// `position` of block `bad_block`; returns the output and the reference.
struct bad_sample_run {
    stereo in, out;
    reference_output ref;
};

bad_sample_run run_with_bad_sample(float bad, size_t bad_block, size_t position, size_t blocks) {
    bad_sample_run run;
    run.in = quiet_sines(480 * blocks, 0.5);
    run.in.left[480 * bad_block + position] = bad;
    peak_limiter limiter(480);
    run.out = run_blocks(limiter, run.in, {480});
    run.ref = reference_limit(run.in);
    return run;
}

TEST(Part4_2_PeakLimiter, NanSampleComesOutOnceAndLaterBlocksRecover) {
    // Part 4.2 replaces a NaN only in the side chain: the envelope sees
    // 9e+20 and the gain drops to ~3e-21, but the NaN itself goes through
    // the delay line and leaves as gain x NaN = NaN, 9 samples later.
    const size_t B = 2, blocks = 24;
    const bad_sample_run run = run_with_bad_sample(nan_f, B, 100, blocks);
    const size_t start = 480 * B;
    for (size_t i = 0; i < 480; ++i) {
        const size_t n = start + i;
        if (i < 100) { // before the bad sample enters the side chain: untouched
            ASSERT_EQ(run.out.left[n], delayed(run.in.left, n)) << i;
            ASSERT_EQ(run.out.right[n], delayed(run.in.right, n)) << i;
        } else if (i == 109) {
            EXPECT_TRUE(std::isnan(run.out.left[n]));
            EXPECT_TRUE(std::isfinite(run.out.right[n]));
            EXPECT_LT(std::fabs(run.out.right[n]), 1e-20f);
        } else { // look-ahead and hold/release: turned down to ~1e-21..1e-19
            ASSERT_TRUE(std::isfinite(run.out.left[n])) << i;
            ASSERT_LT(std::fabs(run.out.left[n]), 1e-18f) << i;
            ASSERT_LT(std::fabs(run.out.right[n]), 1e-18f) << i;
        }
    }
    // Later blocks: finite, following the reference release
    // (env - t shrinks by 100 per block), and bit-exact again once the
    // gain rounds to 1.0f.
    size_t first_exact_block = blocks;
    for (size_t b = B + 1; b < blocks; ++b) {
        bool exact = true;
        for (size_t n = 480 * b; n < 480 * (b + 1); ++n) {
            ASSERT_TRUE(std::isfinite(run.out.left[n]) && std::isfinite(run.out.right[n])) << n;
            ASSERT_NEAR(run.out.left[n], run.ref.left[n],
                        5e-7 * std::fabs(static_cast<double>(delayed(run.in.left, n))));
            exact = exact && run.out.left[n] == delayed(run.in.left, n) &&
                    run.out.right[n] == delayed(run.in.right, n);
        }
        if (exact && first_exact_block == blocks) first_exact_block = b;
        if (first_exact_block < blocks) {
            EXPECT_TRUE(exact) << b;
        }
    }
    // Worked out from the closed form: env - t = 8.88e20 x r^(j+1) after the
    // hold ends at sample 109; the gain is 1.0f once that is below ~2.9e-8,
    // j = 6836, sample 6945 from the bad block's start: inside block B + 14.
    EXPECT_EQ(first_exact_block, B + 15);
    // Within 0.1 % of the input level from block B + 13 on (j >= 5747).
    for (size_t n = 480 * (B + 13); n < run.in.size(); ++n) {
        const double x = std::fabs(static_cast<double>(delayed(run.in.left, n)));
        ASSERT_NEAR(std::fabs(static_cast<double>(run.out.left[n])), x, 1e-3 * x) << n;
    }
}

TEST(Part4_2_PeakLimiter, InfiniteSamplesComeOutOnceWithTheirSign) {
    // gain x +-Inf with a gain of ~3e-21 is still +-Inf.
    stereo in = quiet_sines(480 * 20, 0.5);
    in.left[480 + 50] = inf_f;
    in.right[480 + 50] = -inf_f;
    peak_limiter limiter(480);
    const stereo out = run_blocks(limiter, in, {480});
    for (size_t n = 480; n < in.size(); ++n) {
        if (n == 480 + 59) {
            EXPECT_EQ(out.left[n], inf_f);
            EXPECT_EQ(out.right[n], -inf_f);
        } else {
            ASSERT_TRUE(std::isfinite(out.left[n]) && std::isfinite(out.right[n])) << n;
        }
    }
    // 20 blocks later the envelope has released fully.
    for (size_t n = 480 * 19; n < in.size(); ++n) ASSERT_EQ(out.left[n], delayed(in.left, n));
}

TEST(Part4_2_PeakLimiter, BadSampleNearTheBlockEndComesOutInTheNextBlock) {
    const bad_sample_run run = run_with_bad_sample(nan_f, 1, 475, 4);
    for (size_t n = 480; n < 480 * 4; ++n) {
        if (n == 960 + 4) {
            EXPECT_TRUE(std::isnan(run.out.left[n]));
        } else {
            ASSERT_TRUE(std::isfinite(run.out.left[n])) << n;
        }
    }
    for (size_t n = 480; n < 480 + 475; ++n) ASSERT_EQ(run.out.left[n], delayed(run.in.left, n));
    for (size_t n = 480 + 475; n < 480 * 3; ++n) {
        if (n != 960 + 4) {
            ASSERT_LT(std::fabs(run.out.left[n]), 1e-18f) << n;
        }
    }
}

TEST(Part4_2_PeakLimiter, ResetStartsOver) {
    stereo in = quiet_sines(1440, 0.5);
    in.left[200] = 100.0f;
    peak_limiter limiter(480);
    const stereo first = run_blocks(limiter, in, {480});
    limiter.reset();
    const stereo second = run_blocks(limiter, in, {480});
    for (size_t n = 0; n < in.size(); ++n) {
        ASSERT_EQ(first.left[n], second.left[n]) << n;
        ASSERT_EQ(first.right[n], second.right[n]) << n;
    }
}

#ifdef QUELORA_HAS_MXCSR
TEST(Part4_2_PeakLimiter, SubnormalInputGivesNoSubnormalOutputUnderTheDenormalGuard) {
    stereo in = constant(960, 1e-40f, -3e-39f);
    in.left[500] = 5.0f; // makes the gain non-trivial for a while
    peak_limiter limiter(480);
    const dsp::denormal_guard guard;
    const stereo out = run_blocks(limiter, in, {480});
    for (size_t n = 0; n < out.size(); ++n) {
        ASSERT_NE(std::fpclassify(out.left[n]), FP_SUBNORMAL) << n;
        ASSERT_NE(std::fpclassify(out.right[n]), FP_SUBNORMAL) << n;
    }
}
#endif

} // namespace
} // namespace quelora
