// Part 6.1: reading the websocket configuration file (construction steps
// 1-3): the nine messages with their levels, the table order, and the
// validity rules chosen for each key (see events/websocket_configuration.cpp).
#include "api/quelora_exception.h"
#include "events/websocket_configuration.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>
#include <quelora/quelora.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

using quelora::events::read_websocket_configuration;
using quelora::events::websocket_configuration;
using quelora::testing::log_capture;

namespace {

// Key and raw JSON value text, in the table's order.
using members = std::vector<std::pair<std::string, std::string>>;

members good_members() {
    return {
        {"port", "8443"},
        {"cert_file_name", R"("/etc/quelora/cert.pem")"},
        {"dh_params_file_name", R"("/etc/quelora/dh.pem")"},
        {"key_file_name", R"("/etc/quelora/key.pem")"},
        {"passphrase", R"("open sesame")"},
        {"authentification_key", R"("X-Quelora-Key")"},
        {"authentification_value", R"("s3cr3t value")"},
    };
}

members with(members list, const std::string& key, const std::string& raw) {
    for (auto& [name, value] : list) {
        if (name == key) value = raw;
    }
    return list;
}

members without(members list, const std::string& key) {
    std::erase_if(list, [&](const auto& member) { return member.first == key; });
    return list;
}

std::string object_text(const members& list) {
    std::string text = "{";
    for (const auto& [name, value] : list) {
        if (text.size() > 1) text += ",";
        text += "\"" + name + "\":" + value;
    }
    return text + "}";
}

std::string parameter_message(const std::string& key) {
    return "The websocket configuration parameter '" + key + "' is either missing or invalid.";
}

class Part6_1_WebsocketConfiguration : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/quelora_ws_config_XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        directory_ = pattern;
    }
    void TearDown() override { std::filesystem::remove_all(directory_); }

    std::string write_file(const std::string& text) {
        const std::string path = directory_ + "/config_" + std::to_string(++files_) + ".json";
        std::ofstream file(path, std::ios::binary);
        file << text;
        file.close();
        EXPECT_TRUE(file) << path;
        return path;
    }

    // Reads a file of these members; expects exactly one log line, at level
    // 4, with the message, and the code -9990.
    void expect_rejected(const members& list, const std::string& message) {
        const std::string path = write_file(object_text(list));
        expect_failure(path.c_str(), QEL_LOG_ERROR, message);
    }

    void expect_failure(const char* path, qel_log_level level, const std::string& message) {
        log_capture capture;
        try {
            read_websocket_configuration(path);
            ADD_FAILURE() << "no exception for " << (path ? path : "(null)");
        } catch (const quelora_exception& e) {
            EXPECT_EQ(e.error_code(), QEL_ERROR_INVALID_VALUE);
            EXPECT_EQ(std::string(e.what()), message);
        }
        const auto lines = capture.lines();
        ASSERT_EQ(lines.size(), 1u) << message;
        EXPECT_EQ(lines[0].level, level);
        EXPECT_EQ(lines[0].message, message);
    }

    websocket_configuration read_members(const members& list) {
        const std::string path = write_file(object_text(list));
        log_capture capture;
        websocket_configuration configuration;
        EXPECT_NO_THROW(configuration = read_websocket_configuration(path.c_str()))
            << object_text(list);
        EXPECT_TRUE(capture.lines().empty()) << object_text(list);
        return configuration;
    }

    std::string directory_;
    int files_ = 0;
};

TEST_F(Part6_1_WebsocketConfiguration, GoodFileIsReadIntoAllSevenFields) {
    const auto configuration = read_members(good_members());
    EXPECT_EQ(configuration.port, 8443);
    EXPECT_EQ(configuration.cert_file_name, "/etc/quelora/cert.pem");
    EXPECT_EQ(configuration.dh_params_file_name, "/etc/quelora/dh.pem");
    EXPECT_EQ(configuration.key_file_name, "/etc/quelora/key.pem");
    EXPECT_EQ(configuration.passphrase, "open sesame");
    EXPECT_EQ(configuration.authentification_key, "X-Quelora-Key");
    EXPECT_EQ(configuration.authentification_value, "s3cr3t value");
}

