// Helpers for the websocket tests (spec Part 6.1); see websocket_fixture.h.
#include "support/websocket_fixture.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace quelora::testing {

namespace {

using clock_type = std::chrono::steady_clock;

constexpr const char* python = "/usr/bin/python3";
constexpr const char* passphrase = "quelora test pass phrase";

// The temporary directory lives as long as the test binary.
struct tls_files_owner {
    tls_files files;
    ~tls_files_owner() {
        if (files.directory.empty()) return;
        std::error_code ignored;
        std::filesystem::remove_all(files.directory, ignored);
    }
};

// Runs a program with its output sent to `log`; true when it exits 0.
bool run_program(const std::vector<std::string>& arguments, const std::string& log) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    std::vector<char*> argv;
    for (const auto& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    pid_t pid = -1;
    const int error = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) return false;
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

tls_files make_tls_files() {
    char pattern[] = "/tmp/quelora-tls-XXXXXX";
    if (mkdtemp(pattern) == nullptr) {
        ADD_FAILURE() << "mkdtemp failed: " << std::strerror(errno);
        return {};
    }
    const std::string directory = pattern;
    tls_files files{directory, directory + "/cert.pem", directory + "/key.pem",
                    directory + "/dh.pem", passphrase};
    const std::string log = directory + "/openssl.log";
    const bool made =
        run_program({"openssl", "req", "-x509", "-newkey", "rsa:2048", "-sha256", "-days", "2",
                     "-subj", "/CN=localhost", "-addext", "subjectAltName=DNS:localhost,IP:127.0.0.1",
                     "-keyout", files.key, "-out", files.cert, "-passout",
                     std::string("pass:") + passphrase},
                    log) &&
        run_program({"openssl", "dhparam", "-dsaparam", "-out", files.dh, "2048"}, log);
    if (!made) {
        ADD_FAILURE() << "openssl could not make the test TLS files; see " << log;
        return {directory, "", "", "", passphrase};
    }
    return files;
}

} // namespace

const tls_files& test_tls_files() {
    static tls_files_owner owner{make_tls_files()};
    return owner.files;
}

uint16_t free_tcp_port() {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        ADD_FAILURE() << "socket: " << std::strerror(errno);
        return 0;
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    address.sin_port = 0;
    socklen_t length = sizeof address;
    uint16_t port = 0;
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
        getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
        port = ntohs(address.sin_port);
    } else {
        ADD_FAILURE() << "bind/getsockname: " << std::strerror(errno);
    }
    close(fd);
    return port;
}

events::websocket_configuration test_websocket_configuration(uint16_t port, const std::string& key,
                                                             const std::string& value) {
    const tls_files& files = test_tls_files();
    events::websocket_configuration configuration;
    configuration.port = port;
    configuration.cert_file_name = files.cert;
    configuration.dh_params_file_name = files.dh;
    configuration.key_file_name = files.key;
    configuration.passphrase = files.passphrase;
    configuration.authentification_key = key;
    configuration.authentification_value = value;
    return configuration;
}

std::vector<std::string> ws_client_arguments(uint16_t port, std::vector<std::string> more) {
    std::vector<std::string> arguments{"--port", std::to_string(port), "--cafile",
                                       test_tls_files().cert};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return arguments;
}

