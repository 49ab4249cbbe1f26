// Defends that the monitor cannot be offered to other machines, however its address is written.
#include "loopback_address.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace {

using msgbus_monitor::LoopbackAddress;

TEST(LoopbackAddressTest, LoopbackAddresses_AreReadAndWritten) {
    for (const auto* const text : {"127.0.0.1:8080", "127.255.255.255:0", "[::1]:65535"}) {
        EXPECT_EQ(LoopbackAddress::Parse(text).ToText(), text);
    }
    EXPECT_EQ(LoopbackAddress::Parse("[::1]:80").host, "::1");
    EXPECT_EQ(LoopbackAddress::Parse("[::1]:80").port, 80);
    EXPECT_TRUE(LoopbackAddress::Parse("[::1]:80").isVersion6);
    EXPECT_FALSE(LoopbackAddress::Parse("127.0.0.1:80").isVersion6);
}

TEST(LoopbackAddressTest, EverythingElse_IsRefused) {
    for (const auto* const text : {"",
                                   ":",
                                   "8080",
                                   ":8080",
                                   "localhost:8080",
                                   "0.0.0.0:8080",
                                   "128.0.0.1:8080",
                                   "192.168.0.1:80",
                                   "[::]:80",
                                   "::1:80",
                                   "[::2]:80",
                                   "[127.0.0.1]:80",
                                   "[::ffff:127.0.0.1]:80",
                                   "127.0.0.1",
                                   "127.0.0.1:",
                                   "127.0.0.1:65536",
                                   "127.0.0.1:-1",
                                   "127.0.0.1:80 ",
                                   " 127.0.0.1:80",
                                   "127.1:80",
                                   "[]:80",
                                   "[:80"}) {
        EXPECT_THROW(LoopbackAddress::Parse(text), std::invalid_argument) << text;
    }
}

} // namespace
