// One client connection of the websocket transport. Every handler holds the
// session by shared_ptr, so a session lives until its last operation has
// completed; once closed_ is set the completions are ignored, so a
// connection is reported and deregistered exactly once.
#include "events/websocket_session.h"

#include "events/websocket_authentication.h"

#include <quelora/qel_logger.h>

#include <string_view>
#include <utility>

namespace quelora::events {

namespace beast = boost::beast;
namespace http = boost::beast::http;
namespace websocket = boost::beast::websocket;
namespace ssl = boost::asio::ssl;
using boost::asio::ip::tcp;
using boost::system::error_code;

namespace {

// Upgrade requests are a few hundred bytes; anything far larger is refused
// before it costs memory.
constexpr std::uint32_t max_request_header_bytes = 8192;
constexpr const char* server_name = "Quelora";

std::string describe_peer(const tcp::socket& socket) {
    error_code error;
    const tcp::endpoint endpoint = socket.remote_endpoint(error);
    if (error) return "(unknown address)";
    return endpoint.address().to_string() + ":" + std::to_string(endpoint.port());
}

qel_logger& logger() { return qel_logger::get_logger(); }

} // namespace

session_registry::session_registry(const websocket_configuration& configuration,
                                   const transport_limits& limits,
                                   std::atomic<size_t>& recipient_count)
    : limits_(limits),
      key_(configuration.authentification_key),
      value_(configuration.authentification_value),
      recipient_count_(recipient_count) {}

void session_registry::add_live(const std::shared_ptr<websocket_session>& session) {
    live_.emplace(session.get(), session);
}

void session_registry::add_recipient(const std::shared_ptr<websocket_session>& session) {
    recipients_.push_back(session);
    recipient_count_.store(recipients_.size());
}

void session_registry::remove(const websocket_session* session) {
    live_.erase(session);
    for (auto it = recipients_.begin(); it != recipients_.end(); ++it) {
        if (it->get() == session) {
            recipients_.erase(it);
            recipient_count_.store(recipients_.size());
            break;
        }
    }
}

void session_registry::close_all() {
    for (auto& [pointer, session] : live_) session->close();
    live_.clear();
    recipients_.clear();
    recipient_count_.store(0);
}

websocket_session::websocket_session(tcp::socket socket, ssl::context& tls, session_registry& registry)
    : peer_(describe_peer(socket)), registry_(registry), ws_(std::move(socket), tls) {}

void websocket_session::run() {
    // One deadline for the TLS handshake, the upgrade request and a refusal.
    beast::get_lowest_layer(ws_).expires_after(registry_.limits().handshake_timeout);
    ws_.next_layer().async_handshake(
        ssl::stream_base::server,
        [self = shared_from_this()](error_code error) { self->on_tls_handshake(error); });
}

void websocket_session::handshake_failed(const char* stage, error_code error) {
    if (error == beast::error::timeout) {
        logger().log(QEL_LOG_WARNING,
                     "The websocket server refused a connection from %s: the handshake did not "
                     "finish within %lld ms",
                     peer_.c_str(), static_cast<long long>(registry_.limits().handshake_timeout.count()));
    } else {
        const std::string reason = error.message();
        logger().log(QEL_LOG_WARNING, "The websocket server refused a connection from %s: %s: %s",
                     peer_.c_str(), stage, reason.c_str());
    }
    finish();
}

void websocket_session::on_tls_handshake(error_code error) {
    if (closed_) return;
    if (error) return handshake_failed("the TLS handshake failed", error);
    request_.emplace();
    request_->header_limit(max_request_header_bytes);
    http::async_read(ws_.next_layer(), buffer_, *request_,
                     [self = shared_from_this()](error_code read_error, size_t) {
                         self->on_request(read_error);
                     });
}

void websocket_session::on_request(error_code error) {
    if (closed_) return;
    if (error) return handshake_failed("the upgrade request could not be read", error);
    const auto& request = request_->get();
    std::vector<std::string_view> presented;
    const auto headers = request.equal_range(registry_.key());
    for (auto it = headers.first; it != headers.second; ++it) {
        presented.emplace_back(it->value().data(), it->value().size());
    }
    const auto target = request.target();
    const authentication_result result =
        authenticate(websocket::is_upgrade(request), presented,
                     std::string_view(target.data(), target.size()), registry_.key(), registry_.value());
    if (result != authentication_result::accepted) return refuse(describe(result), request.version());

    // Nothing may follow the request before the 101 response (RFC 6455
    // 4.1), so what the parser read beyond it is dropped.
    buffer_.consume(buffer_.size());
    beast::get_lowest_layer(ws_).expires_never();
    ws_.set_option(websocket::stream_base::timeout{
        registry_.limits().handshake_timeout, websocket::stream_base::none(), false});
    ws_.set_option(websocket::stream_base::decorator(
        [](websocket::response_type& response) { response.set(http::field::server, server_name); }));
    ws_.read_message_max(registry_.limits().max_incoming_message_bytes);
    ws_.auto_fragment(false);
    ws_.text(true);
    // A recipient from now on (websocket_transport.h): whatever is broadcast
    // while the 101 response is on its way waits in the queue.
    registry_.add_recipient(shared_from_this());
    ws_.async_accept(request, [self = shared_from_this()](error_code accept_error) {
        self->on_accept(accept_error);
    });
}

void websocket_session::refuse(const char* reason, unsigned http_version) {
    logger().log(QEL_LOG_WARNING, "The websocket server refused a connection from %s: %s",
                 peer_.c_str(), reason);
    refusal_.emplace(http::status::unauthorized, http_version);
    refusal_->set(http::field::server, server_name);
    refusal_->set(http::field::content_type, "text/plain");
    refusal_->keep_alive(false);
    refusal_->body() = "Unauthorized\n";
    refusal_->prepare_payload();
    // Still under the handshake deadline: a client that does not read its
    // refusal cannot hold the connection.
    http::async_write(ws_.next_layer(), *refusal_,
                      [self = shared_from_this()](error_code, size_t) {
                          if (!self->closed_) self->finish();
                      });
}

void websocket_session::on_accept(error_code error) {
    if (closed_) return;
    if (error) return handshake_failed("the websocket handshake failed", error);
    accepted_ = true;
    logger().log(QEL_LOG_INFO, "The websocket client %s connected", peer_.c_str());
    read_next();
    if (!queue_.empty()) write_next();
}

void websocket_session::read_next() {
    ws_.async_read(buffer_, [self = shared_from_this()](error_code error, size_t) {
        self->on_read(error);
    });
}

void websocket_session::on_read(error_code error) {
    if (closed_) return;
    if (error == websocket::error::closed) {
        logger().log(QEL_LOG_INFO, "The websocket client %s closed the connection", peer_.c_str());
        return finish();
    }
    if (error) {
        const std::string reason = error.message();
        logger().log(QEL_LOG_WARNING, "The websocket client %s disconnected: %s", peer_.c_str(),
                     reason.c_str());
        return finish();
    }
    // Clients have nothing to say: the server only publishes.
    buffer_.consume(buffer_.size());
    read_next();
}

bool websocket_session::deliver(const shared_text& text) {
    if (closed_) return false;
    const transport_limits& limits = registry_.limits();
    if (queue_.size() + 1 > limits.max_queued_messages ||
        queued_bytes_ + text->size() > limits.max_queued_bytes) {
        logger().log(QEL_LOG_WARNING,
                     "The websocket client %s could not keep up and was disconnected (%zu messages "
                     "waiting)",
                     peer_.c_str(), queue_.size());
        // No close handshake: it would wait on a client that does not read.
        finish();
        return false;
    }
    queue_.push_back(text);
    queued_bytes_ += text->size();
    if (accepted_ && !writing_) write_next();
    return true;
}

void websocket_session::write_next() {
    writing_ = true;
    ws_.async_write(boost::asio::buffer(*queue_.front()),
                    [self = shared_from_this()](error_code error, size_t) { self->on_write(error); });
}

void websocket_session::on_write(error_code error) {
    writing_ = false;
    if (closed_) return;
    if (error) {
        const std::string reason = error.message();
        logger().log(QEL_LOG_WARNING, "The websocket client %s disconnected: %s", peer_.c_str(),
                     reason.c_str());
        return finish();
    }
    queued_bytes_ -= queue_.front()->size();
    queue_.pop_front();
    if (!queue_.empty()) write_next();
}

void websocket_session::close() {
    if (closed_) return;
    closed_ = true;
    beast::get_lowest_layer(ws_).close();
}

void websocket_session::finish() {
    close();
    registry_.remove(this);
}

} // namespace quelora::events
