// The client flavour of spec Part 6.1 (CMake option QUELORA_WEBSOCKETS=OFF):
// both websocket exports keep the "not available" body of Part 1.1, and no
// server exists whatever websocket configuration initialisation is given.
#include "support/library_fixture.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>
#include <quelora/quelora.h>

#include <string>
#include <vector>

using quelora::testing::library_handle;
using quelora::testing::log_capture;

namespace {

const std::string unavailable =
    "Websocket server is not available for the client side, windows, or mac versions of the library";

} // namespace

TEST(Part1_1_ClientFlavour, WebsocketFunctionsKeepTheUnavailableBody) {
    library_handle library;
    log_capture capture;
    EXPECT_EQ(qel_enable_websockets(library), QEL_ERROR_INVALID_CONTROL);
    EXPECT_EQ(qel_send_custom_websocket_event(library, "{\"a\":1}"), QEL_ERROR_INVALID_CONTROL);
    EXPECT_EQ(qel_send_custom_websocket_event(library, nullptr), QEL_ERROR_INVALID_CONTROL);
    EXPECT_EQ(capture.messages_at(QEL_LOG_WARNING),
              (std::vector<std::string>{unavailable, unavailable, unavailable}));
    EXPECT_EQ(qel_enable_websockets(nullptr), QEL_ERROR_HANDLE_NULL);
}

TEST(Part2_1_ClientFlavour, NoServerWhateverTheConfigurationPath) {
    // Even a valid-looking configuration file builds no server here.
    const std::string path = quelora::testing::write_temp_file(
        "websocket.json",
        R"({"port": 9443, "cert_file_name": "c.pem", "dh_params_file_name": "d.pem",
            "key_file_name": "k.pem", "passphrase": "", "authentification_key": "k",
            "authentification_value": "v"})");
    log_capture capture;
    int error = 0;
    qel_handle strict = qel_initialize_library(nullptr, path.c_str(),
                                               quelora::testing::default_configuration(), &error);
    ASSERT_NE(strict, nullptr);
    EXPECT_EQ(capture.messages_at(QEL_LOG_ERROR),
              std::vector<std::string>{"The library will work properly except qel_enable_websockets "
                                       "and qel_send_custom_websocket_event."});
    EXPECT_EQ(qel_enable_websockets(strict), QEL_ERROR_INVALID_CONTROL);
    EXPECT_EQ(qel_destroy_library(strict), QEL_ERROR_NONE);

    capture.clear();
    qel_handle from_memory = qel_initialize_library_from_memory(
        nullptr, path.c_str(), quelora::testing::default_configuration(), &error);
    ASSERT_NE(from_memory, nullptr);
    EXPECT_EQ(capture.messages_at(QEL_LOG_WARNING),
              (std::vector<std::string>{"You disabled custom room layouts by using NULL for the room "
                                        "layout file path.",
                                        "The library will still function but it will use the "
                                        "fallback room layout",
                                        "The library will work properly except qel_enable_websockets "
                                        "and qel_send_custom_websocket_event"}));
    EXPECT_EQ(qel_destroy_library(from_memory), QEL_ERROR_NONE);
}
