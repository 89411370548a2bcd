// Websocket publishing through the C interface: both entry points on a bad configuration, a
// session reaching a real client while another never reads, the library lock in a notification.
#include "api/library.h"
#include "events/event_messages.h"
#include "events/websocket_server.h"
#include "support/library_fixture.h"
#include "support/log_capture.h"
#include "support/websocket_fixture.h"

#include <gtest/gtest.h>
#include <quelora/quelora.h>

#include <atomic>
#include <cstdlib>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

using namespace std::chrono_literals;
using namespace quelora::testing;
using strings = std::vector<std::string>;

namespace {

qel_handle initialize(const std::string& websocket_path, bool strict,
                      const char* layouts = nullptr) {
    int error = 0;
    qel_handle handle = (strict ? qel_initialize_library : qel_initialize_library_from_memory)(
        layouts, websocket_path.c_str(), default_configuration(), &error);
    EXPECT_EQ(error, handle != nullptr ? QEL_ERROR_NONE : QEL_ERROR_INVALID_VALUE);
    return handle;
}

strings warnings_and_errors(const log_capture& capture) {
    strings lines;
    for (const auto& line : capture.lines())
        if (line.level >= QEL_LOG_WARNING) lines.push_back(line.message);
    return lines;
}

// The add_participant message of a participant of room 1 in `seat` with the default controls.
std::string add_message(int32_t id, const char* name, const qel_participant_configuration& c,
                        qel_seat seat) {
    return quelora::events::add_participant_message(
        1, id, name, c, {seat, {0, 0, 0, 1, 100, 0, 0, 0, 6, 300, 1, 1, 15, 100, 0, 0}});
}

qel_handle locked_library = nullptr;
std::thread waiting_writer, held_back_reader;
std::atomic<bool> writer_was_waiting{false};

// Runs inside the notification of qel_add_participant, with the library lock
// held shared. Starts a room creation (exclusive) on another thread and
// returns once the lock holds back new readers, i.e. once that writer waits:
// from then on a second shared acquisition on this thread would deadlock.
void start_waiting_writer(int32_t, int32_t, const char*, const qel_participant_configuration*) {
    waiting_writer = std::thread([] { qel_create_room(locked_library, 99); });
    for (int attempt = 0; attempt < 400 && !writer_was_waiting; ++attempt) {
        auto done = std::make_shared<std::promise<void>>(); // outlives a held-back reader
        std::thread reader([done] {
            int rooms = 0;
            qel_get_room_count(locked_library, &rooms);
            done->set_value();
        });
        if (done->get_future().wait_for(50ms) == std::future_status::timeout) {
            held_back_reader = std::move(reader);
            writer_was_waiting = true;
        } else {
            reader.join();
        }
    }
}

} // namespace

TEST(WebsocketLibrary, ABadConfigurationFailsStrictInitialisationAndIsOnlyLoggedFromMemory) {
    const std::string missing = "/nonexistent/quelora/websocket.json";
    log_capture capture;
    EXPECT_EQ(initialize(missing, true), nullptr);
    EXPECT_EQ(warnings_and_errors(capture),
              strings{missing + " does not exist. Please check if the path to your websocket "
                                "configuration file is correct."});
    capture.clear();
    qel_handle handle = initialize(
        write_temp_file("websocket.json", R"({"port": 9000, "cert_file_name": 7})"), false);
    const strings lines = warnings_and_errors(capture); // after two about the null layout path
    EXPECT_EQ(strings(lines.begin() + 2, lines.end()),
              (strings{"The websocket configuration parameter 'cert_file_name' is either missing "
                       "or invalid.",
                       "The library will work properly except qel_enable_websockets and "
                       "qel_send_custom_websocket_event"}));
    capture.clear();
    EXPECT_EQ(qel_enable_websockets(handle), QEL_ERROR_INVALID_VALUE);
    EXPECT_EQ(qel_send_custom_websocket_event(handle, "{}"), QEL_ERROR_INVALID_VALUE);
    const std::string not_configured =
        "The websocket server is not configured. Please give qel_initialize_library "
        "the path of a valid websocket configuration file to use ";
    EXPECT_EQ(warnings_and_errors(capture),
              (strings{not_configured + "qel_enable_websockets.",
                       not_configured + "qel_send_custom_websocket_event."}));
    EXPECT_EQ(qel_create_room(handle, 1), QEL_ERROR_NONE);
    EXPECT_EQ(qel_destroy_library(handle), QEL_ERROR_NONE);
}

