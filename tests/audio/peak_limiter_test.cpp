// The listener's stereo peak limiter against a straightforward model in double precision, and
// hand-worked cases of its hold rule and of NaN and infinite samples.
#include "audio/peak_limiter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <vector>

namespace quelora {
namespace {

// Threshold -0.2 dB, attack 0.2 ms, release 10 ms at 48 kHz, in the textbook
// forms (10^(dB / 20); 1 % left after the time), not the limiter's own.
const double t = std::pow(10.0, -0.2 / 20.0);
const double a = std::pow(0.01, 1000.0 / (48000.0 * 0.2));
const double r = std::pow(0.01, 1000.0 / (48000.0 * 10.0));
constexpr size_t L = 9; // look-ahead and hold: 0.2 ms at 48 kHz, truncated

struct stereo {
    std::vector<float> left, right;
};

// The whole signal through one limiter, in blocks of the given sizes (cycled).
stereo limit(stereo s, const std::vector<size_t>& sizes) {
    peak_limiter limiter(480);
    for (size_t at = 0, k = 0; at < s.left.size(); at += sizes[k++ % sizes.size()]) {
        const size_t n = std::min(s.left.size() - at, sizes[k % sizes.size()]);
        limiter.process(&s.left[at], &s.right[at], static_cast<int32_t>(n));
    }
    return s;
}

// The side chain holds a peak for L samples from when it was taken (NaN and
// infinities count as 9e20); the envelope attacks towards a higher held peak
// and releases towards a lower one; out = input L samples late x min(1, t / env).
stereo model(const stereo& in) {
    const auto magnitude = [](float x) { return std::isfinite(x) ? std::fabs(double{x}) : 9e20; };
    stereo out{std::vector<float>(in.left.size()), std::vector<float>(in.left.size())};
    double held = t, env = t;
    for (size_t n = 0, counter = 0; n < in.left.size(); ++n) {
        const double p = std::max({t, magnitude(in.left[n]), magnitude(in.right[n])});
        if (++counter >= L || held < p) held = p, counter = 0;
        env = held > env ? a * env + (1 - a) * held : r * env + (1 - r) * held;
        const double gain = std::min(1.0, t / env);
        if (n >= L) out.left[n] = static_cast<float>(gain * in.left[n - L]);
        if (n >= L) out.right[n] = static_cast<float>(gain * in.right[n - L]);
    }
    return out;
}

stereo sines(size_t frames, double amplitude) {
    stereo s{std::vector<float>(frames), std::vector<float>(frames)};
    for (size_t n = 0; n < frames; ++n) {
        s.left[n] = static_cast<float>(amplitude * std::sin(0.031 * static_cast<double>(n)));
        s.right[n] = static_cast<float>(amplitude * std::cos(0.017 * static_cast<double>(n)));
    }
    return s;
}

TEST(PeakLimiter, MatchesTheDoublePrecisionModelInBlocksOfAnySize) {
    // Quiet at first (below the threshold: the input exactly, 9 samples
    // late), then bursts from 0.03 to 30, silences, sweeps and spikes.
    std::mt19937 rng(3);
    std::uniform_real_distribution<double> uniform(-1.0, 1.0);
    stereo in = sines(48000, 0.97);
    double level = 0.5;
    for (size_t n = 3000; n < in.left.size(); ++n) {
        if (n % 700 == 0) level = (n / 3000) % 4 == 3 ? 0.0 : std::pow(10.0, 1.5 * uniform(rng));
        const double phase = 0.0001 * static_cast<double>(n) * static_cast<double>(n % 9000);
        in.left[n] = static_cast<float>(level * std::sin(phase) + 0.05 * uniform(rng));
        in.right[n] = static_cast<float>(n % 2345 == 0 ? 40.0 : level * 0.7 * uniform(rng));
    }
    const stereo out = limit(in, {480, 480, 1, 8, 9, 17, 960, 250}), expected = model(in);
    for (size_t n = 0; n < in.left.size(); ++n) {
        const float left = n < L ? 0.0f : in.left[n - L], right = n < L ? 0.0f : in.right[n - L];
        ASSERT_TRUE(n >= 3000 + L || (out.left[n] == left && out.right[n] == right)) << n;
        // The gain and the product are rounded to float once each.
        const double tolerance = 5e-7 * std::max(std::fabs(left), std::fabs(right));
        ASSERT_NEAR(out.left[n], expected.left[n], tolerance) << n;
        ASSERT_NEAR(out.right[n], expected.right[n], tolerance) << n;
    }
}

TEST(PeakLimiter, HoldEndsNineSamplesAfterThePeakWasTakenNotAfterTheLatestEqualPeak) {
    // Peaks H at 100 and 108: the second is not above the held H, so the hold taken at 100 ends at
    // 109 and the envelope releases for 9 samples before the second peak leaves the delay line at
    // 117. By hand: out = H t / (t + (H - t)(1 - a^9) r^9), up to 1.105 t for a huge H.
    for (const double H : {2.0, 1000.0}) {
        stereo in{std::vector<float>(480), std::vector<float>(480)};
        in.left[100] = in.left[108] = static_cast<float>(H);
        const double expected = H * t / (t + (H - t) * (1 - std::pow(a, 9)) * std::pow(r, 9));
        EXPECT_NEAR(limit(in, {480}).left[117], expected, 1e-6 * expected) << H;
    }
}

TEST(PeakLimiter, BadSampleComesOutOnceNineSamplesLateAndTheGainRecovers) {
    using limits = std::numeric_limits<float>;
    for (const float bad : {limits::quiet_NaN(), limits::infinity(), -limits::infinity()}) {
        SCOPED_TRACE(bad);
        stereo in = sines(480 * 24, 0.5);
        in.left[960 + 100] = bad; // block 2, sample 100
        const stereo out = limit(in, {480}), expected = model(in);
        size_t last_changed = 0;
        for (size_t n = 960; n < in.left.size(); ++n) {
            const float delayed = in.left[n - L];
            if (n == 960 + 109) {
                EXPECT_TRUE(std::isnan(bad) ? std::isnan(out.left[n]) : out.left[n] == bad);
                EXPECT_LT(std::fabs(out.right[n]), 1e-20f); // the gain is ~3e-21
            } else if (n < 960 + 100) {
                ASSERT_EQ(out.left[n], delayed) << n; // before the side chain sees it
            } else if (n < 1440) {
                ASSERT_LT(std::fabs(out.left[n]), 1e-18f) << n; // look-ahead, hold, release
            } else {
                ASSERT_NEAR(out.left[n], expected.left[n], 5e-7 * std::fabs(delayed)) << n;
            }
            if (out.left[n] != delayed) last_changed = n;
        }
        // By hand: env - t = 8.9e20 r^(j + 1) after the hold ends at sample
        // 109 of block 2 falls below the float step of the gain at j = 6836,
        // so the last sample the limiter changes lies in block 16.
        EXPECT_EQ(last_changed / 480, 16u);
    }
}

} // namespace
} // namespace quelora
