// One client connection of the websocket transport: TLS handshake, upgrade
// request, the key/value check, the websocket accept, then a bounded send
// queue and a read loop that only notices pings, closes and disconnects.
// Everything here runs on the transport's one I/O thread, so nothing is
// locked except the client count that other threads read.
#pragma once

#include "events/websocket_configuration.h"
#include "events/websocket_transport.h"

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>
#include <boost/beast/websocket.hpp>
#include <boost/beast/websocket/ssl.hpp>

#include <atomic>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace quelora::events {

// One broadcast text, shared by every client's queue.
using shared_text = std::shared_ptr<const std::string>;

class websocket_session;

// The I/O thread's list of connections, owned by the transport for one
// start()..stop() run. A connection is "live" from its TCP accept until it
// ends, and a "recipient" once authenticated: recipients get broadcasts.
class session_registry {
public:
    session_registry(const websocket_configuration& configuration, const transport_limits& limits,
                     std::atomic<size_t>& recipient_count);
    session_registry(const session_registry&) = delete;
    session_registry& operator=(const session_registry&) = delete;

    const transport_limits& limits() const { return limits_; }
    const std::string& key() const { return key_; }
    const std::string& value() const { return value_; }

    void add_live(const std::shared_ptr<websocket_session>& session);
    size_t live_count() const { return live_.size(); }
    void add_recipient(const std::shared_ptr<websocket_session>& session);
    // Forgets the session in both roles (its pending handlers keep it alive
    // until they have run).
    void remove(const websocket_session* session);
    // A copy: delivering may remove recipients.
    std::vector<std::shared_ptr<websocket_session>> recipients() const { return recipients_; }
    // stop(): closes every connection at the TCP layer, without goodbye or
    // log, and forgets them all.
    void close_all();

private:
    transport_limits limits_;
    std::string key_;
    std::string value_;
    std::unordered_map<const websocket_session*, std::shared_ptr<websocket_session>> live_;
    std::vector<std::shared_ptr<websocket_session>> recipients_; // in authentication order
    std::atomic<size_t>& recipient_count_;
};

class websocket_session : public std::enable_shared_from_this<websocket_session> {
public:
    websocket_session(boost::asio::ip::tcp::socket socket, boost::asio::ssl::context& tls,
                      session_registry& registry);

    // Starts the handshakes; the registry must already list the session.
    void run();
    // Appends one text to this client's queue, or drops the client when the
    // queue would exceed its bounds. False when the client is gone.
    bool deliver(const shared_text& text);
    // Closes the TCP socket: pending operations end with operation_aborted
    // and are then ignored. No log, no registry change.
    void close();

    const std::string& peer() const { return peer_; }

private:
    using tls_stream = boost::beast::ssl_stream<boost::beast::tcp_stream>;

    void on_tls_handshake(boost::system::error_code error);
    void on_request(boost::system::error_code error);
    void refuse(const char* reason, unsigned http_version);
    void on_accept(boost::system::error_code error);
    void read_next();
    void on_read(boost::system::error_code error);
    void write_next();
    void on_write(boost::system::error_code error);
    // A connection failed before it was accepted: warns with the reason.
    void handshake_failed(const char* stage, boost::system::error_code error);
    // close() and leave the registry.
    void finish();

    std::string peer_; // "address:port", fixed at accept (before ws_ takes the socket)
    session_registry& registry_;
    boost::beast::websocket::stream<tls_stream> ws_;
    boost::beast::flat_buffer buffer_;
    std::optional<boost::beast::http::request_parser<boost::beast::http::empty_body>> request_;
    std::optional<boost::beast::http::response<boost::beast::http::string_body>> refusal_;
    std::deque<shared_text> queue_; // front: the message being written
    size_t queued_bytes_ = 0;
    bool accepted_ = false; // the 101 response is out: writes may start
    bool writing_ = false;
    bool closed_ = false;
};

} // namespace quelora::events
