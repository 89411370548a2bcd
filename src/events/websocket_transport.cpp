// The websocket transport: the listener, the one I/O thread, broadcast() and
// stop(). Other threads only touch `pending` and `running` under the mutex
// and post to the io_context; everything else belongs to the I/O thread.
#include "events/websocket_transport.h"

#include "api/quelora_exception.h"
#include "events/websocket_session.h"
#include "events/websocket_tls.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <quelora/qel_logger.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <exception>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

namespace quelora::events {

namespace asio = boost::asio;
using boost::asio::ip::tcp;
using boost::system::error_code;

namespace {

// After a failed accept (out of file descriptors, say) the listener waits
// this long rather than spinning on the same error.
constexpr std::chrono::milliseconds accept_retry_delay{100};

} // namespace

struct websocket_transport::state {
    state(const websocket_configuration& configuration_in, transport_limits limits_in)
        : configuration(configuration_in), limits(limits_in) {}

    void accept_next();
    void on_accept(error_code error, tcp::socket socket);
    void drain();
    void close_everything();
    void run_io();
    // Destroys the run's objects in dependency order; the I/O thread is gone.
    void release();

    const websocket_configuration configuration;
    const transport_limits limits;

    std::mutex lifecycle_mutex; // serialises start() and stop()

    mutable std::mutex mutex; // guards running, pending and posting to io
    bool running = false;
    std::vector<shared_text> pending; // broadcast, not yet handed to the sessions

    std::atomic<size_t> recipient_count{0};

