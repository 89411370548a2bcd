// The conference benchmark's report: a readable table on standard output and
// the JSON document of make bench (out/bench.json), with enough about the
// machine to compare runs (a shared machine is noisy: compare ratios taken
// in one run, not absolute times across runs).
#pragma once

#include "conference_scenario.h"
#include "machine_peak.h"
#include "pair_cost.h"

#include <string>
#include <vector>

namespace quelora::bench {

// The largest participant count (R = 1, 48 kHz in and out) whose real-time
// factor stayed below 1.0, with the measurement it rests on: of the plain
// mix, and with 3D and reverb on for everybody at a spatial quality. The search
// reads the mean wall-time RTF, or with --cpu-time the thread's CPU time
// per period (on a shared, loaded machine the wall time also counts the
// time other processes held the core).
struct p_max_result {
    bool mixing_3d = false;    // 3D and reverb on for everybody
    bool noise_cancellation = false; // the DFN canceller on for every talker
    int32_t spatial_quality = 3;
    int32_t target = 0;        // the count this search is held against (0: none)
    double period_seconds = 0.0;
    bool cpu_time = false;     // the criterion: rtf_cpu instead of rtf_mean
    bool found = false;        // some P stayed below 1.0
    int32_t participants = 0;
    double rtf_mean = 0.0;
    double rtf_p99 = 0.0;
    double rtf_cpu = 0.0;
    bool capped = false;       // the search stopped at its upper limit, not at RTF 1.0
    int32_t first_over = 0;    // smallest P measured at or above 1.0 (0 if none)
    // Other readings of the same measurements: the largest P measured with
    // p99 wall RTF below 1.0, and with CPU-time RTF below 1.0.
    int32_t participants_p99 = 0;
    int32_t participants_cpu = 0;
};

struct report {
    bool quick = false;
    std::string command; // the command line that made it
    std::vector<measurement> results;
    p_max_result p_max;
    std::vector<p_max_result> spatial_p_max;
    p_max_result noise_cancellation_p_max;
    core_peak peak;
    std::vector<achieved_rate> achieved; // one per spatial P_max found
};

// CPU model, core count and load average (a loaded machine inflates wall times).
void print_machine();
void print_header();
void print_row(const measurement& m);
void print_p_max(const p_max_result& p);

// Writes the JSON document; false with a message on an I/O failure.
bool write_json(const report& r, const std::string& path, std::string& error);

} // namespace quelora::bench
