// The server flavour's websocket publishing through the C interface (spec
// Part 2.1 step 5, Part 6.1, interface.md): the server is read at
// initialisation in both entry points, qel_enable_websockets starts it,
// qel_send_custom_websocket_event checks and sends host text, and a real
// client (Python's websockets package, tests/websocket/ws_client.py)
// receives a scripted session byte-exact and in order.
#include "support/library_fixture.h"
#include "support/log_capture.h"
#include "support/websocket_fixture.h"
#include "support/websocket_library.h"

#include <gtest/gtest.h>
#include <quelora/quelora.h>

#include <chrono>
#include <string>
#include <vector>

using namespace std::chrono_literals;
using quelora::testing::log_capture;
using quelora::testing::python_client;
using quelora::testing::websocket_library;

namespace {

const std::string unavailable_line =
    "The library will work properly except qel_enable_websockets and qel_send_custom_websocket_event";

const char* const not_configured_enable =
    "The websocket server is not configured. Please give qel_initialize_library the path of a "
    "valid websocket configuration file to use qel_enable_websockets.";

std::string missing_file_message(const std::string& path) {
    return path + " does not exist. Please check if the path to your websocket configuration file "
                  "is correct.";
}

qel_handle from_memory(const char* websocket_path) {
    int error = 0;
    qel_handle handle = qel_initialize_library_from_memory(
        nullptr, websocket_path, quelora::testing::default_configuration(), &error);
    EXPECT_EQ(error, QEL_ERROR_NONE);
    return handle;
}

// Lines at or above WARNING, in order.
std::vector<std::string> warnings_and_errors(const log_capture& capture) {
    std::vector<std::string> result;
    for (const auto& line : capture.lines()) {
        if (line.level >= QEL_LOG_WARNING) result.push_back(line.message);
    }
    return result;
}

} // namespace

// ---- Part 2.1 step 5, both entry points

TEST(Part2_1_WebsocketStep5, StrictPathFailsOnABadConfiguration) {
    const std::string missing = "/nonexistent/quelora/websocket.json";
    log_capture capture;
    int error = 0;
    EXPECT_EQ(qel_initialize_library(nullptr, missing.c_str(), quelora::testing::default_configuration(),
                                     &error),
              nullptr);
    EXPECT_EQ(error, QEL_ERROR_INVALID_VALUE);
    EXPECT_EQ(capture.messages_at(QEL_LOG_ERROR), std::vector<std::string>{missing_file_message(missing)});

    capture.clear();
    const std::string no_port = quelora::testing::write_temp_file("websocket.json", R"({"port": 0})");
    EXPECT_EQ(qel_initialize_library(nullptr, no_port.c_str(), quelora::testing::default_configuration(),
                                     &error),
              nullptr);
    EXPECT_EQ(error, QEL_ERROR_INVALID_VALUE);
    EXPECT_EQ(capture.messages_at(QEL_LOG_ERROR),
              std::vector<std::string>{
                  "The websocket configuration parameter 'port' is either missing or invalid."});
}

TEST(Part2_1_WebsocketStep5, FromMemoryCatchesConstructionFailures) {
    const std::string bad_key = quelora::testing::write_temp_file(
        "websocket.json", R"({"port": 9000, "cert_file_name": 7})");
    log_capture capture;
    qel_handle handle = from_memory(bad_key.c_str());
    ASSERT_NE(handle, nullptr);
    const std::vector<std::string> lines = warnings_and_errors(capture);
    ASSERT_GE(lines.size(), 2u);
    // The construction's own message, then the line of step 5 (the layout
    // lines of the null layout path come before them).
    EXPECT_EQ(lines[lines.size() - 2],
              "The websocket configuration parameter 'cert_file_name' is either missing or invalid.");
    EXPECT_EQ(lines.back(), unavailable_line);
    // No server was kept.
    capture.clear();
    EXPECT_EQ(qel_enable_websockets(handle), QEL_ERROR_INVALID_VALUE);
    EXPECT_EQ(capture.messages_at(QEL_LOG_WARNING), std::vector<std::string>{not_configured_enable});
    EXPECT_EQ(qel_create_room(handle, 1), QEL_ERROR_NONE);
    EXPECT_EQ(qel_destroy_library(handle), QEL_ERROR_NONE);
}

