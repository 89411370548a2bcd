// Library lifetime, information, logging and events exports.
#include "api/error_codes.h"
#include "api/export_guard.h"

using quelora::guarded_export;

namespace {

qel_handle initialize(const char* room_layout_file, const char* websocket_configuration_file,
                      const qel_library_configuration& configuration, int* error,
                      quelora::layout_loading mode) {
    int code = QEL_ERROR_NONE;
    qel_handle library = nullptr;
    try {
        library = new qel_library(room_layout_file, websocket_configuration_file, configuration, mode);
    } catch (const quelora_exception& e) {
        code = e.error_code();
    } catch (const std::exception& e) {
        code = quelora::report_untranslated(e);
    } catch (...) {
        code = quelora::report_unknown_exception();
    }
    if (error != nullptr) *error = code;
    return library;
}

} // namespace

extern "C" {

QEL_API qel_handle qel_initialize_library(const char* room_layout_file,
                                          const char* websocket_configuration_file,
                                          qel_library_configuration configuration, int* error) {
    return initialize(room_layout_file, websocket_configuration_file, configuration, error,
                      quelora::layout_loading::strict);
}

QEL_API qel_handle qel_initialize_library_from_memory(const char* room_layout_file,
                                                      const char* websocket_configuration_file,
                                                      qel_library_configuration configuration,
                                                      int* error) {
    return initialize(room_layout_file, websocket_configuration_file, configuration, error,
                      quelora::layout_loading::fall_back);
}

QEL_API int qel_destroy_library(qel_handle handle) {
    // Deliberately -9985 (not yet initialised) rather than -9999 for a null
    // handle: the one export that reports a null handle so.
    return guarded_export(handle, [](qel_library& library) { delete &library; },
                          QEL_ERROR_LIBRARY_NOT_YET_INITIALIZED);
}

QEL_API const char* qel_get_version(void) { return "v1.0.23"; }

QEL_API qel_library_configuration qel_get_library_configuration(qel_handle handle) {
    if (handle == nullptr) {
        quelora::log_null_handle();
        return qel_library_configuration{-1, -1, -1, false, -1};
    }
    return handle->configuration();
}

QEL_API const char* qel_get_json_all_room_layouts(qel_handle handle) {
    if (handle == nullptr) {
        quelora::log_null_handle();
        return "{\"error_code\": \"QEL_ERROR_HANDLE_NULL\"}";
    }
    return handle->layouts().json_text().c_str();
}

QEL_API int qel_get_room_layout(qel_handle handle, uint32_t room_id, int* layout_id) {
    return guarded_export(handle, [&](qel_library& library) {
        if (layout_id == nullptr) quelora::throw_null_output("layout_id", "qel_get_room_layout");
        *layout_id = library.conference().room_layout(quelora::to_id(room_id));
    });
}

QEL_API int qel_enable_logging(bool enable) {
    qel_logger::get_logger().set_enabled(enable);
    return QEL_ERROR_NONE;
}

QEL_API int qel_set_log_level(qel_log_level level) {
    if (static_cast<uint32_t>(level) > QEL_LOG_ERROR) {
        qel_logger::get_logger().log(QEL_LOG_WARNING, "Valid log levels are between %i and %i", 0, 4);
        return QEL_ERROR_INVALID_VALUE;
    }
    qel_logger::get_logger().set_log_level(level);
    return QEL_ERROR_NONE;
}

QEL_API const char* qel_error_code_to_string(int error_code) {
    return quelora::error_code_name(error_code);
}

QEL_API int qel_add_event_manager(qel_handle handle, qel_event_manager_t* event_manager) {
    return guarded_export(handle, [&](qel_library& library) {
        if (event_manager == nullptr) {
            throw quelora_exception(QEL_LOG_ERROR, QEL_ERROR_DATA_NULL, "%s",
                                    "The event manager provided was NULL");
        }
        library.conference().add_event_manager(event_manager);
    });
}

// The body depends on the flavour (api/websocket_flavour.h).
QEL_API int qel_enable_websockets(qel_handle handle) {
    return guarded_export(handle, [](qel_library& library) {
        quelora::enable_websockets(library.websocket_server());
    });
}

QEL_API int qel_send_custom_websocket_event(qel_handle handle, const char* json_text) {
    return guarded_export(handle, [&](qel_library& library) {
        quelora::send_custom_websocket_event(library.websocket_server(), json_text);
    });
}

} // extern "C"
