// Part 5.2: dfn_model::process_block, the block path the noise canceller
// runs, against two process_hop calls on a second model built from the same
// table (docs/dfn.md section 6's portable random network). The block path
// shares the weight passes of the grouped linear layers and of the GRUs'
// input products between its two hops and synthesises the first hop after
// the second's analysis, so any mix-up of the hops' buffers, of the GRU
// state order or of the spectra's hops back shows up here.
//
// Tolerance: the two paths differ only in the float32 summation order of
// the shared products (the AVX2 pair kernel sums a GRU row in one chain per
// 8 columns, the single one in two per 16; the portable pair kernels are the
// single ones, bit for bit). Such reorderings move a pre-activation by a few
// ulp, which the recurrent states carry from hop to hop without growing
// (the GRUs are contractive at these weights) and the synthesis passes on
// in proportion to the signal: every output sample within 1e-6 of full
// scale plus 1e-5 of the hop's largest output, a hundredth of the
// canceller's twin tolerance (observed: 2.2e-8 at most). Swapped hops or a spectrum one hop off give
// errors of the order of the signal itself.
#include "denoise/dfn_model.h"
#include "support/dfn_test_table.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdint>
#include <string>
#include <vector>

namespace quelora::denoise {
namespace {

const float* random_table() {
    static const std::vector<float> table = quelora::testing::portable_random_dfn_table();
    return table.data();
}

// Around -20 dBFS: a sine plus uniform noise, every sample distinct.
std::vector<float> test_signal(std::size_t count) {
    std::vector<float> x(count);
    uint32_t state = 987654321u;
    for (std::size_t i = 0; i < count; ++i) {
        state = state * 1664525u + 1013904223u;
        const float noise = static_cast<float>(state >> 8) / 16777216.0f - 0.5f;
        x[i] = 0.1f * (0.6f * std::sin(0.0271f * static_cast<float>(i)) + noise);
    }
    return x;
}

// |got - want| <= 1e-6 + 1e-5 max|want| for every element; returns the
// largest error seen.
double expect_close(const float* got, const float* want, std::size_t count,
                    const std::string& what) {
    float peak = 0.0f;
    for (std::size_t i = 0; i < count; ++i) peak = std::max(peak, std::abs(want[i]));
    const double tolerance = 1e-6 + 1e-5 * static_cast<double>(peak);
    double worst = 0.0;
    for (std::size_t i = 0; i < count; ++i) {
        const double error = std::abs(static_cast<double>(got[i]) - static_cast<double>(want[i]));
        worst = std::max(worst, error);
        EXPECT_LE(error, tolerance) << what << ", element " << i << ": " << got[i] << " vs "
                                    << want[i];
        if (!(error <= tolerance)) break;
    }
    return worst;
}

TEST(Part5_2_DfnModel, ProcessBlockEqualsTwoProcessHopCalls) {
    constexpr std::size_t blocks = 20;
    // Hop j reads samples [240 j, 240 j + 480), as the wrapper frames them.
    const std::vector<float> x = test_signal(480 * blocks + 240);
    dfn_model by_hop(random_table());
    dfn_model by_block(random_table());
    std::vector<float> hop_a(480), hop_b(480), block_a(480), block_b(480);
    double worst = 0.0, largest = 0.0;
    for (std::size_t b = 0; b < blocks; ++b) {
        const float* window_a = x.data() + 480 * b;
        const float* window_b = window_a + 240;
        by_hop.process_hop(window_a, hop_a.data());
        by_hop.process_hop(window_b, hop_b.data());
        by_block.process_block(window_a, window_b, block_a.data(), block_b.data());
        const std::string at = "block " + std::to_string(b);
        worst = std::max(worst, expect_close(block_a.data(), hop_a.data(), 480, at + " hop a"));
        worst = std::max(worst, expect_close(block_b.data(), hop_b.data(), 480, at + " hop b"));
        // The accessors report the block's second hop, as after process_hop.
        expect_close(by_block.gains(), by_hop.gains(), 32, at + " gains");
        expect_close(by_block.coefficients(), by_hop.coefficients(), 960, at + " coefficients");
        for (float v : hop_b) largest = std::max(largest, static_cast<double>(std::abs(v)));
        if (HasFailure()) return;
    }
    // The comparison is not vacuous: the network's output is well above the
    // tolerance (hop outputs of a -20 dBFS input).
    EXPECT_GT(largest, 0.01);
    char text[32];
    std::snprintf(text, sizeof text, "%.3g", worst);
    RecordProperty("worst_error", text);
}

// A block after single hops and single hops after a block: the two paths
// share every state (analysis, DF-path history, GRU states), so they can
// be mixed freely.
TEST(Part5_2_DfnModel, HopsAndBlocksMixOnOneModel) {
    const std::vector<float> x = test_signal(240 * 13 + 240);
    dfn_model by_hop(random_table());
    dfn_model mixed(random_table());
    std::vector<float> want(480), got_a(480), got_b(480);
    std::vector<float> want_a(480);
    std::size_t hop = 0;
    const auto window = [&](std::size_t j) { return x.data() + 240 * j; };
    for (int round = 0; round < 3; ++round) {
        for (int single = 0; single < 1 + round; ++single, ++hop) {
            by_hop.process_hop(window(hop), want.data());
            mixed.process_hop(window(hop), got_a.data());
            expect_close(got_a.data(), want.data(), 480, "single hop " + std::to_string(hop));
        }
        by_hop.process_hop(window(hop), want_a.data());
        by_hop.process_hop(window(hop + 1), want.data());
        mixed.process_block(window(hop), window(hop + 1), got_a.data(), got_b.data());
        expect_close(got_a.data(), want_a.data(), 480, "block hop " + std::to_string(hop));
        expect_close(got_b.data(), want.data(), 480, "block hop " + std::to_string(hop + 1));
        hop += 2;
    }
}

} // namespace
} // namespace quelora::denoise
