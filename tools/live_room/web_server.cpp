#include "web_server.h"

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>
#include <boost/beast/websocket.hpp>
#include <boost/beast/websocket/ssl.hpp>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <functional>
#include <deque>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <vector>

namespace quelora::live_room {

namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
namespace net = boost::asio;
using tcp = net::ip::tcp;
using json = nlohmann::json;

namespace {

// A client whose mixes have piled up for this many periods (3 s) cannot keep
// up: it is dropped so that it holds nobody else back.
constexpr uint64_t slow_client_blocks = 300;
constexpr std::size_t text_queue_limit = 256;

const char* mime_type(const std::string& name) {
    const auto ends = [&](const char* suffix) {
        const std::string s(suffix);
        return name.size() >= s.size() && name.compare(name.size() - s.size(), s.size(), s) == 0;
    };
    if (ends(".html")) return "text/html; charset=utf-8";
    if (ends(".js")) return "text/javascript; charset=utf-8";
    if (ends(".css")) return "text/css; charset=utf-8";
    if (ends(".json")) return "application/json";
    if (ends(".png")) return "image/png";
    return "application/octet-stream";
}

// Only plain file names of the page's folder are served: no paths, so
// nothing outside it can be asked for.
bool plain_name(const std::string& name) {
    return !name.empty() && name.size() < 64 && name[0] != '.' &&
           std::all_of(name.begin(), name.end(), [](char c) {
               return std::isalnum(static_cast<unsigned char>(c)) || c == '.' || c == '-' ||
                      c == '_';
           });
}

// What every websocket session offers the server, whatever its stream.
class session_base {
public:
    virtual ~session_base() = default;
    virtual void send_text(std::string text) = 0;
    virtual uint32_t participant() const = 0;
};

} // namespace

struct web_server::state {
    explicit state(net::io_context& io) : acceptor(io), levels_timer(io) {}
    tcp::acceptor acceptor;
    net::steady_timer levels_timer;
    std::vector<std::weak_ptr<session_base>> sessions;
    std::atomic<bool> room_posted{false}; // engine changes may come from a probe's thread
    std::vector<std::thread> probes;      // latency measurements, joined at shutdown
};

namespace {

// One websocket: the participant's microphone in, its mix and the room's
// messages out. Runs on the network thread; the audio thread only wakes it.
template <class Next>
class websocket_session : public session_base,
                          public std::enable_shared_from_this<websocket_session<Next>> {
public:
    websocket_session(Next&& next, conference_host& host, web_server& server,
                      web_server::state& shared)
        : ws_(std::move(next)), host_(host), server_(server), shared_(shared),
          block_(2 * block_frames) {}

    ~websocket_session() override {
        if (member_) host_.leave(member_->id);
    }

    template <class Request> void run(Request request) {
        ws_.set_option(websocket::stream_base::timeout::suggested(beast::role_type::server));
        ws_.read_message_max(1 << 16);
        ws_.async_accept(request, [self = this->shared_from_this()](beast::error_code e) {
            if (!e) self->read();
        });
    }

    void send_text(std::string text) override {
        if (texts_.size() >= text_queue_limit) return close();
        texts_.push_back(std::move(text));
        pump();
    }

    uint32_t participant() const override { return member_ ? member_->id : 0; }

private:
    void read() {
        ws_.async_read(buffer_,
                       [self = this->shared_from_this()](beast::error_code e, std::size_t) {
                           if (e) return self->gone();
                           self->on_message();
                           self->buffer_.consume(self->buffer_.size());
                           self->read();
                       });
    }

    void on_message() {
        if (ws_.got_binary()) {
            if (!member_ || buffer_.size() != block_frames * sizeof(float)) return;
            std::vector<float> block(block_frames);
            net::buffer_copy(net::buffer(block.data(), buffer_.size()), buffer_.data());
            ++member_->received;
            if (!member_->inbound.push(block.data())) ++member_->dropped_in;
            return;
        }
        const json message = json::parse(beast::buffers_to_string(buffer_.data()), nullptr, false);
        if (!message.is_object() || !message.contains("type")) return error("not a message");
        const std::string type = message.value("type", "");
        if (type == "hello" && !member_) {
            std::string name = message.value("name", "Guest").substr(0, 40);
            std::string why;
            member_ = host_.join(name, waker(), why);
            if (!member_) return error(why);
            send_text(host_.welcome_json(member_->id));
            server_.broadcast_room();
        } else if (!member_) {
            error("say hello first");
        } else if (type == "seat") {
            const int code = host_.move(member_->id, message.value("seat", -1));
            if (code != QEL_ERROR_NONE) error(qel_error_code_to_string(code));
        } else if (type == "control") {
            const int code = host_.set_control(member_->id, message.value("control", ""),
                                               message.value("value", -1));
            if (code != QEL_ERROR_NONE) error(qel_error_code_to_string(code));
        } else if (type == "latency_probe") {
            probe_latency();
        } else {
            error("unknown message type " + type);
        }
    }

    // What the audio thread calls when mixes wait: one post per burst of
    // mixes, not per mix. It holds nothing of the session but a weak
    // pointer, because the audio thread may call it once more after the
    // session has gone (it still holds the previous member list).
    std::function<void()> waker() {
        std::weak_ptr<websocket_session> weak = this->shared_from_this();
        auto executor = ws_.get_executor();
        auto posted = std::make_shared<std::atomic<bool>>(false);
        return [weak, executor, posted] {
            if (posted->exchange(true)) return;
            net::post(executor, [weak, posted] {
                posted->store(false);
                if (auto self = weak.lock()) self->pump();
            });
        };
    }

    // One write at a time: the room's texts first, then the waiting mixes.
    void pump() {
        // Checked before anything else: a client that stopped reading leaves
        // its last write pending for good.
        if (member_ && member_->dropped_out > slow_client_blocks) return drop();
        if (writing_ || closing_) return;
        if (!texts_.empty()) {
            writing_ = true;
            ws_.text(true);
            ws_.async_write(net::buffer(texts_.front()),
                            [self = this->shared_from_this()](beast::error_code e, std::size_t) {
                                self->writing_ = false;
                                self->texts_.pop_front();
                                if (e) return self->gone();
                                self->pump();
                            });
            return;
        }
        if (member_ && member_->outbound.pop(block_.data())) {
            writing_ = true;
            ws_.binary(true);
            ws_.async_write(net::buffer(block_.data(), block_.size() * sizeof(float)),
                            [self = this->shared_from_this()](beast::error_code e, std::size_t) {
                                self->writing_ = false;
                                if (e) return self->gone();
                                self->pump();
                            });
        }
    }

    void probe_latency() {
        const uint32_t id = member_->id;
        const double queued_in = static_cast<double>(member_->inbound.size()) * 10.0;
        const double queued_out = static_cast<double>(member_->outbound.size()) * 10.0;
        std::weak_ptr<websocket_session> weak = this->shared_from_this();
        auto executor = ws_.get_executor();
        // One measurement at a time: the previous ones have finished by the
        // time anyone can click again, so these joins do not wait.
        for (std::thread& t : shared_.probes) t.join();
        shared_.probes.clear();
        shared_.probes.emplace_back(
            [this_host = &host_, id, queued_in, queued_out, weak, executor] {
                std::string why;
                const double engine = this_host->measure_engine_delay_ms(id, why);
                json reply;
                if (engine < 0.0) {
                    reply = {{"type", "error"}, {"message", "latency: " + why}};
                } else {
                    // A microphone block waits half a period on average for the
                    // audio thread to take it.
                    const double waiting = 5.0;
                    reply = {{"type", "latency"},
                             {"milliseconds", engine + queued_in + queued_out + waiting},
                             {"parts",
                              {{"engine", engine},
                               {"server_inbound_queue", queued_in},
                               {"server_outbound_queue", queued_out},
                               {"period_wait", waiting}}}};
                }
                net::post(executor, [weak, text = reply.dump()] {
                    if (auto self = weak.lock()) self->send_text(text);
                });
            });
    }

    void error(const std::string& why) {
        send_text(json{{"type", "error"}, {"message", why}}.dump());
    }

    // A hard close: the socket goes, and every pending operation fails.
    void drop() {
        if (closing_) return;
        closing_ = true;
        beast::error_code ignored;
        beast::get_lowest_layer(ws_).socket().close(ignored);
        gone();
    }

    void close() {
        if (closing_) return;
        closing_ = true;
        ws_.async_close(websocket::close_code::policy_error,
                        [self = this->shared_from_this()](beast::error_code) { self->gone(); });
    }

    // Closed, failed or dropped: leave the room at once (not when the last
    // handler lets go), so the others see it go.
    void gone() {
        if (!member_) return;
        host_.leave(member_->id);
        member_.reset();
        server_.broadcast_room();
    }

    websocket::stream<Next> ws_;
    conference_host& host_;
    web_server& server_;
    web_server::state& shared_;
    beast::flat_buffer buffer_;
    std::shared_ptr<member> member_;
    std::deque<std::string> texts_;
    std::vector<float> block_;
    bool writing_ = false;
    bool closing_ = false;
};

// One HTTP connection: files of the page, /stats, or the upgrade to /ws.
template <class Stream>
class http_session : public std::enable_shared_from_this<http_session<Stream>> {
public:
    http_session(Stream&& stream, conference_host& host, web_server& server,
                 web_server::state& shared, std::string web_directory)
        : stream_(std::move(stream)), host_(host), server_(server), shared_(shared),
          web_directory_(std::move(web_directory)) {}

