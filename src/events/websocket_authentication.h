// The client check of the websocket transport: an upgrade request is
// accepted when a header named authentification_key carries exactly
// authentification_value, or when its query string carries the parameter
// key=value (for clients, such as browsers, that cannot set request
// headers). Kept free of Beast so that the matching rules can be tested on
// plain strings.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace quelora::events {

enum class authentication_result { accepted, not_upgrade, missing, wrong_value };

// The reason logged with a refusal ("not a websocket upgrade request",
// "missing authentication", "wrong authentication value"); "accepted".
const char* describe(authentication_result result);

// Form decoding of one query-string component: %XY escapes and '+' as a
// space. An escape that is cut short or not hexadecimal makes the whole
// component undecodable (nullopt): such a parameter never matches.
std::optional<std::string> percent_decode(std::string_view text);

// The decoded name=value pairs of a request target's query string (after the
// first '?', up to a '#'), in order; a parameter without '=' has an empty
// value; undecodable parameters are left out.
std::vector<std::pair<std::string, std::string>> query_parameters(std::string_view target);

// is_upgrade: whether the request asks for a websocket upgrade.
// header_values: the values of every header named key (names compare
// without case in HTTP, so the caller looks them up). Any header or query
// parameter with the exact value accepts; otherwise a header or parameter
// named key makes it wrong_value, and neither makes it missing.
authentication_result authenticate(bool is_upgrade, const std::vector<std::string_view>& header_values,
                                   std::string_view target, std::string_view key,
                                   std::string_view value);

} // namespace quelora::events
