// Defends how many connections the processes of a user get, who is let in because of its group.
#include "joining/callers.h"

#include "kn/policy.h"
#include "kn/status.h"
#include "log_recorder.h"
#include "records/shared_memory_channel.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <vector>

namespace borven_host {
namespace {

constexpr std::uint32_t OfOneProcess = 4;
constexpr std::uint32_t OfAll = 11;
constexpr std::size_t OfOneUser = 6;

class CallersTest : public ::testing::Test {
protected:
    CallersTest() : guest(::geteuid() + 1) { EXPECT_EQ(KnPolicySetConnectionLimits(OfOneProcess, OfAll), KnStatusOk); }
    ~CallersTest() override {
        for (const auto& caller : entered) {
            callers.Leave(*caller, channel);
        }
        KnPolicySetConnectionLimits(Channel::MaxClients, Channel::MaxClients);
    }

    bool Enter(pid_t pid, uid_t user) {
        Peer peer;
        peer.pid = pid;
        peer.uid = user;
        peer.startTime = 1;
        auto caller = callers.Enter(peer, channel, entered.size());
        return caller ? entered.push_back(std::move(caller)), true : false;
    }

    const uid_t guest;
    platform_test::LogRecorder log;
    Callers callers;
    Channel channel{Channel::DeadClient::ReplyReportsIt};
    std::vector<std::shared_ptr<const Caller>> entered;
};

TEST_F(CallersTest, TheProcessesOfAGuest_HaveHalfOfTheConnections) {
    for (std::size_t count = 0; count < OfOneUser; ++count) {
        ASSERT_TRUE(Enter(static_cast<pid_t>(100 + count), guest)) << count;
    }
    EXPECT_FALSE(Enter(100, guest));
    EXPECT_FALSE(Enter(200, guest));
    EXPECT_EQ(log.Text(), "3 the processes of user " + std::to_string(guest) +
                              " have 6 connections to one channel, the share of a user, and get no more\n");
    EXPECT_TRUE(Enter(300, guest + 1));
    callers.Leave(*entered.front(), channel);
    entered.erase(entered.begin());
    EXPECT_TRUE(Enter(200, guest));
    EXPECT_FALSE(Enter(100, guest));
}

TEST_F(CallersTest, OfAnotherChannel_TheyHaveHalfToo) {
    for (std::size_t count = 0; count < OfOneUser; ++count) {
        ASSERT_TRUE(Enter(static_cast<pid_t>(100 + count), guest)) << count;
    }
    const Channel other(Channel::DeadClient::ReplyReportsIt);
    Peer peer;
    peer.pid = 100;
    peer.uid = guest;
    peer.startTime = 1;
    const auto caller = callers.Enter(peer, other, 0);
    ASSERT_TRUE(caller);
    callers.Leave(*caller, other);
}

TEST_F(CallersTest, TheServersUserAndRoot_MayHaveAll) {
    for (const uid_t user : {::geteuid(), uid_t{0}}) {
        for (std::size_t count = 0; count < OfAll; ++count) {
            ASSERT_TRUE(Enter(static_cast<pid_t>(100 + count), user)) << count;
        }
    }
}

TEST_F(CallersTest, WhereOneProcessMayHaveAll_AUserMayToo) {
    KnPolicySetConnectionLimits(OfAll, OfAll);
    for (std::size_t count = 0; count < OfAll; ++count) {
        ASSERT_TRUE(Enter(100, guest)) << count;
    }
}

} // namespace
} // namespace borven_host
