// Part 6.1 (the transport is left to the implementer): the TLS websocket
// transport against the real Python client tests/websocket/ws_client.py.
// start() failures with their messages, the key/value check, byte-exact
// ordered delivery to one, several and fifty clients, clients that leave or
// cannot keep up, stop() with stuck clients, and connections that are not
// websockets at all.
#include "api/quelora_exception.h"
#include "events/websocket_transport.h"
#include "support/log_capture.h"
#include "support/websocket_fixture.h"

#include <gtest/gtest.h>

#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>
#include <openssl/ssl.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <regex>
#include <string>
#include <thread>
#include <vector>

namespace ev = quelora::events;
using namespace std::chrono_literals;
using quelora::testing::client_output;
using quelora::testing::free_tcp_port;
using quelora::testing::log_capture;
using quelora::testing::python_client;
using quelora::testing::read_client_output;
using quelora::testing::test_tls_files;
using quelora::testing::test_websocket_configuration;
using quelora::testing::wait_until;
using quelora::testing::ws_client_arguments;

namespace {

// Generous: the sanitizer builds and a loaded machine are slow; a healthy
// run takes a fraction of this.
constexpr std::chrono::milliseconds deadline = 60s;
const std::string timeout_argument = "120";

class temp_directory {
public:
    temp_directory() {
        char pattern[] = "/tmp/quelora-ws-test-XXXXXX";
        if (mkdtemp(pattern) != nullptr) path_ = pattern;
        EXPECT_FALSE(path_.empty());
    }
    ~temp_directory() {
        std::error_code ignored;
        if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
    }
    std::string file(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

// A transport listening on a free port.
struct server {
    explicit server(const std::string& value = "secret", ev::transport_limits limits = {})
        : port(free_tcp_port()), transport(test_websocket_configuration(port, "token", value), limits) {
        transport.start();
    }
    uint16_t port;
    ev::websocket_transport transport;
};

std::vector<std::string> client(uint16_t port, std::vector<std::string> more) {
    more.insert(more.end(), {"--timeout", timeout_argument});
    return ws_client_arguments(port, std::move(more));
}

void expect_line(python_client& process, const std::string& expected) {
    EXPECT_EQ(process.read_line(deadline).value_or("(no line)"), expected);
}

size_t count_matching(const log_capture& capture, qel_log_level level, const std::string& pattern) {
    const std::regex expression(pattern);
    size_t count = 0;
    for (const auto& message : capture.messages_at(level)) {
        if (std::regex_match(message, expression)) ++count;
    }
    return count;
}

bool logged(const log_capture& capture, qel_log_level level, const std::string& pattern) {
    return wait_until([&] { return count_matching(capture, level, pattern) > 0; }, deadline);
}

// A peer as the transport names it, for patterns.
const std::string peer = R"(127\.0\.0\.1:[0-9]+)";

// Runs start() expecting its one warning line; running() stays false.
void expect_start_failure(ev::websocket_transport& transport, log_capture& capture,
                          const std::string& message) {
    capture.clear();
    try {
        transport.start();
        ADD_FAILURE() << "start() succeeded; expected: " << message;
    } catch (const quelora_exception& exception) {
        EXPECT_EQ(exception.error_code(), QEL_ERROR_INVALID_VALUE);
        EXPECT_EQ(std::string(exception.what()), message);
    }
    const auto lines = capture.lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].level, QEL_LOG_WARNING);
    EXPECT_EQ(lines[0].message, message);
    EXPECT_FALSE(transport.running());
    EXPECT_EQ(transport.client_count(), 0u);
}

void expect_start_success(ev::websocket_transport& transport, log_capture& capture, uint16_t port) {
    capture.clear();
    transport.start();
    EXPECT_TRUE(transport.running());
    EXPECT_EQ(capture.messages_at(QEL_LOG_INFO),
              std::vector<std::string>{"The websocket server is listening on port " + std::to_string(port)});
}

void copy_file(const std::string& from, const std::string& to) {
    std::filesystem::copy_file(from, to, std::filesystem::copy_options::overwrite_existing);
}

// A client that connects and receives `count` messages; waits for its
// "connected" line.
struct listening_client {
    listening_client(uint16_t port, size_t count, std::vector<std::string> more = {"--header", "token=secret"})
        : process([&] {
              more.insert(more.end(), {"--count", std::to_string(count)});
              return client(port, more);
          }()) {
        expect_line(process, "connected 1");
    }
    // Its messages, after "done" and a clean exit.
    std::vector<std::string> messages() {
        client_output output = read_client_output(process, 1, "done", deadline);
        EXPECT_TRUE(output.terminated) << "last line: " << output.last_line;
        EXPECT_EQ(process.wait_exit(deadline), 0);
        return output.messages[0];
    }
    python_client process;
};

std::string sized_text(size_t index, size_t bytes) {
    std::string text = "#" + std::to_string(index) + " ";
    text.resize(bytes, static_cast<char>('a' + index % 26));
    return text;
}

} // namespace