    void run() { read(); }

private:
    void read() {
        request_ = {};
        beast::get_lowest_layer(stream_).expires_after(std::chrono::seconds(30));
        http::async_read(stream_, buffer_, request_,
                         [self = this->shared_from_this()](beast::error_code e, std::size_t) {
                             if (!e) self->respond();
                         });
    }

    void respond() {
        if (websocket::is_upgrade(request_)) {
            if (request_.target() != "/ws") return;
            beast::get_lowest_layer(stream_).expires_never();
            auto ws = std::make_shared<websocket_session<Stream>>(std::move(stream_), host_,
                                                                  server_, shared_);
            shared_.sessions.push_back(ws);
            ws->run(std::move(request_));
            return;
        }
        std::string target(request_.target());
        if (const auto query = target.find('?'); query != std::string::npos) target.resize(query);
        http::status status = http::status::ok;
        std::string body, type = "text/plain; charset=utf-8";
        if (request_.method() != http::verb::get) {
            status = http::status::method_not_allowed;
            body = "GET only\n";
        } else if (target == "/stats") {
            body = host_.stats_json();
            type = "application/json";
        } else {
            const std::string name = target == "/" ? "index.html" : target.substr(1);
            std::ifstream file(web_directory_ + "/" + name, std::ios::binary);
            if (!plain_name(name) || !file) {
                status = http::status::not_found;
                body = "not found\n";
            } else {
                std::stringstream text;
                text << file.rdbuf();
                body = text.str();
                type = mime_type(name);
            }
        }
        auto response =
            std::make_shared<http::response<http::string_body>>(status, request_.version());
        response->set(http::field::content_type, type);
        response->set(http::field::cache_control, "no-store");
        response->keep_alive(request_.keep_alive());
        response->body() = std::move(body);
        response->prepare_payload();
        http::async_write(
            stream_, *response,
            [self = this->shared_from_this(), response](beast::error_code e, std::size_t) {
                if (!e && response->keep_alive()) self->read();
            });
    }