python_client::python_client(const std::vector<std::string>& arguments) {
    int out[2] = {-1, -1};
    int in[2] = {-1, -1};
    if (pipe2(out, O_CLOEXEC) != 0 || pipe2(in, O_CLOEXEC) != 0) {
        ADD_FAILURE() << "pipe2: " << std::strerror(errno);
        for (int fd : {out[0], out[1], in[0], in[1]}) {
            if (fd >= 0) close(fd);
        }
        return;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], 0);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    const std::string script = QUELORA_TEST_SOURCE_DIR "/websocket/ws_client.py";
    std::vector<std::string> all{python, "-u", script};
    all.insert(all.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (auto& argument : all) argv.push_back(argument.data());
    argv.push_back(nullptr);
    const int error = posix_spawn(&pid_, python, &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(out[1]);
    close(in[0]);
    stdout_fd_ = out[0];
    stdin_fd_ = in[1];
    if (error != 0) {
        pid_ = -1;
        ADD_FAILURE() << "posix_spawn " << python << ": " << std::strerror(error);
    }
}

python_client::~python_client() {
    if (stdin_fd_ >= 0) close(stdin_fd_);
    kill();
    if (stdout_fd_ >= 0) close(stdout_fd_);
}

std::optional<std::string> python_client::read_line(std::chrono::milliseconds deadline) {
    const auto end = clock_type::now() + deadline;
    for (;;) {
        const size_t newline = buffer_.find('\n');
        if (newline != std::string::npos) {
            std::string line = buffer_.substr(0, newline);
            buffer_.erase(0, newline + 1);
            return line;
        }
        if (stdout_fd_ < 0) return std::nullopt;
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - clock_type::now());
        if (left.count() <= 0) return std::nullopt;
        pollfd descriptor{stdout_fd_, POLLIN, 0};
        const int ready = poll(&descriptor, 1, static_cast<int>(left.count()));
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) return std::nullopt;
        char block[65536];
        const ssize_t got = read(stdout_fd_, block, sizeof block);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) {
            close(stdout_fd_);
            stdout_fd_ = -1;
            continue; // a last line without newline is dropped: the client always ends lines
        }
        buffer_.append(block, static_cast<size_t>(got));
    }
}

int python_client::wait_exit(std::chrono::milliseconds deadline) {
    if (exit_code_) return *exit_code_;
    if (pid_ <= 0) return -1;
    const auto end = clock_type::now() + deadline;
    for (;;) {
        int status = 0;
        const pid_t done = waitpid(pid_, &status, WNOHANG);
        if (done == pid_) {
            pid_ = -1;
            exit_code_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            return *exit_code_;
        }
        if (done < 0 && errno != EINTR) {
            ADD_FAILURE() << "waitpid: " << std::strerror(errno);
            pid_ = -1;
            return -1;
        }
        if (clock_type::now() >= end) {
            ADD_FAILURE() << "ws_client.py did not exit within " << deadline.count() << " ms";
            kill();
            return -1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}

void python_client::kill() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    int status = 0;
    while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
    pid_ = -1;
    exit_code_ = 128 + SIGKILL;
}

client_output read_client_output(python_client& client, size_t clients, const std::string& terminator,
                                 std::chrono::milliseconds deadline) {
    client_output output;
    output.messages.resize(clients);
    const auto end = clock_type::now() + deadline;
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - clock_type::now());
        auto line = client.read_line(std::max(left, std::chrono::milliseconds(0)));
        if (!line) return output;
        output.last_line = *line;
        if (line->rfind("message ", 0) == 0) {
            const size_t space = line->find(' ', 8);
            size_t index = clients;
            try {
                index = std::stoul(line->substr(8, space - 8));
                if (space == std::string::npos || index >= clients) throw std::out_of_range("index");
                output.messages[index].push_back(nlohmann::json::parse(line->substr(space + 1)).get<std::string>());
            } catch (const std::exception& error) {
                ADD_FAILURE() << "malformed line from ws_client.py (" << error.what() << "): " << *line;
            }
            continue;
        }
        output.other_lines.push_back(*line);
        if (*line == terminator) {
            output.terminated = true;
            return output;
        }
        for (const char* failure : {"refused ", "timeout", "closed ", "failed "}) {
            if (line->rfind(failure, 0) == 0) return output;
        }
    }
}

bool wait_until(const std::function<bool()>& predicate, std::chrono::milliseconds deadline) {
    const auto end = clock_type::now() + deadline;
    for (;;) {
        if (predicate()) return true;
        if (clock_type::now() >= end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}

} // namespace quelora::testing
