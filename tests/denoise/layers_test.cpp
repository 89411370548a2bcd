// The network layers against the torch.nn fixtures of make_layer_fixtures.py, paired forward paths
// included, and each shape check's exact message. Tolerance 1e-5 (1 + |ref|): the longest float
// sums (192 terms, about 3.5 in all) round by some 3e-6 (observed: 3.4e-7); the batch norm's error
// is relative to its factor, several hundred for a zero variance.
#include "api/quelora_exception.h"
#include "denoise/dfn_synthesis.h"
#include "denoise/layers.h"
#include "support/kernel_versions.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <quelora/quelora.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <functional>
#include <string>
#include <tuple>
#include <vector>

namespace quelora::denoise {
namespace {

void expect_close(const std::vector<float>& got, const std::vector<double>& want,
                  const std::string& what) {
    ASSERT_EQ(got.size(), want.size()) << what;
    for (std::size_t i = 0; i < got.size(); ++i)
        ASSERT_LE(std::abs(got[i] - want[i]), 1e-5 * (1.0 + std::abs(want[i])))
            << what << ", element " << i << ": " << got[i] << " vs " << want[i];
}

// A GRU on a table-ordered parameter block. With `gaps` the twelve tensors are copied apart, so the
// layer multiplies gate by gate instead of one [3H][cols] block per side.
gru_layer make_gru(const std::vector<float>& p, uint32_t in, uint32_t hid, bool gaps,
                   std::vector<float>& copy, const matvec_kernels& kernels) {
    const float* at[12];
    copy.assign(p.size() + 12, 0.0f);
    for (std::size_t m = 0, from = 0; m < 12; from += hid * (m < 3 ? in : m < 6 ? hid : 1), ++m) {
        std::copy_n(p.data() + from, hid * (m < 3 ? in : m < 6 ? hid : 1), copy.data() + from + m);
        at[m] = gaps ? copy.data() + from + m : p.data() + from;
    }
    return gru_layer(in, hid, at[0], at[1], at[2], at[3], at[4], at[5], at[6], at[7], at[8], at[9],
                     at[10], at[11], kernels);
}

// Each fixture on each kernel version the processor has.
class TorchAgreement
    : public ::testing::TestWithParam<std::tuple<const char*, testing::kernel_version>> {};

TEST_P(TorchAgreement, LayerMatchesTheFixture) {
    const auto [fixture, version] = GetParam();
    const matvec_kernels* kernels = testing::kernels_of(version);
    if (kernels == nullptr)
        GTEST_SKIP() << "the processor lacks " << testing::kernel_version_name(version);
    std::ifstream file(std::string(QUELORA_TEST_DATA_DIR) + "/dfn/layers/" + fixture + ".json");
    ASSERT_TRUE(file.good());
    const auto f = nlohmann::json::parse(file);
    const std::string kind = f.at("kind");
    const auto w = f.at("weights").get<std::vector<float>>();
    const auto arg = [&](const char* name) { return f.at("args").at(name).get<uint32_t>(); };
    if (kind == "gru") { // from the zero state; both layouts; steps 0 and 1 once as a pair
        const auto xs = f.at("inputs").get<std::vector<std::vector<float>>>();
        std::vector<std::vector<float>> y;
        for (const bool gaps : {false, true})
            for (const bool pair : {false, true}) {
                std::vector<float> copy;
                gru_layer gru =
                    make_gru(w, arg("input_size"), arg("hidden_size"), gaps, copy, *kernels);
                y.assign(xs.size(), std::vector<float>(arg("hidden_size")));
                if (pair) gru.forward_pair(xs[0].data(), xs[1].data(), y[0].data(), y[1].data());
                for (std::size_t s = pair ? 2 : 0; s < xs.size(); ++s)
                    gru.forward(xs[s].data(), y[s].data());
                for (std::size_t s = 0; s < xs.size(); ++s)
                    expect_close(y[s], f.at("outputs")[s], "step " + std::to_string(s));
            }
        return;
    }
    // Twice, on a clean and a dirty output: scratch and outputs must not carry
    // over. The batch norm runs in place the second time, as the model uses it.
    const auto x = f.at("input").get<std::vector<float>>();
    const std::vector<double> expected = f.at("output");
    const auto check = [&](auto&& layer) {
        for (const bool again : {false, true}) {
            std::vector<float> y(expected.size(), again ? 1234.5f : 0.0f);
            if (again && kind == "batch_norm") y = x;
            layer.forward(again && kind == "batch_norm" ? y.data() : x.data(), y.data());
            expect_close(y, expected, again ? "second call" : "first call");
        }
    };
    if (kind == "conv2d")
        check(conv2d_layer(arg("time_length"), arg("freq_length"), arg("in_channels"), w.data(),
                           arg("kernel_time"), arg("kernel_freq"),
                           f.at("args").at("freq_stride").get<int32_t>(), arg("out_channels"),
                           arg("time_pad_before"), arg("time_pad_after"), arg("groups"), *kernels));
    if (kind == "conv_transpose2d")
        check(conv_transpose2d_layer(arg("in_time"), arg("in_freq"), arg("in_channels"), w.data(),
                                     arg("kernel_time"), arg("kernel_freq"), arg("pad_time"),
                                     arg("pad_freq"), arg("out_pad_time"), arg("out_pad_freq"),
                                     arg("stride_time"), arg("stride_freq"), arg("out_channels"),
                                     arg("groups")));
    const uint32_t c = kind == "batch_norm" ? arg("channels") : 0;
    if (kind == "batch_norm")
        check(batch_norm_layer(w.data(), w.data() + c, w.data() + 2 * c, w.data() + 3 * c, c,
                               arg("time_length"), arg("freq_length")));
    if (kind != "grouped_linear") return;
    // forward_pair on the fixture's input and its reverse, against forward.
    grouped_linear_layer layer(w.data(), arg("input_size"), arg("output_size"), arg("groups"),
                               *kernels);
    check(layer);
    const std::vector<float> reversed(x.rbegin(), x.rend());
    std::vector<float> want_b(expected.size()), a(expected.size()), b(expected.size());
    layer.forward(reversed.data(), want_b.data());
    layer.forward_pair(x.data(), reversed.data(), a.data(), b.data());
    expect_close(a, expected, "pair, first");
    expect_close(b, {want_b.begin(), want_b.end()}, "pair, second");
}

INSTANTIATE_TEST_SUITE_P(
    , TorchAgreement,
    ::testing::Combine(::testing::Values("conv_erb0_3x3", "conv_df0_3x3_groups2",
                                         "conv_depthwise_1x3_stride2", "conv_depthwise_1x3_stride1",
                                         "conv_pointwise_64", "conv_dfpath_5x1_groups2",
                                         "conv_path_1x1_groups64", "conv_output_1x3_to1",
                                         "conv_time_padding", "conv_stride3_even_kernel",
                                         "convt_depthwise_8to16", "convt_groups2_4to6",
                                         "convt_stride3_k5", "batch_norm_64x16",
                                         "grouped_linear_256to256", "grouped_linear_64to96",
                                         "gru_24to16", "gru_16to16"),
                       testing::all_kernel_versions()),
    [](const auto& param) {
        return std::string(std::get<0>(param.param)) + "_" +
               testing::kernel_version_name(std::get<1>(param.param));
    });

// The one-row depthwise path (the model's: straight from the unpadded row, borders apart) against
// the padded general path on time row 0 of a two-row map: equal sums, for every length from one
// bin up, one and three taps, strides 1 and 2.
TEST(Conv2dLayer, OneRowDepthwiseEqualsThePaddedPath) {
    std::vector<float> w(3 * 3), x(3 * 2 * 13);
    for (std::size_t i = 0; i < w.size(); ++i) w[i] = std::sin(float(i) + 1.0f);
    for (std::size_t i = 0; i < x.size(); ++i) x[i] = std::cos(float(i) * 0.7f);
    for (uint32_t f = 1; f <= 13; ++f)
        for (const uint32_t kf : {1u, 3u})
            for (const int32_t stride : {1, 2}) {
                std::vector<float> rows(3 * 2 * f), row(3 * f);
                for (uint32_t c = 0; c < 3; ++c)
                    for (uint32_t i = 0; i < f; ++i)
                        row[c * f + i] = rows[(2 * c) * f + i] = x[c * 13 + i];
                conv2d_layer padded(2, f, 3, w.data(), 1, kf, stride, 3, 0, 0, 3),
                    one_row(1, f, 3, w.data(), 1, kf, stride, 3, 0, 0, 3);
                const uint32_t n = one_row.output_freq_length();
                ASSERT_EQ(n, padded.output_freq_length());
                std::vector<float> want(3 * 2 * n), got(3 * n + 1, 99.0f);
                padded.forward(rows.data(), want.data());
                one_row.forward(row.data(), got.data());
                for (uint32_t c = 0; c < 3; ++c)
                    for (uint32_t j = 0; j < n; ++j)
                        ASSERT_EQ(got[c * n + j], want[(2 * c) * n + j])
                            << f << " bins, " << kf << " taps, stride " << stride;
                ASSERT_EQ(got[3 * n], 99.0f) << "wrote past the end";
            }
}

// The model's doubling upsampler (depthwise, 3 taps, stride 2, padding 1, output padding 1) writes
// each bin once in order; against the transposed convolution's definition, from one bin up.
TEST(ConvTranspose2dLayer, DoublingUpsamplerMatchesTheDefinition) {
    const float w[2 * 3] = {0.3f, -1.1f, 0.7f, 1.9f, 0.2f, -0.6f};
    for (uint32_t n = 1; n <= 9; ++n) {
        std::vector<float> x(2 * n), y(2 * 2 * n + 1, 99.0f);
        for (std::size_t i = 0; i < x.size(); ++i) x[i] = std::cos(float(i) * 0.9f);
        conv_transpose2d_layer(1, n, 2, w, 1, 3, 0, 1, 0, 1, 1, 2, 2, 2)
            .forward(x.data(), y.data());
        for (uint32_t c = 0; c < 2; ++c)
            for (uint32_t o = 0; o < 2 * n; ++o) {
                double want = 0.0; // output o = 2 i + k - 1
                for (uint32_t i = 0; i < n; ++i)
                    for (uint32_t k = 0; k < 3; ++k)
                        if (2 * i + k == o + 1) want += double{w[3 * c + k]} * x[c * n + i];
                ASSERT_NEAR(y[c * 2 * n + o], want, 1e-6) << n << " bins, channel " << c;
            }
        ASSERT_EQ(y[4 * n], 99.0f) << "wrote past the end";
    }
}

// The strided depthwise path (rows split into phases; the model's kernels are
// 1x3 at stride 2 only) against the stride-1 path: output f at stride s is
// output f s at stride 1. Padded rows of odd and even length.
TEST(Conv2dLayer, StridedDepthwiseEqualsStrideOneSubsampled) {
    std::vector<float> w(3 * 5), x(3 * 2 * 13);
    for (std::size_t i = 0; i < w.size(); ++i) w[i] = std::sin(float(i) + 1.0f);
    for (std::size_t i = 0; i < x.size(); ++i) x[i] = std::cos(float(i) * 0.7f);
    for (const auto& [f, kf, stride] :
         {std::tuple{11u, 3u, 2}, {13u, 5u, 2}, {12u, 5u, 3}, {13u, 1u, 3}}) {
        conv2d_layer one(2, f, 3, w.data(), 1, kf, 1, 3, 0, 0, 3),
            strided(2, f, 3, w.data(), 1, kf, stride, 3, 0, 0, 3);
        const uint32_t n = strided.output_freq_length();
        std::vector<float> y(3 * 2 * f), ys(3 * 2 * n);
        one.forward(x.data(), y.data());
        strided.forward(x.data(), ys.data());
        for (uint32_t i = 0; i < ys.size(); ++i)
            ASSERT_NEAR(ys[i], y[i / n * f + i % n * uint32_t(stride)], 1e-6)
                << f << " " << kf << " " << i;
    }
}

// ReLU runs four floats at a time: both packets and the scalar tail clear.
TEST(Activations, ReluClearsNegativesInPacketsAndTail) {
    std::vector<float> x = {-1, 2, -3, 4, 5, -6, 7, -8, -0.5f};
    relu(x.data(), x.data(), x.size());
    EXPECT_EQ(x, (std::vector<float>{0, 2, 0, 4, 5, 0, 7, 0, 0}));
}

// Each bad shape throws quelora_exception -9990 with its exact message, logged once at error level.
TEST(LayerShapeChecks, EachBadShapeThrowsAndLogsItsMessage) {
    static const std::vector<float> zeros(1024 * 64, 0.0f);
    const float* w = zeros.data();
    const auto conv = [](uint32_t t, uint32_t f, uint32_t c, uint32_t kt, uint32_t kf, int32_t s,
                         uint32_t o, uint32_t g,
                         const float* p) { conv2d_layer(t, f, c, p, kt, kf, s, o, 0, 0, g); };
    const auto up = [](uint32_t t, uint32_t f, uint32_t c, uint32_t kt, uint32_t kf,
                       uint32_t out_pad_t, uint32_t out_pad_f, uint32_t s, uint32_t o, uint32_t g,
                       const float* p) {
        conv_transpose2d_layer(t, f, c, p, kt, kf, 0, 1, out_pad_t, out_pad_f, 1, s, o, g);
    };
    const std::vector<uint16_t> widths(32, 8); // 256 bins, not 241
    const std::pair<const char*, std::function<void()>> rows[] = {
        {"conv2d: in_channels is 6, must be divisible by groups = 4",
         [&] { conv(1, 8, 6, 1, 3, 1, 4, 4, w); }},
        {"conv2d: out_channels is 6, must be divisible by groups = 4",
         [&] { conv(1, 8, 4, 1, 3, 1, 6, 4, w); }},
        {"conv2d: freq_stride is 0, must be >= 1", [&] { conv(1, 8, 4, 1, 3, 0, 4, 1, w); }},
        {"conv2d: freq_stride is -2, must be >= 1", [&] { conv(1, 8, 4, 1, 3, -2, 4, 1, w); }},
        {"conv2d: kernel_time is 3, must be <= padded time length = 2",
         [&] { conv(2, 8, 1, 3, 3, 1, 4, 1, w); }},
        {"conv2d: time_length is 0, must be >= 1", [&] { conv(0, 8, 1, 1, 3, 1, 4, 1, w); }},
        {"conv2d: freq_length is 0, must be >= 1", [&] { conv(1, 0, 1, 1, 3, 1, 4, 1, w); }},
        {"conv2d: out_channels is 0, must be >= 1", [&] { conv(1, 8, 1, 1, 3, 1, 0, 1, w); }},
        {"conv2d: kernel_freq is 0, must be >= 1", [&] { conv(1, 8, 1, 1, 0, 1, 4, 1, w); }},
        {"conv2d: groups is 0, must be >= 1", [&] { conv(1, 8, 4, 1, 3, 1, 4, 0, w); }},
        {"conv2d: weights pointer is null", [&] { conv(1, 8, 4, 1, 3, 1, 4, 1, nullptr); }},
        {"input_dim_1 is 2, must be 1", [&] { up(2, 8, 1, 1, 3, 0, 1, 2, 1, 1, w); }},
        {"kernel_dim_1 is 3, must be 1", [&] { up(1, 8, 1, 3, 3, 0, 1, 2, 1, 1, w); }},
        {"out_pad_1 is 1, must be < stride_1 = 1", [&] { up(1, 8, 1, 1, 3, 1, 1, 2, 1, 1, w); }},
        {"out_pad_2 is 2, must be < stride_2 = 2", [&] { up(1, 8, 1, 1, 3, 0, 2, 2, 1, 1, w); }},
        {"conv_transpose2d: in_channels is 6, must be divisible by groups = 4",
         [&] { up(1, 8, 6, 1, 3, 0, 1, 2, 4, 4, w); }},
        {"conv_transpose2d: out_channels is 6, must be divisible by groups = 4",
         [&] { up(1, 8, 4, 1, 3, 0, 1, 2, 6, 4, w); }},
        {"conv_transpose2d: in_freq is 0, must be >= 1",
         [&] { up(1, 0, 1, 1, 3, 0, 1, 2, 1, 1, w); }},
        {"conv_transpose2d: groups is 0, must be >= 1",
         [&] { up(1, 8, 1, 1, 3, 0, 1, 2, 1, 0, w); }},
        {"conv_transpose2d: output size is 1 x -1, must be at least 1 x 1",
         [&] { up(1, 1, 1, 1, 1, 0, 0, 1, 1, 1, w); }},
        {"conv_transpose2d: weights pointer is null",
         [&] { up(1, 8, 1, 1, 3, 0, 1, 2, 1, 1, nullptr); }},
        {"batch_norm: channels is 0, must be >= 1", [&] { batch_norm_layer(w, w, w, w, 0, 1, 1); }},
        {"batch_norm: time_length is 0, must be >= 1",
         [&] { batch_norm_layer(w, w, w, w, 1, 0, 1); }},
        {"batch_norm: a parameter pointer is null",
         [&] { batch_norm_layer(w, nullptr, w, w, 1, 1, 1); }},
        {"The input_size = 1001 must be divisible by groups = 8, ",
         [&] { grouped_linear_layer(w, 1001, 512, 8); }},
        {"The input_size = 1000 must be divisible by groups = 7, ",
         [&] { grouped_linear_layer(w, 1000, 511, 7); }},
        // Deliberately refused though 8 divides 1000: the per-group width 125 is no multiple of 8.
        {"The input_size = 1000 must be divisible by groups = 8, ",
         [&] { grouped_linear_layer(w, 1000, 512, 8); }},
        {"grouped_linear: output_size is 12, must be divisible by groups = 8",
         [&] { grouped_linear_layer(w, 64, 12, 8); }},
        {"grouped_linear: groups is 0, must be >= 1", [&] { grouped_linear_layer(w, 16, 16, 0); }},
        {"grouped_linear: input_size is 0 and output_size is 16, both must be >= 1",
         [&] { grouped_linear_layer(w, 0, 16, 8); }},
        {"grouped_linear: weights pointer is null",
         [&] { grouped_linear_layer(nullptr, 64, 16, 8); }},
        {"gru: hidden_size is 0, must be >= 1",
         [&] { gru_layer(4, 0, w, w, w, w, w, w, w, w, w, w, w, w); }},
        {"gru: input_size is 0, must be >= 1",
         [&] { gru_layer(0, 4, w, w, w, w, w, w, w, w, w, w, w, w); }},
        {"gru: a weight or bias pointer is null",
         [&] { gru_layer(1, 1, w, w, w, w, w, w, w, w, nullptr, w, w, w); }},
        {"DFN synthesis: the 32 ERB bands cover 256 bins, not 241",
         [&] { dfn_synthesis{widths.data()}; }},
    };
    for (const auto& [message, build] : rows) {
        quelora::testing::log_capture capture;
        try {
            build();
            ADD_FAILURE() << "no exception, expected: " << message;
        } catch (const quelora_exception& e) {
            EXPECT_EQ(e.error_code(), QEL_ERROR_INVALID_VALUE);
            EXPECT_STREQ(e.what(), message);
        }
        ASSERT_EQ(capture.lines().size(), 1u) << message;
        for (const auto& line : capture.lines()) {
            EXPECT_EQ(line.level, QEL_LOG_ERROR);
            EXPECT_EQ(line.message, message);
        }
    }
}

} // namespace
} // namespace quelora::denoise
