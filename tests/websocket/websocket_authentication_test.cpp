// Part 6.1 (transport left to the implementer): the key/value check of a
// websocket upgrade request, by header or by query parameter.
#include "events/websocket_authentication.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <utility>
#include <vector>

using quelora::events::authenticate;
using quelora::events::authentication_result;
using quelora::events::describe;
using quelora::events::percent_decode;
using quelora::events::query_parameters;

namespace {

authentication_result check(const std::vector<std::string_view>& headers, std::string_view target,
                            bool upgrade = true) {
    return authenticate(upgrade, headers, target, "token", "se cret&=");
}

using pairs = std::vector<std::pair<std::string, std::string>>;

} // namespace

TEST(Part6_1_WebsocketAuthentication, PercentDecodingOfQueryComponents) {
    EXPECT_EQ(percent_decode("plain"), "plain");
    EXPECT_EQ(percent_decode("a+b"), "a b");
    EXPECT_EQ(percent_decode("%41%62%2B%20"), "Ab+ ");
    EXPECT_EQ(percent_decode("%c3%bc"), "\xc3\xbc");
    EXPECT_EQ(percent_decode(""), "");
    EXPECT_EQ(percent_decode("%"), std::nullopt);
    EXPECT_EQ(percent_decode("%4"), std::nullopt);
    EXPECT_EQ(percent_decode("abc%4"), std::nullopt);
    EXPECT_EQ(percent_decode("%zz"), std::nullopt);
    EXPECT_EQ(percent_decode("%4g"), std::nullopt);
}

TEST(Part6_1_WebsocketAuthentication, QueryParametersInOrderDecodedAndUndecodableOnesLeftOut) {
    EXPECT_EQ(query_parameters("/"), pairs{});
    EXPECT_EQ(query_parameters("/?"), pairs{});
    EXPECT_EQ(query_parameters("/path?a=1&b=two+words&&c&d=%3D%26#e=5"),
              (pairs{{"a", "1"}, {"b", "two words"}, {"c", ""}, {"d", "=&"}}));
    EXPECT_EQ(query_parameters("/?bad=%zz&good=1"), (pairs{{"good", "1"}}));
    EXPECT_EQ(query_parameters("/?a=b=c"), (pairs{{"a", "b=c"}}));
}

TEST(Part6_1_WebsocketAuthentication, HeaderWithTheExactValueAccepts) {
    EXPECT_EQ(check({"se cret&="}, "/"), authentication_result::accepted);
    // One of several headers of that name is enough.
    EXPECT_EQ(check({"other", "se cret&="}, "/"), authentication_result::accepted);
}

TEST(Part6_1_WebsocketAuthentication, HeaderValuesAreNotDecodedNorTrimmedNorCaseFolded) {
    EXPECT_EQ(check({"se+cret%26%3D"}, "/"), authentication_result::wrong_value);
    EXPECT_EQ(check({"se cret&= "}, "/"), authentication_result::wrong_value);
    EXPECT_EQ(check({"SE CRET&="}, "/"), authentication_result::wrong_value);
    EXPECT_EQ(check({""}, "/"), authentication_result::wrong_value);
}

TEST(Part6_1_WebsocketAuthentication, QueryParameterWithTheDecodedValueAccepts) {
    EXPECT_EQ(check({}, "/?token=se+cret%26%3D"), authentication_result::accepted);
    EXPECT_EQ(check({}, "/events?x=1&token=se%20cret%26%3d&y=2"), authentication_result::accepted);
    EXPECT_EQ(check({}, "/?%74oken=se+cret%26%3D"), authentication_result::accepted);
    // A later parameter of the same name may carry the value.
    EXPECT_EQ(check({}, "/?token=no&token=se+cret%26%3D"), authentication_result::accepted);
    // A wrong header does not spoil a right parameter, nor the reverse.
    EXPECT_EQ(check({"no"}, "/?token=se+cret%26%3D"), authentication_result::accepted);
    EXPECT_EQ(check({"se cret&="}, "/?token=no"), authentication_result::accepted);
}

TEST(Part6_1_WebsocketAuthentication, WrongOrMissingValues) {
    EXPECT_EQ(check({}, "/?token=se+cret"), authentication_result::wrong_value);
    EXPECT_EQ(check({}, "/?token"), authentication_result::wrong_value);
    EXPECT_EQ(check({}, "/?Token=se+cret%26%3D"), authentication_result::missing);
    EXPECT_EQ(check({}, "/?token=se+cret%26%3"), authentication_result::missing);
    EXPECT_EQ(check({}, "/"), authentication_result::missing);
    EXPECT_EQ(check({}, "/#token=se+cret%26%3D"), authentication_result::missing);
    EXPECT_EQ(check({}, "/?x=1#token=se+cret%26%3D"), authentication_result::missing);
}

TEST(Part6_1_WebsocketAuthentication, ARequestThatIsNoUpgradeIsRefusedWhateverItCarries) {
    EXPECT_EQ(check({"se cret&="}, "/?token=se+cret%26%3D", false), authentication_result::not_upgrade);
}

TEST(Part6_1_WebsocketAuthentication, ReasonsForTheLog) {
    EXPECT_STREQ(describe(authentication_result::accepted), "accepted");
    EXPECT_STREQ(describe(authentication_result::not_upgrade), "not a websocket upgrade request");
    EXPECT_STREQ(describe(authentication_result::missing), "missing authentication");
    EXPECT_STREQ(describe(authentication_result::wrong_value), "wrong authentication value");
}
