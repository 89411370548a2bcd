// The polyphase resampler of the Overview (Parts 4.1 and 4.2): block sizes,
// DC gain 0.98, the 128-input-sample delay, seamless blocks, in-place use,
// independent channels, and a tone's level through 16k -> 48k -> 16k.
//
// The reference below is written from the design formula in absolute time,
// sample by sample, in double, with the standard library's Bessel function:
// it shares no code with the resampler's block, state and phase-table logic.
#include "audio/polyphase_resampler.h"
#include "dsp/kaiser_window.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <map>
#include <numbers>
#include <random>
#include <stdexcept>
#include <vector>

namespace {

using quelora::polyphase_resampler;

struct rate_pair {
    int32_t input_rate, output_rate;
};

// Every pair the library uses (Parts 4.1 and 4.2) and a 44.1 kHz pair for
// the "any rational ratio" claim (L / M = 160 / 147).
const rate_pair library_pairs[] = {
    {8000, 48000}, {16000, 48000}, {24000, 48000}, {32000, 48000},
    {48000, 8000}, {48000, 16000}, {48000, 24000}, {48000, 32000},
};

// Continuous-time tap of the design: (2 fc / fs) sinc(2 fc tau / fs) x
// Kaiser(tau / 127, beta 9), Kaiser written with std::cyl_bessel_i.
double design_tap(double tau, const rate_pair& r) {
    if (!(std::fabs(tau) <= 127.0)) return 0.0;
    const double fc = 0.95 * std::min(r.input_rate, r.output_rate) / 2.0;
    const double b = 2.0 * fc / r.input_rate;
    const double x = b * tau;
    const double sinc = x == 0.0 ? 1.0 : std::sin(std::numbers::pi * x) / (std::numbers::pi * x);
    const double u = tau / 127.0;
    const double window =
        std::cyl_bessel_i(0.0, 9.0 * std::sqrt(1.0 - u * u)) / std::cyl_bessel_i(0.0, 9.0);
    return b * sinc * window;
}

// Output sample j of the whole stream (counted from the first call) sits at
// input time t = j * in / out - 128 and sums the input samples n with
// t - 127 < n <= t + 127 (zeros before the start), scaled so that the 254
// weights sum to 0.98.
class direct_reference {
public:
    explicit direct_reference(rate_pair r) : r_(r) {}

    double output(const std::vector<float>& input, int64_t j) {
        const int64_t numerator =
            j * r_.input_rate - int64_t{128} * r_.output_rate; // t = num / out
        const int64_t floor_t = numerator >= 0
                                    ? numerator / r_.output_rate
                                    : -((-numerator + r_.output_rate - 1) / r_.output_rate);
        const int64_t remainder = numerator - floor_t * r_.output_rate;
        const std::vector<double>& w = weights(remainder);
        double sum = 0.0;
        for (int64_t m = 0; m < 254; ++m) {
            const int64_t n = floor_t - 126 + m;
            if (n >= 0 && n < static_cast<int64_t>(input.size())) sum += w[m] * input[n];
        }
        return sum;
    }

private:
    // Weights for t = floor(t) + remainder / out, cached per fraction.
    const std::vector<double>& weights(int64_t remainder) {
        auto found = cache_.find(remainder);
        if (found != cache_.end()) return found->second;
        std::vector<double> w(254);
        double total = 0.0;
        for (int m = 0; m < 254; ++m) {
            const double tau = (m - 126) - static_cast<double>(remainder) / r_.output_rate;
            w[m] = design_tap(tau, r_);
            total += w[m];
        }
        for (double& v : w) v *= 0.98 / total;
        return cache_.emplace(remainder, std::move(w)).first->second;
    }

