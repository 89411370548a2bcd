// The client flavour (QUELORA_WEBSOCKETS=OFF): no server whatever configuration initialisation
// is given, and both websocket exports answer that it is not available.
#include "support/library_fixture.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>
#include <quelora/quelora.h>

#include <string>
#include <vector>

TEST(ClientFlavour, WebsocketExportsAreNotAvailableWhateverTheConfiguration) {
    // A configuration that would build a server in the server flavour.
    const std::string path = quelora::testing::write_temp_file("websocket.json", R"({"port": 9443,
        "cert_file_name": "c.pem", "dh_params_file_name": "d.pem", "key_file_name": "k.pem",
        "passphrase": "", "authentification_key": "k", "authentification_value": "v"})");
    const std::string no_server = "The library will work properly except qel_enable_websockets and "
                                  "qel_send_custom_websocket_event";
    const std::string unavailable = "Websocket server is not available for the client side, "
                                    "windows, or mac versions of the library";
    for (const auto initialize : {qel_initialize_library, qel_initialize_library_from_memory}) {
        quelora::testing::log_capture capture;
        int error = 0;
        qel_handle library =
            initialize(nullptr, path.c_str(), quelora::testing::default_configuration(), &error);
        ASSERT_NE(library, nullptr);
        // Strict: an error ending with a full stop; from memory: the last of its warnings, without.
        EXPECT_EQ(capture.lines().back().message,
                  initialize == qel_initialize_library ? no_server + "." : no_server);
        EXPECT_EQ(capture.lines().back().level,
                  initialize == qel_initialize_library ? QEL_LOG_ERROR : QEL_LOG_WARNING);
        capture.clear();
        EXPECT_EQ(qel_enable_websockets(library), QEL_ERROR_INVALID_CONTROL);
        EXPECT_EQ(qel_send_custom_websocket_event(library, "{\"a\":1}"), QEL_ERROR_INVALID_CONTROL);
        EXPECT_EQ(qel_send_custom_websocket_event(library, nullptr), QEL_ERROR_INVALID_CONTROL);
        EXPECT_EQ(capture.messages(),
                  (std::vector<std::string>{unavailable, unavailable, unavailable}));
        EXPECT_EQ(qel_destroy_library(library), QEL_ERROR_NONE);
    }
}
