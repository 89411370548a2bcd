// out/ear_cues.svg: one listener's interaural level and time differences
// per 100 ms window of its file, over time, under bands that show who is
// talking, with the time difference a spherical head gives each talker's
// direction for comparison.
#pragma once

#include "listening_check.h"
#include "talkers.h"

#include <string>
#include <vector>

namespace quelora::conference {

// listener must be measured (a two-channel file).
bool write_ear_cue_plot(const std::string& path, const listener_check& listener,
                        const std::vector<talker>& talkers, int input_rate, std::string& message);

} // namespace quelora::conference