TEST(WebsocketLibrary, ASessionReachesTheClientByteExactInOrderWhileAnotherNeverReads) {
    const uint16_t port = free_tcp_port();
    qel_handle library =
        initialize(write_websocket_configuration(test_websocket_configuration(port)), false,
                   write_temp_file("layouts.json", four_seat_layouts_json()).c_str());
    log_capture capture;
    ASSERT_EQ(qel_enable_websockets(library), QEL_ERROR_NONE);
    ASSERT_EQ(qel_enable_websockets(library), QEL_ERROR_NONE);
    EXPECT_EQ(warnings_and_errors(capture),
              strings{"The websocket server is already listening on port " + std::to_string(port)});
    // Seats are numbered from 1 and face the layout's centre; the texts
    // themselves are checked in event_messages_test.cpp.
    namespace ev = quelora::events;
    strings expected = {ev::create_room_message(1),
                        add_message(11, "Ana", regular(), {1, 0, 0, 100, 180, 0}),
                        add_message(12, "Zo\xc3\xab", regular(16000, 2), {2, 100, 0, 0, -90, 0}),
                        ev::move_participant_message(1, 12, {3, 0, 0, -100, 0, 0}),
                        ev::set_participant_state_message(1, 11, QEL_CONTROL_MASTER_GAIN, 50),
                        ev::set_all_participants_state_message(1, QEL_CONTROL_MUTE_ENABLE, 1),
                        ev::set_room_layout_message(1, 30),
                        ev::set_participant_position_message(1, 11, {10, -20, 30}, {45, -10}),
                        ev::set_name_message(1, 12, "Zo\xc3\xab \"Z\"")};
    // Custom events are sent as given once they pass as JSON of at most 1 MiB.
    const std::string invalid = "Your custom websocket event is not valid JSON text";
    std::string longest(1 << 20, 'x'),
        too_long((1 << 20) + 1, 'x'); // JSON strings of 1 MiB and one byte more
    longest.front() = longest.back() = too_long.front() = too_long.back() = '"';
    // clang-format off
    const std::vector<std::pair<std::string, std::string>> custom = {
        {" {\"a\": [1, 2.5, null]} ", ""}, {"42", ""}, {"", invalid}, {"{\"a\":}", invalid},
        {"[1,]", invalid}, {"{} {}", invalid}, {"\"unterminated", invalid}, {longest, ""},
        {too_long, "Your custom websocket event is 1048577 bytes long but it may be at most "
                   "1048576 bytes long"}};
    // clang-format on
    for (const auto& [text, warning] : custom)
        expected.insert(expected.end(), warning.empty() ? 1 : 0, text);
    // 80 rounds of a 256 KiB custom event and a control change (20 MiB) overflow
    // the never-reading client's 8 MiB queue and its socket buffers.
    constexpr int rounds = 80;
    python_client never_reads(port, with_key({"--mode", "never-read"}));
    ASSERT_EQ(never_reads.read_line(), "connected 1");
    python_client client(port,
                         with_key({"--count", std::to_string(expected.size() + 2 * rounds + 2)}));
    ASSERT_EQ(client.read_line(), "connected 1");

    EXPECT_EQ(qel_create_room(library, 1), QEL_ERROR_NONE);
    EXPECT_EQ(qel_add_participant(library, 1, 11, "Ana", regular()), QEL_ERROR_NONE);
    EXPECT_EQ(qel_add_participant(library, 1, 12, "Zo\xc3\xab", regular(16000, 2)), QEL_ERROR_NONE);
    EXPECT_EQ(qel_set_participant_seat(library, 1, 12, 3), QEL_ERROR_NONE);
    EXPECT_EQ(qel_set_participant_state(library, 1, 11, QEL_CONTROL_MASTER_GAIN, 50),
              QEL_ERROR_NONE);
    EXPECT_EQ(qel_set_all_participants_state(library, 1, QEL_CONTROL_MUTE_ENABLE, 1),
              QEL_ERROR_NONE);
    EXPECT_EQ(qel_set_room_layout(library, 1, 30), QEL_ERROR_NONE);
    EXPECT_EQ(qel_set_participant_position(library, 1, 11, qel_position{10, -20, 30},
                                           qel_heading{45, -10}),
              QEL_ERROR_NONE);
    EXPECT_EQ(qel_set_participant_name(library, 1, 12, "Zo\xc3\xab \"Z\""), QEL_ERROR_NONE);
    for (const auto& [text, warning] : custom) {
        capture.clear();
        EXPECT_EQ(qel_send_custom_websocket_event(library, text.c_str()),
                  warning.empty() ? QEL_ERROR_NONE : QEL_ERROR_INVALID_VALUE);
        EXPECT_EQ(capture.messages(), warning.empty() ? strings{} : strings{warning})
            << text.substr(0, 20);
    }
    capture.clear();
    // Audio and control calls keep returning while events pile up for the client that never reads.
    std::vector<float> input(480, 0.25f), output(480 * 2);
    for (int round = 0; round < rounds; ++round) {
        expected.push_back(R"({"Event":"custom","i":)" + std::to_string(round) + R"(,"pad":")" +
                           std::string(256 * 1024, 'x') + "\"}");
        EXPECT_EQ(qel_send_custom_websocket_event(library, expected.back().c_str()),
                  QEL_ERROR_NONE);
        EXPECT_EQ(qel_set_participant_state(library, 1, 11, QEL_CONTROL_MASTER_GAIN, round),
                  QEL_ERROR_NONE);
        expected.push_back(
            ev::set_participant_state_message(1, 11, QEL_CONTROL_MASTER_GAIN, round));
        EXPECT_EQ(qel_input_audio_float(library, 1, 11, input.data(), 480), QEL_ERROR_NONE);
        const int code = qel_output_audio_float(library, 1, 11, output.data());
        EXPECT_TRUE(code == QEL_ERROR_NONE || code == QEL_ERROR_NO_INPUT_AUDIO) << code;
    }
    EXPECT_EQ(qel_remove_participant(library, 1, 11), QEL_ERROR_NONE);
    EXPECT_EQ(qel_destroy_room(library, 1), QEL_ERROR_NONE);
    expected.insert(expected.end(),
                    {ev::remove_participant_message(1, 11), ev::destroy_room_message(1)});

    const strings received = client.read_output(1, "done")[0];
    ASSERT_EQ(received.size(), expected.size());
    for (size_t i = 0; i < expected.size(); ++i)
        EXPECT_EQ(received[i], expected[i]) << "message " << i;
    EXPECT_EQ(client.wait_exit(), 0);
    EXPECT_TRUE(wait_until([&] { return warnings_and_errors(capture).size() == 1; }));
    EXPECT_NE(warnings_and_errors(capture).at(0).find("could not keep up and was disconnected"),
              std::string::npos);
    // Destroyed with a client connected that does not read: stopping does not wait for it.
    python_client still_there(port, with_key({"--mode", "never-read"}));
    ASSERT_EQ(still_there.read_line(), "connected 1");
    const std::string& padded = expected[expected.size() - 4]; // the last 256 KiB custom event
    for (int round = 0; round < 8; ++round)
        qel_send_custom_websocket_event(library, padded.c_str());
    EXPECT_EQ(qel_destroy_library(library), QEL_ERROR_NONE);
    EXPECT_TRUE(
        capture.contains("The websocket server stopped listening on port " + std::to_string(port)));
}

