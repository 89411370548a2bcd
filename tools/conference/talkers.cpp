#include "talkers.h"

#include "rate_conversion.h"
#include "speech_like_signal.h"
#include "speech_synthesis.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>

namespace quelora::conference {

namespace {

using clock_type = std::chrono::steady_clock;

double seconds_since(clock_type::time_point start) {
    return std::chrono::duration<double>(clock_type::now() - start).count();
}

// A synthesised talker begins this long before the previous one ends: the
// clips carry a little silence at both ends, so this is a quick hand-over
// rather than talking over each other.
constexpr double turn_overlap_seconds = 0.25;

bool synthesise_default(const std::string& out_dir, std::vector<talker>& out, std::string& message) {
    const std::filesystem::path folder = std::filesystem::path(out_dir) / "talkers";
    std::error_code error;
    std::filesystem::create_directories(folder, error);
    if (error) {
        message = folder.string() + ": " + error.message();
        return false;
    }
    bool use_espeak = true;
    const auto& script = default_script();
    for (size_t i = 0; i < script.size(); ++i) {
        const auto& line = script[i];
        const std::string path =
            (folder / ("talker_" + std::to_string(i + 1) + "_" + line.name + ".wav")).string();
        talker t;
        t.name = line.name;
        if (use_espeak) {
            bool spawn_failed = false;
            if (synthesise_speech(line, path, spawn_failed, message)) {
                if (!read_wav(path, t.audio, message)) return false;
                t.origin = std::string("espeak-ng -v ") + line.voice + " -s " +
                           std::to_string(line.words_per_minute) + ": \"" + line.text + "\"";
                out.push_back(std::move(t));
                continue;
            }
            if (!spawn_failed) return false;
            std::fprintf(stderr,
                         "quelora_conference: %s; using built-in speech-like signals instead "
                         "(install the Debian package espeak-ng for real speech)\n",
                         message.c_str());
            use_espeak = false;
        }
        t.audio = speech_like_signal(static_cast<int>(i), 3.0);
        if (!write_wav(path, t.audio.rate, t.audio.channels, t.audio.samples, message)) return false;
        t.origin = "built-in speech-like signal " + std::to_string(i + 1);
        out.push_back(std::move(t));
    }
    return true;
}

bool read_talker_files(const std::vector<std::string>& files, std::vector<talker>& out,
                       std::string& message) {
    for (size_t i = 0; i < files.size(); ++i) {
        talker t;
        t.name = talker_name(i);
        if (!read_wav(files[i], t.audio, message)) return false;
        if (t.audio.channels > 2) {
            message = files[i] + ": " + std::to_string(t.audio.channels) +
                      " channels; a talker file must be mono or stereo";
            return false;
        }
        if (t.audio.frames() == 0) {
            message = files[i] + ": no audio in the file";
            return false;
        }
        t.origin = files[i] + " (" + std::to_string(t.audio.rate) + " Hz, " +
                   std::to_string(t.audio.channels) + (t.audio.channels == 1 ? " channel)" : " channels)");
        out.push_back(std::move(t));
    }
    return true;
}

} // namespace

std::string talker_name(size_t index) {
    static const char* const names[] = {"Alice", "Bob",  "Carol",  "Dave",  "Erin",  "Frank",
                                        "Grace", "Heidi", "Ivan",  "Judy",  "Mallory", "Niaj",
                                        "Olivia", "Peggy", "Rupert", "Sybil"};
    return names[index % 16];
}

time_span clip_span(const std::vector<talker>& talkers, size_t index, int input_rate) {
    const talker& t = talkers[index];
    return {static_cast<double>(t.start_frame) / input_rate,
            static_cast<double>(t.start_frame + t.audio.frames()) / input_rate};
}

time_span solo_span(const std::vector<talker>& talkers, size_t index, int input_rate) {
    // Cut the clip at every other clip's ends, then keep the longest piece
    // that no other clip covers.
    const time_span own = clip_span(talkers, index, input_rate);
    std::vector<double> cuts = {own.from, own.to};
    for (size_t j = 0; j < talkers.size(); ++j) {
        if (j == index) continue;
        const time_span other = clip_span(talkers, j, input_rate);
        for (double at : {other.from, other.to}) {
            if (at > own.from && at < own.to) cuts.push_back(at);
        }
    }
    std::sort(cuts.begin(), cuts.end());
    time_span best;
    for (size_t k = 0; k + 1 < cuts.size(); ++k) {
        const time_span piece{cuts[k], cuts[k + 1]};
        const double middle = 0.5 * (piece.from + piece.to);
        bool covered = false;
        for (size_t j = 0; j < talkers.size() && !covered; ++j) {
            if (j == index) continue;
            const time_span other = clip_span(talkers, j, input_rate);
            covered = middle > other.from && middle < other.to;
        }
        if (!covered && piece.to - piece.from > best.to - best.from) best = piece;
    }
    return best;
}

bool prepare_talkers(const options& opts, std::vector<talker>& out, talker_timings& timings,
                     std::string& message) {
    out.clear();
    const auto synthesis_start = clock_type::now();
    const bool synthesised = opts.talker_files.empty();
    if (!(synthesised ? synthesise_default(opts.out_dir, out, message)
                      : read_talker_files(opts.talker_files, out, message))) {
        return false;
    }
    timings.synthesised = synthesised;
    timings.synthesis_seconds = seconds_since(synthesis_start);

    const auto resampling_start = clock_type::now();
    for (auto& t : out) {
        if (!convert_rate(t.audio, opts.input_rate, message)) return false;
    }
    timings.resampling_seconds = seconds_since(resampling_start);

    // Synthesised lines take turns; talker files are taken as the tracks of
    // one meeting and start together unless --sequential chains them.
    if (synthesised || opts.sequential) {
        const auto overlap = static_cast<int64_t>(turn_overlap_seconds * opts.input_rate);
        int64_t next_start = 0;
        for (auto& t : out) {
            t.start_frame = next_start;
            next_start = std::max<int64_t>(0, t.start_frame + t.audio.frames() - (synthesised ? overlap : 0));
        }
    }
    return true;
}

} // namespace quelora::conference
