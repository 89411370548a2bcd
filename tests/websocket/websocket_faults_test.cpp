// Faults around the server flavour's websocket publishing (spec Part 6.1;
// the transport is ours, docs/websocket.md): misbehaving clients never hold
// up the library's audio or control calls, failures to start are clear
// warnings, qel_destroy_library returns promptly; and "add_participant"
// reads its record without taking the library lock a second time.
#include "api/library.h"
#include "events/websocket_server.h"
#include "support/library_fixture.h"
#include "support/log_capture.h"
#include "support/websocket_fixture.h"
#include "support/websocket_library.h"

#include <gtest/gtest.h>
#include <quelora/quelora.h>

#include <sys/socket.h>
#include <netinet/in.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

using namespace std::chrono_literals;
using quelora::testing::log_capture;
using quelora::testing::python_client;
using quelora::testing::websocket_library;

namespace {

std::string custom_event(int index, size_t padding) {
    return "{\"Event\":\"custom\",\"i\":" + std::to_string(index) + ",\"pad\":\"" +
           std::string(padding, 'x') + "\"}";
}

} // namespace

TEST(Part6_1_WebsocketFaults, TheLibraryKeepsServingWhileClientsMisbehave) {
    const uint16_t port = quelora::testing::free_tcp_port();
    log_capture capture;
    websocket_library library(quelora::testing::test_websocket_configuration(port));
    ASSERT_EQ(qel_enable_websockets(library), QEL_ERROR_NONE);
    ASSERT_EQ(qel_create_room(library, 1), QEL_ERROR_NONE);
    ASSERT_EQ(qel_add_participant(library, 1, 1, "a", quelora::testing::regular()), QEL_ERROR_NONE);
    ASSERT_EQ(qel_add_participant(library, 1, 2, "b", quelora::testing::regular()), QEL_ERROR_NONE);

    // Each round sends a 256 KiB custom event and a control change: 80
    // rounds (20 MiB) are more than a client's 8 MiB send queue and the 4 MiB
    // the kernel buffers for its socket can hold, so the client that never
    // reads must be dropped.
    constexpr int rounds = 80;
    constexpr size_t padding = 256 * 1024;
    python_client never_reads(quelora::testing::authenticated_client(port, {"--mode", "never-read"}));
    ASSERT_EQ(never_reads.read_line(30s), std::optional<std::string>("connected 1"));
    python_client quits(quelora::testing::authenticated_client(
        port, {"--mode", "disconnect-after", "--after", "3", "--timeout", "60"}));
    ASSERT_EQ(quits.read_line(30s), std::optional<std::string>("connected 1"));
    python_client listens(quelora::testing::authenticated_client(
        port, {"--count", std::to_string(3 + 2 * rounds), "--timeout", "120"}));
    ASSERT_EQ(listens.read_line(30s), std::optional<std::string>("connected 1"));

    // Phase 1: three control changes; the quitting client reads them and
    // drops its connection without a close handshake.
    auto state_message = [](int value) {
        return "{\"Event\":\"set_participant_state\",\"room_id\":1,\"participant_id\":1,"
               "\"control_to_edit\":\"QEL_CONTROL_MASTER_GAIN\",\"value\":" +
               std::to_string(value) + "}";
    };
    std::vector<std::string> expected;
    for (int value = 97; value < 100; ++value) {
        ASSERT_EQ(qel_set_participant_state(library, 1, 1, QEL_CONTROL_MASTER_GAIN, value), QEL_ERROR_NONE);
        expected.push_back(state_message(value));
    }
    const auto quit_output = quelora::testing::read_client_output(quits, 1, "aborted", 60s);
    EXPECT_TRUE(quit_output.terminated) << quit_output.last_line;
    EXPECT_EQ(quit_output.messages[0], expected);
    auto warned = [&](const std::string& text) {
        return quelora::testing::wait_until(
            [&] {
                for (const std::string& line : capture.messages_at(QEL_LOG_WARNING)) {
                    if (line.find(text) != std::string::npos) return true;
                }
                return false;
            },
            60s);
    };
    EXPECT_TRUE(warned("disconnected: ")) << "no warning for the client that left";

    // Phase 2: audio and control calls while events pile up for the client
    // that never reads.
    std::vector<float> input(480, 0.25f);
    std::vector<float> output(480 * 2);
    for (int round = 0; round < rounds; ++round) {
        ASSERT_EQ(qel_send_custom_websocket_event(library, custom_event(round, padding).c_str()),
                  QEL_ERROR_NONE);
        ASSERT_EQ(qel_set_participant_state(library, 1, 1, QEL_CONTROL_MASTER_GAIN, round % 101),
                  QEL_ERROR_NONE);
        expected.push_back(custom_event(round, padding));
        expected.push_back(state_message(round % 101));
        for (uint32_t participant : {1u, 2u}) {
            ASSERT_EQ(qel_input_audio_float(library, 1, participant, input.data(), 480), QEL_ERROR_NONE);
            const int code = qel_output_audio_float(library, 1, participant, output.data());
            ASSERT_TRUE(code == QEL_ERROR_NONE || code == QEL_ERROR_NO_INPUT_AUDIO) << code;
        }
    }
    EXPECT_TRUE(warned("could not keep up and was disconnected")) << "the client that never reads stayed";

    // The well-behaved client received everything, in order, byte-exact.
    const auto heard = quelora::testing::read_client_output(listens, 1, "done", 120s);
    ASSERT_TRUE(heard.terminated) << heard.last_line;
    ASSERT_EQ(heard.messages[0].size(), expected.size());
    for (size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(heard.messages[0][i], expected[i]) << "message " << i;
    }
    EXPECT_EQ(listens.wait_exit(30s), 0);

    // Teardown with a client still connected and not reading.
    python_client still_there(quelora::testing::authenticated_client(port, {"--mode", "never-read"}));
    ASSERT_EQ(still_there.read_line(30s), std::optional<std::string>("connected 1"));
    for (int round = 0; round < 8; ++round) {
        ASSERT_EQ(qel_send_custom_websocket_event(library, custom_event(round, padding).c_str()),
                  QEL_ERROR_NONE);
    }
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(library.destroy(), QEL_ERROR_NONE);
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::printf("qel_destroy_library with a connected client took %.3f s\n", seconds);
    EXPECT_LT(seconds, 5.0); // a hang guard, not a timing assertion
}

