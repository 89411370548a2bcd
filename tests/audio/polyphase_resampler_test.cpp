// The polyphase resampler block by block against the direct evaluation of
// its windowed-sinc sum: taps, phases, the 0.98 gain, the 128-sample delay
// and the seams between blocks in one comparison. (The chains' use of it on
// stereo blocks in overlapping buffers is checked in audio_path_test.cpp.)
#include "audio/polyphase_resampler.h"

#include "direct_resampler.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <vector>

namespace {

using quelora::polyphase_resampler;

TEST(PolyphaseResampler, MatchesTheDirectSumForEveryRateAndBlockLength) {
    struct row {
        int32_t input_rate, output_rate, output_frames, input_frames;
    };
    std::vector<row> rows{{44100, 48000, 480, 441},
                          {24000, 48000, 512, 256},
                          {24000, 48000, 1024, 512},
                          {48000, 24000, 256, 512},
                          {48000, 24000, 512, 1024}};
    for (const int32_t rate : {8000, 16000, 24000, 32000}) {
        for (const int32_t ms : {10, 20}) {
            rows.push_back({rate, 48000, 48 * ms, rate * ms / 1000});
            rows.push_back({48000, rate, rate * ms / 1000, 48 * ms});
        }
    }
    for (const row& w : rows) {
        SCOPED_TRACE(testing::Message()
                     << w.input_rate << " to " << w.output_rate << ", " << w.output_frames);
        polyphase_resampler resampler(w.input_rate, w.output_rate, 1, w.output_frames);
        ASSERT_EQ(resampler.input_frames(), w.input_frames);
        const size_t in = w.input_frames, out = w.output_frames;
        std::mt19937 rng(w.output_frames);
        std::uniform_real_distribution<float> noise(-1.0f, 1.0f);
        std::vector<double> input(6 * in);
        for (double& x : input) x = noise(rng);
        std::vector<float> output;
        for (size_t b = 0; b < 6; ++b) {
            // NaN past the input block would reach later outputs if it were
            // read; NaN past the output block must still be there.
            std::vector<float> block(in + 8, std::numeric_limits<float>::quiet_NaN());
            std::copy_n(input.begin() + static_cast<ptrdiff_t>(b * in), in, block.begin());
            std::vector<float> result(out + 8, std::numeric_limits<float>::quiet_NaN());
            resampler.process(0, block.data(), result.data());
            for (size_t j = out; j < result.size(); ++j) ASSERT_TRUE(std::isnan(result[j])) << j;
            output.insert(output.end(), result.begin(), result.end() - 8);
        }
        quelora::testing::direct_resampler direct(w.input_rate, w.output_rate);
        const std::vector<double> expected = direct.run(input, output.size());
        // Float taps and float sums of 254 products leave a few 1e-7; a wrong
        // tap, phase, delay or seam shows as 1e-3 or more.
        for (size_t j = 0; j < output.size(); ++j) ASSERT_NEAR(output[j], expected[j], 2e-6) << j;
    }
}

} // namespace
