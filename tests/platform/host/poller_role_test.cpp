// Defends the turn to spin, of which a process has one: a channel gives it up with its poller or its life, and loses it
// when no thread of the channel uses it. And defends that a client that is removed leaves nothing behind.
#include "records/poller_role.h"

#include "kn/status.h"
#include "names/handshake.h"
#include "support.h"

#include <sys/socket.h>

namespace platform_test {
namespace {

using borven_host::Channel;
using borven_host::ChannelClient;
using borven_host::ClientTable;
using borven_host::LayoutVersion;
using borven_host::MakeBell;
using borven_host::PollerRole;
using borven_host::SharedMemoryEnds;
using borven_host::SharedMemoryRegion;
using borven_host::SlotWord;
using borven_host::UniqueFd;

/// A channel with one client, whose requests the test makes.
class PolledChannel final {
public:
    PolledChannel() {
        std::array<int, 2> pair{};
        EXPECT_EQ(0, ::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair.data()));
        clientSocket = UniqueFd(pair[1]);
        SharedMemoryEnds ends;
        UniqueFd file;
        EXPECT_EQ(KnStatusOk, SharedMemoryRegion::Create(LayoutVersion, ends.region, file));
        ends.bell = MakeBell();
        ends.doorbell = MakeBell();
        std::uint64_t id = 0;
        EXPECT_EQ(KnStatusOk, clients.Add(UniqueFd(pair[0]), std::move(ends), nullptr, {}, nullptr, &id));
        EXPECT_EQ(KnStatusOk, clients.Find(id, client));
    }

    /// The client has rung twice in quick succession.
    void BeginStream() {
        Learn(client);
        Learn(client);
    }

    void Learn(const std::shared_ptr<ChannelClient>& rung) {
        if (!role->TryEnter()) {
            FAIL() << "the role is free";
        }
        role->Learn(rung, SteadyClock::duration::zero());
        role->Leave();
    }

    void Request() {
        const Record request = RequestOf(1);
        auto& half = client->Slot().request;
        half.word.store(SlotWord(++calls, half.Put(&request, NkRecordSize)).Raw());
    }

    /// Returns: whether the poller found the request, which is answered then.
    bool Poll() {
        Record request;
        NkSetSize(request.header, NkRecordSize);
        if (!role->TryEnter()) {
            ADD_FAILURE() << "the role is free";
            return false;
        }
        const auto found = role->Poll(&request.header);
        role->Leave();
        if (found) {
            found->Answer(KnStatusBusy);
        }
        return found != nullptr;
    }

    /// Whether the client is to rely on the poller.
    bool IsAnnounced() const { return client->Slot().reply.hint.load() == 1; }

    /// The client is removed, as the housekeeper does it. Returns: the last reference to it.
    std::shared_ptr<ChannelClient> RemoveClient() {
        EXPECT_EQ(client, clients.Remove(client->id));
        role->ForgetGone();
        return std::exchange(client, nullptr);
    }

    ClientTable clients{Channel::DeadClient::ReplyAnswersOk};
    std::optional<PollerRole> role{std::in_place, clients};

private:
    using SteadyClock = borven_host::SteadyClock;

    UniqueFd clientSocket;
    std::shared_ptr<ChannelClient> client;
    std::uint32_t calls = 0;
};

class PollerTurnTest : public testing::Test {
protected:
    /// `channel` has the turn, and its poller is away with a request.
    static void TakeTurn(PolledChannel& channel) {
        channel.BeginStream();
        channel.Request();
        ASSERT_TRUE(channel.Poll());
        ASSERT_TRUE(channel.role->HasTurn());
    }

    std::optional<PolledChannel> first{std::in_place};
    PolledChannel second;
};

TEST_F(PollerTurnTest, APollerThatFindsARequest_KeepsTheTurn) {
    TakeTurn(*first);
    EXPECT_TRUE(first->IsAnnounced());
    EXPECT_TRUE(first->role->MayHaveTurn());
    EXPECT_FALSE(second.role->MayHaveTurn());
}

TEST_F(PollerTurnTest, APollerThatFindsNone_GivesTheTurnUp) {
    TakeTurn(*first);
    EXPECT_FALSE(first->Poll());
    EXPECT_FALSE(first->role->HasTurn());
    EXPECT_TRUE(second.role->MayHaveTurn());
    EXPECT_FALSE(first->IsAnnounced());
}

TEST_F(PollerTurnTest, AChannelThatEndsWithTheTurn_GivesItUp) {
    TakeTurn(*first);
    first->role.reset();
    EXPECT_TRUE(second.role->MayHaveTurn());
    TakeTurn(second);
}

TEST_F(PollerTurnTest, AChannelThatDoesNotUseTheTurn_LosesIt_AndItsClientsRing) {
    TakeTurn(*first);
    second.BeginStream();
    second.Request();
    Await("the second channel should get the turn", [&] { return second.Poll(); });
    EXPECT_TRUE(second.role->HasTurn());
    EXPECT_TRUE(first->IsAnnounced()) << "it does not know yet";
    EXPECT_FALSE(first->Poll());
    EXPECT_FALSE(first->IsAnnounced());
    EXPECT_FALSE(first->role->IsMissed()) << "its receivers may sleep";
}

TEST_F(PollerTurnTest, AChannelThatHasLostTheTurn_StillFindsTheRequestThatReliesOnIt) {
    TakeTurn(*first);
    second.BeginStream();
    second.Request();
    Await("the second channel should get the turn", [&] { return second.Poll(); });
    first->Request();
    EXPECT_TRUE(first->Poll());
    EXPECT_TRUE(second.role->HasTurn()) << "it was not taken back";
}

TEST_F(PollerTurnTest, AChannelThatUsesTheTurn_KeepsIt) {
    TakeTurn(*first);
    second.BeginStream();
    for (int i = 0; i < 1000; ++i) {
        first->Request();
        ASSERT_TRUE(first->Poll());
        EXPECT_FALSE(second.Poll());
        EXPECT_FALSE(second.role->HasTurn());
    }
}

TEST(PollerRoleTest, AClientThatIsRemoved_IsReleased) {
    PolledChannel channel;
    channel.BeginStream();
    EXPECT_EQ(1, channel.RemoveClient().use_count());
}

TEST(PollerRoleTest, AClientThatIsRemovedWhileItsRequestIsClaimed_IsNotKept) {
    PolledChannel channel;
    const auto claimed = channel.RemoveClient();
    channel.Learn(claimed);
    EXPECT_EQ(1, claimed.use_count());
}

} // namespace
} // namespace platform_test
