// Listening without ears: for every listener, where the library places each
// talker (qel_get_participant_spherical) next to the cues measured in the
// listener's file over that talker's turn, and whether the two agree.
#pragma once

#include "audio_loop.h"
#include "ear_cues.h"
#include "library_session.h"
#include "options.h"
#include "talkers.h"

#include <cstdint>
#include <string>
#include <vector>

namespace quelora::conference {

// The end of the previous turn still rings in the room (and the library is
// a few blocks late) when a turn begins: its first cue window starts this
// much later.
constexpr double turn_settling_seconds = 0.1;
// A shorter turn (after settling) is too short for cues worth judging.
constexpr double shortest_measured_turn_seconds = 1.0;

// Below this IACC the correlation peak is mostly the room's: far from the
// talker, the reflections and the tail carry more energy than the direct
// sound, and the peak may land on either side. The level difference still
// tells the side then; the time difference is not judged.
constexpr double least_iacc_for_timing = 0.25;

struct heard_talker {
    size_t talker_index = 0;
    bool direction_known = false;
    int32_t azimuth = 0; // relative to the listener's heading, clockwise
    int32_t elevation = 0;
    int32_t distance = 0;
    time_span turn; // the talker's solo span after settling; empty: none long enough
    interaural_cues cues;
};

struct listener_check {
    uint32_t id = 0;
    std::string name;
    int talker_index = -1; // -1: a listener-only participant
    bool mixing_3d = false;
    bool loudspeakers = false; // QEL_DEVICE_SPEAKER: the file holds loudspeaker feeds, not ears
    std::string path;
    bool measured = false; // false: no two-channel file (message says why)
    std::string message;
    ear_cue_track track;
    std::vector<heard_talker> heard;
};

// Whether the measured cues point the way the direction says: the same side
// for both cues, or near zero for a talker ahead or behind; the time
// difference only where the ears are alike enough (IACC) for it to be the
// direct sound's. "-" when there is nothing to compare, the listener has 3D
// off or listens on loudspeakers.
std::string cue_agreement(const listener_check& listener, const heard_talker& heard);

// Reads every listener file back and measures it; returns false with a
// message only when a file cannot be read.
bool check_listeners(const options& opts, const library_session& session,
                     const std::vector<talker>& talkers, const loop_result& loop,
                     std::vector<listener_check>& out, std::string& message);

} // namespace quelora::conference
