// Host sample formats to and from the engine's planar floats. Two deliberate quirks that existing
// hosts depend on: interleaved stereo shorts come in scaled by the rounded literal 3.0518e-05 and
// go out truncated and wrapped modulo 2^16; every other short block uses exactly 2^-15 and goes out
// rounded to nearest (ties to even) and saturated. Expected values by hand.
#include "audio/sample_conversion.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <vector>

namespace quelora {
namespace {

constexpr float nan_f = std::numeric_limits<float>::quiet_NaN();
constexpr float inf_f = std::numeric_limits<float>::infinity();
constexpr std::pair<int32_t, bool> not_interleaved_stereo[] = {{1, true}, {1, false}, {2, false}};

TEST(SampleConversion, ShortsComeInByTheLiteralOnlyWhenInterleavedStereo) {
    const std::vector<int16_t> in{-32768, 32767, 16384, -12345};
    std::vector<float> d(8, -7.0f);
    convert_input(in.data(), sample_type::int16, 2, 2, true, d.data(), 4);
    EXPECT_NEAR(d[0], -1.000013824, 1e-7); // left at 0, right at the stride
    EXPECT_NEAR(d[4], 0.999983306, 1e-7);
    EXPECT_NEAR(d[1], 0.500006912, 1e-7);
    EXPECT_NEAR(d[5], -0.37674471, 1e-7);
    EXPECT_EQ(d[2], -7.0f);
    for (const auto& [channels, interleaved] : not_interleaved_stereo) {
        convert_input(in.data(), sample_type::int16, channels, 4 / channels, interleaved, d.data(),
                      4 / channels);
        EXPECT_EQ(std::vector<float>(d.begin(), d.begin() + 4),
                  (std::vector<float>{-1.0f, 0.999969482421875f, 0.5f, -0.376739501953125f}));
    }
}

struct short_row {
    float x;
    int16_t expected;
};

TEST(SampleConversion, InterleavedStereoShortsGoOutTruncatedAndWrapped) {
    // clang-format off
    const short_row rows[] = {
        {0.5f, 16384},       {-1.0f, -32768},     {1.0f, -32768},      {0.99999f, 32767},
        {0.7f / 32768, 0},   {-0.7f / 32768, 0},  {-1.7f / 32768, -1}, {1.5f, -16384},
        {-1.5f, 16384},      {2.0f, 0},           {100000.0f / 32768, -31072},
        {65535.0f, -32768}, // 0x7FFF8000 is still an int32
        {65536.0f, 0}, {1e30f, 0}, {nan_f, 0}, {inf_f, 0}, {-inf_f, 0}, // no int32: 0
    };
    // clang-format on
    for (const short_row& r : rows) {
        const float source[] = {r.x, -0.5f};
        int16_t out[2] = {7, 7};
        convert_output(source, 1, 2, 1, true, sample_type::int16, out);
        EXPECT_EQ(out[0], r.expected) << r.x;
        EXPECT_EQ(out[1], -16384) << r.x;
    }
}

TEST(SampleConversion, OtherShortsGoOutRoundedToNearestEvenAndSaturated) {
    // clang-format off
    const short_row rows[] = {
        {0.5f, 16384},       {1.0f, 32767},       {-1.0f, -32768},     {1.5f, 32767},
        {-2.0f, -32768},     {0.7f / 32768, 1},   {-0.7f / 32768, -1},
        {0.5f / 32768, 0},   {1.5f / 32768, 2},   {2.5f / 32768, 2},   {-2.5f / 32768, -2},
        {32766.5f / 32768, 32766},                {-32767.5f / 32768, -32768},
        {nan_f, 0},          {inf_f, 32767},      {-inf_f, -32768},    {1e30f, 32767},
    };
    // clang-format on
    for (const short_row& r : rows) {
        for (const auto& [channels, interleaved] : not_interleaved_stereo) {
            const float source[] = {r.x, 0.0f, -0.25f};
            int16_t out[2] = {7, 7};
            convert_output(source, 2, channels, 1, interleaved, sample_type::int16, out);
            EXPECT_EQ(out[0], r.expected) << r.x << " " << channels;
            EXPECT_EQ(out[1], channels == 2 ? -8192 : 7) << r.x; // right from the stride
        }
    }
}

} // namespace
} // namespace quelora
