// The levelling stages measured on speech-shaped signals: automatic gain control against its
// target loudness and its pause rules, auto EQ against the long-term speech spectrum it aims at,
// the soft limiter's knee and ceiling, and the loudness filter against its transfer function.
#include "audio/auto_eq.h"
#include "audio/automatic_gain_control.h"
#include "audio/loudness_filter.h"
#include "audio/soft_limiter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstdio>
#include <limits>
#include <numbers>
#include <numeric>
#include <stdexcept>
#include <vector>

namespace {

using namespace quelora;

constexpr double pi = std::numbers::pi;
constexpr int period = 4800; // 0.1 s: the test spectra are lines every 10 Hz

double db(double power) { return 10.0 * std::log10(power); }

std::vector<float> sine(double hz, double amplitude, int count) {
    std::vector<float> x(count);
    for (int i = 0; i < count; ++i) {
        x[i] = static_cast<float>(amplitude * std::sin(2 * pi * hz * i / 48000));
    }
    return x;
}

// x through the loudness filter, and the mean power of such a signal over [from, from + count).
std::vector<double> weighted(const std::vector<float>& x) {
    std::vector<double> w(x.size());
    loudness_filter().process(x.data(), w.data(), static_cast<int32_t>(x.size()));
    return w;
}
double power(const std::vector<double>& w, size_t from, size_t count) {
    double sum = 0.0;
    for (size_t i = from; i < from + count; ++i) sum += w[i] * w[i];
    return sum / static_cast<double>(count);
}

// One period of speech-shaped noise: lines every 10 Hz from 50 Hz up with the long-term speech
// spectrum's density, tilted by tilt dB per octave about 1 kHz, random phases, unit RMS.
std::vector<float> speech_shaped(double tilt, double top_hz = 12000.0) {
    std::vector<double> sum(period, 0.0);
    unsigned seed = 7;
    for (int k = 5; k * 10.0 <= top_hz; ++k) {
        const double level = auto_eq::speech_spectrum_db(10.0 * k) + tilt * std::log2(k / 100.0);
        const double phase = 2.0 * pi * ((seed = seed * 1664525u + 1013904223u) >> 8) / 0x1p24;
        for (int i = 0; i < period; ++i) {
            sum[i] += std::pow(10.0, level / 20.0) * std::cos(2.0 * pi * k * i / period + phase);
        }
    }
    const double rms =
        std::sqrt(std::inner_product(sum.begin(), sum.end(), sum.begin(), 0.0) / period);
    std::vector<float> out(period);
    for (int i = 0; i < period; ++i) out[i] = static_cast<float>(sum[i] / rms);
    return out;
}

// Talk: speech-shaped noise for 0.8 s with a mild 4 Hz syllable rhythm (a deeper one makes the
// AGC's own reading and the frames' energy drift apart: docs/levelling.md), then a pause 60 dB
// down, 0.2 s unless told, each a whole number of blocks of n; the speech parts' RMS is level.
struct talk {
    std::vector<float> signal;
    int speech, cycle;
    bool speaking(size_t i, int count = 1) const {
        return static_cast<int>(i % cycle) + count <= speech;
    }
};
talk make_talk(double level, int n, double pause = 0.2) {
    static const std::vector<float> noise = speech_shaped(0.0);
    const double depth = 0.25, rms = std::sqrt((1 - depth) * (1 - depth) + depth * depth / 2);
    const int speech = (38400 + n / 2) / n * n;
    talk t{{}, speech, speech + static_cast<int>(pause * 48000 + n / 2) / n * n};
    for (int i = 0; i < 3 * 48000 / n * n; ++i) {
        const double envelope = t.speaking(i) ? 1 - depth + depth * std::sin(pi * i / 6000) : 1e-3;
        t.signal.push_back(
            static_cast<float>(noise[i % period] * envelope / rms * std::pow(10.0, level / 20.0)));
    }
    return t;
}

// The output's loudness over the last second as the AGC reads its input: frames of F at hop
// F/2 through the loudness filter, their levels averaged with 0.97 on a rise, 0.99 on a fall,
// 0.2 on a rise of 40 dB over the level 20 frames back when that was below -60 dB and 0.9999
// after a drop of 20 dB, over frames that are all speech; and those frames' mean energy.
std::pair<double, double> read_loudness(const talk& t, int f, int delay) {
    const std::vector<double> w = weighted(t.signal);
    std::vector<double> history(20, -160.0);
    double estimate = -24.2, last = -160.0, sum = 0.0, energy = 0.0;
    int count = 0;
    for (size_t at = delay, frame = 0; at + f <= w.size(); at += f / 2, ++frame) {
        const double level = db(power(w, at, f)), before = history[frame % 20];
        double c = level <= last ? 0.99 : 0.97;
        c = before < -60 && level - before > 40 ? 0.2 : before - level > 20 ? 0.9999 : c;
        history[frame % 20] = last = level;
        if (!t.speaking(at - delay, f)) continue;
        estimate = (1 - c) * level + c * estimate;
        if (at + 48000 >= w.size()) sum += estimate, energy += power(w, at, f), ++count;
    }
    return {sum / count, db(energy / count)};
}

class AutomaticGainControl : public testing::TestWithParam<int> {};

TEST_P(AutomaticGainControl, BringsSpeechAtAnyLevelToTheTargetLoudnessWithinThreeSeconds) {
    const int n = GetParam();
    for (double level : {-40.0, -24.0, -10.0}) {
        automatic_gain_control agc(1, n);
        talk t = make_talk(level, n);
        for (int at = 0; at < static_cast<int>(t.signal.size()); at += n) {
            agc.process(&t.signal[at], t.speaking(at) ? 1.0f : 0.0f);
        }
        const auto [reading, energy] = read_loudness(t, agc.frame_length(), agc.latency());
        std::printf("AGC N=%d, speech at %.0f dB RMS: output loudness over 2-3 s %.2f dB as the "
                    "AGC reads it, energy of its frames %.2f dB\n",
                    n, level, reading, energy);
        EXPECT_NEAR(reading, -24.2, 1.5) << level;
    }
}

TEST_P(AutomaticGainControl, WithoutConfidentSpeechPassesTheInputExactlyDelayed) {
    // Noise alone at -60 dB with speech values that never move the loudness (at 0 the gain is
    // also released for being quiet; at 0.5 it stays at its initial 0 dB), in both channels.
    const int n = GetParam();
    for (float v : {0.0f, 0.5f}) {
        automatic_gain_control agc(2, n);
        std::vector<float> in = speech_shaped(0.0), x(2 * n), out;
        for (float& s : in) s *= 1e-3f;
        for (int block = 0; block < 50; ++block) {
            for (int i = 0; i < n; ++i) x[i] = in[(block * n + i) % period];
            agc.process(x.data(), v);
            ASSERT_TRUE(std::equal(x.begin(), x.begin() + n, x.begin() + n));
            out.insert(out.end(), x.begin(), x.begin() + n);
        }
        const int d = agc.latency();
        EXPECT_EQ(d, n == 512 ? 128 : 120);
        for (int i = 0; i < 50 * n; ++i) {
            const float expected = i < d ? 0.0f : in[(i - d) % period];
            ASSERT_NEAR(out[i], expected, 1e-6f * std::fabs(expected) + 1e-12f) << v << " " << i;
        }
    }
}

TEST_P(AutomaticGainControl, HoldsASteadySineWithoutPumping) {
    const int n = GetParam();
    automatic_gain_control agc(1, n);
    std::vector<float> x = sine(1000, 0.03, 4 * 48000 / n * n);
    for (int at = 0; at < static_cast<int>(x.size()); at += n) agc.process(&x[at], 1.0f);
    const std::vector<double> w = weighted(x);
    double low = 1e9, high = -1e9; // 10 ms windows (ten whole periods) after the first second
    for (size_t at = 48000; at + 480 <= x.size(); at += 480) {
        low = std::min(low, db(power(w, at, 480))), high = std::max(high, db(power(w, at, 480)));
    }
    std::printf("AGC N=%d, 1 kHz sine at -33.5 dB RMS: output loudness %.2f dB, %.4f dB below "
                "it at the lowest\n",
                n, high, high - low);
    EXPECT_LT(high - low, 0.5);
    EXPECT_NEAR(high, -25.2, 0.1); // the lower edge of the band the loudness is brought into
}

TEST_P(AutomaticGainControl, GainStopsAtThirtyFiveDecibelsEitherWayAndOutputAtTheCeiling) {
    const int n = GetParam();
    // Silence, a 500 Hz square wave at -140 dBFS and one at +40 dBFS: the gain, the last
    // output sample (x 56.2341 is 35 dB; the ceiling's curve takes 1.778 to 0.94401).
    constexpr double cases[][3] = {{0, 35, 0}, {1e-7, 35, 5.62341e-6}, {100, -35, 0.94401}};
    for (const auto& [amplitude, gain_db, last] : cases) {
        automatic_gain_control agc(1, n);
        std::vector<float> x(2 * 48000 / n * n);
        for (size_t i = 0; i < x.size(); ++i) {
            x[i] = static_cast<float>(i % 96 < 48 ? amplitude : -amplitude);
        }
        for (int at = 0; at < static_cast<int>(x.size()); at += n) agc.process(&x[at], 1.0f);
        EXPECT_EQ(agc.gain_db(), gain_db) << amplitude;
        EXPECT_NEAR(std::fabs(x.back()), last, 1e-5 * last) << amplitude;
        for (float s : x) ASSERT_LE(std::fabs(s), std::pow(10.0f, -0.5f / 20.0f));
    }
}

TEST_P(AutomaticGainControl, ReleasesTheGainInPausesAndForgetsAQuietTalkerAfterALongOne) {
    // A talker at -40 dB for 2 s, then a pause in which the speech value is 0 for 80 or 120
    // frames, then speech again. From the 51st quiet frame the output is the input exactly;
    // after 100 the loudness starts again from -24.2 dB, so the gain restarts from 0 dB (0 to
    // 3 dB one block in) rather than where it was.
    const int n = GetParam();
    for (const int pause_frames : {80, 120}) {
        automatic_gain_control agc(1, n);
        const talk t = make_talk(-40.0, n, 0.0);
        std::vector<float> x = t.signal;
        const int frames_per_block = 2 * n / agc.frame_length();
        const size_t pause_start = (2 * 48000 + n - 1) / n * n;
        const size_t pause_end = pause_start + pause_frames / frames_per_block * n;
        double gain_before = 0.0;
        for (size_t at = 0; at < pause_end + n; at += n) {
            if (at == pause_start) gain_before = agc.gain_db();
            agc.process(&x[at], at >= pause_start && at < pause_end ? 0.0f : 1.0f);
        }
        EXPECT_GT(gain_before, 20.0);
        EXPECT_NEAR(agc.gain_db(), pause_frames < 100 ? gain_before : 1.5, 1.5) << pause_frames;
        for (size_t i = pause_start + (50 / frames_per_block + 1) * n; i < pause_end; ++i) {
            const float in = t.signal[i - agc.latency()];
            ASSERT_NEAR(x[i], in, 1e-6f * std::fabs(in) + 1e-12f) << pause_frames << " " << i;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(FrameLengths, AutomaticGainControl, testing::Values(480, 960, 512));

TEST(LoudnessFilter, HasThePublishedResponse) {
    // The published coefficients' transfer function, evaluated once in double apart from this
    // code: 8 dB below its peak at 1 kHz, most sensitive at 3-4 kHz, steep below 150 Hz.
    constexpr double table[][2] = {{20, -42.526},    {100, -15.358},  {150, -10.556},
                                   {1000, -8.316},   {3500, -0.751},  {6000, -8.396},
                                   {10000, -15.570}, {15000, -37.369}};
    for (const auto& [hz, expected] : table) {
        EXPECT_NEAR(db(2 * power(weighted(sine(hz, 1, 48000)), 24000, 24000)), expected, 0.05);
    }
}

// The EQ's response at line k: the output's spectrum over the input's, over the last period.
double response_db(const std::vector<float>& in, const std::vector<float>& out, int k) {
    std::complex<double> a, b;
    for (int i = 0; i < period; ++i) {
        const std::complex<double> e = std::polar(1.0, -2 * pi * k * i / period);
        a += double{in[i]} * e, b += double{out[i]} * e;
    }
    return 20 * std::log10(std::abs(b) / std::abs(a));
}

TEST(AutoEq, TurnsTheSpectrumTowardsSpeechByAtMostSixDecibels) {
    // Gentle tilts are mostly undone and an untilted input left alone; steep ones drive the outer
    // bands to the limit (between two limited centres the peaking filters' blend bulges by under
    // 0.1 dB); a band-limited input (nothing above 3 kHz) gets the limit in its empty band only.
    constexpr double cases[][2] = {{-2, 12000}, {0, 12000},  {2, 12000},
                                   {8, 12000},  {-8, 12000}, {0, 3000}};
    for (const auto& [tilt, top_hz] : cases) {
        auto_eq eq(1, 480);
        const std::vector<float> in = speech_shaped(tilt, top_hz);
        std::vector<float> out(period);
        for (int b = 0; b < 2000; ++b) eq.process(&in[b % 10 * 480], &out[b % 10 * 480], 1, 100);
        double sxy = 0.0, sxx = 0.0, largest = 0.0; // the response's slope at the centres
        for (int k = 5; k * 10.0 <= top_hz; ++k) {
            largest = std::max(largest, std::fabs(response_db(in, out, k)));
        }
        std::printf("auto EQ, input tilted %+.0f dB/octave up to %.0f Hz: corrections", tilt,
                    top_hz);
        for (int b = 0; b < auto_eq::band_count; ++b) {
            const double hz = auto_eq::centres_hz[b], o = std::log2(hz / 1000);
            const double r = hz < top_hz ? response_db(in, out, int(hz / 10)) : 0.0;
            if (hz < top_hz) sxy += o * r, sxx += o * o;
            EXPECT_NEAR(r, hz < top_hz ? eq.correction_db(b) : 0.0, 0.05); // realised as aimed
            std::printf(" %.2f", eq.correction_db(b));
            EXPECT_LE(std::fabs(eq.correction_db(b)), auto_eq::max_correction_db);
        }
        std::printf(" dB, response %.2f dB/octave, largest %.3f dB\n", sxy / sxx, largest);
        EXPECT_LE(largest, auto_eq::max_correction_db + 0.1);
        const bool gentle = std::fabs(tilt) < 5 && top_hz > 3000;
        const double slope = sxy / sxx, limit = auto_eq::max_correction_db;
        EXPECT_TRUE(!gentle || std::fabs(slope + tilt) <= 0.25 * std::fabs(tilt) + 0.02) << slope;
        EXPECT_TRUE(!gentle || tilt != 0 || largest < 0.1) << largest;
        EXPECT_TRUE(gentle || std::fabs(std::fabs(eq.correction_db(4)) - limit) < 0.01);
        EXPECT_TRUE(top_hz > 3000 || std::fabs(eq.correction_db(0)) < 0.5);
    }
}

TEST(AutoEq, ChangesNothingWhileTheSpeechValueIsLow) {
    // Below the speech threshold the input passes bit for bit (to both channels) and, once the
    // EQ has adapted, its corrections stay exactly where they were.
    auto_eq eq(2, 480);
    const std::vector<float> in = speech_shaped(3.0);
    std::vector<float> out(2 * 480);
    const auto feed = [&](int blocks, float v, bool transparent) {
        for (int block = 0; block < blocks; ++block) {
            const float* x = &in[(block % 10) * 480];
            eq.process(x, out.data(), v, 100);
            ASSERT_TRUE(!transparent || std::equal(x, x + 480, out.data()));
            ASSERT_TRUE(std::equal(out.begin(), out.begin() + 480, out.begin() + 480));
        }
    };
    const auto corrections = [&] {
        std::vector<double> c;
        for (int b = 0; b < auto_eq::band_count; ++b) c.push_back(eq.correction_db(b));
        return c;
    };
    feed(1000, 0.5f, true);
    feed(300, 1.0f, false);
    const std::vector<double> held = corrections();
    EXPECT_TRUE(held.front() > 1.0 && held.back() < -1.0); // a rising tilt: lows up, highs down
    feed(1000, 0.5f, false);
    EXPECT_EQ(corrections(), held);
}

TEST(SoftLimiter, PassesEverythingBelowTheKneeBitExactlyAndNothingAboveTheCeiling) {
    soft_limiter limiter(2, 4800);
    const float knee = std::pow(10.0f, -3.0f / 20), ceiling = std::pow(10.0f, -0.5f / 20);
    std::vector<float> x(2 * 4800);
    for (int i = 0; i < 4800; ++i) x[i] = knee * static_cast<float>(std::sin(0.37 * i * i));
    const std::vector<float> quiet(x.begin(), x.begin() + 4800);
    limiter.process(x.data());
    EXPECT_TRUE(std::equal(quiet.begin(), quiet.end(), x.begin()));
    EXPECT_TRUE(std::equal(quiet.begin(), quiet.end(), x.begin() + 4800));
    // Amplitudes from the knee up to 7e16, then infinity: rising, never over the ceiling.
    for (int i = 0; i < 4800; ++i) x[i] = knee * std::pow(1.0081f, static_cast<float>(i));
    x[4799] = std::numeric_limits<float>::infinity();
    limiter.process(x.data());
    for (int i = 1; i < 4800; ++i) ASSERT_TRUE(x[i - 1] <= x[i] && x[i] <= ceiling) << i;
    EXPECT_EQ(limiter.shape(-1.0f), -limiter.shape(1.0f));
    EXPECT_NEAR(limiter.shape(knee * 1.001f), knee * 1.001f, 1e-6f); // slope 1 at the knee
}

TEST(Levelling, RefusesChannelAndFrameCountsItCannotServe) {
    for (const auto& [channels, frames] : {std::pair{0, 480}, {3, 480}, {1, 0}, {2, -480}}) {
        EXPECT_THROW(automatic_gain_control(channels, frames), std::invalid_argument);
        EXPECT_THROW(auto_eq(channels, frames), std::invalid_argument);
        EXPECT_THROW(soft_limiter(channels, frames), std::invalid_argument);
    }
}

} // namespace
