// The TLS websocket transport against the Python client ws_client.py: start failures, the key
// check, byte-exact ordered delivery to many clients, clients that leave or fall behind.
#include "api/quelora_exception.h"
#include "events/websocket_transport.h"
#include "support/log_capture.h"
#include "support/websocket_fixture.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <poll.h>

#include <filesystem>
#include <memory>
#include <regex>
#include <string>
#include <thread>
#include <vector>

namespace ev = quelora::events;
using namespace quelora::testing;
using strings = std::vector<std::string>;

namespace {

const std::string client_pattern = R"(The websocket client 127\.0\.0\.1:[0-9]+)";
const std::string refused_pattern =
    R"(The websocket server refused a connection from 127\.0\.0\.1:[0-9]+: )";

size_t count_matching(const log_capture& capture, qel_log_level level, const std::string& pattern) {
    size_t count = 0;
    for (const auto& message : capture.messages_at(level))
        count += std::regex_match(message, std::regex(pattern));
    return count;
}

struct server {
    explicit server(const std::string& value = "secret", ev::transport_limits limits = {})
        : port(free_tcp_port()), transport(test_websocket_configuration(port, value), limits) {
        transport.start();
    }
    uint16_t port;
    ev::websocket_transport transport;
};

void expect_start(ev::websocket_transport& transport, int32_t port) {
    log_capture capture;
    transport.start();
    EXPECT_EQ(capture.messages(),
              strings{"The websocket server is listening on port " + std::to_string(port)});
}

} // namespace

TEST(WebsocketTransport, StartFailuresNameTheFileOrPortAndARetrySucceeds) {
    const tls_files& tls = test_tls_files();
    const std::string cert = "The websocket server could not load the certificate file '@': ";
    const std::string key = "The websocket server could not load the private key file '@'";
    const std::string dh =
        "The websocket server could not load the Diffie-Hellman parameters file '@': ";
    using c = ev::websocket_configuration;
    // The file given a scratch path, what is there first ("": nothing), the message ('@': the
    // scratch path), and what is copied there before the retry.
    const std::vector<std::tuple<std::string c::*, std::string, std::string, std::string>> rows = {
        {&c::cert_file_name, "", cert + "No such file or directory", tls.cert},
        {&c::cert_file_name, tls.dh, cert + "no start line", tls.cert},
        {&c::key_file_name, "", key + ": No such file or directory", tls.key},
        {&c::key_file_name, tls.cert, key + " (wrong pass phrase?): unsupported", tls.key},
        {&c::key_file_name, tls.other_key, key + " (wrong pass phrase?): bad decrypt", tls.key},
        {&c::dh_params_file_name, "", dh + "No such file or directory", tls.dh},
        {&c::dh_params_file_name, tls.cert, dh + "no start line", tls.dh}};
    const auto expect_start_failure = [](ev::websocket_transport& transport,
                                         const std::string& message) {
        for (int attempt = 0; attempt < 2; ++attempt) { // nothing is left half set up
            log_capture capture;
            try {
                transport.start();
                ADD_FAILURE() << "started";
            } catch (const quelora_exception& e) {
                EXPECT_EQ(e.error_code(), QEL_ERROR_INVALID_VALUE);
            }
            EXPECT_EQ(capture.messages_at(QEL_LOG_WARNING), strings{message});
            EXPECT_FALSE(transport.running());
        }
    };
    for (size_t i = 0; i < rows.size(); ++i) {
        const auto& [file, first, message, fix] = rows[i];
        auto configuration = test_websocket_configuration(free_tcp_port());
        const std::string path = tls.directory + "/scratch" + std::to_string(i) + ".pem";
        configuration.*file = path;
        if (!first.empty()) std::filesystem::copy_file(first, path);
        ev::websocket_transport transport(configuration);
        expect_start_failure(transport, std::regex_replace(message, std::regex("@"), path));
        std::filesystem::copy_file(fix, path, std::filesystem::copy_options::overwrite_existing);
        expect_start(transport, configuration.port);
    }
    // Ports no client could reach; a port taken by another transport until that stops.
    auto holder = std::make_unique<server>();
    const uint16_t holder_port = holder->port;
    for (const int32_t port : {0, -1, 65536, int32_t{holder_port}}) {
        auto configuration = test_websocket_configuration(1);
        configuration.port = port;
        ev::websocket_transport transport(configuration);
        expect_start_failure(
            transport, "The websocket server could not listen on port " + std::to_string(port) +
                           (port == holder_port ? ": Address already in use"
                                                : ": it is not a port number (1 to 65535)"));
        if (port != holder_port) continue;
        holder.reset();
        expect_start(transport, port);
    }
}

