// Helpers for the websocket tests: throw-away TLS files, a free port, a configuration
// for them, and the Python client tests/websocket/ws_client.py as a child process.
#pragma once

#include "events/websocket_configuration.h"
#include "support/library_fixture.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace quelora::testing {

// A self-signed certificate for "localhost", its key encrypted with `passphrase` (other_key: with
// another one) and DH parameters, made by openssl per test process in milliseconds (an EC key and
// the named ffdhe2048 group), removed at exit.
struct tls_files {
    std::string directory, cert, key, other_key, dh, passphrase;
    ~tls_files() {
        std::error_code ignored;
        std::filesystem::remove_all(directory, ignored);
    }
};

inline const tls_files& test_tls_files() {
    static const tls_files files = [] {
        char pattern[] = "/tmp/quelora-tls-XXXXXX";
        const std::string d = mkdtemp(pattern) != nullptr ? pattern : "/tmp/quelora-tls";
        const std::string command =
            "cd " + d +
            " && (openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -days 2"
            " -subj /CN=localhost -addext subjectAltName=DNS:localhost -keyout key.pem"
            " -out cert.pem -passout 'pass:test pass phrase' && openssl pkey -in key.pem"
            " -passin 'pass:test pass phrase' -aes256 -out other_key.pem"
            " -passout 'pass:other pass phrase' && openssl genpkey -genparam -algorithm DH"
            " -pkeyopt group:ffdhe2048 -out dh.pem) >openssl.log 2>&1";
        EXPECT_EQ(std::system(command.c_str()), 0) << "openssl failed; see " << d << "/openssl.log";
        // clang-format off
        return tls_files{d, d + "/cert.pem", d + "/key.pem", d + "/other_key.pem", d + "/dh.pem",
                         "test pass phrase"};
        // clang-format on
    }();
    return files;
}

inline uint16_t free_tcp_port() {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    socklen_t length = sizeof address;
    EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), length), 0);
    EXPECT_EQ(getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length), 0);
    close(fd);
    return ntohs(address.sin_port);
}

// The configuration for test_tls_files() on `port` with the key "token".
inline events::websocket_configuration
test_websocket_configuration(uint16_t port, const std::string& value = "secret") {
    const tls_files& files = test_tls_files();
    return {port, files.cert, files.dh, files.key, files.passphrase, "token", value};
}

// Written as a JSON file; its path.
inline std::string write_websocket_configuration(const events::websocket_configuration& c) {
    const nlohmann::ordered_json document = {{"port", c.port},
                                             {"cert_file_name", c.cert_file_name},
                                             {"dh_params_file_name", c.dh_params_file_name},
                                             {"key_file_name", c.key_file_name},
                                             {"passphrase", c.passphrase},
                                             {"authentification_key", c.authentification_key},
                                             {"authentification_value", c.authentification_value}};
    return write_temp_file("websocket.json", document.dump());
}

// ws_client.py arguments that carry the default key: "--header token=secret" and `more`.
inline std::vector<std::string> with_key(std::vector<std::string> more = {}) {
    more.insert(more.begin(), {"--header", "token=secret"});
    return more;
}

// Polls `predicate` until it holds (true) or 60 s pass (false).
inline bool wait_until(const std::function<bool()>& predicate) {
    for (int step = 0; step < 30000 && !predicate(); ++step)
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    return predicate();
}

// ws_client.py --port P --cafile CERT <arguments>, killed at destruction. It gives up after
// 60 s by itself, so reading its output never hangs a test.
class python_client {
public:
    python_client(uint16_t port, const std::vector<std::string>& arguments) {
        std::string command = "exec /usr/bin/python3 -u " QUELORA_TEST_SOURCE_DIR
                              "/websocket/ws_client.py --port " +
                              std::to_string(port) + " --cafile " + test_tls_files().cert;
        for (const auto& argument : arguments)
            command += " '" + argument + "'"; // none holds a quote
        out_ = popen(command.c_str(), "re");
        pid_ = std::atoi(read_line().c_str()); // the client's first line
    }
    ~python_client() {
        if (pid_ > 0) kill(pid_, SIGKILL);
        wait_exit();
    }
    python_client(const python_client&) = delete;
    python_client& operator=(const python_client&) = delete;

    std::string read_line() { // "(end)" after the last
        char* line = nullptr;
        size_t capacity = 0;
        const ssize_t length = out_ != nullptr ? getline(&line, &capacity, out_) : -1;
        std::string text =
            length > 0 ? std::string(line, static_cast<size_t>(length) - 1) : "(end)";
        std::free(line);
        return text;
    }

    // Each client's messages, decoded, up to the final line, which must be `final_line`.
    std::vector<std::vector<std::string>> read_output(size_t clients,
                                                      const std::string& final_line) {
        std::vector<std::vector<std::string>> messages(clients);
        for (;;) {
            const std::string line = read_line();
            const size_t space = line.find(' ', 8);
            if (line.rfind("message ", 0) == 0 && space != std::string::npos) {
                const size_t index = std::stoul(line.substr(8, space - 8));
                if (index < clients)
                    messages[index].push_back(nlohmann::json::parse(line.substr(space + 1)));
            } else if (line.rfind("received ", 0) != 0 && line.rfind("connected ", 0) != 0) {
                EXPECT_EQ(line, final_line);
                return messages;
            }
        }
    }

    int wait_exit() { // 128 + signal when killed
        if (out_ != nullptr) {
            const int status = pclose(out_);
            exit_code_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        }
        out_ = nullptr;
        pid_ = -1;
        return exit_code_;
    }

private:
    pid_t pid_ = -1;
    std::FILE* out_ = nullptr;
    int exit_code_ = -1;
};

} // namespace quelora::testing
