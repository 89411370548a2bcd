// Spec Part 5.2: the noise_canceller wrapper (re-blocking, muted first block,
// dry delay, dither, clipping, stereo halves) and the whole model's agreement
// with the PyTorch twin (training/dfn/make_golden.py). These run on the
// portable random table of docs/dfn.md section 6, so they do not depend on
// the trained weights.
#include "denoise/block_dither.h"
#include "denoise/noise_canceller.h"
#include "support/dfn_test_table.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <limits>
#include <numbers>
#include <string>
#include <vector>

namespace {

using quelora::denoise::block_dither;
using quelora::denoise::noise_canceller;

const float* random_table() {
    static const std::vector<float> table = quelora::testing::portable_random_dfn_table();
    return table.data();
}

// A deterministic signal around -20 dBFS with every sample distinct.
std::vector<float> test_signal(std::size_t count, float amplitude = 0.1f) {
    std::vector<float> x(count);
    uint32_t state = 12345u;
    for (std::size_t i = 0; i < count; ++i) {
        state = state * 1664525u + 1013904223u;
        const float noise = static_cast<float>(state >> 8) / 16777216.0f - 0.5f;
        x[i] = amplitude * (0.6f * std::sin(0.0314f * static_cast<float>(i)) + noise);
    }
    return x;
}

std::vector<float> read_f32(const std::string& name) {
    const std::string path = std::string(QUELORA_TEST_DATA_DIR) + "/dfn/" + name;
    std::ifstream in(path, std::ios::binary);
    EXPECT_TRUE(in) << path;
    std::vector<float> values;
    float v;
    while (in.read(reinterpret_cast<char*>(&v), sizeof v)) values.push_back(v);
    return values;
}

TEST(Part5_2_NoiseCanceller, LogsCreationAndDestruction) {
    quelora::testing::log_capture log;
    {
        noise_canceller canceller(48000, 1, 480, random_table());
        EXPECT_EQ(log.messages(),
                  std::vector<std::string>{"Noise cancellation model: DFN (created)"});
    }
    EXPECT_EQ(log.count("Noise cancellation model: DFN (destroyed)"), 1u);
}

TEST(Part5_2_NoiseCanceller, FirstBlockIsSilentSecondCarriesTheNetwork) {
    noise_canceller canceller(48000, 1, 480, random_table());
    const std::vector<float> x = test_signal(960);
    std::vector<float> out(480, 7.0f), dry(480);
    canceller.process(x.data(), out.data(), dry.data());
    EXPECT_TRUE(std::all_of(out.begin(), out.end(), [](float v) { return v == 0.0f; }));
    EXPECT_EQ(canceller.frame_count(), 2);
    canceller.process(x.data() + 480, out.data(), dry.data());
    EXPECT_EQ(canceller.frame_count(), 4);
    EXPECT_TRUE(std::any_of(out.begin(), out.end(), [](float v) { return v != 0.0f; }));
}

TEST(Part5_2_NoiseCanceller, Frame480RunsInPlaceWithoutTheFifos) {
    noise_canceller canceller(48000, 1, 480, random_table());
    std::vector<float> block = test_signal(480), dry(480);
    canceller.process(block.data(), block.data(), dry.data());
    // Processed at once: the muted first block overwrote the input.
    EXPECT_TRUE(std::all_of(block.begin(), block.end(), [](float v) { return v == 0.0f; }));
}

TEST(Part5_2_NoiseCanceller, ShortOutputFifoLeavesTheInPlaceInputUntouched) {
    for (uint32_t frames : {441u, 512u}) {
        SCOPED_TRACE(frames);
        noise_canceller canceller(48000, 1, frames, random_table());
        const std::vector<float> x = test_signal(2 * frames);
        std::vector<float> block(x.begin(), x.begin() + frames), dry(frames);
        canceller.process(block.data(), block.data(), dry.data());
        EXPECT_EQ(block, std::vector<float>(x.begin(), x.begin() + frames));
        // The second call returns the muted first block (and, for 512, 32
        // samples of the next one).
        block.assign(x.begin() + frames, x.end());
        canceller.process(block.data(), block.data(), dry.data());
        EXPECT_TRUE(std::all_of(block.begin(), block.begin() + 441,
                                [](float v) { return v == 0.0f; }));
        if (frames == 512) {
            EXPECT_TRUE(std::any_of(block.begin() + 480, block.end(),
                                    [](float v) { return v != 0.0f; }));
        }
    }
}

TEST(Part5_2_NoiseCanceller, DryOutputIsTheInputDelayedExactly) {
    struct expectation {
        uint32_t frames;
        std::size_t delay;
    };
    for (const expectation e : {expectation{480, 1200}, expectation{441, 1200},
                                expectation{960, 1200}, expectation{256, 1200},
                                expectation{512, 1712}, expectation{1024, 2224}}) {
        SCOPED_TRACE(e.frames);
        noise_canceller canceller(48000, 1, e.frames, random_table());
        const std::size_t calls = (e.delay + 2000) / e.frames + 1;
        const std::vector<float> x = test_signal(calls * e.frames);
        std::vector<float> dry(calls * e.frames), out(e.frames);
        for (std::size_t c = 0; c < calls; ++c)
            canceller.process(x.data() + c * e.frames, out.data(), dry.data() + c * e.frames);
        for (std::size_t i = 0; i < dry.size(); ++i)
            ASSERT_EQ(dry[i], i < e.delay ? 0.0f : x[i - e.delay]) << i;
    }
}

TEST(Part5_2_NoiseCanceller, DitherTouchesFourPositionsOfEveryBlock) {
    block_dither dither;
    // States: 2 -> 26, 98, 58, 194 (block 1), then 90, 34, 122, 130 (block 2).
    const int expected[2][4] = {{1, 1, 0, 1}, {-1, 0, 1, 0}};
    for (const auto& block_expectation : expected) {
        std::vector<float> block(480, 0.0f);
        dither.apply(block.data());
        for (int i = 0; i < 480; ++i) {
            const int k = (i - 12) / 128;
            const bool position = i >= 12 && (i - 12) % 128 == 0;
            ASSERT_EQ(block[i], position ? static_cast<float>(block_expectation[k]) * 0x1p-18f : 0.0f)
                << i;
        }
    }
    EXPECT_EQ(block_dither::step, 0x1p-18f);
}

TEST(Part5_2_NoiseCanceller, SilenceStillReachesTheNetworkDithered) {
    noise_canceller canceller(48000, 1, 480, random_table());
    std::vector<float> zeros(480, 0.0f), out(480), dry(480);
    canceller.process(zeros.data(), out.data(), dry.data());
    // The second hop saw the dithered block itself: its spectrum is not zero.
    const std::complex<float>* spectrum = canceller.model().analysis().spectrum(0);
    EXPECT_TRUE(std::any_of(spectrum, spectrum + 241,
                            [](std::complex<float> v) { return std::abs(v) > 0.0f; }));
    EXPECT_TRUE(std::all_of(zeros.begin(), zeros.end(), [](float v) { return v == 0.0f; }))
        << "the host's input is not touched by the dither";
}

TEST(Part5_2_NoiseCanceller, OutputNeverLeavesUnitRange) {
    noise_canceller canceller(48000, 1, 480, random_table());
    std::vector<float> x = test_signal(480 * 20, 1.0f);
    for (float& v : x) v *= 40.0f; // far beyond full scale
    std::vector<float> out(480), dry(480);
    bool clipped = false;
    for (std::size_t b = 0; b < 20; ++b) {
        canceller.process(x.data() + b * 480, out.data(), dry.data());
        for (float v : out) {
            ASSERT_LE(std::abs(v), 1.0f);
            clipped = clipped || std::abs(v) == 1.0f;
        }
    }
    EXPECT_TRUE(clipped) << "the input was meant to drive the output into the clip";
}

TEST(Part5_2_NoiseCanceller, StereoGivesTwoIdenticalPlanarHalves) {
    noise_canceller stereo(48000, 2, 480, random_table());
    noise_canceller mono(48000, 1, 480, random_table());
    const std::vector<float> x = test_signal(480 * 6);
    std::vector<float> out2(960), out1(480), dry(480);
    for (std::size_t b = 0; b < 6; ++b) {
        stereo.process(x.data() + b * 480, out2.data(), dry.data());
        mono.process(x.data() + b * 480, out1.data(), dry.data());
        ASSERT_TRUE(std::equal(out2.begin(), out2.begin() + 480, out2.begin() + 480));
        ASSERT_TRUE(std::equal(out1.begin(), out1.end(), out2.begin()));
    }
}

TEST(Part5_2_NoiseCanceller, NonFiniteInputDoesNotPoisonTheState) {
    // Ours (noise_canceller.cpp): non-finite samples enter the network as
    // zeros, so a canceller fed NaN and infinity recovers exactly like one fed
    // silence in their place.
    noise_canceller poisoned(48000, 1, 480, random_table());
    noise_canceller reference(48000, 1, 480, random_table());
    const std::vector<float> x = test_signal(480 * 8);
    std::vector<float> bad(x.begin(), x.begin() + 480), zeroed = bad;
    bad[3] = std::numeric_limits<float>::quiet_NaN();
    bad[100] = std::numeric_limits<float>::infinity();
    zeroed[3] = 0.0f;
    zeroed[100] = 0.0f;
    std::vector<float> a(480), b(480), dry(480);
    poisoned.process(bad.data(), a.data(), dry.data());
    reference.process(zeroed.data(), b.data(), dry.data());
    for (std::size_t k = 1; k < 8; ++k) {
        poisoned.process(x.data() + k * 480, a.data(), dry.data());
        reference.process(x.data() + k * 480, b.data(), dry.data());
        ASSERT_EQ(a, b);
        ASSERT_TRUE(std::all_of(a.begin(), a.end(), [](float v) { return std::isfinite(v); }));
    }
}

// The whole canceller against the PyTorch twin, run in float64 on the same
// float32 table and dithered input (tests/data/dfn/README.md). The C++ runs
// in float32, so agreement is to float32 accuracy of a deep network:
// every sample within 1e-5 of full scale plus 1e-4 of the block's largest
// reference value, and the error energy 80 dB below the signal's.
TEST(Part5_2_NoiseCanceller, MatchesThePyTorchTwin) {
    const std::vector<float> input = read_f32("golden_input.f32");
    const std::vector<float> expected = read_f32("golden_output.f32");
    ASSERT_EQ(input.size(), expected.size());
    ASSERT_EQ(input.size() % 480, 0u);
    noise_canceller canceller(48000, 1, 480, random_table());
    std::vector<float> out(480), dry(480);
    double error_energy = 0.0, signal_energy = 0.0, worst = 0.0;
    for (std::size_t b = 0; b < input.size() / 480; ++b) {
        canceller.process(input.data() + b * 480, out.data(), dry.data());
        float peak = 0.0f;
        for (std::size_t i = 0; i < 480; ++i) peak = std::max(peak, std::abs(expected[b * 480 + i]));
        for (std::size_t i = 0; i < 480; ++i) {
            const double ref = expected[b * 480 + i];
            const double err = std::abs(out[i] - ref);
            worst = std::max(worst, err);
            error_energy += err * err;
            signal_energy += ref * ref;
            ASSERT_LE(err, 1e-5 + 1e-4 * peak) << "block " << b << " sample " << i;
        }
    }
    ASSERT_GT(signal_energy, 0.0);
    const double snr_db = 10.0 * std::log10(signal_energy / std::max(error_energy, 1e-300));
    EXPECT_GT(snr_db, 80.0) << "worst sample error " << worst;
    RecordProperty("worst_error", std::to_string(worst));
    RecordProperty("agreement_db", std::to_string(snr_db));
}

} // namespace

