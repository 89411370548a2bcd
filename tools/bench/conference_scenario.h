// One measured configuration of the conference benchmark: a fresh library
// with `rooms` rooms of `participants` regular mono talkers each, all
// talking, driven from one thread through the public C interface only.
// Everybody sits on a circle around the room's centre, facing it, so that
// with 3D on the pairs lie at every distance from 0 to the diameter and the
// distant ones are rendered with the modelled room's reverberation.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace quelora::bench {

struct scenario {
    std::string name;        // the table group: "sweep", "search", "rooms", "variant"
    int32_t rooms = 1;
    int32_t participants = 2; // per room
    int32_t input_rate = 48000;
    int32_t output_rate = 48000;
    bool mixing_3d = false;   // QEL_CONTROL_MIXING_3D_ENABLE for everybody
    bool noise_cancellation = false; // QEL_CONTROL_ANC_ENABLE for everybody (DFN)
    int32_t spatial_quality = 3;     // of the library configuration, 1..5
};

// Radius of the circle, in distance units (100 = 1 m): pair distances run
// from 0 to 400 units, past the 100 units beyond which the renderer adds the
// reverberant layers.
inline constexpr int32_t seat_radius = 200;

struct circle_seat {
    int32_t x = 0, z = 0;  // y (height) is 0 for everybody
    int32_t azimuth = 0;   // heading towards the centre, -180..180
};

// Participant p of `count`, evenly around the circle.
circle_seat seat_on_circle(int32_t p, int32_t count);

// How long to measure: at least min_blocks periods, then more until
// target_seconds of wall time have been spent in timed periods or
// max_blocks is reached. Warm-up periods are run first and not timed.
struct run_length {
    int32_t warmup_blocks = 20;
    int32_t min_blocks = 50;
    int32_t max_blocks = 1000;
    double target_seconds = 1.0;
};

struct measurement {
    scenario config;
    int32_t blocks = 0;          // timed periods
    double period_seconds = 0.0; // audio time of one period (the block length)
    double mean_seconds = 0.0;   // wall time of one period's audio calls
    double p50_seconds = 0.0;
    double p99_seconds = 0.0;
    double max_seconds = 0.0;
    double cpu_mean_seconds = 0.0; // this thread's CPU time per period: what the
                                   // period costs when the machine is shared
    double setup_seconds = 0.0;  // library start, rooms and participants
    int64_t failed_calls = 0;    // audio calls that did not return QEL_ERROR_NONE

    double rtf_mean() const { return mean_seconds / period_seconds; }
    double rtf_p99() const { return p99_seconds / period_seconds; }
    double rtf_cpu() const { return cpu_mean_seconds / period_seconds; }
};

// Runs the scenario: per period, room after room, one qel_input_audio_float
// per participant, then one qel_output_audio_float per participant. Returns
// false with a message when the library refuses the set-up.
bool run_scenario(const scenario& config, const run_length& length, measurement& result,
                  std::string& error);

} // namespace quelora::bench
