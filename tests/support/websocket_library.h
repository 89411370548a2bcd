// Helpers for tests that drive the server flavour's websocket publishing
// through the C interface (spec Parts 2.1 step 5, 6.1): a configuration file
// for the throw-away TLS files, and a library handle built with it.
#pragma once

#include "events/websocket_configuration.h"
#include "support/library_fixture.h"
#include "support/websocket_fixture.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <quelora/quelora.h>

#include <string>

namespace quelora::testing {

// The configuration written as the JSON file of Part 6.1; returns its path.
inline std::string write_websocket_configuration(const events::websocket_configuration& c) {
    const nlohmann::ordered_json document = {
        {"port", c.port},
        {"cert_file_name", c.cert_file_name},
        {"dh_params_file_name", c.dh_params_file_name},
        {"key_file_name", c.key_file_name},
        {"passphrase", c.passphrase},
        {"authentification_key", c.authentification_key},
        {"authentification_value", c.authentification_value}};
    return write_temp_file("websocket.json", document.dump(2));
}

// A library initialised with a websocket configuration (qel_initialize_library).
class websocket_library {
public:
    explicit websocket_library(const events::websocket_configuration& configuration,
                               const char* layout_file = nullptr)
        : configuration_(configuration) {
        const std::string path = write_websocket_configuration(configuration);
        handle_ = qel_initialize_library(layout_file, path.c_str(), default_configuration(), &error_);
    }
    ~websocket_library() {
        if (handle_ != nullptr) qel_destroy_library(handle_);
    }
    websocket_library(const websocket_library&) = delete;
    websocket_library& operator=(const websocket_library&) = delete;

    operator qel_handle() const { return handle_; }
    int init_error() const { return error_; }
    const events::websocket_configuration& configuration() const { return configuration_; }
    // Destroys the library now (the destructor then does nothing).
    int destroy() {
        const int code = qel_destroy_library(handle_);
        handle_ = nullptr;
        return code;
    }

private:
    events::websocket_configuration configuration_;
    qel_handle handle_ = nullptr;
    int error_ = 0;
};

// The sixteen control values of an "add_participant" message for a
// participant with Part 1.4's defaults, from control 1 to the closing brace.
inline const std::string default_controls_json =
    R"("QEL_CONTROL_STEREO_BYPASS_ENABLE":0,"QEL_CONTROL_MUTE_ENABLE":0,"QEL_CONTROL_ANC_ENABLE":0,)"
    R"("QEL_CONTROL_ANC_HIGH":1,"QEL_CONTROL_ANC_MIX":100,"QEL_CONTROL_AGC_ENABLE":0,)"
    R"("QEL_CONTROL_AUTO_EQ_ENABLE":0,"QEL_CONTROL_MIXING_3D_ENABLE":0,)"
    R"("QEL_CONTROL_MIXING_3D_ATTENUATION":6,"QEL_CONTROL_MIXING_3D_MAX_DISTANCE":300,)"
    R"("QEL_CONTROL_MIXING_3D_REVERB_ENABLE":1,"QEL_CONTROL_DEVICE":1,)"
    R"("QEL_CONTROL_HALF_SPAN_ANGLE":15,"QEL_CONTROL_MASTER_GAIN":100,)"
    R"("QEL_CONTROL_WHISPER_ROOM":0,"QEL_CONTROL_SIDEBAR_ROOM":0})";

// ws_client.py arguments that authenticate with the test key by header.
inline std::vector<std::string> authenticated_client(uint16_t port, std::vector<std::string> more) {
    more.insert(more.begin(), {"--header", "token=secret"});
    return ws_client_arguments(port, std::move(more));
}

} // namespace quelora::testing