    // One start()..stop() run. The io_context goes before the registry and
    // the TLS context: destroying it destroys the pending handlers, which
    // hold the last references to sessions that refer to both.
    std::unique_ptr<asio::ssl::context> tls;
    std::unique_ptr<session_registry> registry;
    std::unique_ptr<asio::io_context> io;
    std::optional<asio::executor_work_guard<asio::io_context::executor_type>> work;
    std::unique_ptr<tcp::acceptor> acceptor;
    std::unique_ptr<asio::steady_timer> retry_timer;
    std::thread thread;
};

void websocket_transport::state::accept_next() {
    acceptor->async_accept([this](error_code error, tcp::socket socket) {
        on_accept(error, std::move(socket));
    });
}

void websocket_transport::state::on_accept(error_code error, tcp::socket socket) {
    if (error == asio::error::operation_aborted || !acceptor->is_open()) return;
    if (error) {
        const std::string reason = error.message();
        qel_logger::get_logger().log(QEL_LOG_WARNING,
                                     "The websocket server could not accept a connection: %s",
                                     reason.c_str());
        retry_timer->expires_after(accept_retry_delay);
        retry_timer->async_wait([this](error_code wait_error) {
            if (!wait_error && acceptor->is_open()) accept_next();
        });
        return;
    }
    if (registry->live_count() >= limits.max_connections) {
        error_code ignored_error;
        const tcp::endpoint peer = socket.remote_endpoint(ignored_error);
        const std::string address = peer.address().to_string() + ":" + std::to_string(peer.port());
        qel_logger::get_logger().log(QEL_LOG_WARNING,
                                     "The websocket server refused a connection from %s: %zu "
                                     "connections are open, the most it keeps",
                                     address.c_str(), limits.max_connections);
        socket.close(ignored_error);
        accept_next();
        return;
    }
    // Asio accepts without SOCK_CLOEXEC: set it at once, or a process the
    // host spawns would keep the connection open after we close it.
    ::fcntl(socket.native_handle(), F_SETFD, FD_CLOEXEC);
    error_code ignored;
    socket.set_option(tcp::no_delay(true), ignored); // events are small and wanted now
    auto session = std::make_shared<websocket_session>(std::move(socket), *tls, *registry);
    registry->add_live(session);
    session->run();
    accept_next();
}

void websocket_transport::state::drain() {
    std::vector<shared_text> batch;
    {
        std::lock_guard lock(mutex);
        batch.swap(pending);
    }
    for (const auto& session : registry->recipients()) {
        for (const auto& text : batch) {
            if (!session->deliver(text)) break;
        }
    }
}

void websocket_transport::state::close_everything() {
    error_code ignored;
    acceptor->close(ignored);
    retry_timer->cancel();
    registry->close_all();
    io->stop();
}

void websocket_transport::state::run_io() {
    // A handler that throws must not take the process down (std::terminate
    // for an exception leaving a thread): log it and keep serving.
    while (!io->stopped()) {
        try {
            io->run();
        } catch (const std::exception& exception) {
            qel_logger::get_logger().log(QEL_LOG_ERROR, "The websocket server's I/O thread failed: %s",
                                         exception.what());
        } catch (...) {
            qel_logger::get_logger().log(QEL_LOG_ERROR, "%s",
                                         "The websocket server's I/O thread failed: unknown exception");
        }
    }
}

void websocket_transport::state::release() {
    // Sessions still listed are destroyed while their io_context exists.
    if (registry) registry->close_all();
    retry_timer.reset();
    acceptor.reset();
    work.reset();
    io.reset();
    registry.reset();
    tls.reset();
    recipient_count.store(0);
}

websocket_transport::websocket_transport(const websocket_configuration& configuration,
                                         transport_limits limits)
    : state_(std::make_unique<state>(configuration, limits)) {}

websocket_transport::~websocket_transport() {
    try {
        stop();
    } catch (...) {
        // A destructor must not throw; stop() can only fail to join.
    }
}

void websocket_transport::start() {
    std::lock_guard lifecycle(state_->lifecycle_mutex);
    state& s = *state_;
    if (running()) return;
    if (s.configuration.port < 1 || s.configuration.port > 65535) {
        throw quelora_exception(QEL_LOG_WARNING, QEL_ERROR_INVALID_VALUE,
                                "The websocket server could not listen on port %d: it is not a port "
                                "number (1 to 65535)",
                                static_cast<int>(s.configuration.port));
    }
    try {
        s.tls = make_tls_context(s.configuration);
        s.io = std::make_unique<asio::io_context>(1);
        s.registry = std::make_unique<session_registry>(s.configuration, s.limits, s.recipient_count);
        s.acceptor = std::make_unique<tcp::acceptor>(*s.io);
        s.retry_timer = std::make_unique<asio::steady_timer>(*s.io);
        const tcp::endpoint endpoint(tcp::v4(), static_cast<unsigned short>(s.configuration.port));
        error_code error;
        // Close-on-exec from birth: a process the host spawns must not keep
        // the port open after stop().
        const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (listener < 0) error = error_code(errno, boost::system::system_category());
        if (!error) {
            s.acceptor->assign(endpoint.protocol(), listener, error);
            if (error) ::close(listener);
        }
        if (!error) s.acceptor->set_option(asio::socket_base::reuse_address(true), error);
        if (!error) s.acceptor->bind(endpoint, error);
        if (!error) s.acceptor->listen(asio::socket_base::max_listen_connections, error);
        if (error) {
            const std::string reason = error.message();
            throw quelora_exception(QEL_LOG_WARNING, QEL_ERROR_INVALID_VALUE,
                                    "The websocket server could not listen on port %d: %s",
                                    static_cast<int>(s.configuration.port), reason.c_str());
        }
        s.work.emplace(s.io->get_executor());
        s.accept_next();
        s.thread = std::thread([&s] { s.run_io(); });
    } catch (const quelora_exception&) {
        s.release();
        throw;
    } catch (const std::exception& exception) {
        s.release();
        throw quelora_exception(QEL_LOG_WARNING, QEL_ERROR_INVALID_VALUE,
                                "The websocket server could not start on port %d: %s",
                                static_cast<int>(s.configuration.port), exception.what());
    }
    {
        std::lock_guard lock(s.mutex);
        s.running = true;
    }
    qel_logger::get_logger().log(QEL_LOG_INFO, "The websocket server is listening on port %d",
                                 static_cast<int>(s.configuration.port));
}

bool websocket_transport::running() const {
    std::lock_guard lock(state_->mutex);
    return state_->running;
}

void websocket_transport::broadcast(std::string text) {
    auto shared = std::make_shared<const std::string>(std::move(text));
    state& s = *state_;
    std::lock_guard lock(s.mutex);
    if (!s.running) return;
    s.pending.push_back(std::move(shared));
    // One drain per batch: it hands over the whole queue in call order,
    // which posts from several threads would not guarantee.
    if (s.pending.size() == 1) asio::post(*s.io, [&s] { s.drain(); });
}

void websocket_transport::stop() {
    std::lock_guard lifecycle(state_->lifecycle_mutex);
    state& s = *state_;
    {
        std::lock_guard lock(s.mutex);
        if (!s.running) return;
        s.running = false;
        s.pending.clear();
    }
    asio::post(*s.io, [&s] { s.close_everything(); });
    s.thread.join();
    s.release();
    qel_logger::get_logger().log(QEL_LOG_INFO, "The websocket server stopped listening on port %d",
                                 static_cast<int>(s.configuration.port));
}

size_t websocket_transport::client_count() const { return state_->recipient_count.load(); }

} // namespace quelora::events