TEST(Part2_1_WebsocketStep5, FromMemoryWithANullPathSaysTheServerIsDisabled) {
    log_capture capture;
    qel_handle handle = from_memory(nullptr);
    ASSERT_NE(handle, nullptr);
    const std::vector<std::string> warnings = capture.messages_at(QEL_LOG_WARNING);
    ASSERT_GE(warnings.size(), 2u);
    EXPECT_EQ(warnings[warnings.size() - 2],
              "You disabled the websocket server by using NULL for the websocket config file path.");
    EXPECT_EQ(warnings.back(), unavailable_line);
    EXPECT_EQ(qel_destroy_library(handle), QEL_ERROR_NONE);
}

TEST(Part2_1_WebsocketStep5, AGoodConfigurationBuildsAServerInBothEntryPoints) {
    const auto configuration = quelora::testing::test_websocket_configuration(quelora::testing::free_tcp_port());
    const std::string path = quelora::testing::write_websocket_configuration(configuration);
    log_capture capture;
    int error = 0;
    qel_handle strict =
        qel_initialize_library(nullptr, path.c_str(), quelora::testing::default_configuration(), &error);
    ASSERT_NE(strict, nullptr);
    EXPECT_EQ(error, QEL_ERROR_NONE);
    qel_handle relaxed = from_memory(path.c_str());
    ASSERT_NE(relaxed, nullptr);
    // Nothing about websockets is logged at warning level or above (the null
    // layout path of the from_memory entry logs its own two lines).
    for (const std::string& line : warnings_and_errors(capture)) {
        EXPECT_EQ(line.find("websocket"), std::string::npos) << line;
    }
    // Two libraries with one configuration: the first listens, the second
    // finds the port taken and says so, and both keep working.
    capture.clear();
    EXPECT_EQ(qel_enable_websockets(strict), QEL_ERROR_NONE);
    EXPECT_TRUE(capture.contains("The websocket server is listening on port " +
                                 std::to_string(configuration.port)));
    EXPECT_EQ(qel_enable_websockets(strict), QEL_ERROR_NONE);
    EXPECT_TRUE(capture.contains("The websocket server is already listening on port " +
                                 std::to_string(configuration.port)));
    EXPECT_EQ(qel_enable_websockets(relaxed), QEL_ERROR_INVALID_VALUE);
    EXPECT_TRUE(capture.contains("The websocket server could not listen on port " +
                                 std::to_string(configuration.port) + ": Address already in use"));
    EXPECT_EQ(qel_create_room(relaxed, 4), QEL_ERROR_NONE);
    EXPECT_EQ(qel_destroy_library(strict), QEL_ERROR_NONE);
    // The port is free again.
    EXPECT_EQ(qel_enable_websockets(relaxed), QEL_ERROR_NONE);
    EXPECT_EQ(qel_destroy_library(relaxed), QEL_ERROR_NONE);
}

// ---- the two exports (interface.md)

TEST(Part6_1_WebsocketExports, WithoutAServerBothSayItIsNotConfigured) {
    quelora::testing::library_handle library; // null websocket path: no server
    log_capture capture;
    EXPECT_EQ(qel_enable_websockets(library), QEL_ERROR_INVALID_VALUE);
    EXPECT_EQ(qel_send_custom_websocket_event(library, "{}"), QEL_ERROR_INVALID_VALUE);
    EXPECT_EQ(capture.messages_at(QEL_LOG_WARNING),
              (std::vector<std::string>{
                  not_configured_enable,
                  "The websocket server is not configured. Please give qel_initialize_library the "
                  "path of a valid websocket configuration file to use "
                  "qel_send_custom_websocket_event."}));
    EXPECT_EQ(qel_enable_websockets(nullptr), QEL_ERROR_HANDLE_NULL);
    EXPECT_EQ(qel_send_custom_websocket_event(nullptr, "{}"), QEL_ERROR_HANDLE_NULL);
}

