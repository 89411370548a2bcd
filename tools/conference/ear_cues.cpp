#include "ear_cues.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace quelora::conference {

namespace {

constexpr double pi = 3.14159265358979323846;
constexpr double band_low_hz = 2000.0;
constexpr double band_high_hz = 8000.0;
constexpr double head_radius_m = 0.0875;
constexpr double speed_of_sound = 343.0;

// One second-order section (the audio EQ cookbook's high- and low-pass),
// run in double precision.
class biquad {
public:
    biquad(bool high_pass, double frequency, double q, int rate) {
        const double w = 2.0 * pi * frequency / rate;
        const double alpha = std::sin(w) / (2.0 * q);
        const double c = std::cos(w);
        const double a0 = 1.0 + alpha;
        const double b1 = high_pass ? -(1.0 + c) : 1.0 - c;
        b0_ = (high_pass ? (1.0 + c) / 2.0 : (1.0 - c) / 2.0) / a0;
        b1_ = b1 / a0;
        b2_ = b0_;
        a1_ = -2.0 * c / a0;
        a2_ = (1.0 - alpha) / a0;
    }

    double process(double x) {
        const double y = b0_ * x + b1_ * x1_ + b2_ * x2_ - a1_ * y1_ - a2_ * y2_;
        x2_ = x1_;
        x1_ = x;
        y2_ = y1_;
        y1_ = y;
        return y;
    }

private:
    double b0_, b1_, b2_, a1_, a2_;
    double x1_ = 0.0, x2_ = 0.0, y1_ = 0.0, y2_ = 0.0;
};

// Fourth-order Butterworth edges: two sections with these Q values each.
constexpr double butterworth_q[2] = {0.5412, 1.3066};

// high_hz 0: high-pass only.
std::vector<double> band_limited(const audio_clip& clip, int channel, double high_hz) {
    std::vector<biquad> sections;
    for (double q : butterworth_q) sections.emplace_back(true, band_low_hz, q, clip.rate);
    if (high_hz > 0.0) {
        for (double q : butterworth_q) sections.emplace_back(false, high_hz, q, clip.rate);
    }
    std::vector<double> out(static_cast<size_t>(clip.frames()));
    for (size_t i = 0; i < out.size(); ++i) {
        double x = clip.samples[i * 2 + static_cast<size_t>(channel)];
        for (auto& s : sections) x = s.process(x);
        out[i] = x;
    }
    return out;
}

double to_db(double power) {
    return power > 0.0 ? 10.0 * std::log10(power) : -std::numeric_limits<double>::infinity();
}

} // namespace

bool measure_ear_cues(const audio_clip& clip, ear_cue_track& out, std::string& message) {
    if (clip.channels != 2) {
        message = "ear cues need two channels, the file has " + std::to_string(clip.channels);
        return false;
    }
    out = ear_cue_track{};
    out.rate = clip.rate;
    out.band_low_hz = band_low_hz;
    // Leave the upper edge out where it would sit at or above 0.45 x the rate.
    const bool has_upper_edge = band_high_hz < 0.45 * clip.rate;
    out.band_high_hz = has_upper_edge ? band_high_hz : clip.rate / 2.0;
    out.max_lag = static_cast<int>(std::lround(cue_max_lag_seconds * clip.rate));
    const double upper = has_upper_edge ? band_high_hz : 0.0;
    const std::vector<double> left_band = band_limited(clip, 0, upper);
    const std::vector<double> right_band = band_limited(clip, 1, upper);

    const auto frames = clip.frames();
    const auto length = static_cast<int64_t>(std::lround(cue_window_seconds * clip.rate));
    std::vector<double> left(static_cast<size_t>(frames)), right(static_cast<size_t>(frames));
    for (size_t i = 0; i < left.size(); ++i) {
        left[i] = clip.samples[2 * i];
        right[i] = clip.samples[2 * i + 1];
    }
    double loudest = -std::numeric_limits<double>::infinity();
    for (int64_t start = 0; start + length <= frames; start += length) {
        cue_window w;
        w.start_seconds = static_cast<double>(start) / clip.rate;
        for (int64_t n = start; n < start + length; ++n) {
            const auto i = static_cast<size_t>(n);
            w.energy_left += left[i] * left[i];
            w.energy_right += right[i] * right[i];
            w.band_energy_left += left_band[i] * left_band[i];
            w.band_energy_right += right_band[i] * right_band[i];
        }
        w.level_dbfs =
            to_db((w.energy_left + w.energy_right) / (2.0 * static_cast<double>(length)));
        loudest = std::max(loudest, w.level_dbfs);
        out.windows.push_back(std::move(w));
    }

    // The correlation only where it will be read.
    for (auto& w : out.windows) {
        w.silent =
            std::isinf(w.level_dbfs) || w.level_dbfs < loudest - cue_silence_below_loudest_db;
        if (w.silent) continue;
        const auto start = static_cast<int64_t>(std::lround(w.start_seconds * clip.rate));
        w.correlation.assign(static_cast<size_t>(2 * out.max_lag + 1), 0.0);
        for (int lag = -out.max_lag; lag <= out.max_lag; ++lag) {
            const int64_t first = std::max<int64_t>(start, -lag);
            const int64_t last = std::min<int64_t>(start + length, frames - lag);
            // Four partial sums, so the additions need not wait on each other.
            double sums[4] = {0.0, 0.0, 0.0, 0.0};
            const double* r = right.data();
            const double* l = left.data();
            int64_t n = first;
            for (; n + 4 <= last; n += 4) {
                for (int k = 0; k < 4; ++k) sums[k] += r[n + k] * l[n + k + lag];
            }
            for (; n < last; ++n) sums[0] += r[n] * l[n + lag];
            w.correlation[static_cast<size_t>(lag + out.max_lag)] =
                (sums[0] + sums[1]) + (sums[2] + sums[3]);
        }
    }
    return true;
}