    rate_pair r_;
    std::map<int64_t, std::vector<double>> cache_;
};

// Runs `input` through a fresh single-channel resampler in whole blocks.
std::vector<float> run_blocks(const rate_pair& r, int32_t output_frames,
                              const std::vector<float>& input) {
    polyphase_resampler resampler(r.input_rate, r.output_rate, 1, output_frames);
    const size_t blocks = input.size() / static_cast<size_t>(resampler.input_frames());
    std::vector<float> output(blocks * static_cast<size_t>(output_frames));
    for (size_t b = 0; b < blocks; ++b)
        resampler.process(0, input.data() + b * resampler.input_frames(),
                          output.data() + b * output_frames);
    return output;
}

std::vector<float> white_noise(size_t count, uint32_t seed) {
    std::mt19937 generator(seed);
    std::uniform_real_distribution<float> distribution(-1.0f, 1.0f);
    std::vector<float> v(count);
    for (float& x : v) x = distribution(generator);
    return v;
}

} // namespace

TEST(Overview_PolyphaseResampler, KaiserWindowMatchesTheStandardBesselFunction) {
    for (double x : {0.0, 0.5, 1.0, 4.5, 9.0, 20.0})
        EXPECT_NEAR(quelora::dsp::bessel_i0(x) / std::cyl_bessel_i(0.0, x), 1.0, 1e-13) << x;
    const double i0_beta = std::cyl_bessel_i(0.0, 9.0);
    for (double u : {-1.0, -0.7, -0.25, 0.0, 0.3, 0.99, 1.0}) {
        EXPECT_NEAR(quelora::dsp::kaiser_window(u, 9.0),
                    std::cyl_bessel_i(0.0, 9.0 * std::sqrt(1.0 - u * u)) / i0_beta, 1e-14)
            << u;
    }
    EXPECT_EQ(quelora::dsp::kaiser_window(1.0001, 9.0), 0.0);
    EXPECT_EQ(quelora::dsp::kaiser_window(-1.5, 9.0), 0.0);
}

TEST(Overview_PolyphaseResampler, BlockLengthsOfEveryRatePairAndBlock) {
    struct row {
        rate_pair r;
        int32_t output_frames, input_frames;
    };
    std::vector<row> rows;
    for (const rate_pair& r : library_pairs) {
        for (int32_t ms : {10, 20})
            rows.push_back({r, r.output_rate * ms / 1000, r.input_rate * ms / 1000});
    }
    // Power-of-two blocks: 512 / 1024 at 48 kHz against 256 / 512 at 24 kHz.
    rows.push_back({{24000, 48000}, 512, 256});
    rows.push_back({{24000, 48000}, 1024, 512});
    rows.push_back({{48000, 24000}, 256, 512});
    rows.push_back({{48000, 24000}, 512, 1024});
    const float sentinel = std::numeric_limits<float>::quiet_NaN();
    for (const row& w : rows) {
        SCOPED_TRACE(testing::Message() << w.r.input_rate << " -> " << w.r.output_rate << ", "
                                        << w.output_frames << " frames");
        polyphase_resampler resampler(w.r.input_rate, w.r.output_rate, 1, w.output_frames);
        EXPECT_EQ(resampler.input_frames(), w.input_frames);
        EXPECT_EQ(resampler.output_frames(), w.output_frames);
        EXPECT_EQ(resampler.channels(), 1);
        // NaN just past the input block would reach a later output if it were
        // read; NaN just past the output block shows a write beyond it.
        std::vector<float> input(static_cast<size_t>(w.input_frames) + 8, sentinel);
        std::vector<float> output(static_cast<size_t>(w.output_frames) + 8, sentinel);
        for (int call = 0; call < 4; ++call) {
            for (int32_t i = 0; i < w.input_frames; ++i)
                input[i] = std::sin(0.01f * static_cast<float>(i));
            resampler.process(0, input.data(), output.data());
            for (int32_t j = 0; j < w.output_frames; ++j)
                ASSERT_TRUE(std::isfinite(output[j])) << j;
            for (size_t j = static_cast<size_t>(w.output_frames); j < output.size(); ++j)
                ASSERT_TRUE(std::isnan(output[j])) << j;
        }
    }
}