TEST_F(Part6_1_WebsocketConfiguration, KeysOutsideTheTableAndOtherOrdersAreAccepted) {
    members list = good_members();
    std::reverse(list.begin(), list.end());
    list.emplace_back("comment", R"({"anything": [1, 2, 3]})");
    const auto configuration = read_members(list);
    EXPECT_EQ(configuration.port, 8443);
    EXPECT_EQ(configuration.authentification_value, "s3cr3t value");
}

TEST_F(Part6_1_WebsocketConfiguration, NullPathIsAWarning) {
    expect_failure(nullptr, QEL_LOG_WARNING,
                   "You disabled the websocket server by using NULL for the websocket config "
                   "file path.");
}

TEST_F(Part6_1_WebsocketConfiguration, MissingFile) {
    const std::string path = directory_ + "/no_such_file.json";
    expect_failure(path.c_str(), QEL_LOG_ERROR,
                   path + " does not exist. Please check if the path to your websocket "
                          "configuration file is correct.");
}

TEST_F(Part6_1_WebsocketConfiguration, DirectoryIsReportedAsMissing) {
    expect_failure(directory_.c_str(), QEL_LOG_ERROR,
                   directory_ + " does not exist. Please check if the path to your websocket "
                                "configuration file is correct.");
}

TEST_F(Part6_1_WebsocketConfiguration, PathWithPercentSignsIsPrintedAsIs) {
    const std::string path = directory_ + "/%s%d%n.json";
    expect_failure(path.c_str(), QEL_LOG_ERROR,
                   path + " does not exist. Please check if the path to your websocket "
                          "configuration file is correct.");
}

TEST_F(Part6_1_WebsocketConfiguration, InvalidJson) {
    for (const std::string text : {"{", "port: 8080", R"({"port": 8080,})", "{} {}", "\xff"}) {
        const std::string path = write_file(text);
        expect_failure(path.c_str(), QEL_LOG_ERROR, path + " contains invalid JSON data.");
    }
}

TEST_F(Part6_1_WebsocketConfiguration, EmptyFileIsInvalidJson) {
    const std::string path = write_file("");
    expect_failure(path.c_str(), QEL_LOG_ERROR, path + " contains invalid JSON data.");
}

TEST_F(Part6_1_WebsocketConfiguration, TooDeepNestingIsInvalidJson) {
    const std::string path = write_file(std::string(100000, '[') + std::string(100000, ']'));
    expect_failure(path.c_str(), QEL_LOG_ERROR, path + " contains invalid JSON data.");
}

TEST_F(Part6_1_WebsocketConfiguration, JsonThatIsNotAnObjectLacksEveryKey) {
    for (const std::string text : {"[]", R"([{"port": 8443}])", "8443", R"("port")", "null"}) {
        const std::string path = write_file(text);
        expect_failure(path.c_str(), QEL_LOG_ERROR, parameter_message("port"));
    }
}

TEST_F(Part6_1_WebsocketConfiguration, EachMissingKeyHasItsOwnMessage) {
    for (const auto& [key, value] : good_members()) {
        SCOPED_TRACE(key);
        expect_rejected(without(good_members(), key), parameter_message(key));
    }
}

TEST_F(Part6_1_WebsocketConfiguration, EachKeyOfTheWrongTypeHasItsOwnMessage) {
    for (const auto& [key, value] : good_members()) {
        SCOPED_TRACE(key);
        const std::string wrong = key == "port" ? R"("8443")" : "8443";
        expect_rejected(with(good_members(), key, wrong), parameter_message(key));
        expect_rejected(with(good_members(), key, "null"), parameter_message(key));
        expect_rejected(with(good_members(), key, "[]"), parameter_message(key));
    }
}

TEST_F(Part6_1_WebsocketConfiguration, OnlyTheFirstBadKeyInTableOrderIsReported) {
    // Written in reverse order so that file order and table order disagree.
    members list = with(without(good_members(), "key_file_name"), "port", R"("8443")");
    std::reverse(list.begin(), list.end());
    expect_rejected(list, parameter_message("port"));

    list = with(with(good_members(), "authentification_value", R"("")"), "cert_file_name", "1");
    std::reverse(list.begin(), list.end());
    expect_rejected(list, parameter_message("cert_file_name"));

    expect_rejected(without(without(good_members(), "authentification_key"), "passphrase"),
                    parameter_message("passphrase"));
}

