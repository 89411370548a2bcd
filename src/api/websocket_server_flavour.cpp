// The server flavour: the websocket server is read from its configuration
// file at initialisation, registered as an event sink, and listens from
// qel_enable_websockets on.
#include "api/export_guard.h"
#include "api/quelora_exception.h"
#include "api/websocket_flavour.h"
#include "conference/conference.h"
#include "events/websocket_server.h"

#include <exception>

namespace quelora {

namespace {

[[noreturn]] void throw_not_configured(const char* function) {
    throw quelora_exception(QEL_LOG_WARNING, QEL_ERROR_INVALID_VALUE,
                            "The websocket server is not configured. Please give "
                            "qel_initialize_library the path of a valid websocket configuration "
                            "file to use %s.",
                            function);
}

} // namespace

void websocket_server_deleter::operator()(events::qel_websocket_server* server) const noexcept {
    delete server; // stops the transport and joins its I/O thread
}

websocket_server_ptr construct_websocket_server(const char* configuration_path,
                                                layout_loading mode, conference& conference) {
    websocket_server_ptr server;
    if (mode == layout_loading::strict) {
        if (configuration_path == nullptr) {
            log_no_websocket_server(mode);
            return server;
        }
        // The host named a configuration: one that cannot be used fails the
        // initialisation, as a bad room layout file does.
        server.reset(new events::qel_websocket_server(configuration_path, conference));
    } else {
        // Always constructed, null path included (which logs its own level-3
        // line); any failure leaves the library without a server.
        try {
            server.reset(new events::qel_websocket_server(configuration_path, conference));
        } catch (const std::exception&) {
            log_no_websocket_server(mode);
            return server;
        }
    }
    conference.add_event_sink(server.get());
    return server;
}

void enable_websockets(events::qel_websocket_server* server) {
    if (server == nullptr) throw_not_configured("qel_enable_websockets");
    server->enable();
}

void send_custom_websocket_event(events::qel_websocket_server* server, const char* json_text) {
    if (json_text == nullptr) throw_null_output("json_text", "qel_send_custom_websocket_event");
    if (server == nullptr) throw_not_configured("qel_send_custom_websocket_event");
    server->send_custom_event(json_text);
}

} // namespace quelora
