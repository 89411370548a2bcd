// The flavour-dependent part of the library object (CMake option
// QUELORA_WEBSOCKETS). The server flavour (websocket_server_flavour.cpp)
// builds the websocket server at initialisation and publishes through it;
// the client flavour (websocket_client_flavour.cpp) never has one and
// answers both websocket exports with "not available". Exactly one of the
// two is linked into a library.
#pragma once

#include "config/room_layout_loading.h"

#include <memory>

namespace quelora {

class conference;
namespace events {
class qel_websocket_server;
}

struct websocket_server_deleter {
    void operator()(events::qel_websocket_server* server) const noexcept;
};
using websocket_server_ptr = std::unique_ptr<events::qel_websocket_server, websocket_server_deleter>;

// The initialisation's line for a library without a server: level 4 with a
// final full stop in the strict path, level 3 without one from memory.
// Shared by both flavours (websocket_flavour.cpp).
void log_no_websocket_server(layout_loading mode);

// Builds the websocket server, if any, in either initialisation path. A
// server that is built is registered as an event sink of the conference,
// which must outlive its notifications. Throws (strict path only) what the
// construction throws.
websocket_server_ptr construct_websocket_server(const char* configuration_path,
                                                layout_loading mode, conference& conference);

// The bodies of qel_enable_websockets and qel_send_custom_websocket_event;
// server may be null. Throw quelora_exception.
void enable_websockets(events::qel_websocket_server* server);
void send_custom_websocket_event(events::qel_websocket_server* server, const char* json_text);

} // namespace quelora
