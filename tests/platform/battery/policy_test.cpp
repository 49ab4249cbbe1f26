// Defends kn/policy.h: a method that the declared interface does not have is answered before the server sees it.
#include "kn/policy.h"

#include "support.h"

namespace platform_test {
namespace {

using Policy = PlatformTest;

TEST_F(Policy, AMethodPastTheDeclaredCount_NeverReachesTheServer) {
    ASSERT_EQ(KnStatusOk, KnPolicySetMethodCount("policy.Six", 6));
    ASSERT_EQ(KnStatusOk, Publish("service", "policy.Six"));
    const Joined joined = Join("service", 1);
    const Echoers echoers(joined.channel);
    Record response;
    for (const auto mid : std::initializer_list<std::uint16_t>{6, 7, 0xFFFF}) {
        EXPECT_EQ(KnStatusUnimplemented, Call(joined.client.Get(), RequestOf(1, 1, mid), response)) << mid;
    }
    EXPECT_EQ(0, echoers.Served());
    for (const auto mid : std::initializer_list<std::uint16_t>{0, 5}) {
        EXPECT_EQ(KnStatusOk, Call(joined.client.Get(), RequestOf(1, 1, mid), response)) << mid;
    }
    EXPECT_EQ(KnStatusDenied, Call(joined.client.Get(), RequestOf(1, 0, 9), response)) << "the interface comes first";
}

TEST_F(Policy, WithoutADeclaration_EveryMethodPasses) {
    ASSERT_EQ(KnStatusOk, Publish("service", "policy.Undeclared"));
    const Joined joined = Join("service");
    const Echoers echoers(joined.channel);
    Record response;
    EXPECT_EQ(KnStatusOk, Call(joined.client.Get(), RequestOf(1, 0, 0xFFFF), response));
}

TEST_F(Policy, ASecondDeclaration_ReplacesTheFirst) {
    ASSERT_EQ(KnStatusOk, KnPolicySetMethodCount("policy.Twice", 1));
    ASSERT_EQ(KnStatusOk, KnPolicySetMethodCount("policy.Twice", 2));
    ASSERT_EQ(KnStatusOk, Publish("service", "policy.Twice"));
    const Joined joined = Join("service");
    const Echoers echoers(joined.channel);
    Record response;
    EXPECT_EQ(KnStatusOk, Call(joined.client.Get(), RequestOf(1, 0, 1), response));
    EXPECT_EQ(KnStatusUnimplemented, Call(joined.client.Get(), RequestOf(1, 0, 2), response));
}

TEST_F(Policy, WithoutAType_ItIsRefused) {
    EXPECT_EQ(KnStatusInvalidArgument, KnPolicySetMethodCount(nullptr, 1));
    EXPECT_EQ(KnStatusInvalidArgument, KnPolicySetMethodCount("", 1));
}

} // namespace
} // namespace platform_test