TEST(Overview_PolyphaseResampler, RejectsInvalidArguments) {
    EXPECT_THROW(polyphase_resampler(0, 48000, 1, 480), std::invalid_argument);
    EXPECT_THROW(polyphase_resampler(16000, -48000, 1, 480), std::invalid_argument);
    EXPECT_THROW(polyphase_resampler(16000, 48000, 0, 480), std::invalid_argument);
    EXPECT_THROW(polyphase_resampler(16000, 48000, 1, 0), std::invalid_argument);
    // 16000 x 100 / 48000 is not whole.
    EXPECT_THROW(polyphase_resampler(16000, 48000, 1, 100), std::invalid_argument);
    EXPECT_NO_THROW(polyphase_resampler(44100, 48000, 2, 480)); // 441 input frames
}

TEST(Overview_PolyphaseResampler, DcGainIsTheNormalisationOnceSettled) {
    for (const rate_pair& r : library_pairs) {
        SCOPED_TRACE(testing::Message() << r.input_rate << " -> " << r.output_rate);
        const int32_t output_frames = r.output_rate / 100;
        polyphase_resampler resampler(r.input_rate, r.output_rate, 1, output_frames);
        const std::vector<float> input(static_cast<size_t>(resampler.input_frames()), 0.5f);
        std::vector<float> output(static_cast<size_t>(output_frames));
        // The filter reaches 127 input samples either side of a point 128
        // samples back, so from 255 input samples on the output is settled:
        // the fifth 10 ms block (>= 80 samples each) is entirely settled.
        for (int block = 0; block < 5; ++block) resampler.process(0, input.data(), output.data());
        for (int32_t j = 0; j < output_frames; ++j)
            ASSERT_NEAR(output[j], 0.98f * 0.5f, 2e-6f) << j;
    }
}

TEST(Overview_PolyphaseResampler, AnImpulseComesOutExactly128InputSamplesLater) {
    for (const rate_pair& r : library_pairs) {
        SCOPED_TRACE(testing::Message() << r.input_rate << " -> " << r.output_rate);
        // Put the impulse where n0 + 128 falls on the output grid, so the
        // peak is one output sample whose neighbours mirror each other; from
        // n0 = 256 on, at least 40 output samples precede the peak, and the
        // 8 blocks of 10 ms (>= 640 input samples) hold 40 after it.
        int64_t n0 = 256;
        while (((n0 + 128) * r.output_rate) % r.input_rate != 0) ++n0;
        const int64_t peak = (n0 + 128) * r.output_rate / r.input_rate;
        std::vector<float> input(static_cast<size_t>(r.input_rate / 100 * 8), 0.0f);
        input[n0] = 1.0f;
        const std::vector<float> output = run_blocks(r, r.output_rate / 100, input);
        ASSERT_GE(peak, 40);
        ASSERT_LT(peak + 40, static_cast<int64_t>(output.size()));
        size_t largest = 0;
        for (size_t j = 1; j < output.size(); ++j)
            if (std::fabs(output[j]) > std::fabs(output[largest])) largest = j;
        EXPECT_EQ(static_cast<int64_t>(largest), peak);
        // Linear phase: the response is symmetric about the peak (the single
        // edge tap at +127 with window weight 1 / I0(9) breaks it by < 1e-5).
        for (int64_t k = 1; k < 40; ++k)
            EXPECT_NEAR(output[peak - k], output[peak + k], 1e-5f) << k;
        // The peak is the centre tap, 2 fc / fs normalised to the 0.98 sum.
        direct_reference reference(r);
        EXPECT_NEAR(output[peak], reference.output(input, peak), 1e-6);
    }
}

