// libFuzzer target for the websocket configuration file (spec Part 6.1):
// text -> parse_websocket_configuration. Only the failure the Part specifies
// (quelora_exception with QEL_ERROR_INVALID_VALUE) is caught; anything else
// (a crash, a sanitizer report, another exception, a broken invariant) ends
// the run so that the fuzzer reports it.
#include "api/quelora_exception.h"
#include "events/websocket_configuration.h"

#include "fuzz_support.h"

#include <cstddef>
#include <cstdint>
#include <string>

using quelora::fuzz::require;

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    quelora::fuzz::discard_all_log_lines();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    try {
        const auto configuration = quelora::events::parse_websocket_configuration(text, "fuzz.json");
        // What the transport relies on (the reader's validity rules).
        require(configuration.port >= 1 && configuration.port <= 65535);
        require(!configuration.cert_file_name.empty() && !configuration.key_file_name.empty() &&
                !configuration.dh_params_file_name.empty());
        require(!configuration.authentification_key.empty() &&
                !configuration.authentification_value.empty());
    } catch (const quelora_exception& e) {
        require(e.error_code() == QEL_ERROR_INVALID_VALUE);
    }
    return 0;
}
