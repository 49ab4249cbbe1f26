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
        LeaveAll();
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

    void LeaveAll() {
        for (const auto& caller : entered) {
            callers.Leave(*caller, channel);
        }
        entered.clear();
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
    EXPECT_EQ(log.Text(), "3 process 100 (unknown) gets no more connections to one channel: those of user " +
                              std::to_string(guest) + " have 6, the share of a user is 6\n");
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

TEST_F(CallersTest, AProcessThatChangesItsUser_StaysOneOfItsFirstUser) {
    for (const pid_t pid : {100, 101, 102}) {
        ASSERT_TRUE(Enter(pid, 0));
        for (int count = 0; count < 2; ++count) {
            ASSERT_TRUE(Enter(pid, guest));
        }
    }
    LeaveAll();
    for (std::size_t count = 0; count + 1 < OfOneUser; ++count) {
        ASSERT_TRUE(Enter(static_cast<pid_t>(200 + count), guest)) << count;
    }
    ASSERT_TRUE(Enter(300, guest));
    EXPECT_FALSE(Enter(300, guest + 1));
    callers.Leave(*entered.back(), channel);
    entered.pop_back();
    EXPECT_TRUE(Enter(400, guest));
    EXPECT_FALSE(Enter(401, guest));
}

TEST_F(CallersTest, WhereOnlyTheTotalIsLimited_AUserHasHalfOfItToo) {
    KnPolicySetConnectionLimits(Channel::MaxClients, OfAll);
    for (std::size_t count = 0; count < OfOneUser; ++count) {
        ASSERT_TRUE(Enter(100, guest)) << count;
    }
    EXPECT_FALSE(Enter(100, guest));
}

TEST_F(CallersTest, WithoutLimits_AUserMayHaveAll) {
    KnPolicySetConnectionLimits(Channel::MaxClients, Channel::MaxClients);
    for (std::size_t count = 0; count < Channel::MaxClients; ++count) {
        ASSERT_TRUE(Enter(100, guest)) << count;
    }
}

} // namespace
} // namespace borven_host
