// The conferencing server's audio cycle: every block, one input call per
// talking participant and one output call per participant, then one WAV per
// listener.
#pragma once

#include "library_session.h"
#include "options.h"
#include "talkers.h"

#include <cstdint>
#include <string>
#include <vector>

namespace quelora::conference {

// A listener's file and how it sounds.
struct listener_result {
    uint32_t id = 0;
    std::string name;
    std::string path;
    int64_t silent_blocks = 0; // output calls answered QEL_ERROR_NO_INPUT_AUDIO
    double peak_dbfs = 0.0;    // -infinity for digital silence
    double rms_dbfs = 0.0;
};

struct loop_result {
    int64_t blocks = 0;
    int input_frames = 0; // per input call, at the input rate
    double audio_seconds = 0.0;
    double loop_wall_seconds = 0.0; // the block loop, block preparation included
    double input_seconds = 0.0;  // all input calls together
    double output_seconds = 0.0; // all output calls together
    double max_input_block_seconds = 0.0;
    double max_output_block_seconds = 0.0;
    double wav_seconds = 0.0; // writing the listener files
    std::vector<listener_result> listeners;
};

// After the last talker ends the loop runs this much longer, so what the
// library still holds (limiter look-ahead, reverberation tails) comes out.
constexpr int tail_milliseconds = 500;

// Runs the blocks with the sample type of opts.format and writes
// <out>/listener_<id>_<name>.wav per participant. On a library error other
// than QEL_ERROR_NO_INPUT_AUDIO, returns false with the call and the code.
bool run_conference(const options& opts, const library_session& session,
                    const std::vector<talker>& talkers, loop_result& result, std::string& message);

} // namespace quelora::conference