TEST(Part6_1_WebsocketExports, CustomEventsAreCheckedAsJson) {
    websocket_library library(quelora::testing::test_websocket_configuration(quelora::testing::free_tcp_port()));
    ASSERT_EQ(library.init_error(), QEL_ERROR_NONE);
    log_capture capture;
    EXPECT_EQ(qel_send_custom_websocket_event(library, nullptr), QEL_ERROR_DATA_NULL);
    EXPECT_EQ(capture.messages_at(QEL_LOG_ERROR),
              std::vector<std::string>{"Your json_text pointer is null. Please initialize json_text "
                                       "before passing to qel_send_custom_websocket_event."});
    for (const char* invalid : {"", "{", "{\"a\":}", "[1,]", "nope", "{} {}", "\"unterminated"}) {
        capture.clear();
        EXPECT_EQ(qel_send_custom_websocket_event(library, invalid), QEL_ERROR_INVALID_VALUE) << invalid;
        EXPECT_EQ(capture.messages_at(QEL_LOG_WARNING),
                  std::vector<std::string>{"Your custom websocket event is not valid JSON text"});
    }
    // Valid text before qel_enable_websockets: no client can be connected,
    // nothing to send, no complaint.
    capture.clear();
    for (const char* valid : {"{}", " {\"a\": [1, 2.5, null]} ", "42", "\"text\"", "[]"}) {
        EXPECT_EQ(qel_send_custom_websocket_event(library, valid), QEL_ERROR_NONE) << valid;
    }
    const std::string too_long = "\"" + std::string(size_t{1} << 20, 'x') + "\"";
    EXPECT_EQ(qel_send_custom_websocket_event(library, too_long.c_str()), QEL_ERROR_INVALID_VALUE);
    EXPECT_EQ(capture.messages_at(QEL_LOG_WARNING),
              std::vector<std::string>{"Your custom websocket event is 1048578 bytes long but it may "
                                       "be at most 1048576 bytes long"});
}

// ---- end to end, with a client that no one here wrote

TEST(Part6_1_WebsocketEndToEnd, UnauthenticatedClientsAreRefused) {
    const uint16_t port = quelora::testing::free_tcp_port();
    websocket_library library(quelora::testing::test_websocket_configuration(port));
    ASSERT_EQ(qel_enable_websockets(library), QEL_ERROR_NONE);
    for (const std::vector<std::string>& credentials :
         {std::vector<std::string>{}, std::vector<std::string>{"--header", "token=wrong"},
          std::vector<std::string>{"--header", "other=secret"},
          std::vector<std::string>{"--query", "token=wrong"}}) {
        std::vector<std::string> arguments = credentials;
        arguments.insert(arguments.end(), {"--count", "1", "--timeout", "20"});
        python_client client(quelora::testing::ws_client_arguments(port, arguments));
        EXPECT_EQ(client.read_line(20s), std::optional<std::string>("refused 401"));
        EXPECT_EQ(client.wait_exit(20s), 3);
    }
    // The query parameter is accepted as well as the header.
    python_client client(quelora::testing::ws_client_arguments(
        port, {"--query", "token=secret", "--count", "1", "--timeout", "20"}));
    ASSERT_EQ(client.read_line(20s), std::optional<std::string>("connected 1"));
    ASSERT_EQ(qel_create_room(library, 5), QEL_ERROR_NONE);
    const auto output = quelora::testing::read_client_output(client, 1, "done", 20s);
    EXPECT_EQ(output.messages[0], std::vector<std::string>{R"({"Event":"create_room","room_id":5})"});
    EXPECT_EQ(client.wait_exit(20s), 0);
}