    Stream stream_;
    conference_host& host_;
    web_server& server_;
    web_server::state& shared_;
    std::string web_directory_;
    beast::flat_buffer buffer_;
    http::request<http::string_body> request_;
};

} // namespace

web_server::web_server(net::io_context& io, conference_host& host, const options& o)
    : io_(io), host_(host), web_directory_(o.web_directory), state_(std::make_unique<state>(io)) {
    if (!o.tls_certificate.empty()) {
        tls_.emplace(net::ssl::context::tls_server);
        tls_->use_certificate_chain_file(o.tls_certificate);
        tls_->use_private_key_file(o.tls_key, net::ssl::context::pem);
    }
    const tcp::endpoint endpoint(net::ip::make_address(o.address), o.port);
    state_->acceptor.open(endpoint.protocol());
    state_->acceptor.set_option(net::socket_base::reuse_address(true));
    state_->acceptor.bind(endpoint);
    state_->acceptor.listen();
}

web_server::~web_server() { finish_measurements(); }

void web_server::finish_measurements() {
    for (std::thread& t : state_->probes)
        if (t.joinable()) t.join();
    state_->probes.clear();
}

uint16_t web_server::port() const { return state_->acceptor.local_endpoint().port(); }

void web_server::start() {
    accept();
    tick_levels();
}

void web_server::accept() {
    state_->acceptor.async_accept([this](beast::error_code e, tcp::socket socket) {
        if (e) return;
        socket.set_option(tcp::no_delay(true));
        // A small kernel send buffer (about 170 ms of mixes): audio the
        // client has not taken should pile up where the server sees it and
        // can drop the client, not as seconds of delay inside the kernel.
        socket.set_option(net::socket_base::send_buffer_size(64 * 1024));
        beast::tcp_stream stream(std::move(socket));
        if (!tls_) {
            std::make_shared<http_session<beast::tcp_stream>>(std::move(stream), host_, *this,
                                                              *state_, web_directory_)
                ->run();
        } else {
            auto tls_stream =
                std::make_shared<beast::ssl_stream<beast::tcp_stream>>(std::move(stream), *tls_);
            tls_stream->async_handshake(
                net::ssl::stream_base::server, [this, tls_stream](beast::error_code h) {
                    if (h) return;
                    std::make_shared<http_session<beast::ssl_stream<beast::tcp_stream>>>(
                        std::move(*tls_stream), host_, *this, *state_, web_directory_)
                        ->run();
                });
        }
        accept();
    });
}

// The room again for every session, coalesced: a burst of engine changes
// (a join moves nobody else but notifies several things) sends it once.
void web_server::broadcast_room() {
    if (state_->room_posted.exchange(true)) return;
    net::post(io_, [this] {
        state_->room_posted = false;
        std::erase_if(state_->sessions, [](const auto& weak) { return weak.expired(); });
        for (const auto& weak : state_->sessions)
            if (auto s = weak.lock(); s && s->participant() != 0)
                s->send_text(host_.room_json(s->participant()));
    });
}

void web_server::tick_levels() {
    state_->levels_timer.expires_after(std::chrono::milliseconds(100));
    state_->levels_timer.async_wait([this](beast::error_code e) {
        if (e) return;
        const std::string levels = host_.levels_json();
        for (const auto& weak : state_->sessions)
            if (auto s = weak.lock(); s && s->participant() != 0) s->send_text(levels);
        tick_levels();
    });
}

} // namespace quelora::live_room
