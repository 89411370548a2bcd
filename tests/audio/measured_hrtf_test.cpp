// The compiled-in set against its SOFA file, the acoustics of a head, and altered blobs.
#include "audio/measured_hrtf.h"

#include <cmath>
#include <gtest/gtest.h>
#include <mysofa.h>
#include <utility>
#include <vector>

namespace {
const quelora::measured_hrtf_set& hrtf = quelora::measured_hrtf_set::compiled_in();
std::vector<float> x(size_t(hrtf.taps()));

// Against a plain sinc over every SOFA sample (KEMAR: no delays; worst of 1420 responses 4.2e-4).
TEST(MeasuredHrtf, MatchesTheSofaResponsesInterpolatedInDouble) {
    int error = 0;
    MYSOFA_HRTF* s = mysofa_load(QUELORA_HRTF_SOFA, &error);
    ASSERT_NE(s, nullptr);
    for (int32_t r : {0, 1, hrtf.count() - 1, 2 * hrtf.nearest(90.0f, 0.0f)}) { // 2 x d + ear
        hrtf.decode(r / 2, r % 2, x.data());
        for (size_t n = 0; n < x.size(); ++n) {
            double want = 0.0, t = double(n) * s->DataSamplingRate.values[0] / 48000.0;
            for (unsigned k = 0; k < s->N; ++k, t -= 1.0)
                want += s->DataIR.values[r * s->N + k] * (t == 0 ? 1 : sin(M_PI * t) / (M_PI * t));
            ASSERT_NEAR(x[n], want, 5e-4) << r << " " << n;
        }
    }
    mysofa_free(s);
}

// 6 dB (energy x 4) louder and 0.5 to 1 ms sooner at half its peak (8.75 cm radius: 0.66 ms).
TEST(MeasuredHrtf, ASourceOnOneSideReachesThatEarFirstAndLouder) {
    for (auto [azimuth, near] : {std::pair{90.0f, 1}, {270.0f, 0}}) {
        double energy[2] = {}, peak[2] = {}, lag = 0.0; // of the far ear, in samples
        for (int i : {0, 1}) { // the near ear, then the far one
            hrtf.decode(hrtf.nearest(azimuth, 0.0f), i ? 1 - near : near, x.data());
            for (float v : x) energy[i] += v * v, peak[i] = std::fmax(peak[i], std::fabs(v));
            for (size_t n = 0; std::fabs(x[n]) < peak[i] / 2; ++n) lag += i ? 1.0 : -1.0;
        }
        EXPECT_TRUE(energy[0] > 4 * energy[1] && lag > 24 && lag < 48) << azimuth << ": " << lag;
    }
    EXPECT_EQ(hrtf.azimuth(hrtf.nearest(359.0f, 0.0f)), 0.0f); // across the seam, not 355
}

// Only the intact blob parses; cut short or with one field altered it is refused, left empty.
TEST(MeasuredHrtf, RefusesMalformedBlobs) {
    const std::span<const unsigned char> blob = quelora::measured_hrtf_blob();
    const size_t azimuths = 24 + (hrtf.name().size() + 3) / 4 * 4;
    const struct { size_t at; unsigned char value; long resize; } cases[] = {
        {0, 'Q', 0}, {0, 'Q', -1}, {0, 'Q', -4}, {7, '2', 0}, {11, 1, 0}, {14, 1, 0}, {19, 0x80, 0},
        {20, 1, 0}, {azimuths + 3, 0xff, 0}, {azimuths + 8 * size_t(hrtf.count()) + 3, 0xff, 0}};
    for (const auto& c : cases) {
        std::vector<unsigned char> b(blob.begin(), blob.end() + c.resize);
        b[c.at] = c.value;
        quelora::measured_hrtf_set s;
        EXPECT_EQ(s.parse(b.data(), b.size()) || s.count() != 0, &c == cases) << c.at;
    }
}

} // namespace
