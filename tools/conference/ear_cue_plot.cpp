#include "ear_cue_plot.h"

#include "svg_document.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>

namespace quelora::conference {

namespace {

// Page layout in pixels.
constexpr double width = 1000.0;
constexpr double left = 80.0;
constexpr double right = 30.0;
constexpr double plot_width = width - left - right;
constexpr double band_top = 76.0;
constexpr double band_height = 20.0; // one row of who-talks-when bands
constexpr double band_row = band_height + 2.0;
constexpr double panel_height = 210.0;
constexpr double font = 12.0;
// Clips that overlap by no more than this share a row of bands: a quick
// hand-over, not talking over each other.
constexpr double hand_over_seconds = 0.5;

std::string format(const char* pattern, double value) {
    char text[48];
    std::snprintf(text, sizeof text, pattern, value);
    return text;
}

// A tick step giving at most about 12 ticks over range.
double tick_step(double range) {
    for (double step : {0.25, 0.5, 1.0, 2.0, 5.0, 10.0, 20.0, 30.0, 60.0, 120.0}) {
        if (range / step <= 12.0) return step;
    }
    return 300.0;
}

struct panel {
    double top;
    double low;
    double high;
    double seconds;

    double x(double t) const { return left + plot_width * t / seconds; }
    double y(double value) const {
        const double clamped = std::clamp(value, low, high);
        return top + panel_height * (high - clamped) / (high - low);
    }
};

void draw_axes(svg_document& svg, const panel& p, double step, const char* tick_pattern,
               const std::string& label, bool time_labels) {
    svg.rect(left, p.top, plot_width, panel_height, {"#444", 1.0});
    for (double v = std::ceil(p.low / step) * step; v <= p.high + 1e-9; v += step) {
        const double y = p.y(v);
        const bool zero = std::fabs(v) < 1e-9;
        svg.line(left, y, left + plot_width, y, {zero ? "#777" : "#e4e4e4", zero ? 1.2 : 0.8});
        svg.text(left - 6.0, y + 4.0, zero ? std::string("0") : format(tick_pattern, v), font * 0.9,
                 text_anchor::end);
    }
    const double time_step = tick_step(p.seconds);
    for (double t = 0.0; t <= p.seconds + 1e-9; t += time_step) {
        svg.line(p.x(t), p.top + panel_height, p.x(t), p.top + panel_height + 5.0, {"#444", 1.0});
        if (time_labels) {
            svg.text(p.x(t), p.top + panel_height + 18.0, format("%g", t), font * 0.9,
                     text_anchor::middle);
        }
    }
    svg.vertical_text(22.0, p.top + panel_height / 2.0, label, font);
}

// Window centres and values, broken into runs where a silent window intervenes.
void draw_series(svg_document& svg, const panel& p, const listener_check& listener,
                 const std::vector<talker>& talkers, int input_rate, bool level) {
    const auto& track = listener.track;
    std::vector<std::pair<double, double>> run;
    const auto flush = [&]() {
        if (run.size() > 1) svg.polyline(run, {"#333", 1.3});
        run.clear();
    };
    for (const auto& w : track.windows) {
        const interaural_cues cues = track.of(w);
        if (!cues.valid) {
            flush();
            continue;
        }
        const double t = w.start_seconds + cue_window_seconds / 2.0;
        const double value = level ? cues.ild_db : cues.itd_ms;
        run.emplace_back(p.x(t), p.y(value));
        // The dot takes the colour of the one talker whose clip plays, if one
        // (the listener's own voice is not in its mix).
        std::string colour = "#333";
        int playing = 0;
        for (size_t i = 0; i < talkers.size(); ++i) {
            if (static_cast<int>(i) == listener.talker_index) continue;
            const time_span span = clip_span(talkers, i, input_rate);
            if (t > span.from && t < span.to) {
                ++playing;
                colour = participant_colour(i);
            }
        }
        svg.circle(p.x(t), p.y(value), 2.6, {"none", 0.0, playing == 1 ? colour : "#333"});
    }
    flush();
}

// A row for every talker's band: the first row whose last band ends by then,
// or is handing over to this one.
std::vector<int> band_rows(const std::vector<talker>& talkers, int input_rate, int& rows) {
    std::vector<int> row_of(talkers.size(), 0);
    std::vector<time_span> last; // the last band of each row
    for (size_t i = 0; i < talkers.size(); ++i) {
        const time_span span = clip_span(talkers, i, input_rate);
        size_t row = 0;
        while (row < last.size() &&
               (last[row].from >= span.from || last[row].to > span.from + hand_over_seconds)) {
            ++row;
        }
        if (row == last.size()) last.emplace_back();
        last[row] = span;
        row_of[i] = static_cast<int>(row);
    }
    rows = static_cast<int>(std::max<size_t>(last.size(), 1));
    return row_of;
}

std::string turn_taking(const std::vector<talker>& talkers, int input_rate) {
    size_t solo = 0;
    for (size_t i = 0; i < talkers.size(); ++i) {
        if (!solo_span(talkers, i, input_rate).empty()) ++solo;
    }
    if (solo == talkers.size()) return "the talkers take turns";
    if (solo == 0) return "all talkers speak at once, so a window mixes their directions";
    return "some talkers speak over others";
}

} // namespace

bool write_ear_cue_plot(const std::string& path, const listener_check& listener,
                        const std::vector<talker>& talkers, int input_rate, std::string& message) {
    const auto& track = listener.track;
    double seconds = 0.0;
    double largest_ild = 0.0;
    for (const auto& w : track.windows) {
        seconds = std::max(seconds, w.start_seconds + cue_window_seconds);
        const interaural_cues cues = track.of(w);
        if (cues.valid) largest_ild = std::max(largest_ild, std::fabs(cues.ild_db));
    }
    seconds = std::max(seconds, cue_window_seconds);
    const double ild_range = std::max(10.0, std::ceil(largest_ild / 5.0) * 5.0);
    int rows = 1;
    const std::vector<int> row_of = band_rows(talkers, input_rate, rows);
    const double ild_top = band_top + rows * band_row + 8.0;
    const double itd_top = ild_top + panel_height + 40.0;
    const double axis_bottom = itd_top + panel_height;
    const double height = axis_bottom + 110.0;
    const panel ild{ild_top, -ild_range, ild_range, seconds};
    const panel itd{itd_top, -1.0, 1.0, seconds};

    svg_document svg(width, height, 1.0);
    const std::string file = std::filesystem::path(listener.path).filename().string();
    svg.text(left, 22.0,
             "Ear cues of " + listener.name + "'s mix (" + file +
                 (listener.loudspeakers ? ", loudspeaker feeds" : "") + "), per " +
                 format("%.0f", cue_window_seconds * 1000.0) +
                 " ms window: " + turn_taking(talkers, input_rate),
             font + 2.0, text_anchor::start, "#222", true);
    svg.text(left, 40.0,
             "ILD: level difference right minus left over " +
                 format("%.0f", track.band_low_hz / 1000.0) + " to " +
                 format("%.0f", track.band_high_hz / 1000.0) +
                 " kHz. ITD: the cross-correlation peak of the two ears (broadband) within "
                 "+/-1 ms,",
             font * 0.9, text_anchor::start, "#444");
    svg.text(left, 55.0,
             "positive when the right ear leads. Windows more than " +
                 format("%.0f", cue_silence_below_loudest_db) +
                 " dB below the loudest are silent and skipped. Bands: who talks when.",
             font * 0.9, text_anchor::start, "#444");

    // Who talks when: a coloured band per clip, across both panels.
    for (const auto& heard : listener.heard) {
        const time_span span = clip_span(talkers, heard.talker_index, input_rate);
        const std::string colour = participant_colour(heard.talker_index);
        const double x1 = ild.x(std::min(span.from, seconds));
        const double x2 = ild.x(std::min(span.to, seconds));
        const double y = band_top + row_of[heard.talker_index] * band_row;
        svg.rect(x1, y, x2 - x1, band_height, {"none", 0.0, colour, 0.85});
        svg.rect(x1, ild_top, x2 - x1, axis_bottom - ild_top, {"none", 0.0, colour, 0.08});
        std::string label = talkers[heard.talker_index].name;
        if (heard.direction_known) label += " at " + std::to_string(heard.azimuth) + " deg";
        svg.text((x1 + x2) / 2.0, y + 14.5, label, font * 0.95, text_anchor::middle, "white", true);
        if (heard.direction_known) {
            const double model = spherical_head_itd_ms(heard.azimuth);
            svg.line(x1, itd.y(model), x2, itd.y(model), {colour, 2.0, "none", 1.0, "7 4"});
        }
    }
    if (listener.talker_index >= 0) {
        const time_span span =
            clip_span(talkers, static_cast<size_t>(listener.talker_index), input_rate);
        const double x1 = ild.x(std::min(span.from, seconds));
        const double x2 = ild.x(std::min(span.to, seconds));
        const double y = band_top + row_of[static_cast<size_t>(listener.talker_index)] * band_row;
        svg.rect(x1, y, x2 - x1, band_height, {"#999", 1.0, "#f2f2f2"});
        svg.text((x1 + x2) / 2.0, y + 14.5, listener.name + " talks (not in own mix)", font * 0.95,
                 text_anchor::middle, "#555");
    }

    draw_axes(svg, ild, ild_range >= 20.0 ? 10.0 : 5.0, "%+.0f", "ILD (dB, right - left)", false);
    draw_axes(svg, itd, 0.25, "%+.2f", "ITD (ms, + = right leads)", true);
    svg.text(left + plot_width / 2.0, axis_bottom + 38.0, "time (s)", font, text_anchor::middle);
    draw_series(svg, ild, listener, talkers, input_rate, true);
    draw_series(svg, itd, listener, talkers, input_rate, false);

    const double legend_y = axis_bottom + 66.0;
    svg.line(left, legend_y - 4.0, left + 30.0, legend_y - 4.0, {"#333", 1.3});
    svg.circle(left + 15.0, legend_y - 4.0, 2.6, {"none", 0.0, "#333"});
    svg.text(left + 38.0, legend_y, "measured, one dot per window (coloured by the talking talker)",
             font * 0.9);
    svg.line(left + 470.0, legend_y - 4.0, left + 500.0, legend_y - 4.0,
             {participant_colour(1), 2.0, "none", 1.0, "7 4"});
    svg.text(left + 508.0, legend_y,
             "ITD of a rigid sphere (r 8.75 cm) for that talker's direction", font * 0.9);
    svg.text(left, legend_y + 18.0,
             "Negative values: the talker is heard on the left; positive: on the right. Single "
             "windows far off a talker's line come from the room: its reflections",
             font * 0.9, text_anchor::start, "#444");
    svg.text(left, legend_y + 33.0,
             "and diffuse tail decorrelate the ears (the summary's IACC), more so for a distant "
             "talker, whose direct sound is weaker.",
             font * 0.9, text_anchor::start, "#444");
    return svg.write(path, message);
}

} // namespace quelora::conference