TEST(WebsocketTransport, RefusesClientsWithoutTheKeyAndServesEveryOtherByteExactInOrder) {
    log_capture capture;
    // Accepted by a header carrying it as is, or by a query parameter once form-decoded.
    const std::string value = "s3cret value&=+/", query = "x=1&&token=s3cret+value%26%3d%2B%2f";
    server s(value);
    // Client arguments, the start of its one line, its exit code, the reason logged.
    // clang-format off
    const std::vector<std::tuple<strings, std::string, int, std::string>> refused = {
        {{},                                      "refused 401", 3, "missing authentication"},
        {{"--query", query.substr(0, query.size() - 1)}, "refused 401", 3,
         "missing authentication"}, // "%2" is cut short
        {{"--header", "token=" + value + "x"},    "refused 401", 3, "wrong authentication value"},
        {{"--query", query + "+"},                "refused 401", 3, "wrong authentication value"},
        {{"--mode", "get", "--query", query}, R"(status 401 Quelora "Unauthorized\n")", 0,
         "not a websocket upgrade request"}};
    // clang-format on
    for (const auto& [arguments, line, exit_code, reason] : refused) {
        capture.clear();
        python_client client(s.port, arguments);
        EXPECT_EQ(client.read_line().substr(0, line.size()), line);
        EXPECT_EQ(client.wait_exit(), exit_code) << line;
        EXPECT_TRUE(wait_until([&] { return !capture.messages_at(QEL_LOG_WARNING).empty(); }));
        EXPECT_EQ(count_matching(capture, QEL_LOG_WARNING, refused_pattern + reason), 1u) << reason;
        EXPECT_EQ(s.transport.client_count(), 0u);
    }
    capture.clear();
    python_client many(s.port, {"--header", "token=" + value, "--clients", "50", "--count", "500"});
    python_client by_query(s.port, {"--query", query, "--count", "500"});
    ASSERT_EQ(many.read_line(), "connected 50");
    ASSERT_EQ(by_query.read_line(), "connected 1");
    EXPECT_EQ(s.transport.client_count(), 51u); // recipients before their 101 response went out

    strings sent = {
        "gr\xc3\xbc\xc3\x9f Gott \xe2\x82\xac \xf0\x9f\x8e\xa7 \xe6\x97\xa5\xe6\x9c\xac",
        "line one\nline two\t\"quoted\" back\\slash \x01", std::string("nul\0inside", 10), "",
        std::string(100000, 'x') + "\xc3\xa9t\xc3\xa9"};
    while (sent.size() < 100)
        sent.push_back(R"({"Event":"set_name","n":)" + std::to_string(sent.size()) + "}");
    for (const auto& text : sent) s.transport.broadcast(text);
    // Then four threads at once: each thread's texts keep its order.
    std::vector<std::thread> senders;
    for (size_t t = 0; t < 4; ++t) {
        senders.emplace_back([&s, t] {
            for (size_t k = 0; k < 100; ++k)
                s.transport.broadcast(std::to_string(t) + " " + std::to_string(k));
        });
    }
    for (auto& sender : senders) sender.join();

    auto outputs = many.read_output(50, "done");
    outputs.push_back(by_query.read_output(1, "done")[0]);
    const strings& first = outputs[0];
    ASSERT_EQ(first.size(), 500u);
    for (size_t i = 0; i < sent.size(); ++i) EXPECT_EQ(first[i], sent[i]) << "message " << i;
    std::vector<size_t> next(4, 0);
    for (size_t i = sent.size(); i < first.size(); ++i) {
        const size_t t = std::min<size_t>(std::stoul(first[i]), 3);
        EXPECT_EQ(first[i], std::to_string(t) + " " + std::to_string(next[t]++));
    }
    for (size_t c = 1; c < outputs.size(); ++c) EXPECT_TRUE(outputs[c] == first) << "client " << c;
    EXPECT_EQ(many.wait_exit() + by_query.wait_exit(), 0);
    EXPECT_TRUE(wait_until([&] {
        return count_matching(capture, QEL_LOG_INFO, client_pattern + " closed the connection") ==
               51;
    }));
    EXPECT_EQ(count_matching(capture, QEL_LOG_INFO, client_pattern + " connected"), 51u);
    EXPECT_EQ(s.transport.client_count(), 0u);
    EXPECT_EQ(capture.messages_at(QEL_LOG_WARNING), strings{});
}

