// The common shape of every handle-taking export (spec Part 1.1): the null
// handle guard, then one library operation; no exception crosses the C
// boundary (docs/errors.md lists what untranslated failures return).
#pragma once

#include "api/library.h"

#include <quelora/qel_logger.h>

#include <exception>

namespace quelora {

void log_null_handle();
// Logs an exception that the spec leaves untranslated and returns its code.
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

// Ids arrive as unsigned 32-bit and are kept as signed 32-bit (Overview).
inline int32_t to_id(uint32_t id) { return static_cast<int32_t>(id); }

// The Part 1.1 style message for a null output pointer, at level 4; throws.
[[noreturn]] void throw_null_output(const char* pointer, const char* function);

} // namespace quelora
