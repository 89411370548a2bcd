// Host sample formats <-> the engine's planar floats: Part 4.1 step 2 (input)
// and Part 4.2 step 9 (output), with their deliberate quirks.
#include "audio/sample_conversion.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <vector>

namespace quelora {
namespace {

constexpr float nan_f = std::numeric_limits<float>::quiet_NaN();
constexpr float inf_f = std::numeric_limits<float>::infinity();
constexpr float sentinel = -777.0f;

bool same_bits(float a, float b) { return std::memcmp(&a, &b, sizeof a) == 0; }

// Expected short -> float, from the spec's words: the interleaved literal
// product (exact in double, then rounded once), and value / 32768.
float interleaved_short_in(int16_t v) {
    return static_cast<float>(static_cast<double>(v) * static_cast<double>(3.0518e-05f));
}
float planar_short_in(int16_t v) { return static_cast<float>(v / 32768.0); }

// Expected float -> short on the interleaved path: truncate toward zero,
// keep 16 bits; NaN and |x x 32768| >= 2^31 give 0 (sample_conversion.cpp).
int16_t interleaved_short_out(float x) {
    const double y = static_cast<double>(x) * 32768.0;
    if (std::isnan(y) || std::fabs(y) >= 2147483648.0) return 0;
    const auto v = static_cast<int64_t>(std::trunc(y));
    const int64_t low = ((v % 65536) + 65536) % 65536;
    return static_cast<int16_t>(low >= 32768 ? low - 65536 : low);
}

// Expected float -> short on the planar path: nearest (ties to even, the
// default rounding mode of this test), saturated; NaN gives 0.
int16_t planar_short_out(float x) {
    const double y = static_cast<double>(x) * 32768.0;
    if (std::isnan(y)) return 0;
    const double r = std::nearbyint(y);
    return static_cast<int16_t>(r > 32767.0 ? 32767.0 : (r < -32768.0 ? -32768.0 : r));
}

// ---- input -----------------------------------------------------------------

TEST(Part4_1_SampleConversion, InterleavedStereoShortsUseTheRoundedLiteral) {
    const std::vector<int16_t> block{-32768, 32767, 1, -1, 16384, -12345, 0, 7};
    std::vector<float> dest(2 * 8, sentinel);
    convert_input(block.data(), sample_type::int16, 2, 4, true, dest.data(), 8);
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(dest[i], interleaved_short_in(block[2 * i])) << i;
        EXPECT_EQ(dest[8 + i], interleaved_short_in(block[2 * i + 1])) << i;
    }
    for (size_t i = 4; i < 8; ++i) EXPECT_EQ(dest[i], sentinel); // stride gap untouched
    // -32768 x 3.0518e-05 = -1.000013824 (by hand), not -1.
    EXPECT_NEAR(dest[0], -1.000013824, 1e-7);
    EXPECT_NE(dest[0], -1.0f);
    EXPECT_NE(dest[2], 0.5f); // 16384 x the literal is not 2^-1 either
    EXPECT_NE(3.0518e-05f, 0x1p-15f);
}

TEST(Part4_1_SampleConversion, OtherShortBlocksUseExactlyTwoToTheMinus15) {
    const std::vector<int16_t> block{-32768, 32767, 1, -1, 16384, -12345};
    // Mono, with and without the interleaved flag (it needs two channels).
    for (const bool interleaved : {false, true}) {
        std::vector<float> dest(6, sentinel);
        convert_input(block.data(), sample_type::int16, 1, 6, interleaved, dest.data(), 6);
        for (size_t i = 0; i < 6; ++i) EXPECT_EQ(dest[i], planar_short_in(block[i])) << i;
        EXPECT_EQ(dest[0], -1.0f);
        EXPECT_EQ(dest[2], 0x1p-15f);
        EXPECT_EQ(dest[4], 0.5f);
    }
    // Planar stereo: channel after channel, left at 0, right at `frames`,
    // written to destination + c x stride.
    std::vector<float> dest(2 * 10, sentinel);
    convert_input(block.data(), sample_type::int16, 2, 3, false, dest.data(), 10);
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(dest[i], planar_short_in(block[i])) << i;
        EXPECT_EQ(dest[10 + i], planar_short_in(block[3 + i])) << i;
    }
    EXPECT_EQ(dest[3], sentinel);
    EXPECT_EQ(dest[13], sentinel);
}

TEST(Part4_1_SampleConversion, FloatsAreCopiedBitForBit) {
    const std::vector<float> block{0.25f, -0.0f, 1.5f, -3.0f, nan_f, inf_f, 1e-40f, -1.0f};
    for (const bool interleaved : {false, true}) {
        for (const int32_t channels : {1, 2}) {
            const int32_t frames = 8 / channels;
            std::vector<float> dest(2 * 16, sentinel);
            convert_input(block.data(), sample_type::float32, channels, frames, interleaved,
                          dest.data(), 16);
            for (int32_t c = 0; c < channels; ++c) {
                for (int32_t i = 0; i < frames; ++i) {
                    const size_t from = (channels == 2 && interleaved)
                                            ? static_cast<size_t>(2 * i + c)
                                            : static_cast<size_t>(c * frames + i);
                    EXPECT_TRUE(same_bits(dest[static_cast<size_t>(16 * c + i)], block[from]))
                        << channels << interleaved << i;
                }
            }
            EXPECT_EQ(dest[static_cast<size_t>(frames)], sentinel);
        }
    }
}

