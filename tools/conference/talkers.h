// The talkers of a run: their audio at the participants' input rate and
// when each starts speaking.
#pragma once

#include "options.h"
#include "wav_io.h"

#include <cstdint>
#include <string>
#include <vector>

namespace quelora::conference {

struct talker {
    std::string name;   // participant name
    std::string origin; // where the audio came from, for the summary
    audio_clip audio;   // at the participants' input rate
    int64_t start_frame = 0;
};

struct talker_timings {
    bool synthesised = false;       // else read from --talker files
    double synthesis_seconds = 0.0; // synthesising, or reading the files
    double resampling_seconds = 0.0;
};

// Synthesises the default conversation into <out>/talkers/ (espeak-ng, or
// the built-in speech-like signal where espeak-ng cannot run), or reads the
// --talker files; converts every talker to options.input_rate and sets the
// start times. Returns false with a message on failure.
bool prepare_talkers(const options& opts, std::vector<talker>& out, talker_timings& timings,
                     std::string& message);

// A stretch of the conference, in seconds from its start.
struct time_span {
    double from = 0.0;
    double to = 0.0;
    bool empty() const { return to <= from; }
};

// When talker `index`'s clip plays, silence at its ends included.
time_span clip_span(const std::vector<talker>& talkers, size_t index, int input_rate);

// The longest stretch of that clip during which no other talker's clip plays
// (empty when the talker always talks over someone).
time_span solo_span(const std::vector<talker>& talkers, size_t index, int input_rate);

// Participant names in join order: the first 16 talkers, then listeners.
std::string talker_name(size_t index);

} // namespace quelora::conference