TEST(WebsocketTransport, DropsClientsThatLeaveOrFallBehindAndServesTheRest) {
    log_capture capture;
    server s("secret", ev::transport_limits{8, 256 * 1024});
    // Each text is broadcast once the reader has reported the one before, so
    // that only the never-reading clients fall behind.
    python_client reader(s.port, with_key({"--count", "1000000", "--progress"}));
    EXPECT_EQ(reader.read_line(), "connected 1");
    size_t sent = 0;
    const auto send = [&](const std::string& text) {
        s.transport.broadcast(text);
        EXPECT_EQ(reader.read_line(), "received 0 " + std::to_string(++sent));
    };
    {
        python_client leaver(s.port, with_key({"--mode", "disconnect-after", "--count", "3"}));
        EXPECT_EQ(leaver.read_line(), "connected 1");
        for (const char* text : {"one", "two", "three"}) send(text);
        EXPECT_EQ(leaver.read_output(1, "aborted")[0], (strings{"one", "two", "three"}));
        EXPECT_TRUE(wait_until([&] { return s.transport.client_count() == 1; }));
        EXPECT_EQ(count_matching(capture, QEL_LOG_WARNING, client_pattern + " disconnected: .+"),
                  1u);
    }
    // Four 64 KiB texts fill the 256 KiB bound; with 16 KiB texts the 8 message bound comes first.
    for (const auto& [bytes, waiting] : {std::pair<size_t, int>{64 * 1024, 4}, {16 * 1024, 8}}) {
        python_client stuck(s.port, with_key({"--mode", "never-read"}));
        EXPECT_EQ(stuck.read_line(), "connected 1");
        ASSERT_EQ(s.transport.client_count(), 2u);
        for (size_t k = 0; k < 2000 && s.transport.client_count() == 2; ++k)
            send(std::string(bytes, 'a'));
        const std::string dropped =
            " could not keep up and was disconnected \\(" + std::to_string(waiting) + " messages";
        EXPECT_EQ(
            count_matching(capture, QEL_LOG_WARNING, client_pattern + dropped + " waiting\\)"), 1u);
    }
    EXPECT_EQ(capture.messages_at(QEL_LOG_WARNING).size(), 3u);
}

// A connection that says nothing is closed at its handshake deadline, one beyond the connection
// limit at once, each with its warning, so that idle connections cannot use up the process's
// descriptors; the connected client is still served.
TEST(WebsocketTransport, SilentConnectionsAndConnectionsBeyondTheLimitAreClosed) {
    log_capture capture;
    ev::transport_limits limits;
    limits.max_connections = 1;
    limits.handshake_timeout = std::chrono::milliseconds(300);
    server s("secret", limits);
    const auto closed_by_server = [&] { // within 5 s, after whatever the server sends first
        const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(s.port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        pollfd descriptor{fd, POLLIN, 0};
        char block[4096];
        bool closed = false;
        while (!closed && poll(&descriptor, 1, 5000) > 0)
            closed = recv(fd, block, sizeof block, 0) <= 0;
        close(fd);
        return closed;
    };
    EXPECT_TRUE(closed_by_server());
    python_client client(s.port, with_key({"--count", "1"}));
    EXPECT_EQ(client.read_line(), "connected 1");
    EXPECT_TRUE(closed_by_server());
    s.transport.broadcast("served");
    EXPECT_EQ(client.read_output(1, "done")[0], strings{"served"});
    for (const std::string reason : {"the handshake did not finish within 300 ms",
                                     "1 connections are open, the most it keeps"})
        EXPECT_EQ(count_matching(capture, QEL_LOG_WARNING, refused_pattern + reason), 1u) << reason;
}
