// The live room's network side: one port serving the page's files over HTTP
// (or HTTPS with --tls) and upgrading /ws to the websocket that carries a
// participant's microphone in and its mix out (docs/live_room.md gives the
// protocol). All of it runs on the one network thread of `io`.
#pragma once

#include "conference_host.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/ssl/context.hpp>

#include <memory>
#include <optional>
#include <string>

namespace quelora::live_room {

class web_server {
public:
    // Throws std::runtime_error when the port cannot be bound or the TLS
    // files cannot be read.
    web_server(boost::asio::io_context& io, conference_host& host, const options& o);
    ~web_server();

    void start();
    // Waits for the latency measurements still running (they call into the
    // library on threads of their own); after it, no thread but the caller's
    // touches the library through the server.
    void finish_measurements();
    // Sends the room to every session (network thread).
    void broadcast_room();
    uint16_t port() const;

    // What the sessions share with the server (the acceptor, the session
    // list, the latency measurements); defined in web_server.cpp.
    struct state;

private:
    void accept();
    void tick_levels();

    boost::asio::io_context& io_;
    conference_host& host_;
    std::string web_directory_;
    std::optional<boost::asio::ssl::context> tls_;
    std::unique_ptr<state> state_;
};

} // namespace quelora::live_room