TEST(Part4_1_SampleConversion, DoublesAreRoundedToFloat) {
    const std::vector<double> block{0.1, -1.0 / 3.0, 1.0 + 1e-12, -2.5, 1e-50, 123456.789};
    for (const bool interleaved : {false, true}) {
        for (const int32_t channels : {1, 2}) {
            const int32_t frames = 6 / channels;
            std::vector<float> dest(2 * 8, sentinel);
            convert_input(block.data(), sample_type::float64, channels, frames, interleaved,
                          dest.data(), 8);
            for (int32_t c = 0; c < channels; ++c) {
                for (int32_t i = 0; i < frames; ++i) {
                    const size_t from = (channels == 2 && interleaved)
                                            ? static_cast<size_t>(2 * i + c)
                                            : static_cast<size_t>(c * frames + i);
                    EXPECT_EQ(dest[static_cast<size_t>(8 * c + i)],
                              static_cast<float>(block[from]));
                }
            }
        }
    }
    std::vector<float> dest(6);
    convert_input(block.data(), sample_type::float64, 1, 6, false, dest.data(), 6);
    EXPECT_EQ(dest[0], 0.1f);
    EXPECT_EQ(dest[2], 1.0f);
    EXPECT_EQ(dest[4], 0.0f);
}

// ---- output ----------------------------------------------------------------

// A planar stereo source with a gap between channels (stride 12, 5 frames).
const std::vector<float> left_values{0.25f, -0.5f, 1.0f, -1.0f, 0.3f};
const std::vector<float> right_values{0.999f, -0.001f, 1.5f, nan_f, -2.0f};
constexpr int32_t out_frames = 5;
constexpr int32_t out_stride = 12;

std::vector<float> planar_source() {
    std::vector<float> source(2 * out_stride, sentinel);
    for (size_t i = 0; i < 5; ++i) {
        source[i] = left_values[i];
        source[out_stride + i] = right_values[i];
    }
    return source;
}

// Position of channel c, frame i in the host block, and the sample there.
size_t host_index(bool interleaved_stereo, int32_t c, int32_t i) {
    return static_cast<size_t>(interleaved_stereo ? 2 * i + c : c * out_frames + i);
}
float source_sample(int32_t c, int32_t i) {
    return (c == 0 ? left_values : right_values)[static_cast<size_t>(i)];
}

TEST(Part4_2_SampleConversion, EveryFormatLayoutAndChannelCount) {
    const std::vector<float> source = planar_source();
    for (const bool interleaved : {false, true}) {
        for (const int32_t channels : {1, 2}) {
            const bool interleaved_stereo = interleaved && channels == 2;
            std::vector<int16_t> shorts(10, 999);
            std::vector<float> floats(10, sentinel);
            std::vector<double> doubles(10, -777.0);
            convert_output(source.data(), out_stride, channels, out_frames, interleaved,
                           sample_type::int16, shorts.data());
            convert_output(source.data(), out_stride, channels, out_frames, interleaved,
                           sample_type::float32, floats.data());
            convert_output(source.data(), out_stride, channels, out_frames, interleaved,
                           sample_type::float64, doubles.data());
            for (int32_t c = 0; c < channels; ++c) {
                for (int32_t i = 0; i < out_frames; ++i) {
                    const size_t at = host_index(interleaved_stereo, c, i);
                    const float x = source_sample(c, i);
                    EXPECT_EQ(shorts[at], interleaved_stereo ? interleaved_short_out(x)
                                                             : planar_short_out(x))
                        << interleaved << channels << c << i;
                    EXPECT_TRUE(same_bits(floats[at], x));
                    if (std::isnan(x)) {
                        EXPECT_TRUE(std::isnan(doubles[at]));
                    } else {
                        EXPECT_EQ(doubles[at], static_cast<double>(x));
                    }
                }
            }
            // Nothing written past output channels x output frames.
            const auto end = static_cast<size_t>(channels * out_frames);
            for (size_t k = end; k < 10; ++k) {
                EXPECT_EQ(shorts[k], 999);
                EXPECT_EQ(floats[k], sentinel);
                EXPECT_EQ(doubles[k], -777.0);
            }
        }
    }
}

TEST(Part4_2_SampleConversion, FullScaleStereoShortsWrapInterleavedAndSaturatePlanar) {
    // Part 4.2 edge case: 1.0 x 32768 = 32768 truncates to 32768 and wraps to
    // -32768 on the interleaved path; the planar path saturates at 32767.
    const std::vector<float> source{1.0f, 1.0f, 1.0f, 1.0f};
    std::vector<int16_t> interleaved(4), planar(4);
    convert_output(source.data(), 2, 2, 2, true, sample_type::int16, interleaved.data());
    convert_output(source.data(), 2, 2, 2, false, sample_type::int16, planar.data());
    for (size_t k = 0; k < 4; ++k) {
        EXPECT_EQ(interleaved[k], -32768) << k;
        EXPECT_EQ(planar[k], 32767) << k;
    }
}