// ---- start() ---------------------------------------------------------------

TEST(Part6_1_WebsocketTransportStart, MissingCertificateFileThenItAppears) {
    log_capture capture;
    temp_directory directory;
    auto configuration = test_websocket_configuration(free_tcp_port());
    configuration.cert_file_name = directory.file("cert.pem");
    ev::websocket_transport transport(configuration);
    expect_start_failure(transport, capture,
                         "The websocket server could not load the certificate file '" +
                             configuration.cert_file_name + "': No such file or directory");
    copy_file(test_tls_files().cert, configuration.cert_file_name);
    expect_start_success(transport, capture, static_cast<uint16_t>(configuration.port));
}

TEST(Part6_1_WebsocketTransportStart, CertificateFileThatIsNoCertificate) {
    log_capture capture;
    temp_directory directory;
    auto configuration = test_websocket_configuration(free_tcp_port());
    configuration.cert_file_name = directory.file("cert.pem");
    copy_file(test_tls_files().dh, configuration.cert_file_name);
    ev::websocket_transport transport(configuration);
    expect_start_failure(transport, capture,
                         "The websocket server could not load the certificate file '" +
                             configuration.cert_file_name + "': no start line");
}

TEST(Part6_1_WebsocketTransportStart, MissingKeyFileThenItAppears) {
    log_capture capture;
    temp_directory directory;
    auto configuration = test_websocket_configuration(free_tcp_port());
    configuration.key_file_name = directory.file("key.pem");
    ev::websocket_transport transport(configuration);
    expect_start_failure(transport, capture,
                         "The websocket server could not load the private key file '" +
                             configuration.key_file_name + "': No such file or directory");
    copy_file(test_tls_files().key, configuration.key_file_name);
    expect_start_success(transport, capture, static_cast<uint16_t>(configuration.port));
}

TEST(Part6_1_WebsocketTransportStart, WrongPassPhrase) {
    log_capture capture;
    auto configuration = test_websocket_configuration(free_tcp_port());
    configuration.passphrase = "not the pass phrase";
    ev::websocket_transport transport(configuration);
    expect_start_failure(transport, capture,
                         "The websocket server could not load the private key file '" +
                             configuration.key_file_name + "' (wrong pass phrase?): bad decrypt");
    // Still refused the second time: nothing was left half set up.
    expect_start_failure(transport, capture,
                         "The websocket server could not load the private key file '" +
                             configuration.key_file_name + "' (wrong pass phrase?): bad decrypt");
}

TEST(Part6_1_WebsocketTransportStart, MissingDiffieHellmanFileThenItAppears) {
    log_capture capture;
    temp_directory directory;
    auto configuration = test_websocket_configuration(free_tcp_port());
    configuration.dh_params_file_name = directory.file("dh.pem");
    ev::websocket_transport transport(configuration);
    expect_start_failure(transport, capture,
                         "The websocket server could not load the Diffie-Hellman parameters file '" +
                             configuration.dh_params_file_name + "': No such file or directory");
    copy_file(test_tls_files().dh, configuration.dh_params_file_name);
    expect_start_success(transport, capture, static_cast<uint16_t>(configuration.port));
}