TEST(Overview_PolyphaseResampler, BlocksJoinSeamlesslyAndMatchTheDirectReference) {
    std::vector<rate_pair> pairs(std::begin(library_pairs), std::end(library_pairs));
    pairs.push_back({44100, 48000});
    for (const rate_pair& r : pairs) {
        for (int32_t ms : {10, 20}) {
            SCOPED_TRACE(testing::Message()
                         << r.input_rate << " -> " << r.output_rate << ", " << ms << " ms");
            const int32_t output_frames = r.output_rate * ms / 1000;
            const size_t input_frames = static_cast<size_t>(r.input_rate) * ms / 1000;
            const std::vector<float> input =
                white_noise(input_frames * 6, 7u + static_cast<uint32_t>(ms));
            const std::vector<float> output = run_blocks(r, output_frames, input);
            ASSERT_EQ(output.size(), static_cast<size_t>(output_frames) * 6);
            direct_reference reference(r);
            double worst = 0.0;
            for (size_t j = 0; j < output.size(); ++j)
                worst = std::max(
                    worst, std::fabs(output[j] - reference.output(input, static_cast<int64_t>(j))));
            // Float taps and float sums of 254 products leave a few 1e-7; a
            // wrong tap, phase, delay or seam between blocks shows as 1e-3
            // or more.
            EXPECT_LT(worst, 2e-6);
        }
    }
}

TEST(Overview_PolyphaseResampler, InPlaceEqualsOutOfPlace) {
    for (const rate_pair& r : library_pairs) {
        SCOPED_TRACE(testing::Message() << r.input_rate << " -> " << r.output_rate);
        const int32_t output_frames = r.output_rate / 50;
        polyphase_resampler separate(r.input_rate, r.output_rate, 1, output_frames);
        polyphase_resampler in_place(r.input_rate, r.output_rate, 1, output_frames);
        const size_t input_frames = static_cast<size_t>(separate.input_frames());
        std::vector<float> buffer(std::max(input_frames, static_cast<size_t>(output_frames)));
        std::vector<float> output(static_cast<size_t>(output_frames));
        for (uint32_t block = 0; block < 4; ++block) {
            const std::vector<float> input = white_noise(input_frames, 100u + block);
            std::copy(input.begin(), input.end(), buffer.begin());
            separate.process(0, input.data(), output.data());
            in_place.process(0, buffer.data(), buffer.data());
            for (int32_t j = 0; j < output_frames; ++j)
                ASSERT_EQ(buffer[j], output[j]) << block << " " << j;
        }
    }
}

TEST(Overview_PolyphaseResampler, OutputMayOverlapTheInputAnywhere) {
    // The listener's output side packs a stereo 48 kHz block down to 16 kHz
    // channels back to back in the same buffer: channel 1's output lands
    // inside channel 0's (already consumed) input.
    polyphase_resampler packed(48000, 16000, 2, 160);
    polyphase_resampler reference(48000, 16000, 2, 160);
    std::vector<float> buffer(2 * 480), expected(2 * 160);
    for (uint32_t block = 0; block < 3; ++block) {
        const std::vector<float> input = white_noise(2 * 480, 400u + block);
        std::copy(input.begin(), input.end(), buffer.begin());
        for (int32_t c = 0; c < 2; ++c) {
            packed.process(c, buffer.data() + c * 480, buffer.data() + c * 160);
            reference.process(c, input.data() + c * 480, expected.data() + c * 160);
        }
        for (int j = 0; j < 2 * 160; ++j) ASSERT_EQ(buffer[j], expected[j]) << block << " " << j;
    }
}