TEST(Part4_2_SampleConversion, InterleavedShortsTruncateAndWrapByHand) {
    struct row {
        float x;
        int16_t expected;
    };
    const std::vector<row> rows{
        {0.5f, 16384},
        {-1.0f, -32768},
        {0.99999f, 32767},          // 32767.67 truncates down
        {0.7f / 32768.0f, 0},        // 0.7 truncates to 0 (rounding would give 1)
        {-0.7f / 32768.0f, 0},       // toward zero, not floor
        {-1.7f / 32768.0f, -1},
        {1.5f, -16384},              // 49152 - 65536
        {-1.5f, 16384},              // -49152 + 65536
        {2.0f, 0},                   // 65536
        {100000.0f / 32768.0f, -31072}, // 100000 - 65536 = 34464 -> -31072
        {65535.0f, -32768},          // 2147450880 = 0x7FFF8000 < 2^31: low bits 0x8000
        {65536.0f, 0},               // 2^31: outside int32, the defined result 0
        {1e30f, 0},
        {nan_f, 0},
        {inf_f, 0},
        {-inf_f, 0},
    };
    std::vector<float> source(2 * rows.size());
    for (size_t k = 0; k < rows.size(); ++k) source[k] = source[rows.size() + k] = rows[k].x;
    std::vector<int16_t> out(2 * rows.size());
    const auto frames = static_cast<int32_t>(rows.size());
    convert_output(source.data(), frames, 2, frames, true, sample_type::int16, out.data());
    for (size_t k = 0; k < rows.size(); ++k) {
        EXPECT_EQ(out[2 * k], rows[k].expected) << k;
        EXPECT_EQ(out[2 * k + 1], rows[k].expected) << k;
        EXPECT_EQ(out[2 * k], interleaved_short_out(rows[k].x)) << k;
    }
}

TEST(Part4_2_SampleConversion, PlanarShortsRoundToNearestAndSaturateByHand) {
    struct row {
        float x;
        int16_t expected;
    };
    const std::vector<row> rows{
        {0.5f, 16384},
        {1.0f, 32767},
        {-1.0f, -32768},
        {1.5f, 32767},
        {-2.0f, -32768},
        {0.7f / 32768.0f, 1},
        {-0.7f / 32768.0f, -1},
        {0.5f / 32768.0f, 0},       // ties to even
        {1.5f / 32768.0f, 2},
        {2.5f / 32768.0f, 2},
        {-2.5f / 32768.0f, -2},
        {-1.5f / 32768.0f, -2},
        {32766.5f / 32768.0f, 32766},
        {32767.4f / 32768.0f, 32767},
        {-32767.5f / 32768.0f, -32768},
        {nan_f, 0},
        {inf_f, 32767},
        {-inf_f, -32768},
        {1e30f, 32767},
    };
    std::vector<float> source(rows.size());
    for (size_t k = 0; k < rows.size(); ++k) source[k] = rows[k].x;
    const auto frames = static_cast<int32_t>(rows.size());
    for (const bool interleaved : {false, true}) { // mono ignores the flag
        std::vector<int16_t> out(rows.size());
        convert_output(source.data(), frames, 1, frames, interleaved, sample_type::int16,
                       out.data());
        for (size_t k = 0; k < rows.size(); ++k) {
            EXPECT_EQ(out[k], rows[k].expected) << k;
            EXPECT_EQ(out[k], planar_short_out(rows[k].x)) << k;
        }
    }
}

TEST(Part4_2_SampleConversion, ShortsSurviveARoundTripThroughPlanarPaths) {
    // 2^-15 in and round-to-nearest out are inverse on every short.
    std::vector<int16_t> in(65536), out(65536);
    for (int32_t v = -32768; v <= 32767; ++v) {
        in[static_cast<size_t>(v + 32768)] = static_cast<int16_t>(v);
    }
    std::vector<float> planar(65536);
    convert_input(in.data(), sample_type::int16, 2, 32768, false, planar.data(), 32768);
    convert_output(planar.data(), 32768, 2, 32768, false, sample_type::int16, out.data());
    EXPECT_EQ(in, out);
}

TEST(Part4_2_SampleConversion, NothingHappensForNoFrames) {
    const std::vector<float> source{0.5f, 0.5f};
    std::vector<int16_t> out{5, 5};
    convert_output(source.data(), 1, 2, 0, true, sample_type::int16, out.data());
    EXPECT_EQ(out, (std::vector<int16_t>{5, 5}));
    std::vector<float> dest{sentinel, sentinel};
    convert_input(out.data(), sample_type::int16, 2, 0, true, dest.data(), 1);
    EXPECT_EQ(dest[0], sentinel);
}

} // namespace
} // namespace quelora
