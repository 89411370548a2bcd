// make bench: the polyphase resampler's passband ripple, stopband
// attenuation and delay for every rate pair the library uses, beside libsoxr
// (SOXR_HQ, float32) on the same signals. Prints a Markdown table, and
// writes it to the file given with --out. docs/resampler.md explains the
// figures.
//
//   quelora_resampler_quality [--out FILE]
#include "audio/polyphase_resampler.h"

#include <soxr.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <numbers>
#include <string>
#include <vector>

namespace {

constexpr double pi = std::numbers::pi;

struct rate_pair {
    int32_t input_rate, output_rate;
    bool upsampling() const { return output_rate > input_rate; }
    double lower_nyquist() const { return std::min(input_rate, output_rate) / 2.0; }
};

// Sines of amplitude 0.5 lasting 200 ms, on a 10 Hz grid. The analysis
// window, 50 to 150 ms of the output, is after both resamplers have settled
// (ours needs 255 input samples, 32 ms at 8 kHz) and before the end of
// soxr's input, and holds whole periods of every tone, alias and image.
constexpr double amplitude = 0.5, signal_seconds = 0.2, window_begin = 0.05, window_seconds = 0.1;

std::vector<float> tone(double frequency, int32_t rate) {
    std::vector<float> x(static_cast<size_t>(signal_seconds * rate));
    for (size_t n = 0; n < x.size(); ++n)
        x[n] = static_cast<float>(amplitude *
                                  std::sin(2.0 * pi * frequency * static_cast<double>(n) / rate));
    return x;
}

// Ours in 10 ms blocks.
std::vector<float> resample_ours(const rate_pair& r, const std::vector<float>& x) {
    quelora::polyphase_resampler resampler(r.input_rate, r.output_rate, 1, r.output_rate / 100);
    const auto in = static_cast<size_t>(resampler.input_frames()),
               out = static_cast<size_t>(resampler.output_frames());
    std::vector<float> y(x.size() / in * out);
    for (size_t b = 0; b < x.size() / in; ++b)
        resampler.process(0, x.data() + b * in, y.data() + b * out);
    return y;
}

std::vector<float> resample_soxr(const rate_pair& r, const std::vector<float>& x) {
    std::vector<float> y(x.size() * static_cast<size_t>(r.output_rate) /
                         static_cast<size_t>(r.input_rate));
    const soxr_io_spec_t io = soxr_io_spec(SOXR_FLOAT32_I, SOXR_FLOAT32_I);
    const soxr_quality_spec_t quality = soxr_quality_spec(SOXR_HQ, 0);
    size_t produced = 0;
    const soxr_error_t error =
        soxr_oneshot(r.input_rate, r.output_rate, 1, x.data(), x.size(), nullptr, y.data(),
                     y.size(), &produced, &io, &quality, nullptr);
    if (error != nullptr || produced != y.size()) {
        std::cerr << "soxr_oneshot: " << (error != nullptr ? error : "short output") << "\n";
        std::exit(1);
    }
    return y;
}

// The component at `frequency` in the analysis window, as A sin(w n - phase),
// and the RMS of everything else.
struct analysis {
    double amplitude = 0.0, phase = 0.0, residual_rms = 0.0;
};

analysis analyse(const std::vector<float>& y, int32_t rate, double frequency) {
    const auto begin = static_cast<size_t>(window_begin * rate),
               count = static_cast<size_t>(window_seconds * rate);
    const double w = 2.0 * pi * frequency / rate;
    double s = 0.0, c = 0.0;
    if (frequency < rate / 2.0) {
        for (size_t n = begin; n < begin + count; ++n) {
            s += y[n] * std::sin(w * static_cast<double>(n));
            c += y[n] * std::cos(w * static_cast<double>(n));
        }
        s *= 2.0 / static_cast<double>(count);
        c *= 2.0 / static_cast<double>(count);
    }
    double energy = 0.0;
    for (size_t n = begin; n < begin + count; ++n) {
        const double e = y[n] - (s * std::sin(w * static_cast<double>(n)) +
                                 c * std::cos(w * static_cast<double>(n)));
        energy += e * e;
    }
    return {std::hypot(s, c), std::atan2(-c, s), std::sqrt(energy / static_cast<double>(count))};
}

double db(double ratio) { return 20.0 * std::log10(std::max(ratio, 1e-12)); }

// n tones from `low` to `high` on the 10 Hz grid, half of them in the last
// tenth of the range, where the filter's edge is.
std::vector<double> tone_grid(double low, double high, int n) {
    std::vector<double> grid;
    const double edge = high - (high - low) / 10.0;
    const int half = n / 2;
    for (int i = 0; i < half; ++i) grid.push_back(low + (edge - low) * i / half);
    for (int i = 0; i <= n - half; ++i) grid.push_back(edge + (high - edge) * i / (n - half));
    for (double& f : grid) f = std::round(f / 10.0) * 10.0;
    std::sort(grid.begin(), grid.end());
    grid.erase(std::unique(grid.begin(), grid.end()), grid.end());
    return grid;
}

struct figures {
    double ripple_db = 0.0, stopband_db = -300.0, delay_ms = 0.0;
};

template <class Resampler>
figures measure(const rate_pair& r, Resampler resample) {
    const auto level_at = [&](double f) {
        return analyse(resample(r, tone(f, r.input_rate)), r.output_rate, f);
    };
    figures result;
    const analysis at_1khz = level_at(1000.0);
    const double gain_1khz = at_1khz.amplitude / amplitude;
    // Ripple: 40 tones from 100 Hz to 0.9 x the lower Nyquist, against 1 kHz.
    for (double f : tone_grid(100.0, 0.9 * r.lower_nyquist(), 40))
        result.ripple_db = std::max(
            result.ripple_db, std::fabs(db(level_at(f).amplitude / amplitude / gain_1khz)));
    // Stopband: downsampling feeds tones from 1.05 x the output Nyquist to
    // 23.99 kHz, whose whole output is alias; upsampling feeds tones up to
    // 0.95 x the input Nyquist and measures all but the tone (the images).
    const std::vector<double> stop_tones = r.upsampling()
                                               ? tone_grid(100.0, 0.95 * r.input_rate / 2.0, 60)
                                               : tone_grid(1.05 * r.output_rate / 2.0, 23990.0, 60);
    for (double f : stop_tones)
        result.stopband_db =
            std::max(result.stopband_db,
                     db(level_at(f).residual_rms / (amplitude / std::sqrt(2.0)) / gain_1khz));
    // Delay: the phases of 1000 and 1010 Hz give the group delay (unambiguous
    // up to 100 ms); the 1 kHz phase then pins it down.
    const double group =
        std::remainder(level_at(1010.0).phase - at_1khz.phase, 2.0 * pi) / (2.0 * pi * 10.0);
    const double cycles = std::round(group * 1000.0 - at_1khz.phase / (2.0 * pi));
    result.delay_ms = at_1khz.phase / (2.0 * pi) + cycles;
    if (std::fabs(result.delay_ms) < 5e-4) result.delay_ms = 0.0; // not "-0.000"
    return result;
}

} // namespace

