// The voice activity detector around the light suppressor: whatever the host's frame length, its
// output stream is the suppressor's on consecutive 480-sample hops (level-scaled both ways), its
// probability is the largest of the hops each call completes, and its dry line delays only frames
// of 512 and 1024. The reference runs the suppressor directly, so a lost, repeated or misaligned
// hop, a wrong scale or a wrong maximum shows up as an exact mismatch.
#include "denoise/rnn_suppressor.h"
#include "denoise/voice_activity_detector.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

namespace quelora::denoise {
namespace {

std::vector<float> talker_with_noise(std::size_t count) { // pulses of voiced sound over noise
    std::mt19937 rng(7);
    std::normal_distribution<float> noise(0.0f, 0.01f);
    std::vector<float> x(count);
    for (std::size_t i = 0; i < count; ++i) {
        const double t = static_cast<double>(i) / 48000.0;
        const double envelope = std::fmod(t, 0.6) < 0.35 ? 0.2 : 0.0;
        double voiced = 0.0;
        for (int k = 1; k <= 12; ++k) voiced += std::sin(2 * M_PI * 140.0 * k * t) / k;
        x[i] = static_cast<float>(envelope * voiced) + noise(rng);
    }
    return x;
}

struct reference {
    std::vector<float> output, probability; // per sample, per hop
};

reference run_suppressor_directly(const std::vector<float>& x) {
    rnn_suppressor suppressor;
    reference r;
    std::vector<float> hop(480);
    for (std::size_t start = 0; start + 480 <= x.size(); start += 480) {
        for (std::size_t i = 0; i < 480; ++i) hop[i] = x[start + i] * 32768.0f;
        r.probability.push_back(suppressor.process_frame(hop.data(), hop.data()));
        for (float v : hop) r.output.push_back(v * 3.0518e-05f);
    }
    return r;
}

class VoiceActivityDetector : public testing::TestWithParam<uint32_t> {};

TEST_P(VoiceActivityDetector, StreamsTheSuppressorsHopsWithTheLargestProbabilityPerCall) {
    const uint32_t n = GetParam();
    const std::size_t calls = 48000 * 3 / n;
    const std::vector<float> x = talker_with_noise(calls * n);
    const reference want = run_suppressor_directly(x);
    ASSERT_GT(*std::max_element(want.probability.begin(), want.probability.end()), 0.5f);

    voice_activity_detector detector(n, 2);
    const bool direct = n == 480 || n == 960;
    const std::size_t dry_delay = n == 512 || n == 1024 ? n : 0;
    std::vector<float> block(2 * n), dry(n);
    std::size_t hops_done = 0, delivered = 0, underruns = 0;
    for (std::size_t c = 0; c < calls; ++c) {
        const auto input = x.begin() + static_cast<std::ptrdiff_t>(c * n);
        std::copy_n(input, n, block.begin());
        std::fill(block.begin() + n, block.end(), -1.0f);
        const float p = detector.process(block.data(), block.data(), dry.data());
        const std::size_t hops_now = (c + 1) * n / 480;
        const float expected_p = hops_now == hops_done
                                     ? 0.0f
                                     : *std::max_element(want.probability.begin() + hops_done,
                                                         want.probability.begin() + hops_now);
        ASSERT_EQ(p, expected_p) << "call " << c;
        hops_done = hops_now;
        // A frame comes out once the hops done hold it; until then the block keeps its input.
        const bool ready = direct || hops_done * 480 - delivered >= n;
        const float* expected = ready ? want.output.data() + delivered : &*input;
        if (ready)
            delivered += n;
        else
            underruns += c * n >= 480;
        for (std::size_t i = 0; i < n; ++i) {
            ASSERT_EQ(block[i], expected[i]) << "call " << c << " sample " << i;
            ASSERT_EQ(block[n + i], block[i]); // both channels carry the result
            const float dry_want = c * n + i < dry_delay ? 0.0f : x[c * n + i - dry_delay];
            ASSERT_EQ(dry[i], dry_want) << "call " << c << " sample " << i;
        }
    }
    EXPECT_GT(delivered, x.size() * 9 / 10);
    // Lengths that do not divide into hops now and then find the output FIFO a few samples short.
    if (n == 441) {
        EXPECT_GT(underruns, 0u);
    }
}

INSTANTIATE_TEST_SUITE_P(FrameLengths, VoiceActivityDetector,
                         testing::Values(480u, 960u, 441u, 512u, 1024u, 160u, 1500u));

TEST(VoiceActivityDetectorInput, BadSamplesDoNotPoisonTheRecurrentState) {
    // A NaN, an infinity and a huge value, then clean input: the detector recovers and agrees
    // with one that saw silence instead.
    voice_activity_detector hit(480, 1), clean(480, 1);
    std::vector<float> a(480, 0.0f), b(480, 0.0f);
    a[3] = std::nanf(""), a[50] = INFINITY, a[90] = -1e30f;
    hit.process(a.data(), a.data(), nullptr);
    clean.process(b.data(), b.data(), nullptr);
    const std::vector<float> x = talker_with_noise(480 * 200);
    float p_hit = 0, p_clean = 0;
    for (std::size_t h = 0; h < 200; ++h) {
        std::copy_n(x.begin() + h * 480, 480, a.begin());
        std::copy_n(x.begin() + h * 480, 480, b.begin());
        p_hit = hit.process(a.data(), a.data(), nullptr);
        p_clean = clean.process(b.data(), b.data(), nullptr);
        for (float v : a) ASSERT_TRUE(std::isfinite(v)) << h;
    }
    EXPECT_NEAR(p_hit, p_clean, 1e-3);
}

} // namespace
} // namespace quelora::denoise
