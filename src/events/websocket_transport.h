// The websocket transport (docs/websocket.md): TLS websockets with
// Boost.Beast over Boost.Asio and OpenSSL, one I/O thread owned by this
// object (the only thread the library starts, docs/design.md). Callers on
// audio or control threads never wait for the network: broadcast() only
// queues, and a client that cannot keep up is dropped, never the caller.
#pragma once

#include "events/websocket_configuration.h"

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>

namespace quelora::events {

struct transport_limits {
    // A client whose unsent messages exceed either bound is disconnected
    // (with a warning); the others are unaffected.
    size_t max_queued_messages = 4096;
    size_t max_queued_bytes = size_t{8} << 20;
    // A new connection must finish its TLS handshake and upgrade request
    // within this time, or it is closed.
    std::chrono::milliseconds handshake_timeout{10000};
    // Largest message accepted from a client (clients have nothing to say;
    // their messages are read and discarded so that pings and closes work).
    size_t max_incoming_message_bytes = 4096;
    // Connections held at once, authenticated or not. Beyond it a new
    // connection is closed at once (with a warning), so a flood of idle
    // connections cannot exhaust the process's file descriptors.
    size_t max_connections = 256;
};

class websocket_transport {
public:
    explicit websocket_transport(const websocket_configuration& configuration,
                                 transport_limits limits = {});
    // stop().
    ~websocket_transport();
    websocket_transport(const websocket_transport&) = delete;
    websocket_transport& operator=(const websocket_transport&) = delete;

    // Loads the certificate chain, the private key (decrypted with the pass
    // phrase) and the Diffie-Hellman parameters, listens on the configured
    // port on every IPv4 address, and starts the I/O thread. On failure
    // throws quelora_exception (level 3, QEL_ERROR_INVALID_VALUE) with a
    // message naming the file or port and the reason; nothing is left
    // running and start() may be called again. Does nothing while running.
    void start();
    bool running() const;

    // Thread-safe and non-blocking: hands the text to every client that is
    // authenticated when the I/O thread takes it, as one websocket text
    // message. Texts are sent in the order of the broadcast() calls (calls
    // from several threads are ordered by whichever returns first). A
    // client counts as authenticated from the moment its upgrade request
    // passes the key/value check, before the 101 response is written, so a
    // client that has seen its 101 receives every later broadcast.
    // Does nothing while not running.
    void broadcast(std::string text);

    // Closes the listener and every connection and joins the I/O thread.
    // Prompt (it does not wait for clients), idempotent. Never from the I/O
    // thread itself (a log handler called from it, say): it cannot join
    // itself.
    void stop();

    // Authenticated clients now connected.
    size_t client_count() const;

private:
    struct state;
    std::unique_ptr<state> state_;
};

} // namespace quelora::events
