// The client flavour, for builds without Boost or OpenSSL
// (QUELORA_WEBSOCKETS=OFF): no server ever exists, initialisation says so
// whatever path it is given, and both websocket exports refuse with
// QEL_ERROR_INVALID_CONTROL.
#include "api/quelora_exception.h"
#include "api/websocket_flavour.h"

namespace quelora {

void websocket_server_deleter::operator()(events::qel_websocket_server*) const noexcept {
    // Never called with a server: this flavour builds none.
}

websocket_server_ptr construct_websocket_server(const char*, layout_loading mode, conference&) {
    log_no_websocket_server(mode);
    return {};
}

namespace {

[[noreturn]] void throw_unavailable() {
    throw quelora_exception(QEL_LOG_WARNING, QEL_ERROR_INVALID_CONTROL, "%s",
                            "Websocket server is not available for the client side, windows, or "
                            "mac versions of the library");
}

} // namespace

void enable_websockets(events::qel_websocket_server*) { throw_unavailable(); }

void send_custom_websocket_event(events::qel_websocket_server*, const char*) { throw_unavailable(); }

} // namespace quelora