namespace {

// docs/dfn.md section 4: hop t rebuilds frame t - 4, so the compiled-in
// network's output lines up with its dry output (1200 samples) and the
// Part 4.1 mix adds aligned signals. A speech-like test signal goes through:
// syllable-rate bursts of voiced sound (harmonics of a pitch that jumps
// every burst, so no lag of one period lines up across bursts) and of
// unvoiced noise. The output's cross-correlation with the dry signal peaks
// at lag 0 among all lags within +-2 hops.
TEST(Part5_2_NoiseCanceller, CompiledInNetworkLinesUpWithTheDryOutput) {
    noise_canceller canceller(48000, 1, 480);
    constexpr std::size_t blocks = 200;
    std::vector<float> x(480 * blocks);
    uint32_t seed = 777u;
    const auto uniform = [&seed] {
        seed = seed * 1664525u + 1013904223u;
        return static_cast<double>(seed >> 8) / 16777216.0;
    };
    constexpr std::size_t burst = 9600; // 200 ms
    double phase = 0.0, f0 = 120.0;
    for (std::size_t i = 0; i < x.size(); ++i) {
        const std::size_t k = i / burst;
        if (i % burst == 0) f0 = 90.0 + 160.0 * uniform();
        const double envelope =
            std::sin(std::numbers::pi * static_cast<double>(i % burst) / burst);
        phase += 2.0 * std::numbers::pi * f0 / 48000.0;
        double v = 0.0;
        if (k % 3 != 2) {
            for (int h = 1; h <= 20; ++h) v += std::sin(h * phase) / h;
        } else {
            v = 2.0 * (uniform() - 0.5);
        }
        x[i] = static_cast<float>(0.1 * envelope * v);
    }
    std::vector<float> out(x.size()), dry(x.size());
    for (std::size_t b = 0; b < blocks; ++b)
        canceller.process(x.data() + b * 480, out.data() + b * 480, dry.data() + b * 480);
    const std::size_t begin = 480 * 20; // past the start-up
    const auto correlation = [&](int lag) {
        double sum = 0.0;
        for (std::size_t i = begin; i + 480 < x.size(); ++i)
            sum += static_cast<double>(out[i]) * dry[static_cast<std::size_t>(static_cast<long>(i) + lag)];
        return sum;
    };
    const double at_zero = correlation(0);
    EXPECT_GT(at_zero, 0.0);
    double runner_up = 0.0;
    for (int lag = -480; lag <= 480; ++lag) {
        if (lag == 0) continue;
        runner_up = std::max(runner_up, correlation(lag));
        ASSERT_LT(correlation(lag), at_zero) << "lag " << lag;
    }
    RecordProperty("runner_up_over_lag_0", std::to_string(runner_up / at_zero));
}

} // namespace
