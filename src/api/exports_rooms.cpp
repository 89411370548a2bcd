// Room and participant exports.
#include "api/export_guard.h"

using quelora::guarded_export;
using quelora::to_id;

extern "C" {

QEL_API int qel_create_room(qel_handle handle, uint32_t room_id) {
    return guarded_export(handle, [&](qel_library& l) { l.conference().create_room(to_id(room_id)); });
}

QEL_API int qel_destroy_room(qel_handle handle, uint32_t room_id) {
    return guarded_export(handle, [&](qel_library& l) { l.conference().destroy_room(to_id(room_id)); });
}

QEL_API int qel_get_room_count(qel_handle handle, int* room_count) {
    return guarded_export(handle, [&](qel_library& l) {
        if (room_count == nullptr) {
            throw quelora_exception(QEL_LOG_ERROR, QEL_ERROR_DATA_NULL, "%s",
                                    "Your room_count pointer is null. Please initialize room_count "
                                    "before passing to qel_get_room_count.");
        }
        *room_count = l.conference().room_count();
    });
}

QEL_API int qel_set_room_layout(qel_handle handle, uint32_t room_id, int32_t layout_id) {
    return guarded_export(handle, [&](qel_library& l) {
        l.conference().set_room_layout(to_id(room_id), layout_id);
    });
}

QEL_API int qel_add_participant(qel_handle handle, uint32_t room_id, uint32_t participant_id,
                                const char* participant_name,
                                qel_participant_configuration configuration) {
    return guarded_export(handle, [&](qel_library& l) {
        l.conference().add_participant(to_id(room_id), to_id(participant_id), participant_name,
                                       configuration);
    });
}

QEL_API int qel_remove_participant(qel_handle handle, uint32_t room_id, uint32_t participant_id) {
    return guarded_export(handle, [&](qel_library& l) {
        l.conference().remove_participant(to_id(room_id), to_id(participant_id));
    });
}

QEL_API int qel_get_participant_count(qel_handle handle, uint32_t room_id, int* participant_count) {
    return guarded_export(handle, [&](qel_library& l) {
        if (participant_count == nullptr) {
            throw quelora_exception(QEL_LOG_ERROR, QEL_ERROR_DATA_NULL, "%s",
                                    "Your participant_count variable was NULL");
        }
        *participant_count = 0; // stays 0 when the room lookup fails
        *participant_count = l.conference().participant_count(to_id(room_id));
    });
}

QEL_API int qel_get_participant_configuration(qel_handle handle, uint32_t room_id,
                                              uint32_t participant_id,
                                              qel_participant_configuration* configuration) {
    if (handle == nullptr && configuration != nullptr) {
        // Deliberately {-1, -1, 4}: 4 is no participant type, so the record
        // cannot pass for a real configuration.
        *configuration = qel_participant_configuration{-1, -1, 4};
    }
    return guarded_export(handle, [&](qel_library& l) {
        if (configuration == nullptr) {
            throw quelora_exception(QEL_LOG_ERROR, QEL_ERROR_DATA_NULL, "%s",
                                    "Your config variable was NULL");
        }
        *configuration =
            l.conference().participant_configuration(to_id(room_id), to_id(participant_id));
    });
}

QEL_API int qel_set_participant_name(qel_handle handle, uint32_t room_id, uint32_t participant_id,
                                     const char* name) {
    return guarded_export(handle, [&](qel_library& l) {
        l.conference().set_participant_name(to_id(room_id), to_id(participant_id), name);
    });
}

QEL_API int qel_get_participant_name(qel_handle handle, uint32_t room_id, uint32_t participant_id,
                                     char* name, int buffer_length) {
    return guarded_export(handle, [&](qel_library& l) {
        if (name == nullptr) {
            throw quelora_exception(QEL_LOG_ERROR, QEL_ERROR_DATA_NULL, "%s",
                                    "Your value point is null. Please initialize the char array "
                                    "before passing to qel_get_participant_name.");
        }
        l.conference().copy_participant_name(to_id(room_id), to_id(participant_id), name,
                                             buffer_length);
    });
}

QEL_API int qel_flush_data(qel_handle handle, uint32_t room_id, uint32_t participant_id) {
    return guarded_export(handle, [&](qel_library& l) {
        l.conference().flush(to_id(room_id), to_id(participant_id));
    });
}

} // extern "C"