TEST(Overview_PolyphaseResampler, ChannelsAreIndependent) {
    const rate_pair r{16000, 48000};
    polyphase_resampler stereo(r.input_rate, r.output_rate, 2, 480);
    polyphase_resampler left(r.input_rate, r.output_rate, 1, 480);
    polyphase_resampler right(r.input_rate, r.output_rate, 1, 480);
    // A planar stereo block laid out as one buffer, processed in place.
    std::vector<float> planar(2 * 480);
    std::vector<float> expected_left(480), expected_right(480);
    for (uint32_t block = 0; block < 5; ++block) {
        const std::vector<float> a = white_noise(160, 200u + block);
        const std::vector<float> b = white_noise(160, 300u + block);
        std::copy(a.begin(), a.end(), planar.begin());
        std::copy(b.begin(), b.end(), planar.begin() + 480);
        // Alternate the channel order: no channel may see the other's state.
        if (block % 2 == 0) {
            stereo.process(0, planar.data(), planar.data());
            stereo.process(1, planar.data() + 480, planar.data() + 480);
        } else {
            stereo.process(1, planar.data() + 480, planar.data() + 480);
            stereo.process(0, planar.data(), planar.data());
        }
        left.process(0, a.data(), expected_left.data());
        right.process(0, b.data(), expected_right.data());
        for (int j = 0; j < 480; ++j) {
            ASSERT_EQ(planar[j], expected_left[j]) << block << " " << j;
            ASSERT_EQ(planar[480 + j], expected_right[j]) << block << " " << j;
        }
    }
}

TEST(Overview_PolyphaseResampler, ResetForgetsTheHistory) {
    polyphase_resampler used(48000, 16000, 1, 160);
    polyphase_resampler fresh(48000, 16000, 1, 160);
    std::vector<float> output(160), expected(160);
    const std::vector<float> loud = white_noise(480, 1u);
    for (int block = 0; block < 3; ++block) used.process(0, loud.data(), output.data());
    used.reset();
    const std::vector<float> next = white_noise(480, 2u);
    used.process(0, next.data(), output.data());
    fresh.process(0, next.data(), expected.data());
    for (int j = 0; j < 160; ++j) ASSERT_EQ(output[j], expected[j]) << j;
}

TEST(Overview_PolyphaseResampler, ToneUpAndDownKeepsItsLevelAndShape) {
    // 1 kHz at amplitude 0.5 through 16k -> 48k -> 16k in 10 ms blocks. The
    // expected result is the tone scaled by 0.98^2 and delayed by 128 samples
    // at 16 kHz plus 128 at 48 kHz (8 + 2.667 ms). At 1 kHz the Kaiser
    // (beta 9) passband ripple is about 3e-5 per pass, so 1e-4 absolute on
    // every sample (about 0.002 dB of the level) is the design's own limit
    // with room for float rounding.
    polyphase_resampler up(16000, 48000, 1, 480);
    polyphase_resampler down(48000, 16000, 1, 160);
    const double f = 1000.0, amplitude = 0.5;
    const double delay = 128.0 / 16000.0 + 128.0 / 48000.0;
    const double expected_amplitude = amplitude * 0.98 * 0.98;
    std::vector<float> block(160), middle(480), result(160);
    double sine = 0.0, cosine = 0.0;
    int64_t n = 0;
    int measured = 0;
    for (int b = 0; b < 30; ++b) {
        for (int i = 0; i < 160; ++i)
            block[i] =
                static_cast<float>(amplitude * std::sin(2.0 * std::numbers::pi * f *
                                                        static_cast<double>(n + i) / 16000.0));
        up.process(0, block.data(), middle.data());
        down.process(0, middle.data(), result.data());
        // From 20 ms on both filters have seen only the tone.
        for (int i = 0; i < 160; ++i, ++n) {
            if (n < 320) continue;
            const double phase =
                2.0 * std::numbers::pi * f * (static_cast<double>(n) / 16000.0 - delay);
            ASSERT_NEAR(result[i], expected_amplitude * std::sin(phase), 1e-4) << n;
            sine += result[i] * std::sin(phase);
            cosine += result[i] * std::cos(phase);
            ++measured;
        }
    }
    // 28 blocks of 10 ms hold whole periods of 1 kHz: a plain projection.
    const double level = 2.0 * std::hypot(sine, cosine) / measured;
    EXPECT_NEAR(20.0 * std::log10(level / amplitude), 40.0 * std::log10(0.98), 0.01);
    EXPECT_NEAR(std::atan2(cosine, sine), 0.0, 1e-3); // in phase with the delayed tone
}