TEST(Part6_1_WebsocketFaults, StartFailuresAreWarningsAndTheLibraryKeepsWorking) {
    const auto& tls = quelora::testing::test_tls_files();
    // Wrong pass phrase, missing certificate.
    auto wrong_passphrase = quelora::testing::test_websocket_configuration(quelora::testing::free_tcp_port());
    wrong_passphrase.passphrase = "not the pass phrase";
    auto missing_certificate = quelora::testing::test_websocket_configuration(quelora::testing::free_tcp_port());
    missing_certificate.cert_file_name = tls.directory + "/missing-cert.pem";
    for (const auto& configuration : {wrong_passphrase, missing_certificate}) {
        log_capture capture;
        websocket_library library(configuration);
        ASSERT_EQ(library.init_error(), QEL_ERROR_NONE);
        EXPECT_EQ(qel_enable_websockets(library), QEL_ERROR_INVALID_VALUE);
        const std::vector<std::string> warnings = capture.messages_at(QEL_LOG_WARNING);
        ASSERT_EQ(warnings.size(), 1u);
        const std::string& named = configuration.passphrase == tls.passphrase
                                       ? configuration.cert_file_name
                                       : configuration.key_file_name;
        EXPECT_NE(warnings[0].find("'" + named + "'"), std::string::npos) << warnings[0];
        EXPECT_EQ(qel_create_room(library, 1), QEL_ERROR_NONE);
        EXPECT_EQ(qel_add_participant(library, 1, 1, "x", quelora::testing::regular()), QEL_ERROR_NONE);
        EXPECT_EQ(qel_send_custom_websocket_event(library, "{}"), QEL_ERROR_NONE);
        EXPECT_EQ(library.destroy(), QEL_ERROR_NONE);
    }

    // Port in use: refused with a warning; once the port is free, a second
    // qel_enable_websockets succeeds.
    const uint16_t port = quelora::testing::free_tcp_port();
    const int blocker = ::socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_GE(blocker, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    ASSERT_EQ(::bind(blocker, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(::listen(blocker, 1), 0);
    log_capture capture;
    websocket_library library(quelora::testing::test_websocket_configuration(port));
    EXPECT_EQ(qel_enable_websockets(library), QEL_ERROR_INVALID_VALUE);
    EXPECT_EQ(capture.messages_at(QEL_LOG_WARNING),
              std::vector<std::string>{"The websocket server could not listen on port " +
                                       std::to_string(port) + ": Address already in use"});
    EXPECT_EQ(qel_create_room(library, 2), QEL_ERROR_NONE);
    ::close(blocker);
    EXPECT_EQ(qel_enable_websockets(library), QEL_ERROR_NONE);
}

// ---- the library lock inside a notification (docs/design.md, Threads and locks)

namespace {

qel_handle locked_library = nullptr;
std::thread waiting_writer;
std::thread held_back_reader;
std::atomic<bool> writer_was_waiting{false};

// Runs inside the notification of qel_add_participant, with the library
// lock held shared. Starts a room creation (exclusive) on another thread
// and returns once the lock holds back new readers, i.e. once that writer
// waits: from then on a second shared acquisition on this thread would
// deadlock.
void start_waiting_writer(int32_t, int32_t, const char*, const qel_participant_configuration*) {
    waiting_writer = std::thread([] { qel_create_room(locked_library, 99); });
    const auto deadline = std::chrono::steady_clock::now() + 20s;
    while (std::chrono::steady_clock::now() < deadline) {
        auto done = std::make_shared<std::promise<void>>();
        std::future<void> finished = done->get_future();
        std::thread reader([done] {
            int rooms = 0;
            qel_get_room_count(locked_library, &rooms);
            done->set_value();
        });
        if (finished.wait_for(50ms) == std::future_status::timeout) {
            held_back_reader = std::move(reader);
            writer_was_waiting = true;
            return;
        }
        reader.join();
    }
}

} // namespace

TEST(Part6_1_WebsocketLocks, AddParticipantReadsItsRecordWithoutRetakingTheLibraryLock) {
    const uint16_t port = quelora::testing::free_tcp_port();
    const std::string path = quelora::testing::write_websocket_configuration(
        quelora::testing::test_websocket_configuration(port));
    // The library's own server would be notified before any host table, so
    // this test registers a server of its own after the table that makes a
    // writer wait. The server outlives the library's notifications.
    quelora::testing::library_handle library;
    locked_library = library;
    quelora::events::qel_websocket_server server(path.c_str(), library.get()->conference());
    qel_event_manager_t table{};
    table.add_participant = start_waiting_writer;
    ASSERT_EQ(qel_add_event_manager(library, &table), QEL_ERROR_NONE);
    library.get()->conference().add_event_sink(&server);
    server.enable();
    ASSERT_EQ(qel_create_room(library, 1), QEL_ERROR_NONE);
    ASSERT_EQ(qel_set_participant_state(library, 1, 1, QEL_CONTROL_MASTER_GAIN, 40),
              QEL_ERROR_INVALID_PARTICIPANT_ID);

    python_client client(quelora::testing::authenticated_client(port, {"--count", "1", "--timeout", "60"}));
    ASSERT_EQ(client.read_line(30s), std::optional<std::string>("connected 1"));

    auto adding = std::async(std::launch::async, [&] {
        return qel_add_participant(library, 1, 7, "Pat", quelora::testing::regular(32000, 2));
    });
    if (adding.wait_for(60s) == std::future_status::timeout) {
        // Deadlocked: the threads cannot be joined, so end the run here.
        std::fprintf(stderr, "qel_add_participant deadlocked inside its notification\n");
        std::_Exit(1);
    }
    EXPECT_EQ(adding.get(), QEL_ERROR_NONE);
    waiting_writer.join();
    held_back_reader.join();
    EXPECT_TRUE(writer_was_waiting) << "the scenario did not arise: no writer was seen waiting";

    qel_seat seat{};
    ASSERT_EQ(qel_get_participant_seat(library, 1, 7, &seat), QEL_ERROR_NONE);
    const auto output = quelora::testing::read_client_output(client, 1, "done", 60s);
    ASSERT_EQ(output.messages[0].size(), 1u);
    EXPECT_EQ(output.messages[0][0],
              "{\"Event\":\"add_participant\",\"room_id\":1,\"participant_id\":7,\"participant_name\":"
              "\"Pat\",\"input_number_channels\":2,\"input_sampling_rate\":32000,\"seat_id\":" +
                  std::to_string(seat.seat_index) + ",\"seat_x\":" + std::to_string(seat.x) +
                  ",\"seat_y\":" + std::to_string(seat.y) + ",\"seat_z\":" + std::to_string(seat.z) +
                  ",\"azimuth_heading\":" + std::to_string(seat.azimuth) +
                  ",\"elevation_heading\":" + std::to_string(seat.elevation) + "," +
                  quelora::testing::default_controls_json);
    EXPECT_EQ(client.wait_exit(30s), 0);
    locked_library = nullptr;
}
