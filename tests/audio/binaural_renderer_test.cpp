// The binaural renderer against hand-computed grid corners, against a
// double-precision time-domain model of its block convolution, and its
// shared source spectra against per-listener transforms.
#include "audio/binaural_renderer.h"
#include "audio/hrtf_grid.h"
#include "audio/listener_engine.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

namespace quelora {
namespace {

constexpr int32_t frames = 480; // 10 ms; partitions of 512 taps, transforms of 1024

// Quality 3: 2048 taps in four partitions, so the rings' offsets matter.
const spatial_filter_bank& bank() {
    static const spatial_filter_bank bank(measured_hrtf_set::compiled_in(), 2048, 512, 1024);
    return bank;
}

control_values listener_controls(bool reverb = true) {
    control_values c;
    c.set(QEL_CONTROL_MIXING_3D_ENABLE, 1);
    c.set(QEL_CONTROL_MIXING_3D_REVERB_ENABLE, reverb ? 1 : 0);
    return c;
}

std::vector<float> noise(int32_t count, uint32_t seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> u(-0.5f, 0.5f);
    std::vector<float> v(static_cast<size_t>(count));
    for (float& x : v) x = u(rng);
    return v;
}

struct corner_case {
    const char* what;
    int32_t channels, azimuth, elevation, near, far;
    bool reverb;
    std::vector<grid_corner> used; // hand-computed
};

TEST(BinauralRenderer, InterpolatesBetweenTheRightGridPoints) {
    // Point = (layer x 7 + elevation index) x 24 + azimuth index.
    const std::vector<corner_case> cases = {
        {"ahead at 100", 1, 0, 0, 100, 0, true, {{240, 1.0f}}},
        {"352 degrees", 1, -8, 0, 100, 0, true, {{263, 0.5333333f}, {240, 0.4666667f}}},
        {"353 degrees", 1, -7, 0, 100, 0, true, {{263, 0.4666667f}, {240, 0.5333333f}}},
        {"straight up", 1, 0, 90, 100, 0, true, {{312, 1.0f}}},
        {"straight down", 1, 0, -90, 100, 0, true, {{168, 1.0f}}},
        {"45 degrees up", 1, 0, 45, 100, 0, true, {{264, 0.49999997f}, {288, 0.50000003f}}},
        {"150 units", 1, 0, 0, 150, 0, true, {{240, 0.5f}, {408, 0.5f}}},
        {"199 units: the 0.01 floor drops the lower layer", 1, 0, 0, 199, 0, true, {{408, 0.99f}}},
        {"450 units: layer 3 alone", 1, 0, 0, 300, 150, true, {{576, 1.0f}}},
        {"reverb off at 300: layer 1", 1, 0, 0, 300, 0, false, {{240, 1.0f}}},
        {"stereo: the left channel, 15 degrees left", 2, 0, 0, 100, 0, true, {{263, 1.0f}}},
    };
    binaural_renderer renderer(bank(), frames);
    for (const corner_case& c : cases) {
        SCOPED_TRACE(c.what);
        auto state = renderer.make_source_state();
        source_direction direction{c.azimuth, c.elevation, c.near, c.far, 1};
        binaural_source source{c.channels, &direction, {}, {}, false, state.get()};
        std::vector<float> mix(2 * frames);
        renderer.render(&source, 1, listener_controls(c.reverb), mix.data());
        std::vector<grid_corner> used;
        for (const grid_corner& corner : state->corners) {
            if (corner_is_used(corner)) used.push_back(corner);
        }
        ASSERT_EQ(used.size(), c.used.size());
        for (size_t i = 0; i < used.size(); ++i) {
            EXPECT_EQ(used[i].index, c.used[i].index);
            EXPECT_FLOAT_EQ(used[i].weight, c.used[i].weight);
        }
        // The filter is the weighted sum of exactly those corners.
        const std::complex<float> bin = bank().left(c.used[0].index)[100];
        if (c.used.size() == 1) {
            EXPECT_EQ(state->left[100], c.used[0].weight * bin);
        }
    }
    // Exactly 360 degrees is kept, not wrapped: one past the row's end, on
    // the next elevation's straight-ahead point.
    const auto corners = grid_corners(360, 0, 100);
    EXPECT_EQ(corners[0].index, 264);
    EXPECT_FLOAT_EQ(corners[0].weight, 1.0f);
}

// The renderer's block convolution written out in the time domain, in double
// precision: frames A and B of every block convolved with each 512-tap
// partition of the interpolated response (delayed one block per partition),
// the first N samples kept, windowed and overlap-added with hop N / 2.
std::vector<double> model_ear(const std::vector<float>& x, const std::vector<double>& h,
                              double gain, int32_t blocks) {
    const int32_t n = frames, hop = n / 2, block = 512, parts = 2048 / block;
    const auto sample = [&](int32_t i) { return i < 0 ? 0.0 : gain * x[static_cast<size_t>(i)]; };
    // Frame A of call k starts at sample (k - 1) n, frame B half a block later.
    const auto head = [&](int32_t k, int32_t start_offset, int32_t j) {
        double y = 0.0;
        for (int32_t p = 0; p < parts && k - p >= 0; ++p) {
            const int32_t start = (k - p - 1) * n + start_offset;
            for (int32_t m = 0; m <= j; ++m) y += sample(start + m) * h[p * block + j - m];
        }
        return y;
    };
    std::vector<double> w(n), out(static_cast<size_t>(blocks) * n);
    for (int32_t i = 0; i < n; ++i) w[i] = binaural_synthesis_window(i, n);
    for (int32_t i = 0; i < hop; ++i) EXPECT_NEAR(w[i] + w[i + hop], 1.0, 1e-7); // unit gain
    for (int32_t k = 0; k < blocks; ++k) {
        for (int32_t j = 0; j < n; ++j) {
            double y = w[j] * head(k, 0, j);
            y += j < hop ? (k > 0 ? w[j + hop] * head(k - 1, hop, j + hop) : 0.0)
                         : w[j - hop] * head(k, hop, j - hop);
            out[static_cast<size_t>(k) * n + j] = y;
        }
    }
    return out;
}

TEST(BinauralRenderer, MatchesATimeDomainModelOfItsConvolution) {
    constexpr int32_t blocks = 12;
    const std::vector<float> x = noise(blocks * frames, 7);
    grid_response_builder builder(measured_hrtf_set::compiled_in());
    control_values controls = listener_controls();
    controls.set(QEL_CONTROL_MIXING_3D_MAX_DISTANCE, 200);
    // Direct sound alone (1 m), then between the 2 m and 3 m reverberant layers.
    for (const int32_t distance : {100, 250}) {
        const auto corners = grid_corners(30, 0, distance);
        std::vector<double> h[2] = {std::vector<double>(2048), std::vector<double>(2048)};
        std::vector<float> left(2048), right(2048);
        for (const grid_corner& c : corners) {
            if (!corner_is_used(c)) continue;
            builder.build(c.index, 2048, left.data(), right.data());
            for (int32_t i = 0; i < 2048; ++i) {
                h[0][i] += c.weight * left[i];
                h[1][i] += c.weight * right[i];
            }
        }
        // 6 dB per 100 units, counted up to the maximum distance of 200 units.
        const double gain = std::pow(10.0, -std::min(distance, 200) * 6.0 / 100.0 / 20.0);
        source_direction direction{30, 0, distance, 0, 1};
        for (bool shared : {false, true}) {
            SCOPED_TRACE(std::to_string(distance) + (shared ? " units, shared spectra" : " units"));
            binaural_renderer renderer(bank(), frames);
            auto state = renderer.make_source_state();
            source_spectra spectra(frames, 1024);
            std::vector<float> mix(2 * frames), out[2];
            rendered_block previous{};
            spectrum_record* held = nullptr;
            for (int32_t k = 0; k < blocks; ++k) {
                const float* block = x.data() + k * frames;
                spectrum_record* record = spectra.analyse(block);
                record->acquire(); // held as this block and then as frame A, as a queue would
                rendered_block current{block, shared ? record : nullptr, record->sequence, 1.0f};
                binaural_source source{1, &direction, current, previous, true, state.get()};
                std::fill(mix.begin(), mix.end(), 0.0f);
                renderer.render(&source, 1, controls, mix.data());
                for (int ear = 0; ear < 2; ++ear) {
                    out[ear].insert(out[ear].end(), mix.begin() + ear * frames,
                                    mix.begin() + (ear + 1) * frames);
                }
                if (held != nullptr) held->release();
                held = record;
                previous = current;
            }
            for (int ear = 0; ear < 2; ++ear) {
                const std::vector<double> model = model_ear(x, h[ear], gain, blocks);
                double peak = 0.0, error = 0.0;
                for (size_t i = 0; i < model.size(); ++i) {
                    peak = std::max(peak, std::abs(model[i]));
                    error = std::max(error, std::abs(model[i] - out[ear][i]));
                }
                EXPECT_GT(peak, 0.01);
                EXPECT_LT(error, 2e-5 * peak) << "ear " << ear;
                // Against the plain linear convolution (one block late): the
                // direct sound survives the frames' cut tails to 20 dB; the
                // reverberant layers keep about half their late energy.
                double signal = 0.0, difference = 0.0;
                for (size_t i = 4 * frames; i < model.size(); ++i) {
                    double y = 0.0;
                    for (size_t t = 0; t < 2048 && t + frames <= i; ++t) {
                        y += h[ear][t] * x[i - frames - t];
                    }
                    signal += y * gain * y * gain;
                    difference += std::pow(y * gain - out[ear][i], 2);
                }
                const double snr = 10.0 * std::log10(signal / difference);
                RecordProperty("snr_db_" + std::to_string(distance) + "_ear" + std::to_string(ear),
                               std::to_string(snr));
                if (distance == 100) {
                    EXPECT_GT(snr, 20.0) << "ear " << ear;
                }
            }
        }
    }
}

TEST(BinauralRenderer, SharedSpectraEqualPerListenerTransforms) {
    // Eight talkers (one stereo) and eight listeners, each listener rendered
    // twice: from the talkers' shared spectra and from its own transforms.
    constexpr int32_t talkers = 8, listeners = 8, blocks = 10;
    // The talkers' records outlive the queues that refer to them.
    std::vector<std::unique_ptr<source_spectra>> spectra;
    std::vector<std::unique_ptr<listener_engine>> shared, own;
    std::mt19937 rng(3);
    for (int32_t l = 0; l < listeners; ++l) {
        shared.push_back(std::make_unique<listener_engine>(frames, talkers, &bank()));
        own.push_back(std::make_unique<listener_engine>(frames, talkers, &bank()));
        for (int32_t t = 0; t < talkers; ++t) {
            const int32_t azimuth = static_cast<int32_t>(rng() % 360) - 180;
            const int32_t distance = static_cast<int32_t>(rng() % 400);
            for (auto* e : {shared.back().get(), own.back().get()}) {
                e->add_source(t, t == 0 ? 2 : 1);
                e->store_direction(t, azimuth, 0, distance);
            }
        }
    }
    for (int32_t t = 0; t < talkers; ++t)
        spectra.push_back(std::make_unique<source_spectra>(frames, 1024));
    const control_values controls = listener_controls();
    std::vector<float> a(2 * frames), b(2 * frames);
    double worst = 0.0, peak = 0.0;
    for (int32_t k = 0; k < blocks; ++k) {
        if (k == 5) { // a talker moves, so its frames straddle two attenuations
            shared[2]->store_direction(4, 45, 0, 180);
            own[2]->store_direction(4, 45, 0, 180);
        }
        for (int32_t t = 0; t < talkers; ++t) {
            const std::vector<float> block = noise(2 * frames, static_cast<uint32_t>(100 * k + t));
            spectrum_record* record = spectra[t]->analyse(block.data());
            for (int32_t l = 0; l < listeners; ++l) {
                if (l == 3 && t == 1 && k == 4) continue; // one block withheld (a whisper)
                const float gain = (l + t) % 3 == 0 ? 0.5f : 1.0f;
                shared[l]->submit(t, block.data(), gain, record, record->sequence);
                own[l]->submit(t, block.data(), gain, nullptr, record->sequence);
            }
        }
        for (int32_t l = 0; l < listeners; ++l) {
            shared[l]->mix(a.data(), controls);
            own[l]->mix(b.data(), controls);
            for (int32_t i = 0; i < 2 * frames; ++i) {
                peak = std::max(peak, static_cast<double>(std::abs(b[i])));
                worst = std::max(worst, static_cast<double>(std::abs(a[i] - b[i])));
            }
        }
    }
    EXPECT_GT(peak, 0.05);
    EXPECT_LT(worst, 1e-5 * peak);
}

} // namespace
} // namespace quelora
