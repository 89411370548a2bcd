// The common shape of every handle-taking export: the null handle guard,
// then one library operation; no exception crosses the C boundary
// (docs/errors.md lists what failures without a code of their own return).
#pragma once

#include "api/library.h"

#include <quelora/qel_logger.h>

#include <exception>

namespace quelora {

void log_null_handle();
// Logs an exception that carries no code of its own (a JSON type error, a
// standard exception) and returns the code docs/errors.md gives it.
int report_untranslated(const std::exception& e);
int report_unknown_exception();

template <typename Operation>
int guarded_export(qel_handle handle, Operation&& operation,
                   int null_handle_code = QEL_ERROR_HANDLE_NULL) {
    if (handle == nullptr) {
        log_null_handle();
        return null_handle_code;
    }
    try {
        return run_operation([&] { operation(*handle); });
    } catch (const std::exception& e) {
        return report_untranslated(e);
    } catch (...) {
        return report_unknown_exception();
    }
}

// Ids arrive as unsigned 32-bit and are kept, logged and passed to callbacks
// as signed 32-bit (an id above INT32_MAX reads as negative).
inline int32_t to_id(uint32_t id) { return static_cast<int32_t>(id); }

// "Your <pointer> pointer is null. Please initialize <pointer> before passing
// to <function>." at level 4 with QEL_ERROR_DATA_NULL; throws.
[[noreturn]] void throw_null_output(const char* pointer, const char* function);

} // namespace quelora
