// Seat, position, direction and state exports.
#include "api/export_guard.h"

using quelora::guarded_export;
using quelora::throw_null_output;
using quelora::to_id;

extern "C" {

QEL_API int qel_set_participant_position(qel_handle handle, uint32_t room_id,
                                         uint32_t participant_id, qel_position position,
                                         qel_heading heading) {
    return guarded_export(handle, [&](qel_library& l) {
        l.conference().set_participant_position(to_id(room_id), to_id(participant_id), position,
                                                heading);
    });
}

QEL_API int qel_get_participant_position(qel_handle handle, uint32_t room_id,
                                         uint32_t participant_id, qel_position* position,
                                         qel_heading* heading) {
    return guarded_export(handle, [&](qel_library& l) {
        if (position == nullptr) throw_null_output("position", "qel_get_participant_position");
        if (heading == nullptr) throw_null_output("heading", "qel_get_participant_position");
        const quelora::place p = l.conference().participant_place(to_id(room_id), to_id(participant_id));
        *position = qel_position{p.x, p.y, p.z};
        *heading = qel_heading{p.azimuth, p.elevation};
    });
}

QEL_API int qel_set_participant_seat(qel_handle handle, uint32_t room_id, uint32_t participant_id,
                                     int32_t seat_index) {
    return guarded_export(handle, [&](qel_library& l) {
        l.conference().set_participant_seat(to_id(room_id), to_id(participant_id), seat_index);
    });
}

QEL_API int qel_get_participant_seat(qel_handle handle, uint32_t room_id, uint32_t participant_id,
                                     qel_seat* seat) {
    return guarded_export(handle, [&](qel_library& l) {
        if (seat == nullptr) throw_null_output("seat", "qel_get_participant_seat");
        const quelora::place p = l.conference().participant_place(to_id(room_id), to_id(participant_id));
        *seat = quelora::to_seat_record(p);
    });
}

QEL_API int qel_get_participant_spherical(qel_handle handle, uint32_t room_id,
                                          uint32_t listener_id, uint32_t source_id,
                                          int32_t* azimuth, int32_t* elevation,
                                          int32_t* distance) {
    return guarded_export(handle, [&](qel_library& l) {
        // Checked before the room lookup: equal ids are refused even for an
        // unknown room.
        if (listener_id == source_id) {
            throw quelora_exception(QEL_LOG_WARNING, QEL_ERROR_INVALID_PARTICIPANT_ID, "%s",
                                    "You must use a different listener_id and source_id for "
                                    "qel_get_participant_spherical");
        }
        if (azimuth == nullptr) throw_null_output("azimuth", "qel_get_participant_spherical");
        if (elevation == nullptr) throw_null_output("elevation", "qel_get_participant_spherical");
        if (distance == nullptr) throw_null_output("distance", "qel_get_participant_spherical");
        const quelora::source_direction d = l.conference().participant_spherical(
            to_id(room_id), to_id(listener_id), to_id(source_id));
        *azimuth = d.azimuth;
        *elevation = d.elevation;
        *distance = d.near_distance + d.far_distance;
    });
}

QEL_API int qel_set_participant_state(qel_handle handle, uint32_t room_id, uint32_t participant_id,
                                      qel_audio_control control, int value) {
    return guarded_export(handle, [&](qel_library& l) {
        l.conference().set_participant_state(to_id(room_id), to_id(participant_id), control, value);
    });
}

QEL_API int qel_get_participant_state(qel_handle handle, uint32_t room_id, uint32_t participant_id,
                                      qel_audio_control control, int* value) {
    return guarded_export(handle, [&](qel_library& l) {
        if (value == nullptr) throw_null_output("value", "qel_get_participant_state");
        *value = 0; // what the host reads after a failed lookup or control check
        *value = l.conference().participant_state(to_id(room_id), to_id(participant_id), control);
    });
}

QEL_API int qel_set_all_participants_state(qel_handle handle, uint32_t room_id,
                                           qel_audio_control control, int value) {
    return guarded_export(handle, [&](qel_library& l) {
        l.conference().set_all_participants_state(to_id(room_id), control, value);
    });
}

} // extern "C"
