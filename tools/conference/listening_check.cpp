#include "listening_check.h"

#include <cmath>
#include <cstdio>

namespace quelora::conference {

namespace {

constexpr double pi = 3.14159265358979323846;
// Closer to straight ahead or behind than this, a talker is "centred": both
// cues should then be small rather than of one sign.
constexpr double centre_degrees = 10.0;
constexpr double centre_ild_db = 3.0;
constexpr double centre_itd_ms = 0.1;

} // namespace

std::string cue_agreement(const listener_check& listener, const heard_talker& heard) {
    if (!listener.mixing_3d) return "- (3D off)";
    if (listener.loudspeakers) return "- (loudspeaker feeds, not ears)";
    if (!heard.direction_known || !heard.cues.valid) return "-";
    const bool timing = heard.cues.iacc >= least_iacc_for_timing;
    char basis[48] = "";
    if (!timing) {
        std::snprintf(basis, sizeof basis, ", by level: IACC < %.2f", least_iacc_for_timing);
    }
    const double lateral = std::sin(heard.azimuth * pi / 180.0);
    if (std::fabs(lateral) < std::sin(centre_degrees * pi / 180.0)) {
        const bool small = std::fabs(heard.cues.ild_db) <= centre_ild_db &&
                           (!timing || std::fabs(heard.cues.itd_ms) <= centre_itd_ms);
        return std::string(small ? "yes (centred" : "NO (should be centred") + basis + ")";
    }
    const bool level_side = (heard.cues.ild_db > 0.0) == (lateral > 0.0);
    const bool time_side = !timing || (heard.cues.itd_ms > 0.0) == (lateral > 0.0);
    if (level_side && time_side) {
        return std::string(lateral > 0.0 ? "yes (right" : "yes (left") + basis + ")";
    }
    if (!level_side && !time_side) return "NO (both cues on the wrong side)";
    return level_side ? "NO (time on the wrong side)"
                      : std::string("NO (level on the wrong side") + basis + ")";
}

bool check_listeners(const options& opts, const library_session& session,
                     const std::vector<talker>& talkers, const loop_result& loop,
                     std::vector<listener_check>& out, std::string& message) {
    out.clear();
    const auto& participants = session.participants();
    for (size_t i = 0; i < participants.size() && i < loop.listeners.size(); ++i) {
        const auto& listener = participants[i];
        listener_check check;
        check.id = listener.id;
        check.name = listener.name;
        check.talker_index = listener.talker_index;
        int mixing_3d = 0;
        int device = 0;
        qel_get_participant_state(session.handle(), library_session::room_id, listener.id,
                                  QEL_CONTROL_MIXING_3D_ENABLE, &mixing_3d);
        qel_get_participant_state(session.handle(), library_session::room_id, listener.id,
                                  QEL_CONTROL_DEVICE, &device);
        check.mixing_3d = mixing_3d != 0;
        check.loudspeakers = device == QEL_DEVICE_SPEAKER;
        check.path = loop.listeners[i].path;
        audio_clip clip;
        if (!read_wav(check.path, clip, message)) return false;
        check.measured = measure_ear_cues(clip, check.track, check.message);
        for (const auto& source : participants) {
            if (source.id == listener.id || source.talker_index < 0) continue;
            heard_talker heard;
            heard.talker_index = static_cast<size_t>(source.talker_index);
            heard.direction_known =
                qel_get_participant_spherical(session.handle(), library_session::room_id,
                                              listener.id, source.id, &heard.azimuth,
                                              &heard.elevation, &heard.distance) == QEL_ERROR_NONE;
            heard.turn = solo_span(talkers, heard.talker_index, opts.input_rate);
            heard.turn.from += turn_settling_seconds;
            if (heard.turn.to - heard.turn.from < shortest_measured_turn_seconds) heard.turn = {};
            if (check.measured && !heard.turn.empty()) heard.cues = check.track.over(heard.turn);
            check.heard.push_back(heard);
        }
        out.push_back(std::move(check));
    }
    return true;
}

} // namespace quelora::conference
