// The spatial filter bank against a double-precision transform of its own responses (a float one
// is good to 1e-7 of a piece's l1 norm) and itself rebuilt and cut shorter; the room measured.
#include "audio/hrtf_grid.h"
#include "audio/shared_filter_banks.h"
#include "audio/spatial_filter_bank.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <numbers>
#include <numeric>

namespace quelora {
namespace {

using std::numbers::pi;
const measured_hrtf_set& measured = measured_hrtf_set::compiled_in();

std::array<std::vector<float>, 2> response(int32_t point, int32_t taps = 8192) {
    static grid_response_builder builder(measured);
    std::array<std::vector<float>, 2> r{std::vector<float>(taps), std::vector<float>(taps)};
    builder.build(point, taps, r[0].data(), r[1].data());
    return r;
}

double energy(const std::vector<float>& x, size_t from = 0, size_t to = 8192) {
    return std::inner_product(&x[from], &x[0] + std::min(to, x.size()), &x[from], 0.0);
}

TEST(SpatialFilterBank, PartitionsAreTheTransformsOfTheResponsePieces) {
    const spatial_filter_bank bank(measured, 2048, 512, 1024);
    for (const int32_t point : {72, 246, 450, 540}) { // layers 0 to 3: ahead, right, up left, down
        const auto r = response(point, 2048);
        for (int32_t piece = 0; piece < 2 * bank.partitions(); ++piece) { // left's, then right's
            const int32_t ear = piece / bank.partitions(), p = piece % bank.partitions();
            const float* x = r[ear].data() + p * 512;
            const auto* got = (ear ? bank.right(point) : bank.left(point)) + p * bank.bins();
            double l1 = 0.0, error = 0.0;
            for (int n = 0; n < 512; ++n) l1 += std::fabs(x[n]);
            for (int k = 0; k < bank.bins(); ++k) {
                std::complex<double> want = 0.0, turn = 1.0, w = std::polar(1.0, -pi * k / 512);
                for (int n = 0; n < 512; ++n) want += double{x[n]} * turn, turn *= w;
                error = std::max(error, std::abs(want - std::complex<double>(got[k])));
            }
            EXPECT_LE(error, 3e-7 * l1) << point << " ear " << ear << " partition " << p;
        }
    }
}

TEST(SpatialFilterBank, IsOneBankCutShorterAtLowQualityAndTheSameOnEveryBuild) {
    const spatial_filter_bank full(measured, 8192, 512, 1024), again(measured, 8192, 512, 1024);
    const spatial_filter_bank cut(measured, 512, 512, 1024);
    const size_t bytes = sizeof(std::complex<float>) * full.bins(), all = 672 * 16 * bytes;
    EXPECT_EQ(std::memcmp(full.left(0), again.left(0), all), 0); // an ear's spectra are contiguous
    EXPECT_EQ(std::memcmp(full.right(0), again.right(0), all), 0);
    for (int32_t point = 0; point < spatial_filter_bank::grid_points; ++point) {
        ASSERT_EQ(full.used_partitions(point), point < 336 ? (measured.taps() + 511) / 512 : 16);
        ASSERT_EQ(std::memcmp(full.left(point), cut.left(point), bytes), 0) << point;
        ASSERT_EQ(std::memcmp(full.right(point), cut.right(point), bytes), 0) << point;
    }
}

TEST(GridResponse, DistantLayersAddTheRoomAtTheDiffuseFieldLevelDecayingAsTheRoomDoes) {
    // Reverberant / direct energy is (r / r_c)^2, direct 0.5 per ear at 1 m: 0.5 / r_c^2 per ear at
    // any distance. From 70 to 145 ms (after the reflections, before the fade-out): the ears'
    // correlation; energy below 500 Hz (decaying at RT60) in halves, at 60 dB x 37.5 ms / RT60.
    const double reverberant = 0.5 / std::pow(meeting_room().critical_distance(), 2);
    const size_t from = 3360, middle = 5160, to = 6960;
    double rho = 0.0, halves[2] = {}, a = std::exp(-2.0 * pi * 500.0 / 48000.0);
    for (int32_t direction = 48; direction < 120; ++direction) { // elevations -30, 0 and +30
        const auto near = response(168 + direction);
        EXPECT_EQ(energy(near[0], measured.taps()) + energy(near[1], measured.taps()), 0.0);
        double nearer_ratio = INFINITY;
        for (const int32_t layer : {2, 3}) {
            auto far = response(168 * layer + direction);
            const double lr = std::inner_product(&far[0][from], &far[0][to], &far[1][from], 0.0);
            rho += std::fabs(lr) / std::sqrt(energy(far[0], from, to) * energy(far[1], from, to));
            double direct = 0.0, reverberation = 0.0;
            for (int32_t ear = 0; ear < 2; ++ear) {
                EXPECT_EQ(energy(far[ear], meeting_room::tail_end()), 0.0); // silent before 8192
                double once = 0.0, twice = 0.0;
                for (size_t n = 0; n < to; ++n) {
                    once += (1.0 - a) * (far[ear][n] - once), twice += (1.0 - a) * (once - twice);
                    halves[n >= middle] += n >= from ? twice * twice : 0.0;
                }
                for (size_t n = 0; n < 8192; ++n) far[ear][n] -= near[ear][n] / float(layer);
                direct += energy(near[ear]) / (layer * layer), reverberation += energy(far[ear]);
            }
            EXPECT_NEAR(10 * std::log10(reverberation / 2 / reverberant), 0.0, 1.0) << direction;
            EXPECT_LT(direct / reverberation, nearer_ratio) << direction; // falls with distance
            nearer_ratio = direct / reverberation;
        }
    }
    EXPECT_LT(rho / 144, 0.1); // the mean magnitude of the ears' correlation
    const double rt60 = 60.0 * 0.0375 / (10.0 * std::log10(halves[0] / halves[1]));
    EXPECT_NEAR(rt60, meeting_room().rt60(), 0.03 * meeting_room().rt60());
}

TEST(SharedFilterBanks, LibrariesOfOneSizeShareABankThatDiesWithTheLast) {
    const measured_hrtf_set& set = measured_hrtf_set::compiled_in();
    auto first = shared_spatial_bank(set, 512, 512, 1024);
    auto second = shared_spatial_bank(set, 512, 512, 1024);
    EXPECT_EQ(first, second);
    EXPECT_NE(first, shared_spatial_bank(set, 1024, 512, 1024));
    const std::weak_ptr<const spatial_filter_bank> watch = first;
    first.reset();
    EXPECT_FALSE(watch.expired());
    second.reset();
    EXPECT_TRUE(watch.expired());
}

} // namespace
} // namespace quelora