TEST(Part6_1_WebsocketEndToEnd, AScriptedSessionArrivesInOrderAndByteExact) {
    const uint16_t port = quelora::testing::free_tcp_port();
    const std::string layouts =
        quelora::testing::write_temp_file("layouts.json", quelora::testing::four_seat_layouts_json());
    websocket_library library(quelora::testing::test_websocket_configuration(port), layouts.c_str());
    ASSERT_EQ(library.init_error(), QEL_ERROR_NONE);
    ASSERT_EQ(qel_enable_websockets(library), QEL_ERROR_NONE);

    const std::vector<std::string> expected = {
        R"({"Event":"create_room","room_id":1})",
        // Seats are numbered from 1 and face the layout's centre (Part 3.3);
        // the control values are Part 1.4's defaults (the layout sets none).
        R"({"Event":"add_participant","room_id":1,"participant_id":11,"participant_name":"Ana",)"
        R"("input_number_channels":1,"input_sampling_rate":48000,"seat_id":1,"seat_x":0,"seat_y":0,)"
        R"("seat_z":100,"azimuth_heading":180,"elevation_heading":0,)" +
            quelora::testing::default_controls_json,
        "{\"Event\":\"add_participant\",\"room_id\":1,\"participant_id\":12,\"participant_name\":"
        "\"Zo\xc3\xab\",\"input_number_channels\":2,\"input_sampling_rate\":16000,\"seat_id\":2,"
        "\"seat_x\":100,\"seat_y\":0,\"seat_z\":0,\"azimuth_heading\":-90,\"elevation_heading\":0," +
            quelora::testing::default_controls_json,
        R"({"Event":"move_participant_event","room_id":1,"participant_id":12,"seat":3,"x":0,"y":0,)"
        R"("z":-100,"azimuth_heading":0,"elevation_heading":0})",
        R"({"Event":"set_participant_state","room_id":1,"participant_id":11,)"
        R"("control_to_edit":"QEL_CONTROL_MASTER_GAIN","value":50})",
        R"({"Event":"set_all_participants_state","room_id":1,"control_to_edit":"QEL_CONTROL_MUTE_ENABLE",)"
        R"("value":1})",
        R"({"Event":"set_room_layout","room_id":1,"room_config_id":30})",
        R"({"Event":"set_participant_position","room_id":1,"participant_id":11,"x":10,"y":-20,"z":30,)"
        R"("azimuth_heading":45,"elevation_heading":-10})",
        "{\"Event\":\"set_name\",\"room_id\":1,\"participant_id\":12,\"name\":\"Zo\xc3\xab \\\"Z\\\"\"}",
        " {\"Event\": \"custom\", \"n\": [1, 2]} ",
        R"({"Event":"remove_participant","room_id":1,"participant_id":11})",
        R"({"Event":"destroy_room","room_id":1})"};

    python_client client(quelora::testing::authenticated_client(
        port, {"--count", std::to_string(expected.size()), "--timeout", "30"}));
    ASSERT_EQ(client.read_line(30s), std::optional<std::string>("connected 1"));

    ASSERT_EQ(qel_create_room(library, 1), QEL_ERROR_NONE);
    ASSERT_EQ(qel_add_participant(library, 1, 11, "Ana", quelora::testing::regular()), QEL_ERROR_NONE);
    ASSERT_EQ(qel_add_participant(library, 1, 12, "Zo\xc3\xab", quelora::testing::regular(16000, 2)),
              QEL_ERROR_NONE);
    ASSERT_EQ(qel_set_participant_seat(library, 1, 12, 3), QEL_ERROR_NONE);
    ASSERT_EQ(qel_set_participant_state(library, 1, 11, QEL_CONTROL_MASTER_GAIN, 50), QEL_ERROR_NONE);
    ASSERT_EQ(qel_set_all_participants_state(library, 1, QEL_CONTROL_MUTE_ENABLE, 1), QEL_ERROR_NONE);
    ASSERT_EQ(qel_set_room_layout(library, 1, 30), QEL_ERROR_NONE);
    ASSERT_EQ(qel_set_participant_position(library, 1, 11, qel_position{10, -20, 30}, qel_heading{45, -10}),
              QEL_ERROR_NONE);
    ASSERT_EQ(qel_set_participant_name(library, 1, 12, "Zo\xc3\xab \"Z\""), QEL_ERROR_NONE);
    ASSERT_EQ(qel_send_custom_websocket_event(library, " {\"Event\": \"custom\", \"n\": [1, 2]} "),
              QEL_ERROR_NONE);
    ASSERT_EQ(qel_remove_participant(library, 1, 11), QEL_ERROR_NONE);
    ASSERT_EQ(qel_destroy_room(library, 1), QEL_ERROR_NONE);

    const auto output = quelora::testing::read_client_output(client, 1, "done", 30s);
    ASSERT_TRUE(output.terminated) << output.last_line;
    ASSERT_EQ(output.messages[0].size(), expected.size());
    for (size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(output.messages[0][i], expected[i]) << "message " << i;
    }
    EXPECT_EQ(client.wait_exit(30s), 0);
}
