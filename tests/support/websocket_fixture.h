// Helpers for tests of the websocket transport and of the library's event
// publishing (spec Part 6.1): throw-away TLS files, a free port, a
// configuration for them, and the Python test client
// tests/websocket/ws_client.py run as a child process whose stdout lines are
// read with deadlines.
#pragma once

#include "events/websocket_configuration.h"

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace quelora::testing {

// A self-signed certificate for "localhost" and 127.0.0.1, its private key
// encrypted with `passphrase`, and Diffie-Hellman parameters, made once per
// test binary with the openssl command line in a mkdtemp directory that is
// removed at exit. A failure to make them is reported as a test failure and
// leaves the paths empty.
struct tls_files {
    std::string directory;
    std::string cert;
    std::string key;
    std::string dh;
    std::string passphrase;
};
const tls_files& test_tls_files();

// A TCP port that was free a moment ago (bound to port 0, read, closed).
uint16_t free_tcp_port();

// The configuration for test_tls_files(), listening on `port`, with the
// given authentication key and value.
events::websocket_configuration test_websocket_configuration(uint16_t port,
                                                             const std::string& key = "token",
                                                             const std::string& value = "secret");

// "--port P --cafile CERT" for ws_client.py, followed by `more`.
std::vector<std::string> ws_client_arguments(uint16_t port, std::vector<std::string> more = {});

// ws_client.py running in the background; its stdin is a pipe that stays
// open until destruction (the never-read mode ends when it closes).
class python_client {
public:
    // arguments: those of ws_client.py (see ws_client_arguments).
    explicit python_client(const std::vector<std::string>& arguments);
    ~python_client();
    python_client(const python_client&) = delete;
    python_client& operator=(const python_client&) = delete;

    // The next line of stdout without its newline; nullopt at end of output
    // or when the deadline passes first.
    std::optional<std::string> read_line(std::chrono::milliseconds deadline);
    // The exit code; on the deadline the client is killed, a test failure is
    // reported and -1 returned. A client killed by a signal gives 128 + signal.
    int wait_exit(std::chrono::milliseconds deadline);
    // Ends the client now (SIGKILL) and reaps it.
    void kill();
    bool started() const { return pid_ > 0; }

private:
    pid_t pid_ = -1;
    int stdout_fd_ = -1;
    int stdin_fd_ = -1;
    std::string buffer_;
    std::optional<int> exit_code_;
};

// What a listen or disconnect-after run printed.
struct client_output {
    // messages[i]: client i's messages, decoded from their JSON strings.
    std::vector<std::vector<std::string>> messages;
    // Every line that is not a "message" line, in order ("connected 1",
    // "received 0 3", ...), up to and including the terminator.
    std::vector<std::string> other_lines;
    // The last line read: the terminator when it came.
    std::string last_line;
    bool terminated = false;
};

// Reads lines until one equals `terminator` ("done", "aborted") or any of
// the client's failure lines (refused, timeout, closed, failed) comes, the
// output ends, or the deadline passes. `clients` sizes `messages`; a
// malformed message line is a test failure.
client_output read_client_output(python_client& client, size_t clients, const std::string& terminator,
                                 std::chrono::milliseconds deadline);

// Polls `predicate` every 2 ms until it holds (true) or the deadline
// passes (false).
bool wait_until(const std::function<bool()>& predicate, std::chrono::milliseconds deadline);

} // namespace quelora::testing