TEST(WebsocketLibrary, AddParticipantMessageReadsItsRecordWithoutRetakingTheLibraryLock) {
    const uint16_t port = free_tcp_port();
    // The library's own server is notified before any host table, so this test
    // registers a server of its own after the table that makes a writer wait.
    library_handle library;
    locked_library = library;
    quelora::events::qel_websocket_server server(
        write_websocket_configuration(test_websocket_configuration(port)).c_str(),
        library.get()->conference());
    qel_event_manager_t table{};
    table.add_participant = start_waiting_writer;
    ASSERT_EQ(qel_add_event_manager(library, &table), QEL_ERROR_NONE);
    library.get()->conference().add_event_sink(&server);
    server.enable();
    ASSERT_EQ(qel_create_room(library, 1), QEL_ERROR_NONE);
    python_client client(port, with_key({"--count", "1"}));
    ASSERT_EQ(client.read_line(), "connected 1");

    auto adding = std::async(std::launch::async,
                             [&] { return qel_add_participant(library, 1, 7, "Pat", regular()); });
    if (adding.wait_for(60s) == std::future_status::timeout)
        std::_Exit(1); // deadlocked: its threads cannot be joined
    EXPECT_EQ(adding.get(), QEL_ERROR_NONE);
    waiting_writer.join();
    if (held_back_reader.joinable()) held_back_reader.join();
    EXPECT_TRUE(writer_was_waiting) << "no writer was seen waiting";
    // The fallback layout's open room: no seat, at the origin.
    EXPECT_EQ(client.read_output(1, "done")[0],
              strings{add_message(7, "Pat", regular(), {-1, 0, 0, 0, 0, 0})});
}
