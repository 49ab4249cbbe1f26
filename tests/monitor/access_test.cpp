// Defends who may ask over TCP: the one with the token, and no page from elsewhere.
#include "access.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using msgbus_monitor::IsAuthorized;
using msgbus_monitor::IsLoopbackHost;

TEST(AccessTest, OnlyTheToken_IsAuthorized) {
    EXPECT_TRUE(IsAuthorized("Bearer 0123456789abcdef", "0123456789abcdef"));
    EXPECT_TRUE(IsAuthorized("bearer 0123456789abcdef", "0123456789abcdef"));
    for (const auto* const wrong :
         {"", "Bearer", "Bearer ", "Bearer 0123456789abcdeF", "Bearer x123456789abcdef", "Bearer 0123456789abcde",
          "Bearer 0123456789abcdef0", "Bearer  0123456789abcdef", "Basic 0123456789abcdef", "0123456789abcdef"}) {
        EXPECT_FALSE(IsAuthorized(wrong, "0123456789abcdef")) << wrong;
    }
}

TEST(AccessTest, WithoutAToken_NobodyIsAuthorized) {
    EXPECT_FALSE(IsAuthorized("Bearer ", ""));
    EXPECT_FALSE(IsAuthorized("", ""));
}

TEST(AccessTest, OnlyNamesOfThisMachine_AreLoopbackHosts) {
    for (const auto* const host : {"localhost", "LocalHost", "localhost:80", "127.0.0.1", "127.0.0.1:8080", "127.1.2.3",
                                   "[::1]", "[::1]:8080"}) {
        EXPECT_TRUE(IsLoopbackHost(host)) << host;
    }
    for (const auto* const host :
         {"", ":80", "example.com", "example.com:80", "localhost.example.com", "128.0.0.1", "127.0.0.1.example.com",
          "[::2]", "::1", "0.0.0.0", "127.0.0.1:port", "localhost:example.com", "localhost:99999"}) {
        EXPECT_FALSE(IsLoopbackHost(host)) << host;
    }
}

} // namespace
