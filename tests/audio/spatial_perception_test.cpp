// What a listener hears through the library's binaural rendering, measured
// like a listening test would: level and time differences between the ears,
// balance, the direct-to-reverberant ratio, the tail, and clicks.
#include "dsp/real_fft.h"
#include "support/library_fixture.h"

#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <random>
#include <vector>

namespace quelora {
namespace {

constexpr int32_t frames = 480;
constexpr uint32_t room_id = 1, listener_id = 1, talker_id = 2;

struct ears {
    std::vector<float> left, right;
};

// The talker at `at` (units; x to the listener's right, z ahead) speaks
// `signal`; `move` may reposition it before each block. Returns what the
// listener, at the origin facing ahead, hears.
template <typename Move> ears listen(const std::vector<float>& signal, bool reverb, Move move) {
    testing::library_handle library;
    const auto config = testing::regular();
    EXPECT_EQ(qel_create_room(library, room_id), QEL_ERROR_NONE);
    EXPECT_EQ(qel_add_participant(library, room_id, listener_id, "listener", config),
              QEL_ERROR_NONE);
    EXPECT_EQ(qel_add_participant(library, room_id, talker_id, "talker", config), QEL_ERROR_NONE);
    qel_set_participant_state(library, room_id, listener_id, QEL_CONTROL_MIXING_3D_ENABLE, 1);
    qel_set_participant_state(library, room_id, listener_id, QEL_CONTROL_MIXING_3D_REVERB_ENABLE,
                              reverb ? 1 : 0);
    ears out;
    std::vector<float> block(2 * frames);
    for (size_t start = 0; start + frames <= signal.size(); start += frames) {
        const auto [x, z] = move(static_cast<int32_t>(start / frames));
        qel_set_participant_position(library, room_id, talker_id, {x, 0, z}, {0, 0});
        qel_input_audio_float(library, room_id, talker_id, signal.data() + start, frames);
        qel_output_audio_float(library, room_id, listener_id, block.data());
        out.left.insert(out.left.end(), block.begin(), block.begin() + frames);
        out.right.insert(out.right.end(), block.begin() + frames, block.end());
    }
    return out;
}

ears listen_at(const std::vector<float>& signal, int32_t x, int32_t z, bool reverb = true) {
    return listen(signal, reverb, [&](int32_t) { return std::pair{x, z}; });
}

std::vector<float> noise(int32_t count) {
    std::mt19937 rng(11);
    std::normal_distribution<float> n(0.0f, 0.1f);
    std::vector<float> v(static_cast<size_t>(count));
    for (float& x : v) x = n(rng);
    return v;
}

double energy(const std::vector<float>& x, size_t from, size_t to) {
    double e = 0.0;
    for (size_t i = from; i < std::min(to, x.size()); ++i) e += double{x[i]} * x[i];
    return e;
}

double band_energy(const std::vector<float>& x, double low_hz, double high_hz) {
    constexpr int size = 32768;
    dsp::real_fft fft(size);
    std::vector<float> frame(x.end() - size, x.end());
    std::vector<std::complex<float>> spectrum(size / 2 + 1);
    fft.forward(frame.data(), spectrum.data());
    double e = 0.0;
    for (int k = static_cast<int>(low_hz * size / 48000); k <= high_hz * size / 48000; ++k)
        e += std::norm(spectrum[k]);
    return e;
}

// Lag (ms) at which the right ear best matches the left: positive when the right ear leads.
double right_ear_lead_ms(const ears& e) {
    const size_t from = e.left.size() / 2, count = 9600;
    double best = -1e300, lag_at = 0;
    for (int lag = -72; lag <= 72; ++lag) {
        double c = 0.0;
        for (size_t i = from; i < from + count; ++i) c += double{e.right[i]} * e.left[i + lag];
        if (c > best) best = c, lag_at = lag;
    }
    return lag_at / 48.0;
}

double decibels(double ratio) { return 10.0 * std::log10(ratio); }

TEST(SpatialRendering, SourceOnTheRightReachesTheRightEarFirstAndLouder) {
    const ears e = listen_at(noise(100 * frames), 100, 0);
    const double ild = decibels(band_energy(e.right, 2000, 8000) / band_energy(e.left, 2000, 8000));
    const double lead = right_ear_lead_ms(e);
    RecordProperty("ild_2_8_khz_db", std::to_string(ild));
    RecordProperty("itd_ms", std::to_string(lead));
    EXPECT_GT(ild, 6.0);
    EXPECT_GE(lead, 0.5);
    EXPECT_LE(lead, 0.8);
}

TEST(SpatialRendering, SourceStraightAheadIsBalanced) {
    const ears e = listen_at(noise(100 * frames), 0, 100);
    const size_t half = e.left.size() / 2;
    EXPECT_NEAR(
        decibels(energy(e.left, half, e.left.size()) / energy(e.right, half, e.right.size())), 0.0,
        1.0);
}

// An impulse's binaural response: the energy of its direct sound (2.5 ms
// from the onset) against everything after it.
double direct_to_reverberant_db(int32_t distance, bool reverb, double* late_db = nullptr) {
    std::vector<float> click(60 * frames, 0.0f);
    click[10 * frames] = 0.25f; // well under the limiter
    const ears e = listen_at(click, 0, distance, reverb);
    size_t onset = 0;
    while (onset < e.left.size() && std::abs(e.left[onset]) < 1e-3f) ++onset;
    const size_t direct_end = onset + 120;
    const double direct =
        energy(e.left, onset - 24, direct_end) + energy(e.right, onset - 24, direct_end);
    const double rest =
        energy(e.left, direct_end, e.left.size()) + energy(e.right, direct_end, e.right.size());
    if (late_db != nullptr) {
        *late_db = decibels((energy(e.left, onset + 960, e.left.size()) + 1e-30) / direct);
    }
    return decibels(direct / rest);
}

TEST(SpatialRendering, DistanceAndReverbShapeTheRoom) {
    const double near = direct_to_reverberant_db(100, true);
    const double mid = direct_to_reverberant_db(200, true);
    const double far = direct_to_reverberant_db(300, true);
    double dry_late = 0.0;
    direct_to_reverberant_db(300, false, &dry_late);
    RecordProperty("drr_db_100_200_300",
                   std::to_string(near) + " " + std::to_string(mid) + " " + std::to_string(far));
    EXPECT_GT(near, mid + 3.0);
    EXPECT_GT(mid, far + 2.0);
    // Without reverb nothing is left 20 ms after the direct sound.
    EXPECT_LT(dry_late, -60.0);
}

TEST(SpatialRendering, CirclingSourceMakesNoClick) {
    // A 440 Hz tone circling the listener at 1 m, one degree per block: a
    // filter change that clicked would jump far beyond the tone's own slope.
    std::vector<float> tone(360 * frames);
    for (size_t i = 0; i < tone.size(); ++i) {
        tone[i] = static_cast<float>(
            0.5 * std::sin(2.0 * M_PI * 440.0 * static_cast<double>(i) / 48000.0));
    }
    const ears e = listen(tone, true, [](int32_t k) {
        const double a = k * M_PI / 180.0;
        return std::pair{static_cast<int32_t>(std::lround(100 * std::sin(a))),
                         static_cast<int32_t>(std::lround(100 * std::cos(a)))};
    });
    const double dry_jump = 0.5 * 2.0 * M_PI * 440.0 / 48000.0;
    double jump = 0.0;
    for (const auto* ear : {&e.left, &e.right}) {
        for (size_t i = 2 * frames; i < ear->size(); ++i)
            jump = std::max(jump, std::abs(double{(*ear)[i]} - (*ear)[i - 1]));
    }
    RecordProperty("largest_jump_over_dry", std::to_string(jump / dry_jump));
    EXPECT_LT(jump, dry_jump); // 0.49 measured: the filters and attenuation halve the tone
}

} // namespace
} // namespace quelora
