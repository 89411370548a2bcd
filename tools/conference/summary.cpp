#include "summary.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <map>

namespace quelora::conference {

namespace {

// The initial control values of a new participant, before a layout's default
// states apply.
constexpr int initial_values[17] = {0,   0, 0, 0, 1, 100, 0, 0, 0, 6,
                                    300, 1, 1, 15, 100, 0, 0};

// "round_table (id 1): Six seats around ..." from the library's copy of the
// room configuration document.
std::string describe_layout(qel_handle handle, int layout_id) {
    const auto document = nlohmann::json::parse(qel_get_json_all_room_layouts(handle), nullptr, false);
    if (document.is_object() && document.contains("room_list") && document["room_list"].is_object()) {
        for (const auto& [key, layout] : document["room_list"].items()) {
            if (!layout.is_object() || !layout.contains("id") || !layout["id"].is_number() ||
                layout["id"].get<int>() != layout_id) {
                continue;
            }
            std::string text = key + " (id " + std::to_string(layout_id) + ")";
            if (layout.contains("desc") && layout["desc"].is_string()) {
                text += ": " + layout["desc"].get<std::string>();
            }
            return text;
        }
    }
    return "id " + std::to_string(layout_id);
}

std::string format_db(double db) {
    if (std::isinf(db)) return "   -inf";
    char text[32];
    std::snprintf(text, sizeof text, "%7.1f", db);
    return text;
}

std::string seconds_text(int64_t frames, int rate) {
    char text[32];
    std::snprintf(text, sizeof text, "%.2f s", static_cast<double>(frames) / rate);
    return text;
}

void print_participants(const options& opts, const library_session& session,
                        const std::vector<talker>& talkers) {
    const qel_handle handle = session.handle();
    std::printf("\nParticipants (room %u, %s):\n", library_session::room_id,
                session.open_room() ? "open room, placed on a circle by the host" : "seated by the layout");
    std::printf("  %3s %-10s %-14s %2s %5s %6s %6s %6s %8s %9s  %s\n", "id", "name", "type", "ch", "seat",
                "x", "y", "z", "azimuth", "elevation", "talks");
    for (const auto& p : session.participants()) {
        qel_seat seat{};
        qel_get_participant_seat(handle, library_session::room_id, p.id, &seat);
        std::string talks = "-";
        if (p.talker_index >= 0) {
            const auto& t = talkers[static_cast<size_t>(p.talker_index)];
            talks = seconds_text(t.start_frame, opts.input_rate) + " to " +
                    seconds_text(t.start_frame + t.audio.frames(), opts.input_rate);
        }
        std::printf("  %3u %-10s %-14s %2d %5d %6d %6d %6d %8d %9d  %s\n", p.id, p.name.c_str(),
                    p.talker_index >= 0 ? "regular" : "listener only", p.input_channels, seat.seat_index,
                    seat.x, seat.y, seat.z, seat.azimuth, seat.elevation, talks.c_str());
    }
    std::printf("\nTalker audio:\n");
    for (const auto& t : talkers) std::printf("  %-10s %s\n", t.name.c_str(), t.origin.c_str());
}

void print_controls(const library_session& session) {
    // Grouped by the text of the differences, so a room-wide setting prints once.
    std::map<std::string, std::vector<std::string>> who_by_difference;
    std::vector<std::string> order;
    for (const auto& p : session.participants()) {
        std::string differences;
        for (int c = QEL_CONTROL_STEREO_BYPASS_ENABLE; c <= QEL_CONTROL_SIDEBAR_ROOM; ++c) {
            const auto control = static_cast<qel_audio_control>(c);
            int value = 0;
            if (qel_get_participant_state(session.handle(), library_session::room_id, p.id, control, &value) !=
                    QEL_ERROR_NONE ||
                value == initial_values[c]) {
                continue;
            }
            if (!differences.empty()) differences += ", ";
            differences += std::string(qel_audio_control_to_string(control)) + "=" + std::to_string(value);
        }
        if (differences.empty()) differences = "none";
        if (who_by_difference.find(differences) == who_by_difference.end()) order.push_back(differences);
        who_by_difference[differences].push_back(p.name);
    }
    std::printf("\nControls that differ from the defaults:\n");
    for (const auto& differences : order) {
        const auto& who = who_by_difference[differences];
        std::string names;
        if (who.size() == session.participants().size()) {
            names = "everyone";
        } else {
            for (const auto& name : who) names += (names.empty() ? "" : ", ") + name;
        }
        std::printf("  %s: %s\n", names.c_str(), differences.c_str());
    }
}

// The library's filter bank as this build made it: the SOFA file comes from
// CMake (QUELORA_HRTF_SOFA), the rest is fixed by the library.
void print_spatial(const library_session& session) {
    // The grid: 24 azimuths x 7 elevations x 4 distances.
    constexpr int grid_points = 672;
    const auto& c = session.configuration();
    // Taps as the library derives them from the quality, raised to a power
    // of two that holds one processing block (48000 Hz) when that is longer.
    const int block = c.output_number_frames * (48000 / c.output_sampling_rate);
    int block_power = 1;
    while (block_power < block) block_power *= 2;
    const int taps = std::max(512 << (c.spatial_quality - 1), block_power);
    const std::string sofa = std::filesystem::path(QUELORA_HRTF_SOFA_FILE).filename().string();
    std::printf("Spatial filters: head-related responses from %s, %d grid points x 2 ears, %d taps "
                "(quality %d), with a modelled meeting room; crosstalk stage for loudspeaker "
                "listeners\n",
                sofa.c_str(), grid_points, taps, c.spatial_quality);

    const auto who = [&session](qel_audio_control control) {
        std::string names;
        size_t count = 0;
        for (const auto& p : session.participants()) {
            int value = 0;
            qel_get_participant_state(session.handle(), library_session::room_id, p.id, control,
                                      &value);
            if (value == 0) continue;
            names += (names.empty() ? "" : ", ") + p.name;
            ++count;
        }
        if (count == 0) return std::string("off for everyone");
        return count == session.participants().size() ? std::string("on for everyone")
                                                      : "on for " + names;
    };
    std::printf("3D mixing (binaural): %s; reverberation (the modelled room): %s\n",
                who(QEL_CONTROL_MIXING_3D_ENABLE).c_str(),
                who(QEL_CONTROL_MIXING_3D_REVERB_ENABLE).c_str());
}

std::string cue_text(const char* pattern, bool valid, double value) {
    if (!valid) return "-";
    char text[32];
    std::snprintf(text, sizeof text, pattern, value);
    return text;
}

void print_listening(const std::vector<talker>& talkers,
                     const std::vector<listener_check>& checks) {
    std::printf("\nWhere each listener hears each talker: the direction the library computes\n"
                "(qel_get_participant_spherical; azimuth clockwise from the listener's heading,\n"
                "+90 = right) and the cues measured in the listener's file over the talker's own\n"
                "turn: ILD right minus left over 2 to 8 kHz, ITD the cross-correlation peak\n"
                "(positive: the right ear leads) beside the ITD of a rigid sphere of 8.75 cm\n"
                "radius for that azimuth, and the IACC (the normalised peak: 1 without a room;\n"
                "below %.2f the room outweighs the direct sound, and only the ILD is judged):\n",
                least_iacc_for_timing);
    std::printf("  %-10s %-10s %7s %9s %8s %7s %7s %9s %5s  %s\n", "listener", "talker",
                "azimuth", "elevation", "distance", "ILD dB", "ITD ms", "sphere ms", "IACC",
                "cues agree");
    bool any_turn = false;
    bool any_stereo = false;
    for (const auto& listener : checks) {
        any_stereo = any_stereo || listener.measured;
        for (const auto& heard : listener.heard) {
            any_turn = any_turn || !heard.turn.empty();
            const std::string& name = talkers[heard.talker_index].name;
            if (!heard.direction_known) {
                std::printf("  %-10s %-10s %s\n", listener.name.c_str(), name.c_str(),
                            "no direction (qel_get_participant_spherical failed)");
                continue;
            }
            std::printf("  %-10s %-10s %7d %9d %8d %7s %7s %9.2f %5s  %s\n",
                        listener.name.c_str(), name.c_str(), heard.azimuth, heard.elevation,
                        heard.distance,
                        cue_text("%+.1f", heard.cues.valid, heard.cues.ild_db).c_str(),
                        cue_text("%+.2f", heard.cues.valid, heard.cues.itd_ms).c_str(),
                        spherical_head_itd_ms(heard.azimuth),
                        cue_text("%.2f", heard.cues.valid, heard.cues.iacc).c_str(),
                        cue_agreement(listener, heard).c_str());
        }
    }
    if (!any_stereo && !checks.empty()) {
        std::printf("  (one output channel: no ear cues to measure)\n");
    } else if (!any_turn) {
        std::printf("  (no talker has a turn of its own of %.0f s or more to measure; talker\n"
                    "   files play together unless --sequential chains them)\n",
                    shortest_measured_turn_seconds);
    }
}

void print_stage(const char* name, double seconds) {
    std::printf("  %-22s %10.1f ms\n", name, seconds * 1000.0);
}

void print_call_stage(const char* name, double seconds, double max_block_seconds, int64_t blocks) {
    std::printf("  %-22s %10.1f ms  %8.1f us per block (mean), %8.1f us (slowest block)\n", name,
                seconds * 1000.0, blocks > 0 ? seconds * 1e6 / static_cast<double>(blocks) : 0.0,
                max_block_seconds * 1e6);
}

} // namespace

void print_summary(const options& opts, const library_session& session,
                   const std::vector<talker>& talkers, const loop_result& loop,
                   const std::vector<listener_check>& checks,
                   const std::vector<picture>& pictures, const run_timings& timings) {
    const auto& c = session.configuration();
    std::printf("\n== Quelora %s conference simulator ==\n", qel_get_version());
    std::printf("Room layouts: %s\n", opts.fallback ? "the built-in fallback" : opts.layouts_file.c_str());
    std::printf("Layout: %s\n", describe_layout(session.handle(), session.layout_id()).c_str());
    // The interleaved flag shapes only two-channel blocks.
    const char* layout = c.output_number_channels == 2 ? (c.interleaved ? "interleaved" : "planar")
                                                       : (c.interleaved ? "interleaved flag on"
                                                                        : "interleaved flag off");
    std::printf("Output format: %d Hz, %d frames (%d ms), %d channel%s, %s, %s samples\n",
                c.output_sampling_rate, c.output_number_frames, opts.block_ms, c.output_number_channels,
                c.output_number_channels == 1 ? "" : "s", layout, format_name(opts.format));
    std::printf("Input: %d Hz, %d frames per call (the host converts talker audio to this rate)\n",
                opts.input_rate, loop.input_frames);
    print_spatial(session);

    print_participants(opts, session, talkers);
    print_controls(session);
    print_listening(talkers, checks);

    const double factor = loop.audio_seconds > 0.0 ? loop.loop_wall_seconds / loop.audio_seconds : 0.0;
    std::printf("\nRun: %lld blocks, %.2f s of audio, %.3f s wall for the block loop, real-time factor "
                "%.4f (wall / audio",
                static_cast<long long>(loop.blocks), loop.audio_seconds, loop.loop_wall_seconds, factor);
    if (factor > 0.0) std::printf("; %.0f times faster than real time", 1.0 / factor);
    std::printf(")\n");
    std::printf("Time per stage:\n");
    print_stage(timings.talkers.synthesised ? "speech synthesis" : "reading talker files",
                timings.talkers.synthesis_seconds);
    print_stage("host resampling", timings.talkers.resampling_seconds);
    print_stage("library set-up", timings.setup_seconds);
    print_call_stage("input calls", loop.input_seconds, loop.max_input_block_seconds, loop.blocks);
    print_call_stage("output calls", loop.output_seconds, loop.max_output_block_seconds, loop.blocks);
    print_stage("WAV writing", loop.wav_seconds);
    print_stage("ear cues and pictures", timings.check_seconds);
    print_stage("total (program)", timings.total_seconds);

    std::printf("\nListener files (%d Hz, %d channel%s):\n", c.output_sampling_rate, c.output_number_channels,
                c.output_number_channels == 1 ? "" : "s");
    std::printf("  %-44s %9s %9s %13s\n", "file", "peak dBFS", "RMS dBFS", "silent blocks");
    for (const auto& l : loop.listeners) {
        std::printf("  %-44s %9s %9s %13lld\n", l.path.c_str(), format_db(l.peak_dbfs).c_str(),
                    format_db(l.rms_dbfs).c_str(), static_cast<long long>(l.silent_blocks));
    }
    if (opts.talker_files.empty()) {
        std::printf("Talker files: %s/talkers/\n", opts.out_dir.c_str());
    }
    std::printf("\nPictures:\n");
    for (const auto& p : pictures) {
        std::printf("  %s\n      %s\n", p.path.empty() ? "(not written)" : p.path.c_str(),
                    p.what.c_str());
    }
}

} // namespace quelora::conference
