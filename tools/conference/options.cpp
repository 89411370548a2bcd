#include "options.h"

#include <cerrno>
#include <climits>
#include <cstdlib>

namespace quelora::conference {

namespace {

constexpr int max_talkers = 16;
constexpr int max_listener_only = 48;

bool parse_int(const std::string& text, long low, long high, int& out) {
    if (text.empty()) return false;
    errno = 0;
    char* end = nullptr;
    const long value = std::strtol(text.c_str(), &end, 10);
    if (errno != 0 || *end != '\0' || value < low || value > high) return false;
    out = static_cast<int>(value);
    return true;
}

bool is_library_rate(int rate) {
    return rate == 8000 || rate == 16000 || rate == 24000 || rate == 32000 || rate == 48000;
}

// "CONTROL=VALUE" through the library's own vocabulary. The value converter
// answers QEL_ERROR_INVALID_VALUE for text it rejects; the literal "-9990"
// reads the same, a harmless collision, since no control takes -9990.
bool parse_control(const std::string& text, control_setting& out, std::string& message) {
    const auto equals = text.find('=');
    if (equals == std::string::npos || equals == 0 || equals + 1 == text.size()) {
        message = "expected CONTROL=VALUE, got '" + text + "'";
        return false;
    }
    const std::string name = text.substr(0, equals);
    const std::string value = text.substr(equals + 1);
    const qel_audio_control control = qel_string_to_audio_control(name.c_str());
    if (control < QEL_CONTROL_STEREO_BYPASS_ENABLE || control > QEL_CONTROL_SIDEBAR_ROOM) {
        message = "'" + name + "' is not a control (QEL_CONTROL_...)";
        return false;
    }
    const int converted = qel_string_to_participant_value(value.c_str());
    if (converted == QEL_ERROR_INVALID_VALUE) {
        message = "'" + value + "' is not a value (an integer, QEL_ENABLE, QEL_DISABLE, TRUE, FALSE, "
                                "QEL_DEVICE_HEADPHONE or QEL_DEVICE_SPEAKER)";
        return false;
    }
    out.control = control;
    out.value = converted;
    out.text = text;
    return true;
}

bool parse_set_for(const std::string& text, control_setting& out, std::string& message) {
    const auto colon = text.find(':');
    int id = 0;
    if (colon == std::string::npos || !parse_int(text.substr(0, colon), 1, INT_MAX, id)) {
        message = "expected ID:CONTROL=VALUE with a participant id of 1 or more, got '" + text + "'";
        return false;
    }
    if (!parse_control(text.substr(colon + 1), out, message)) return false;
    out.all_participants = false;
    out.participant_id = static_cast<uint32_t>(id);
    out.text = text;
    return true;
}

} // namespace

const char* format_name(sample_format format) {
    switch (format) {
    case sample_format::int16: return "short";
    case sample_format::float32: return "float";
    case sample_format::float64: return "double";
    }
    return "?";
}

std::string usage() {
    return "usage: quelora_conference [options]\n"
           "Runs one conference room through libquelora block by block, as a conferencing\n"
           "server would, and writes one WAV per listener.\n"
           "\n"
           "Talkers:\n"
           "  (default)             four talkers, speech synthesised with espeak-ng\n"
           "  --talker FILE.wav     one talker per file (mono or stereo, any rate); give 2 to 16\n"
           "  --sequential          chain the talker files like a conversation (default: all\n"
           "                        files start together)\n"
           "  --listener-only N     add N listener-only participants (default 0)\n"
           "Room:\n"
           "  --layouts FILE        room layout file (default: the shipped meeting_rooms.json)\n"
           "  --fallback            use the library's built-in fallback layout instead\n"
           "  --layout ID           switch the room to layout ID\n"
           "Format:\n"
           "  --rate HZ             output rate: 8000, 16000, 24000, 32000, 48000 (default 48000)\n"
           "  --block-ms 10|20      block length (default 10)\n"
           "  --channels 1|2        output channels (default 2)\n"
           "  --planar              two-channel blocks are planar, not interleaved\n"
           "  --format short|float|double   sample type of the audio calls (default float)\n"
           "  --input-rate HZ       participants' input rate; talker audio is converted to it\n"
           "                        (default 48000)\n"
           "Spatial mixing (on by default: every listener hears the talkers binaurally, each from\n"
           "its own place, in a modelled meeting room):\n"
           "  --no-3d               a plain stereo mix for everyone\n"
           "                        (QEL_CONTROL_MIXING_3D_ENABLE=0)\n"
           "  --no-reverb           3D with the direct sound only, no modelled room\n"
           "                        (QEL_CONTROL_MIXING_3D_REVERB_ENABLE=0)\n"
           "  --quality 1..5        spatial filters of 512, 1024, 2048, 4096 or 8192 taps\n"
           "                        (default 3)\n"
           "Controls (applied after the spatial settings above, so they can override them):\n"
           "  --set CONTROL=VALUE   for every participant, e.g. --set QEL_CONTROL_ANC_ENABLE=1\n"
           "  --set-for ID:CONTROL=VALUE   for participant ID (talkers are 1..N, listeners follow)\n"
           "Output:\n"
           "  --out DIR             output folder (default out): the listener WAVs, the talkers'\n"
           "                        speech, room.svg (seats, places, directions heard) and\n"
           "                        ear_cues.svg (the first listener's ear cues over time)\n"
           "  --quiet-log           library log at warning level (default: information)\n"
           "  -h, --help            this text\n";
}

parse_result parse_options(int argc, char** argv, options& out, std::string& message) {
    bool layouts_given = false;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        std::string value;
        bool has_value = false;
        // Both "--opt VALUE" and "--opt=VALUE".
        if (const auto equals = arg.find('='); arg.rfind("--", 0) == 0 && equals != std::string::npos) {
            value = arg.substr(equals + 1);
            arg = arg.substr(0, equals);
            has_value = true;
        }
        const auto take = [&](std::string& into) {
            if (has_value) {
                into = value;
                return true;
            }
            if (i + 1 >= argc) {
                message = arg + " needs a value";
                return false;
            }
            into = argv[++i];
            return true;
        };
        const auto take_int = [&](long low, long high, int& into) {
            std::string text;
            if (!take(text)) return false;
            if (!parse_int(text, low, high, into)) {
                message = arg + ": '" + text + "' is not a whole number from " + std::to_string(low) +
                          " to " + std::to_string(high);
                return false;
            }
            return true;
        };
        const auto no_value = [&]() {
            if (!has_value) return true;
            message = arg + " takes no value";
            return false;
        };

        if (arg == "-h" || arg == "--help") {
            return parse_result::help;
        } else if (arg == "--talker") {
            std::string file;
            if (!take(file)) return parse_result::error;
            out.talker_files.push_back(file);
        } else if (arg == "--sequential") {
            if (!no_value()) return parse_result::error;
            out.sequential = true;
        } else if (arg == "--listener-only") {
            if (!take_int(0, max_listener_only, out.listener_only)) return parse_result::error;
        } else if (arg == "--layouts") {
            if (!take(out.layouts_file)) return parse_result::error;
            layouts_given = true;
        } else if (arg == "--fallback") {
            if (!no_value()) return parse_result::error;
            out.fallback = true;
        } else if (arg == "--layout") {
            if (!take_int(0, INT_MAX, out.layout_id)) return parse_result::error;
        } else if (arg == "--rate" || arg == "--input-rate") {
            int rate = 0;
            if (!take_int(1, INT_MAX, rate)) return parse_result::error;
            if (!is_library_rate(rate)) {
                message = arg + " must be 8000, 16000, 24000, 32000 or 48000";
                return parse_result::error;
            }
            (arg == "--rate" ? out.rate : out.input_rate) = rate;
        } else if (arg == "--block-ms") {
            if (!take_int(10, 20, out.block_ms)) return parse_result::error;
            if (out.block_ms != 10 && out.block_ms != 20) {
                message = "--block-ms must be 10 or 20";
                return parse_result::error;
            }
        } else if (arg == "--channels") {
            if (!take_int(1, 2, out.channels)) return parse_result::error;
        } else if (arg == "--planar") {
            if (!no_value()) return parse_result::error;
            out.interleaved = false;
        } else if (arg == "--format") {
            std::string name;
            if (!take(name)) return parse_result::error;
            if (name == "short") {
                out.format = sample_format::int16;
            } else if (name == "float") {
                out.format = sample_format::float32;
            } else if (name == "double") {
                out.format = sample_format::float64;
            } else {
                message = "--format must be short, float or double";
                return parse_result::error;
            }
        } else if (arg == "--no-3d") {
            if (!no_value()) return parse_result::error;
            out.mixing_3d = false;
        } else if (arg == "--no-reverb") {
            if (!no_value()) return parse_result::error;
            out.reverb = false;
        } else if (arg == "--quality") {
            if (!take_int(1, 5, out.spatial_quality)) return parse_result::error;
        } else if (arg == "--set" || arg == "--set-for") {
            std::string text;
            if (!take(text)) return parse_result::error;
            control_setting setting;
            const bool ok = arg == "--set" ? parse_control(text, setting, message)
                                           : parse_set_for(text, setting, message);
            if (!ok) {
                message = arg + ": " + message;
                return parse_result::error;
            }
            out.settings.push_back(setting);
        } else if (arg == "--out") {
            if (!take(out.out_dir)) return parse_result::error;
            if (out.out_dir.empty()) {
                message = "--out needs a folder";
                return parse_result::error;
            }
        } else if (arg == "--quiet-log") {
            if (!no_value()) return parse_result::error;
            out.quiet_log = true;
        } else {
            message = "unknown argument '" + std::string(argv[i]) + "'";
            return parse_result::error;
        }
    }
    if (!out.talker_files.empty() &&
        (out.talker_files.size() < 2 || out.talker_files.size() > max_talkers)) {
        message = "give 2 to " + std::to_string(max_talkers) + " --talker files";
        return parse_result::error;
    }
    if (out.sequential && out.talker_files.empty()) {
        message = "--sequential applies to --talker files (the synthesised talkers already take turns)";
        return parse_result::error;
    }
    if (out.fallback && layouts_given) {
        message = "--fallback and --layouts exclude each other";
        return parse_result::error;
    }
    return parse_result::ok;
}

} // namespace quelora::conference