int main(int argc, char** argv) {
    const char* out_path = argc == 3 && std::strcmp(argv[1], "--out") == 0 ? argv[2] : nullptr;
    if (argc != 1 && out_path == nullptr) {
        std::cerr << "usage: quelora_resampler_quality [--out FILE]\n";
        return 2;
    }
    std::string table =
        "| pair (Hz)      | ripple dB, ours | soxr | stopband dB, ours | soxr | delay ms, ours | "
        "soxr |\n"
        "|----------------|---------|---------|--------|--------|--------|--------|\n";
    // Every rate pair the library resamples between.
    const rate_pair pairs[] = {{8000, 48000}, {16000, 48000}, {24000, 48000}, {32000, 48000},
                               {48000, 8000}, {48000, 16000}, {48000, 24000}, {48000, 32000}};
    for (const rate_pair& r : pairs) {
        const figures ours = measure(r, resample_ours), soxr = measure(r, resample_soxr);
        char line[160];
        std::snprintf(line, sizeof line,
                      "| %5d -> %5d | %7.5f | %7.5f | %6.1f | %6.1f | %6.3f | %6.3f |\n",
                      r.input_rate, r.output_rate, ours.ripple_db, soxr.ripple_db,
                      -ours.stopband_db, -soxr.stopband_db, ours.delay_ms, soxr.delay_ms);
        table += line;
    }
    std::cout
        << "Resampler quality (ours vs soxr HQ; stopband as attenuation, positive is better):\n"
        << table;
    if (out_path != nullptr && !(std::ofstream(out_path) << table)) {
        std::cerr << "cannot write " << out_path << "\n";
        return 1;
    }
    return 0;
}