namespace {

struct window_sums {
    double energy_left = 0.0;
    double energy_right = 0.0;
    double band_energy_left = 0.0;
    double band_energy_right = 0.0;
    std::vector<double> correlation;

    void add(const cue_window& w) {
        energy_left += w.energy_left;
        energy_right += w.energy_right;
        band_energy_left += w.band_energy_left;
        band_energy_right += w.band_energy_right;
        if (correlation.empty()) correlation.assign(w.correlation.size(), 0.0);
        for (size_t i = 0; i < correlation.size(); ++i) correlation[i] += w.correlation[i];
    }
};

interaural_cues cues_from_sums(const window_sums& sums, int max_lag, int rate) {
    interaural_cues cues;
    const double left = sums.band_energy_left;
    const double right = sums.band_energy_right;
    const auto& correlation = sums.correlation;
    if (left <= 0.0 || right <= 0.0 || correlation.empty()) return cues;
    const auto peak = std::max_element(correlation.begin(), correlation.end());
    if (*peak <= 0.0) return cues;
    const auto at = static_cast<int>(peak - correlation.begin());
    // A parabola through the peak and its neighbours, for a finer lag than
    // one sample (1/48 ms at 48 kHz, 1/8 ms at 8 kHz).
    double offset = 0.0;
    if (at > 0 && at + 1 < static_cast<int>(correlation.size())) {
        const double before = correlation[static_cast<size_t>(at - 1)];
        const double after = correlation[static_cast<size_t>(at + 1)];
        const double curvature = before - 2.0 * *peak + after;
        if (curvature < 0.0) offset = 0.5 * (before - after) / curvature;
    }
    cues.valid = true;
    cues.ild_db = 10.0 * std::log10(right / left);
    cues.itd_ms = (at - max_lag + offset) * 1000.0 / rate;
    cues.iacc = *peak / std::sqrt(sums.energy_left * sums.energy_right);
    return cues;
}

} // namespace

interaural_cues ear_cue_track::of(const cue_window& window) const {
    if (window.silent) return {};
    window_sums sums;
    sums.add(window);
    return cues_from_sums(sums, max_lag, rate);
}

interaural_cues ear_cue_track::over(const time_span& span) const {
    window_sums sums;
    for (const auto& w : windows) {
        if (!w.silent && w.start_seconds >= span.from &&
            w.start_seconds + cue_window_seconds <= span.to) {
            sums.add(w);
        }
    }
    return cues_from_sums(sums, max_lag, rate);
}

double spherical_head_itd_ms(double azimuth_degrees) {
    const double lateral = std::asin(std::sin(azimuth_degrees * pi / 180.0));
    return head_radius_m / speed_of_sound * (lateral + std::sin(lateral)) * 1000.0;
}

} // namespace quelora::conference
