#include "api/export_guard.h"

#include "api/error_codes.h"

namespace quelora {

void log_null_handle() {
    qel_logger::get_logger().log(QEL_LOG_ERROR, "%s",
                                 "Your qel_handle is null. Please use qel_initialize_library to "
                                 "get a valid handle.");
}

int report_untranslated(const std::exception& e) {
    // A JSON type error can only come from the room configuration document.
    const bool json_fault = dynamic_cast<const nlohmann::json::exception*>(&e) != nullptr;
    qel_logger::get_logger().log(QEL_LOG_ERROR, "%s", e.what());
    return json_fault ? error_invalid_room_configuration : QEL_ERROR_DATA_NULL;
}

int report_unknown_exception() {
    qel_logger::get_logger().log(QEL_LOG_ERROR, "%s", "An unknown exception was raised inside Quelora");
    return QEL_ERROR_DATA_NULL;
}

void throw_null_output(const char* pointer, const char* function) {
    throw quelora_exception(QEL_LOG_ERROR, QEL_ERROR_DATA_NULL,
                            "Your %s pointer is null. Please initialize %s before passing to %s.",
                            pointer, pointer, function);
}

} // namespace quelora
