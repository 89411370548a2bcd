// The client check of the websocket transport: header or query parameter
// key=value.
#include "events/websocket_authentication.h"

namespace quelora::events {

namespace {

int hex_digit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

} // namespace

const char* describe(authentication_result result) {
    switch (result) {
    case authentication_result::accepted: return "accepted";
    case authentication_result::not_upgrade: return "not a websocket upgrade request";
    case authentication_result::missing: return "missing authentication";
    case authentication_result::wrong_value: return "wrong authentication value";
    }
    return "unknown";
}

std::optional<std::string> percent_decode(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (c == '+') {
            out.push_back(' ');
        } else if (c == '%') {
            if (text.size() - i < 3) return std::nullopt;
            const int high = hex_digit(text[i + 1]);
            const int low = hex_digit(text[i + 2]);
            if (high < 0 || low < 0) return std::nullopt;
            out.push_back(static_cast<char>(high * 16 + low));
            i += 2;
        } else {
            out.push_back(c);
        }
    }
    return out;
}

std::vector<std::pair<std::string, std::string>> query_parameters(std::string_view target) {
    std::vector<std::pair<std::string, std::string>> out;
    const size_t question = target.find('?');
    if (question == std::string_view::npos) return out;
    std::string_view query = target.substr(question + 1);
    query = query.substr(0, query.find('#'));
    while (!query.empty()) {
        const size_t amp = query.find('&');
        const std::string_view parameter = query.substr(0, amp);
        query = amp == std::string_view::npos ? std::string_view{} : query.substr(amp + 1);
        if (parameter.empty()) continue;
        const size_t equals = parameter.find('=');
        auto name = percent_decode(parameter.substr(0, equals));
        auto value = percent_decode(equals == std::string_view::npos ? std::string_view{}
                                                                     : parameter.substr(equals + 1));
        if (name && value) out.emplace_back(std::move(*name), std::move(*value));
    }
    return out;
}

authentication_result authenticate(bool is_upgrade, const std::vector<std::string_view>& header_values,
                                   std::string_view target, std::string_view key,
                                   std::string_view value) {
    if (!is_upgrade) return authentication_result::not_upgrade;
    bool named = !header_values.empty();
    for (std::string_view presented : header_values) {
        if (presented == value) return authentication_result::accepted;
    }
    for (const auto& [name, presented] : query_parameters(target)) {
        if (name != key) continue;
        if (presented == value) return authentication_result::accepted;
        named = true;
    }
    return named ? authentication_result::wrong_value : authentication_result::missing;
}

} // namespace quelora::events
