// Reading the websocket configuration file: the file, its JSON, then the
// seven keys. Each failure is one quelora_exception with its own exact
// message (logged once by its constructor); nothing of the JSON library
// escapes.
//
// A key that is missing or of the wrong type is rejected, and so is a value
// the transport could not use later:
// - port: a JSON number whose value is a whole number in 1..65535 (8080 and
//   8080.0 alike); 0, negatives, 65536 and above, fractions, strings and
//   booleans are rejected. A TCP port cannot be anything else.
// - cert_file_name, dh_params_file_name, key_file_name: non-empty paths
//   without a NUL character (an empty path names no file; a path with a
//   "\u0000" escape would be cut short where the file is opened).
// - passphrase: any string, empty included (a key may have no pass phrase).
// - authentification_key: a non-empty HTTP header field name, i.e. RFC 9110
//   token characters only, since clients present it as a request header.
// - authentification_value: a non-empty string of visible ASCII characters,
//   with spaces or tabs allowed inside but not at either end: it is compared
//   with a header value, and HTTP trims a value's surrounding whitespace, so
//   a value with blanks at its ends could never match.
// A document that is valid JSON but not an object has none of the keys, so
// it fails on 'port'. Keys outside the table are ignored.
#include "events/websocket_configuration.h"

#include "api/quelora_exception.h"
#include "config/room_layout.h"

#include <nlohmann/json.hpp>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string_view>
#include <system_error>

namespace quelora::events {
namespace {

using json = nlohmann::json;

[[noreturn]] void reject_parameter(const char* key) {
    throw quelora_exception(QEL_LOG_ERROR, QEL_ERROR_INVALID_VALUE,
                            "The websocket configuration parameter '%s' is either missing or "
                            "invalid.",
                            key);
}

std::string read_file_text(const char* path) {
    // An ifstream opens a directory without complaint on Linux and then reads
    // nothing, which would be reported as invalid JSON: a directory is not a
    // configuration file, so it is reported like a missing one.
    std::error_code ignored;
    const bool directory = std::filesystem::is_directory(path, ignored);
    std::ifstream file(path, std::ios::binary);
    if (directory || !file.is_open()) {
        throw quelora_exception(QEL_LOG_ERROR, QEL_ERROR_INVALID_VALUE,
                                "%s does not exist. Please check if the path to your websocket "
                                "configuration file is correct.",
                                path);
    }
    std::ostringstream text;
    text << file.rdbuf(); // an empty file leaves text empty (invalid JSON below)
    return text.str();
}

json parse_document(const char* path, const std::string& text) {
    try {
        // The room layout file's parser: same nesting limit, so no later
        // recursive walk of a hostile document can exhaust the stack.
        return parse_json_text(text);
    } catch (const json::exception&) {
        throw quelora_exception(QEL_LOG_ERROR, QEL_ERROR_INVALID_VALUE,
                                "%s contains invalid JSON data.", path);
    }
}

const json* member(const json& document, const char* key) {
    if (!document.is_object()) return nullptr;
    const auto found = document.find(key);
    return found == document.end() ? nullptr : &*found;
}

std::optional<int32_t> port_number(const json& value) {
    constexpr int64_t lowest = 1;
    constexpr int64_t highest = 65535;
    if (value.is_number_unsigned()) {
        const auto number = value.get<uint64_t>();
        if (number >= static_cast<uint64_t>(lowest) && number <= static_cast<uint64_t>(highest)) {
            return static_cast<int32_t>(number);
        }
    } else if (value.is_number_integer()) {
        const auto number = value.get<int64_t>();
        if (number >= lowest && number <= highest) return static_cast<int32_t>(number);
    } else if (value.is_number_float()) {
        const auto number = value.get<double>();
        if (std::isfinite(number) && std::trunc(number) == number &&
            number >= static_cast<double>(lowest) && number <= static_cast<double>(highest)) {
            return static_cast<int32_t>(number);
        }
    }
    return std::nullopt;
}

// RFC 9110 section 5.6.2 tchar.
bool is_token_character(char c) {
    if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')) return true;
    return std::string_view("!#$%&'*+-.^_`|~").find(c) != std::string_view::npos;
}

bool is_header_name(const std::string& text) {
    if (text.empty()) return false;
    for (const char c : text) {
        if (!is_token_character(c)) return false;
    }
    return true;
}

bool is_visible_ascii(char c) { return c >= '!' && c <= '~'; }

bool is_header_value(const std::string& text) {
    if (text.empty() || !is_visible_ascii(text.front()) || !is_visible_ascii(text.back())) {
        return false;
    }
    for (const char c : text) {
        if (!is_visible_ascii(c) && c != ' ' && c != '\t') return false;
    }
    return true;
}

enum class string_rule { any, path, header_name, header_value };

std::string read_string(const json& document, const char* key, string_rule rule) {
    const json* value = member(document, key);
    if (value == nullptr || !value->is_string()) reject_parameter(key);
    const auto& text = value->get_ref<const std::string&>();
    bool valid = true;
    switch (rule) {
    case string_rule::any: break;
    case string_rule::path: valid = !text.empty() && text.find('\0') == std::string::npos; break;
    case string_rule::header_name: valid = is_header_name(text); break;
    case string_rule::header_value: valid = is_header_value(text); break;
    }
    if (!valid) reject_parameter(key);
    return text;
}

} // namespace

websocket_configuration read_websocket_configuration(const char* path) {
    if (path == nullptr) {
        throw quelora_exception(QEL_LOG_WARNING, QEL_ERROR_INVALID_VALUE, "%s",
                                "You disabled the websocket server by using NULL for the websocket "
                                "config file path.");
    }
    return parse_websocket_configuration(read_file_text(path), path);
}

websocket_configuration parse_websocket_configuration(const std::string& text, const char* path) {
    const json document = parse_document(path, text);

    // Table order: the first missing or invalid key is the one reported.
    websocket_configuration configuration;
    const json* port = member(document, "port");
    const std::optional<int32_t> port_value =
        port != nullptr ? port_number(*port) : std::optional<int32_t>();
    if (!port_value) reject_parameter("port");
    configuration.port = *port_value;
    configuration.cert_file_name = read_string(document, "cert_file_name", string_rule::path);
    configuration.dh_params_file_name =
        read_string(document, "dh_params_file_name", string_rule::path);
    configuration.key_file_name = read_string(document, "key_file_name", string_rule::path);
    configuration.passphrase = read_string(document, "passphrase", string_rule::any);
    configuration.authentification_key =
        read_string(document, "authentification_key", string_rule::header_name);
    configuration.authentification_value =
        read_string(document, "authentification_value", string_rule::header_value);
    return configuration;
}

} // namespace quelora::events
