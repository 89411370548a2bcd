// The websocket configuration file: seven required keys, kept as read. Each
// reading failure has its own exact message.
#pragma once

#include <cstdint>
#include <string>

namespace quelora::events {

struct websocket_configuration {
    int32_t port = 0;
    std::string cert_file_name;
    std::string dh_params_file_name;
    std::string key_file_name;
    std::string passphrase;
    std::string authentification_key;
    std::string authentification_value;
};

// Throws quelora_exception (QEL_ERROR_INVALID_VALUE) with its own message
// for a null path (level 3), a path that cannot be opened for reading (missing,
// or a directory), a file that is not JSON, and the first key in table order
// that is missing or invalid (level 4). What "invalid" means for each key is
// set out at the top of websocket_configuration.cpp.
websocket_configuration read_websocket_configuration(const char* path);
// Parsing and the key checks alone, on the file's text; path only names the
// file in messages.
websocket_configuration parse_websocket_configuration(const std::string& text, const char* path);

} // namespace quelora::events
