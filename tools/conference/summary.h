// The report printed after a run: set-up, places and directions, controls,
// timing per stage and the level of every listener file.
#pragma once

#include "audio_loop.h"
#include "library_session.h"
#include "listening_check.h"
#include "options.h"
#include "talkers.h"

namespace quelora::conference {

struct run_timings {
    talker_timings talkers;
    double setup_seconds = 0.0; // library initialisation, room, participants, controls
    double check_seconds = 0.0; // reading the listener files back, ear cues, pictures
    double total_seconds = 0.0; // the whole program up to the summary
};

// A picture the run wrote, or why it did not.
struct picture {
    std::string path; // empty: not written
    std::string what; // what it shows, or why it is missing
};

// Reads places, directions and controls through the public interface, so
// call it while the session is still open.
void print_summary(const options& opts, const library_session& session,
                   const std::vector<talker>& talkers, const loop_result& loop,
                   const std::vector<listener_check>& checks,
                   const std::vector<picture>& pictures, const run_timings& timings);

} // namespace quelora::conference
