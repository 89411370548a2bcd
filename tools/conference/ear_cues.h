// The interaural cues of a two-channel listener file, measured the way the
// ears take them: the level difference where the head shadows most
// (2 to 8 kHz), and the time difference from the cross-correlation of the
// two ears over +/-1 ms. The library's sign convention: positive = right.
#pragma once

#include "talkers.h"
#include "wav_io.h"

#include <string>
#include <vector>

namespace quelora::conference {

constexpr double cue_window_seconds = 0.1;
constexpr double cue_max_lag_seconds = 0.001;
// Windows this far below the loudest window of the file count as silent:
// pauses, and the decaying room after a talker ends.
constexpr double cue_silence_below_loudest_db = 40.0;

// Sums over one window, kept unreduced so that windows add up to the cues of
// a longer stretch exactly.
struct cue_window {
    double start_seconds = 0.0;
    double level_dbfs = 0.0; // broadband, both ears
    bool silent = true;
    double energy_left = 0.0; // broadband
    double energy_right = 0.0;
    double band_energy_left = 0.0; // in the level-difference band
    double band_energy_right = 0.0;
    std::vector<double> correlation; // lag -L..L: sum of right[n] x left[n + lag]
};

struct interaural_cues {
    bool valid = false;  // false: nothing but silence
    double ild_db = 0.0; // right minus left
    double itd_ms = 0.0; // positive: the right ear leads
    // The interaural cross-correlation coefficient (IACC): the correlation
    // peak over the ears' energies; 1 for one signal at two delays, lower
    // as the room's reflections and diffuse tail decorrelate the ears.
    double iacc = 0.0;
};

struct ear_cue_track {
    int rate = 0;
    double band_low_hz = 0.0;
    double band_high_hz = 0.0; // below 8 kHz when the rate leaves no room for it
    int max_lag = 0;           // samples
    std::vector<cue_window> windows;

    interaural_cues of(const cue_window& window) const;
    // Over the windows that lie inside span and are not silent.
    interaural_cues over(const time_span& span) const;
};

// Measures a two-channel clip (interleaved); false with a message for any
// other channel count.
bool measure_ear_cues(const audio_clip& clip, ear_cue_track& out, std::string& message);

// The time difference a rigid sphere of 8.75 cm radius gives a far source at
// this azimuth and elevation 0 (Woodworth's formula, on the lateral angle so
// that front and back agree), in ms, positive to the right.
double spherical_head_itd_ms(double azimuth_degrees);

} // namespace quelora::conference
