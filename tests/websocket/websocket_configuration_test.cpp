// Reading the websocket configuration file: each failure is one exception and one log line with the
// exact text hosts see; each key by the rule the transport relies on (websocket_configuration.cpp).
#include "api/quelora_exception.h"
#include "events/websocket_configuration.h"
#include "support/library_fixture.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

using quelora::events::read_websocket_configuration;
using quelora::testing::write_temp_file;
using members = std::vector<std::pair<std::string, std::string>>;

namespace {

// Key and raw JSON value, in the order the reader checks them.
// clang-format off
const members good = {{"port", "8443"},                   {"cert_file_name", R"("/q/cert.pem")"},
                      {"dh_params_file_name", R"("dh")"},  {"key_file_name", R"("/q/key.pem")"},
                      {"passphrase", R"("open sesame")"},  {"authentification_key", R"("X-Key")"},
                      {"authentification_value", R"("s3cr3t value")"}};
// clang-format on

// A file of the good members in reverse order (the file's order decides
// nothing) with `changes` (an empty value leaves the key out); its path.
std::string file_with(const members& changes) {
    std::string text = R"({"comment":{"ignored":[1]})";
    for (auto member = good.rbegin(); member != good.rend(); ++member) {
        std::string raw = member->second;
        for (const auto& [key, value] : changes) raw = key == member->first ? value : raw;
        if (!raw.empty()) text += ",\"" + member->first + "\":" + raw;
    }
    return write_temp_file("websocket.json", text + "}");
}

std::string parameter_message(const std::string& key) {
    return "The websocket configuration parameter '" + key + "' is either missing or invalid.";
}

void expect_failure(const char* path, qel_log_level level, const std::string& message) {
    quelora::testing::log_capture capture;
    EXPECT_THROW(read_websocket_configuration(path), quelora_exception) << message;
    const auto lines = capture.lines();
    ASSERT_EQ(lines.size(), 1u) << message;
    EXPECT_EQ(lines[0].level, level);
    EXPECT_EQ(lines[0].message, message);
}

} // namespace

TEST(WebsocketConfiguration, EachKeysValuesAreReadOrTheFirstBadKeyInTableOrderIsReported) {
    // Values read as they are; the good file's other values stay.
    // clang-format off
    const members accepted = {
        {"port", "1"}, {"port", "65535"}, {"port", "8.08e3"}, {"cert_file_name", R"("a")"},
        {"passphrase", R"("")"}, {"dh_params_file_name", R"("d h")"},
        {"key_file_name", R"("k\u00e9y")"}, {"passphrase", R"(" \t\u00e9 ")"},
        {"authentification_key", R"("!#$%&'*+-.^_`|~09azAZ")"},
        {"authentification_value", R"("x")"}, {"authentification_value", R"j("!\"#~ (a\tb)")j"}};
    // clang-format on
    for (const auto& [key, raw] : accepted) {
        quelora::testing::log_capture capture;
        const auto c = read_websocket_configuration(file_with({{key, raw}}).c_str());
        const std::vector<std::string> read = {
            std::to_string(c.port),  c.cert_file_name, c.dh_params_file_name,
            c.key_file_name,         c.passphrase,     c.authentification_key,
            c.authentification_value};
        for (size_t i = 0; i < read.size(); ++i) {
            const auto value = nlohmann::json::parse(good[i].first == key ? raw : good[i].second);
            EXPECT_EQ(read[i], value.is_string() ? value.get<std::string>()
                                                 : std::to_string(value.get<int>()))
                << raw;
        }
        EXPECT_TRUE(capture.lines().empty());
    }
    // Values refused; an empty value leaves the key out.
    const std::vector<std::pair<std::string, std::vector<std::string>>> invalid = {
        {"port",
         {"", R"("8443")", "null", "[]", "{}", "true", "0", "-0.0", "-1", "65536", "65535.5",
          "4294975376", "18446744073709551615", "-9223372036854775808", "1e300"}},
        {"cert_file_name", {"", "8443", "null", R"("")", R"("cert\u0000.pem")"}},
        {"dh_params_file_name", {"", "[]", R"("")", R"("dh\u0000.pem")"}},
        {"key_file_name", {"", "true", R"("")", R"("key\u0000.pem")"}},
        {"passphrase", {"", "false", "null"}},
        {"authentification_key",
         {"", "42", R"("")", R"("X Auth")", R"("X:Auth")", R"("Key\n")", R"(" Key")", R"("a\"b")",
          R"j("(x)")j", R"("a\u0000b")", R"("Schl\u00fcssel")", R"("a/b")"}},
        {"authentification_value",
         {"", "42", R"("")", R"(" ")", R"(" secret")", R"("secret ")", R"("\tsecret")",
          R"("secret\t")", R"("sec\nret")", R"("sec\rret")", R"("sec\u007fret")", R"("caf\u00e9")",
          R"("a\u0000b")"}}};
    std::vector<std::pair<members, std::string>> rows = {
        {{{"key_file_name", ""}, {"port", R"("8443")"}}, "port"},
        {{{"authentification_value", R"("")"}, {"cert_file_name", "1"}}, "cert_file_name"},
        {{{"authentification_key", ""}, {"passphrase", ""}}, "passphrase"}};
    for (const auto& [key, values] : invalid)
        for (const auto& raw : values) rows.push_back({{{key, raw}}, key});
    for (const auto& [changes, key] : rows) {
        SCOPED_TRACE(changes[0].first + " = " + changes[0].second);
        expect_failure(file_with(changes).c_str(), QEL_LOG_ERROR, parameter_message(key));
    }
}

TEST(WebsocketConfiguration, FilesThatCannotBeReadOrAreNoJsonObject) {
    expect_failure(
        nullptr, QEL_LOG_WARNING,
        "You disabled the websocket server by using NULL for the websocket config file path.");
    const std::string directory = std::filesystem::path(write_temp_file("x", "")).parent_path();
    for (const std::string& path :
         {directory + "/missing.json", directory, directory + "/%s%d%n.json"}) {
        expect_failure(path.c_str(), QEL_LOG_ERROR,
                       path + " does not exist. Please check if the path to your websocket "
                              "configuration file is correct.");
    }
    for (const std::string& text :
         {std::string(), std::string("{"), std::string("port: 8080"),
          std::string(R"({"port": 8080,})"), std::string("{} {}"), std::string("\xff"),
          std::string(100000, '[') + std::string(100000, ']')}) {
        const std::string path = write_temp_file("websocket.json", text);
        expect_failure(path.c_str(), QEL_LOG_ERROR, path + " contains invalid JSON data.");
    }
    // Valid JSON that is not an object has none of the keys.
    for (const char* text : {"[]", R"([{"port": 8443}])", "8443", R"("port")", "null"}) {
        expect_failure(write_temp_file("websocket.json", text).c_str(), QEL_LOG_ERROR,
                       parameter_message("port"));
    }
}