TEST(Part6_1_WebsocketTransportStart, PortInUseThenFreed) {
    log_capture capture;
    const uint16_t port = free_tcp_port();
    const int holder = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(holder, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    address.sin_port = htons(port);
    ASSERT_EQ(bind(holder, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(listen(holder, 1), 0);

    ev::websocket_transport transport(test_websocket_configuration(port));
    expect_start_failure(transport, capture,
                         "The websocket server could not listen on port " + std::to_string(port) +
                             ": Address already in use");
    close(holder);
    expect_start_success(transport, capture, port);
    listening_client listener(port, 1);
    transport.broadcast("after the port was freed");
    EXPECT_EQ(listener.messages(), std::vector<std::string>{"after the port was freed"});
}

TEST(Part6_1_WebsocketTransportStart, PortOutsideOneTo65535) {
    // The configuration reader refuses these already; the transport does not
    // rely on it (port 0 would listen where no client can know).
    log_capture capture;
    for (int32_t port : {0, -1, 65536}) {
        auto configuration = test_websocket_configuration(1);
        configuration.port = port;
        ev::websocket_transport transport(configuration);
        expect_start_failure(transport, capture,
                             "The websocket server could not listen on port " + std::to_string(port) +
                                 ": it is not a port number (1 to 65535)");
    }
}

// ---- authentication --------------------------------------------------------

TEST(Part6_1_WebsocketTransportAuthentication, NoKeyIsRefusedWith401) {
    log_capture capture;
    server s;
    python_client process(client(s.port, {"--count", "1"}));
    expect_line(process, "refused 401");
    EXPECT_EQ(process.wait_exit(deadline), 3);
    EXPECT_EQ(count_matching(capture, QEL_LOG_WARNING,
                             "The websocket server refused a connection from " + peer +
                                 ": missing authentication"),
              1u);
    EXPECT_EQ(s.transport.client_count(), 0u);
}

TEST(Part6_1_WebsocketTransportAuthentication, WrongValueIsRefusedWith401) {
    log_capture capture;
    server s;
    python_client by_header(client(s.port, {"--header", "token=Secret", "--count", "1"}));
    expect_line(by_header, "refused 401");
    EXPECT_EQ(by_header.wait_exit(deadline), 3);
    python_client by_query(client(s.port, {"--query", "token=secret ", "--count", "1"}));
    expect_line(by_query, "refused 401");
    EXPECT_EQ(by_query.wait_exit(deadline), 3);
    EXPECT_EQ(count_matching(capture, QEL_LOG_WARNING,
                             "The websocket server refused a connection from " + peer +
                                 ": wrong authentication value"),
              2u);
    EXPECT_EQ(s.transport.client_count(), 0u);
}

TEST(Part6_1_WebsocketTransportAuthentication, RightHeaderIsAccepted) {
    log_capture capture;
    server s;
    listening_client listener(s.port, 1);
    EXPECT_EQ(s.transport.client_count(), 1u);
    s.transport.broadcast("{\"Event\":\"create_room\",\"room_id\":1}");
    EXPECT_EQ(listener.messages(), std::vector<std::string>{"{\"Event\":\"create_room\",\"room_id\":1}"});
    EXPECT_EQ(count_matching(capture, QEL_LOG_INFO, "The websocket client " + peer + " connected"), 1u);
    EXPECT_EQ(count_matching(capture, QEL_LOG_WARNING, ".*"), 0u);
}

TEST(Part6_1_WebsocketTransportAuthentication, RightQueryParameterIsAcceptedPercentDecoded) {
    log_capture capture;
    const std::string value = "s3cret value&=+/\xc3\xbc";
    server s(value);
    // ws_client.py form-encodes the parameter: spaces as '+', the rest as %XY.
    listening_client listener(s.port, 1, {"--query", "token=" + value});
    EXPECT_EQ(s.transport.client_count(), 1u);
    s.transport.broadcast("by query");
    EXPECT_EQ(listener.messages(), std::vector<std::string>{"by query"});
}

namespace {

struct https_result {
    boost::system::error_code failure;
    boost::beast::http::response<boost::beast::http::string_body> response;
};

// A plain HTTPS GET (no upgrade) with the key in the query, over TLS
// versions min..max. Asynchronous, so that a server that never answers
// fails the test instead of hanging it.
https_result https_get(uint16_t port, int min_version, int max_version) {
    namespace beast = boost::beast;
    namespace http = boost::beast::http;
    namespace ssl = boost::asio::ssl;
    boost::asio::io_context io;
    ssl::context tls(ssl::context::tls_client);
    tls.load_verify_file(test_tls_files().cert);
    tls.set_verify_mode(ssl::verify_peer);
    // Security level 0 lets this client offer the old versions at all, so
    // that a refusal is the server's.
    SSL_CTX_set_security_level(tls.native_handle(), 0);
    SSL_CTX_set_min_proto_version(tls.native_handle(), min_version);
    SSL_CTX_set_max_proto_version(tls.native_handle(), max_version);
    beast::ssl_stream<beast::tcp_stream> stream(io, tls);
    EXPECT_TRUE(SSL_set_tlsext_host_name(stream.native_handle(), "localhost"));
    http::request<http::empty_body> request{http::verb::get, "/?token=secret", 11};
    request.set(http::field::host, "localhost");
    beast::flat_buffer buffer;
    https_result result;
    beast::get_lowest_layer(stream).expires_after(deadline);
    const boost::asio::ip::tcp::endpoint endpoint(boost::asio::ip::make_address("127.0.0.1"), port);
    beast::get_lowest_layer(stream).async_connect(endpoint, [&](beast::error_code error) {
        if (error) return void(result.failure = error);
        stream.async_handshake(ssl::stream_base::client, [&](beast::error_code handshake_error) {
            if (handshake_error) return void(result.failure = handshake_error);
            http::async_write(stream, request, [&](beast::error_code write_error, size_t) {
                if (write_error) return void(result.failure = write_error);
                http::async_read(stream, buffer, result.response,
                                 [&](beast::error_code read_error, size_t) { result.failure = read_error; });
            });
        });
    });
    io.run();
    return result;
}

} // namespace

TEST(Part6_1_WebsocketTransportAuthentication, PlainHttpsRequestGetsA401Response) {
    namespace http = boost::beast::http;
    log_capture capture;
    server s;
    for (int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
        capture.clear();
        const https_result result = https_get(s.port, version, version);
        ASSERT_FALSE(result.failure) << result.failure.message() << " (TLS version " << version << ")";
        EXPECT_EQ(result.response.result(), http::status::unauthorized);
        EXPECT_FALSE(result.response.keep_alive());
        EXPECT_EQ(result.response[http::field::server], "Quelora");
        EXPECT_EQ(result.response.body(), "Unauthorized\n");
        EXPECT_TRUE(logged(capture, QEL_LOG_WARNING,
                           "The websocket server refused a connection from " + peer +
                               ": not a websocket upgrade request"));
    }
    EXPECT_EQ(s.transport.client_count(), 0u);
}

TEST(Part6_1_WebsocketTransportAuthentication, TlsBelow1_2IsRefused) {
    log_capture capture;
    server s;
    for (int version : {TLS1_VERSION, TLS1_1_VERSION}) {
        capture.clear();
        const https_result result = https_get(s.port, version, version);
        EXPECT_TRUE(result.failure) << "TLS version " << version << " was accepted";
        EXPECT_TRUE(logged(capture, QEL_LOG_WARNING,
                           "The websocket server refused a connection from " + peer +
                               ": the TLS handshake failed: .+"));
    }
}

// ---- delivery --------------------------------------------------------------

TEST(Part6_1_WebsocketTransport, OneClientReceives200BroadcastsByteExactInOrder) {
    log_capture capture;
    server s;
    std::vector<std::string> sent;
    for (size_t i = 0; i < 200; ++i) sent.push_back("{\"Event\":\"set_name\",\"n\":" + std::to_string(i) + "}");
    sent[3] = "gr\xc3\xbc\xc3\x9f Gott \xe2\x82\xac \xf0\x9f\x8e\xa7 \xe6\x97\xa5\xe6\x9c\xac";
    sent[4] = "line one\nline two\t\"quoted\" back\\slash \x01";
    sent[5] = std::string("nul\0inside", 10);
    sent[6] = "";
    std::string large;
    while (large.size() < 100000) large += "100 KB \xc3\xa9t\xc3\xa9 " + std::to_string(large.size()) + ";";
    sent[100] = large;
    listening_client listener(s.port, sent.size());
    for (const auto& text : sent) s.transport.broadcast(text);
    const auto received = listener.messages();
    ASSERT_EQ(received.size(), sent.size());
    for (size_t i = 0; i < sent.size(); ++i) EXPECT_EQ(received[i], sent[i]) << "message " << i;
}

TEST(Part6_1_WebsocketTransport, BroadcastsFromFourThreadsKeepEachThreadsOrder) {
    log_capture capture;
    server s;
    constexpr size_t threads = 4;
    constexpr size_t per_thread = 250;
    listening_client listener(s.port, threads * per_thread);
    std::atomic<bool> go{false};
    std::vector<std::thread> senders;
    for (size_t t = 0; t < threads; ++t) {
        senders.emplace_back([&, t] {
            while (!go.load()) std::this_thread::yield();
            for (size_t k = 0; k < per_thread; ++k) {
                s.transport.broadcast(std::to_string(t) + " " + std::to_string(k));
            }
        });
    }
    go.store(true);
    for (auto& sender : senders) sender.join();
    const auto received = listener.messages();
    ASSERT_EQ(received.size(), threads * per_thread);
    std::vector<size_t> next(threads, 0);
    for (const auto& text : received) {
        const size_t space = text.find(' ');
        ASSERT_NE(space, std::string::npos) << text;
        const size_t t = std::stoul(text.substr(0, space));
        ASSERT_LT(t, threads) << text;
        EXPECT_EQ(std::stoul(text.substr(space + 1)), next[t]) << "thread " << t;
        ++next[t];
    }
    EXPECT_EQ(next, std::vector<size_t>(threads, per_thread));
}

TEST(Part6_1_WebsocketTransport, FiftyClientsEachReceiveEveryMessageInOrder) {
    log_capture capture;
    server s;
    constexpr size_t clients = 50;
    python_client process(client(s.port, {"--header", "token=secret", "--clients", std::to_string(clients),
                                          "--count", "100"}));
    expect_line(process, "connected 50");
    // Each client is a recipient before its 101 response went out.
    EXPECT_EQ(s.transport.client_count(), clients);
    std::vector<std::string> sent;
    for (size_t i = 0; i < 100; ++i) {
        sent.push_back("message " + std::to_string(i));
        s.transport.broadcast(sent.back());
    }
    client_output output = read_client_output(process, clients, "done", deadline);
    EXPECT_TRUE(output.terminated) << "last line: " << output.last_line;
    for (size_t i = 0; i < clients; ++i) EXPECT_EQ(output.messages[i], sent) << "client " << i;
    EXPECT_EQ(process.wait_exit(deadline), 0);
    // Their clean closes are noticed.
    EXPECT_TRUE(wait_until([&] { return s.transport.client_count() == 0; }, deadline));
    EXPECT_TRUE(wait_until(
        [&] {
            return count_matching(capture, QEL_LOG_INFO,
                                  "The websocket client " + peer + " closed the connection") == clients;
        },
        deadline));
    EXPECT_EQ(count_matching(capture, QEL_LOG_WARNING, ".*"), 0u);
}

TEST(Part6_1_WebsocketTransport, AClientThatDisconnectsMidStreamLeavesTheOthersServed) {
    log_capture capture;
    server s;
    listening_client stayer(s.port, 50);
    python_client leaver(
        client(s.port, {"--header", "token=secret", "--mode", "disconnect-after", "--after", "5"}));
    expect_line(leaver, "connected 1");
    EXPECT_EQ(s.transport.client_count(), 2u);
    std::vector<std::string> sent;
    for (size_t i = 0; i < 50; ++i) sent.push_back("event " + std::to_string(i));
    for (size_t i = 0; i < 25; ++i) s.transport.broadcast(sent[i]);

    client_output left = read_client_output(leaver, 1, "aborted", deadline);
    EXPECT_TRUE(left.terminated) << "last line: " << left.last_line;
    EXPECT_EQ(left.messages[0], std::vector<std::string>(sent.begin(), sent.begin() + 5));
    EXPECT_EQ(leaver.wait_exit(deadline), 0);
    EXPECT_TRUE(wait_until([&] { return s.transport.client_count() == 1; }, deadline));
    EXPECT_TRUE(logged(capture, QEL_LOG_WARNING, "The websocket client " + peer + " disconnected: .+"));

    for (size_t i = 25; i < 50; ++i) s.transport.broadcast(sent[i]);
    EXPECT_EQ(stayer.messages(), sent);
}

namespace {

// A never-reading client and a reading one; 64 KiB texts are broadcast one
// at a time, each only after the reading client has reported the one
// before, so that only the never-reading client falls behind. It must be
// dropped with `waiting` messages reported, the other must get everything.
void never_reading_client_is_dropped(ev::transport_limits limits, size_t waiting) {
    log_capture capture;
    server s("secret", limits);
    python_client stuck(client(s.port, {"--header", "token=secret", "--mode", "never-read"}));
    expect_line(stuck, "connected 1"); // first: it gets each text before the reader
    constexpr size_t count = 400;
    python_client reader(
        client(s.port, {"--header", "token=secret", "--count", std::to_string(count), "--progress"}));
    expect_line(reader, "connected 1");
    ASSERT_EQ(s.transport.client_count(), 2u);

    std::vector<std::string> sent;
    size_t dropped_after = 0;
    for (size_t k = 0; k < count; ++k) {
        sent.push_back(sized_text(k, 64 * 1024));
        s.transport.broadcast(sent.back());
        auto line = reader.read_line(deadline);
        ASSERT_EQ(line.value_or("(no line)"), "received 0 " + std::to_string(k + 1));
        if (dropped_after == 0 && s.transport.client_count() == 1) dropped_after = k + 1;
    }
    std::cout << "[          ] the never-reading client was dropped after " << dropped_after
              << " messages of 64 KiB\n";
    EXPECT_GT(dropped_after, 0u) << "never dropped";
    client_output output = read_client_output(reader, 1, "done", deadline);
    EXPECT_TRUE(output.terminated) << "last line: " << output.last_line;
    EXPECT_EQ(output.messages[0], sent);
    EXPECT_EQ(reader.wait_exit(deadline), 0);
    EXPECT_EQ(count_matching(capture, QEL_LOG_WARNING,
                             "The websocket client " + peer +
                                 " could not keep up and was disconnected \\(" + std::to_string(waiting) +
                                 " messages waiting\\)"),
              1u);
    EXPECT_EQ(count_matching(capture, QEL_LOG_WARNING, ".*"), 1u);
    EXPECT_TRUE(wait_until([&] { return s.transport.client_count() == 0; }, deadline));
}

} // namespace

TEST(Part6_1_WebsocketTransport, ANeverReadingClientIsDroppedAtItsByteBound) {
    // 4 texts of 64 KiB fill 256 KiB: the fifth would exceed it.
    never_reading_client_is_dropped({64, 256 * 1024, 10000ms, 4096}, 4);
}

TEST(Part6_1_WebsocketTransport, ANeverReadingClientIsDroppedAtItsMessageBound) {
    never_reading_client_is_dropped({8, 8 << 20, 10000ms, 4096}, 8);
}

// ---- stop() ----------------------------------------------------------------

TEST(Part6_1_WebsocketTransportStop, StopWithConnectedAndStuckClientsIsPrompt) {
    log_capture capture;
    server s;
    python_client stuck(client(s.port, {"--header", "token=secret", "--mode", "never-read"}));
    expect_line(stuck, "connected 1");
    python_client reader(client(s.port, {"--header", "token=secret", "--count", "1000000", "--progress"}));
    expect_line(reader, "connected 1");
    // Enough that the never-reading client's write is stuck with megabytes
    // queued behind it.
    for (size_t k = 0; k < 100; ++k) s.transport.broadcast(sized_text(k, 64 * 1024));
    for (size_t k = 0; k < 100; ++k) expect_line(reader, "received 0 " + std::to_string(k + 1));
    ASSERT_EQ(s.transport.client_count(), 2u);

    capture.clear();
    const auto before = std::chrono::steady_clock::now();
    s.transport.stop();
    const auto took = std::chrono::steady_clock::now() - before;
    const auto took_us = std::chrono::duration_cast<std::chrono::microseconds>(took).count();
    std::cout << "[          ] stop() with 2 clients took " << took_us << " us\n";
    EXPECT_LT(took, 5s); // a hang guard only
    EXPECT_FALSE(s.transport.running());
    EXPECT_EQ(s.transport.client_count(), 0u);
    EXPECT_EQ(capture.messages(),
              std::vector<std::string>{"The websocket server stopped listening on port " + std::to_string(s.port)});
    // The reading client sees the connection end without a close frame.
    client_output output = read_client_output(reader, 1, "done", deadline);
    EXPECT_EQ(output.last_line, "closed 1006");
    EXPECT_EQ(reader.wait_exit(deadline), 5);
    // Nothing listens any more.
    python_client late(client(s.port, {"--header", "token=secret", "--count", "1"}));
    EXPECT_EQ(late.wait_exit(deadline), 6);
}

TEST(Part6_1_WebsocketTransportStop, DestructionWithoutStartAndRepeatedStop) {
    log_capture capture;
    {
        ev::websocket_transport never_started(test_websocket_configuration(free_tcp_port()));
        EXPECT_FALSE(never_started.running());
        never_started.broadcast("nobody listens");
        never_started.stop();
        EXPECT_EQ(never_started.client_count(), 0u);
    }
    EXPECT_TRUE(capture.lines().empty());

    const uint16_t port = free_tcp_port();
    ev::websocket_transport transport(test_websocket_configuration(port));
    expect_start_success(transport, capture, port);
    transport.stop();
    transport.stop();
    EXPECT_FALSE(transport.running());
    EXPECT_EQ(capture.count("The websocket server stopped listening on port " + std::to_string(port)), 1u);
    transport.broadcast("after stop");
    // A stopped transport starts again on the same port.
    expect_start_success(transport, capture, port);
    listening_client listener(port, 1);
    transport.broadcast("second run");
    EXPECT_EQ(listener.messages(), std::vector<std::string>{"second run"});
}

// ---- connections that are not websockets ----------------------------------

namespace {

int connect_raw(uint16_t port) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_GE(fd, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    return fd;
}

// True when the server ends the connection (end of stream or reset)
// before the deadline; what it sends before (a TLS alert) is skipped.
bool closed_by_server(int fd, std::chrono::milliseconds limit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    for (;;) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
        if (left.count() <= 0) return false;
        pollfd descriptor{fd, POLLIN, 0};
        if (poll(&descriptor, 1, static_cast<int>(left.count())) <= 0) continue;
        char block[4096];
        if (recv(fd, block, sizeof block, 0) <= 0) return true;
    }
}

} // namespace

TEST(Part6_1_WebsocketTransportRobustness, GarbageAndSilentConnectionsAreClosed) {
    log_capture capture;
    ev::transport_limits limits;
    limits.handshake_timeout = 500ms;
    server s("secret", limits);

    const int garbage = connect_raw(s.port);
    const std::string request = "GET / HTTP/1.1\r\nHost: localhost\r\n\r\n";
    ASSERT_EQ(send(garbage, request.data(), request.size(), MSG_NOSIGNAL), static_cast<ssize_t>(request.size()));
    EXPECT_TRUE(closed_by_server(garbage, deadline));
    close(garbage);
    EXPECT_TRUE(logged(capture, QEL_LOG_WARNING,
                       "The websocket server refused a connection from " + peer +
                           ": the TLS handshake failed: .+"));

    const auto before = std::chrono::steady_clock::now();
    const int silent = connect_raw(s.port);
    EXPECT_TRUE(closed_by_server(silent, deadline));
    const auto waited = std::chrono::steady_clock::now() - before;
    close(silent);
    EXPECT_GE(waited, 450ms);
    EXPECT_TRUE(logged(capture, QEL_LOG_WARNING,
                       "The websocket server refused a connection from " + peer +
                           ": the handshake did not finish within 500 ms"));
    EXPECT_EQ(s.transport.client_count(), 0u);

    // The handshake deadline ends with the upgrade: a client that stays
    // longer than it is served.
    listening_client listener(s.port, 2);
    s.transport.broadcast("still serving");
    std::this_thread::sleep_for(700ms); // longer than the handshake deadline, on purpose
    s.transport.broadcast("still serving later");
    EXPECT_EQ(listener.messages(), (std::vector<std::string>{"still serving", "still serving later"}));
    EXPECT_TRUE(wait_until([&] { return s.transport.client_count() == 0; }, deadline));
}

TEST(Part6_1_WebsocketTransportRobustness, ConnectionsBeyondTheLimitAreClosed) {
    log_capture capture;
    ev::transport_limits limits;
    limits.max_connections = 1;
    server s("secret", limits);
    python_client first(client(s.port, {"--header", "token=secret", "--count", "1"}));
    expect_line(first, "connected 1");

    const int second = connect_raw(s.port);
    EXPECT_TRUE(closed_by_server(second, deadline));
    close(second);
    EXPECT_TRUE(logged(capture, QEL_LOG_WARNING,
                       "The websocket server refused a connection from " + peer +
                           ": 1 connections are open, the most it keeps"));

    // Once the first client has gone, a new one is served.
    s.transport.broadcast("to the first");
    EXPECT_EQ(first.wait_exit(deadline), 0);
    EXPECT_TRUE(wait_until([&] { return s.transport.client_count() == 0; }, deadline));
    listening_client third(s.port, 1);
    s.transport.broadcast("to the third");
    EXPECT_EQ(third.messages(), std::vector<std::string>{"to the third"});
}
