// Command line of the conference simulator (quelora_conference).
#pragma once

#include <quelora/quelora.h>

#include <cstdint>
#include <string>
#include <vector>

namespace quelora::conference {

enum class sample_format { int16, float32, float64 };

// One --set or --set-for: a control and its value, already converted with the
// library's own vocabulary (qel_string_to_audio_control and
// qel_string_to_participant_value), plus the text as the user wrote it.
struct control_setting {
    bool all_participants = true;
    uint32_t participant_id = 0; // only when !all_participants
    qel_audio_control control = QEL_CONTROL_MIXING_3D_ENABLE;
    int value = 0;
    std::string text;
};

struct options {
    std::vector<std::string> talker_files; // empty: synthesise the default conversation
    bool sequential = false;               // chain the talker files like a conversation
    int listener_only = 0;
    std::string layouts_file = QUELORA_DEFAULT_LAYOUTS;
    bool fallback = false;
    int layout_id = -1; // -1: the layout file's default
    int rate = 48000;
    int block_ms = 10;
    int channels = 2;
    bool interleaved = true;
    sample_format format = sample_format::float32;
    int input_rate = 48000;
    int spatial_quality = 3; // 2048-tap spatial filters: the middle of the range
    bool mixing_3d = true;   // QEL_CONTROL_MIXING_3D_ENABLE for everyone, before --set
    bool reverb = true;      // QEL_CONTROL_MIXING_3D_REVERB_ENABLE for everyone, before --set
    std::vector<control_setting> settings; // in command-line order
    std::string out_dir = "out";
    bool quiet_log = false;
};

enum class parse_result { ok, help, error };

// Parses argv into out. On error, message says what was wrong (without the
// usage text, which usage() gives).
parse_result parse_options(int argc, char** argv, options& out, std::string& message);

std::string usage();

const char* format_name(sample_format format);

} // namespace quelora::conference