TEST_F(Part6_1_WebsocketConfiguration, PortAcceptsWholeNumbersFromOneTo65535) {
    const std::vector<std::pair<std::string, int32_t>> accepted = {
        {"1", 1}, {"8080", 8080}, {"8080.0", 8080}, {"8.08e3", 8080}, {"65535", 65535},
        {"65535.0", 65535}};
    for (const auto& [raw, port] : accepted) {
        EXPECT_EQ(read_members(with(good_members(), "port", raw)).port, port) << raw;
    }
}

TEST_F(Part6_1_WebsocketConfiguration, PortRejectsEverythingElse) {
    for (const std::string raw : {"0", "-0.0", "-1", "-8080", "65536", "65535.5", "80.5",
                                  "4294975376", "18446744073709551615", "-9223372036854775808",
                                  "1e300", R"("8080")", "true", "false", "{}"}) {
        SCOPED_TRACE(raw);
        expect_rejected(with(good_members(), "port", raw), parameter_message("port"));
    }
}

TEST_F(Part6_1_WebsocketConfiguration, FileNamesMustBeNonEmptyPathsWithoutNul) {
    for (const std::string key : {"cert_file_name", "dh_params_file_name", "key_file_name"}) {
        SCOPED_TRACE(key);
        expect_rejected(with(good_members(), key, R"("")"), parameter_message(key));
        expect_rejected(with(good_members(), key, R"("cert\u0000.pem")"), parameter_message(key));
        expect_rejected(with(good_members(), key, "true"), parameter_message(key));
        EXPECT_NO_THROW(read_members(with(good_members(), key, R"("a")")));
        EXPECT_NO_THROW(read_members(with(good_members(), key, R"("name with spaces.pem")")));
    }
}

TEST_F(Part6_1_WebsocketConfiguration, PassphraseMayBeAnyStringEvenEmpty) {
    EXPECT_EQ(read_members(with(good_members(), "passphrase", R"("")")).passphrase, "");
    EXPECT_EQ(read_members(with(good_members(), "passphrase", R"(" \t\u00e9 ")")).passphrase,
              " \t\xc3\xa9 ");
    expect_rejected(with(good_members(), "passphrase", "false"), parameter_message("passphrase"));
}

TEST_F(Part6_1_WebsocketConfiguration, AuthentificationKeyMustBeAHeaderFieldName) {
    for (const std::string name : {"X-Auth", "a", "0", "!#$%&'*+-.^_`|~09azAZ"}) {
        EXPECT_EQ(read_members(with(good_members(), "authentification_key", "\"" + name + "\""))
                      .authentification_key,
                  name);
    }
    for (const std::string raw : {R"("")", R"("X Auth")", R"("X:Auth")", R"("Key\n")",
                                  R"(" Key")", R"("a\"b")", R"j("(x)")j", R"("a\u0000b")",
                                  R"("Schl\u00fcssel")", R"("a/b")", "42"}) {
        SCOPED_TRACE(raw);
        expect_rejected(with(good_members(), "authentification_key", raw),
                        parameter_message("authentification_key"));
    }
}

TEST_F(Part6_1_WebsocketConfiguration, AuthentificationValueMustBeAVisibleHeaderValue) {
    const std::vector<std::pair<std::string, std::string>> accepted = {
        {R"("x")", "x"},
        {R"("secret")", "secret"},
        {R"("a b")", "a b"},
        {R"("a\tb")", "a\tb"},
        {R"j("!\"#~ ()")j", "!\"#~ ()"},
    };
    for (const auto& [raw, value] : accepted) {
        EXPECT_EQ(read_members(with(good_members(), "authentification_value", raw))
                      .authentification_value,
                  value)
            << raw;
    }
    for (const std::string raw : {R"("")", R"(" ")", R"(" secret")", R"("secret ")",
                                  R"("\tsecret")", R"("secret\t")", R"("sec\nret")",
                                  R"("sec\rret")", R"("sec\u007fret")", R"("caf\u00e9")",
                                  R"("a\u0000b")", "42", "true"}) {
        SCOPED_TRACE(raw);
        expect_rejected(with(good_members(), "authentification_value", raw),
                        parameter_message("authentification_value"));
    }
}

} // namespace
