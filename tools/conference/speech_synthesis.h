// Talker speech for the default conversation, synthesised with espeak-ng.
#pragma once

#include <string>
#include <vector>

namespace quelora::conference {

struct scripted_line {
    const char* name;  // the talker's participant name
    const char* voice; // an espeak-ng voice (language plus optional +variant)
    int words_per_minute;
    const char* text;
};

// The four lines of the default conversation, in speaking order.
const std::vector<scripted_line>& default_script();

// Runs `espeak-ng -v VOICE -s SPEED -w WAV_PATH TEXT` directly (no shell, so
// the text needs no quoting) and waits for it. On failure, message says why;
// spawn_failed tells a missing program apart from a failing one.
bool synthesise_speech(const scripted_line& line, const std::string& wav_path, bool& spawn_failed,
                       std::string& message);

} // namespace quelora::conference
