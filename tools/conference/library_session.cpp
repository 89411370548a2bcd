#include "library_session.h"

#include <cmath>
#include <utility>

namespace quelora::conference {

namespace {

// Where an open room leaves participants (all at the origin), the host places
// them: evenly on a circle of this radius, facing its centre.
constexpr int32_t circle_radius = 150;

} // namespace

std::string describe_failure(const char* call, int code) {
    if (code == QEL_ERROR_NONE) return {};
    // -9988 and -9980 have no name and render as "QEL_ERROR_NONE".
    const std::string name = qel_error_code_to_string(code);
    return std::string(call) + " failed: " +
           (name == "QEL_ERROR_NONE" ? std::string("unnamed error code") : name) + " (" +
           std::to_string(code) + "); the library's log above says why";
}

library_session::~library_session() {
    if (handle_ != nullptr) qel_destroy_library(handle_);
}

bool library_session::open(const options& opts, const std::vector<talker>& talkers,
                           session_error& error) {
    const auto fail = [&error](const char* call, int code, int exit_status = 1) {
        error.exit_status = exit_status;
        error.message = describe_failure(call, code);
        return false;
    };
    qel_enable_logging(true);
    qel_set_log_level(opts.quiet_log ? QEL_LOG_WARNING : QEL_LOG_INFO);

    configuration_.output_sampling_rate = opts.rate;
    configuration_.output_number_frames = opts.rate / 1000 * opts.block_ms;
    configuration_.output_number_channels = opts.channels;
    configuration_.interleaved = opts.interleaved;
    configuration_.spatial_quality = opts.spatial_quality;
    int code = QEL_ERROR_NONE;
    // --fallback goes through the entry point that falls back by design; a
    // plain null path would give the same layout silently.
    handle_ = opts.fallback
                  ? qel_initialize_library_from_memory(nullptr, nullptr, configuration_, &code)
                  : qel_initialize_library(opts.layouts_file.c_str(), nullptr, configuration_, &code);
    if (handle_ == nullptr) {
        return fail(opts.fallback ? "qel_initialize_library_from_memory" : "qel_initialize_library",
                    code);
    }

    if ((code = qel_create_room(handle_, room_id)) != QEL_ERROR_NONE) {
        return fail("qel_create_room", code);
    }
    if (opts.layout_id >= 0 &&
        (code = qel_set_room_layout(handle_, room_id, opts.layout_id)) != QEL_ERROR_NONE) {
        return fail("--layout: qel_set_room_layout", code, 2);
    }
    if ((code = qel_get_room_layout(handle_, room_id, &layout_id_)) != QEL_ERROR_NONE) {
        return fail("qel_get_room_layout", code);
    }

    participants_.clear();
    for (size_t i = 0; i < talkers.size(); ++i) {
        participant_entry p;
        p.id = static_cast<uint32_t>(i + 1);
        p.name = talkers[i].name;
        p.input_channels = talkers[i].audio.channels;
        p.talker_index = static_cast<int>(i);
        participants_.push_back(p);
    }
    for (int i = 0; i < opts.listener_only; ++i) {
        participant_entry p;
        p.id = static_cast<uint32_t>(talkers.size()) + static_cast<uint32_t>(i) + 1;
        p.name = "Listener" + std::to_string(i + 1);
        participants_.push_back(p);
    }
    for (const auto& p : participants_) {
        const qel_participant_configuration participant_configuration{
            opts.input_rate, p.input_channels,
            p.talker_index >= 0 ? QEL_PARTICIPANT_REGULAR : QEL_PARTICIPANT_LISTENER_ONLY};
        if ((code = qel_add_participant(handle_, room_id, p.id, p.name.c_str(),
                                        participant_configuration)) != QEL_ERROR_NONE) {
            return fail("qel_add_participant", code);
        }
    }

    qel_seat seat{};
    if ((code = qel_get_participant_seat(handle_, room_id, participants_.front().id, &seat)) !=
        QEL_ERROR_NONE) {
        return fail("qel_get_participant_seat", code);
    }
    open_room_ = seat.seat_index < 0;
    if (open_room_ && !place_in_circle(error)) return false;
    return apply_spatial_defaults(opts, error) && apply_settings(opts.settings, error);
}

bool library_session::place_in_circle(session_error& error) {
    constexpr double pi = 3.14159265358979323846;
    const auto count = static_cast<double>(participants_.size());
    for (size_t i = 0; i < participants_.size(); ++i) {
        const double angle = 360.0 * static_cast<double>(i) / count;
        const double radians = angle * pi / 180.0;
        const qel_position position{static_cast<int32_t>(std::lround(circle_radius * std::sin(radians))), 0,
                                    static_cast<int32_t>(std::lround(circle_radius * std::cos(radians)))};
        // Facing the centre: the direction back to the origin, with azimuth 0
        // along +z and positive azimuths towards +x (the library's convention).
        double facing = angle + 180.0;
        if (facing > 180.0) facing -= 360.0;
        const qel_heading heading{static_cast<int32_t>(std::lround(facing)), 0};
        const int code =
            qel_set_participant_position(handle_, room_id, participants_[i].id, position, heading);
        if (code != QEL_ERROR_NONE) {
            error.exit_status = 1;
            error.message = describe_failure("qel_set_participant_position", code);
            return false;
        }
    }
    return true;
}

// Set for everyone whatever the layout's default states say, so that every
// layout sounds the same way unless --set says otherwise.
bool library_session::apply_spatial_defaults(const options& opts, session_error& error) {
    const std::pair<qel_audio_control, int> values[] = {
        {QEL_CONTROL_MIXING_3D_ENABLE, opts.mixing_3d ? 1 : 0},
        {QEL_CONTROL_MIXING_3D_REVERB_ENABLE, opts.reverb ? 1 : 0}};
    for (const auto& [control, value] : values) {
        const int code = qel_set_all_participants_state(handle_, room_id, control, value);
        if (code != QEL_ERROR_NONE) {
            error.exit_status = 1;
            error.message = describe_failure("qel_set_all_participants_state", code);
            return false;
        }
    }
    return true;
}

bool library_session::apply_settings(const std::vector<control_setting>& settings,
                                     session_error& error) {
    for (const auto& setting : settings) {
        const int code =
            setting.all_participants
                ? qel_set_all_participants_state(handle_, room_id, setting.control, setting.value)
                : qel_set_participant_state(handle_, room_id, setting.participant_id, setting.control,
                                            setting.value);
        if (code != QEL_ERROR_NONE) {
            error.exit_status = 2;
            error.message = (setting.all_participants ? "--set " : "--set-for ") + setting.text + ": " +
                            describe_failure(setting.all_participants ? "qel_set_all_participants_state"
                                                                      : "qel_set_participant_state",
                                             code);
            return false;
        }
    }
    return true;
}

} // namespace quelora::conference
