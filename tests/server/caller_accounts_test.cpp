// Defends what a caller may register: each limit, for one process and for all, and whose each registration is.
#include "caller_accounts.h"

#include "support/bus_test.h"

#include <unistd.h>

#include <limits>

namespace {

using cor::ResultCode;
using msgbus_server::CallerAccounts;
using msgbus_server::Kind;
using msgbus_server::Limits;
using testing::ElementsAre;
using testing::IsEmpty;
using Registration = CallerAccounts::Registration;

KnCaller Process(std::uint64_t id) {
    KnCaller caller;
    caller.id = id;
    caller.pid = static_cast<std::int32_t>(1000 + id);
    caller.startTime = 1;
    return caller;
}

KnCaller Unidentified(std::uint64_t id) {
    KnCaller caller;
    caller.id = id;
    return caller;
}

/// A process of a user who is let in because of its group.
KnCaller Guest(std::uint64_t id, std::uint32_t user) {
    KnCaller caller = Process(id);
    caller.uid = user;
    return caller;
}

class CallerAccountsTest : public test_support::BusTest {
protected:
    static Limits Small() {
        Limits limits;
        limits.publishersPerProcess = 2;
        limits.publishers = 3;
        limits.handshakesPerProcess = 1;
        limits.nameBytesPerProcess = 10;
        limits.nameBytes = 15;
        return limits;
    }

    ResultCode Register(const KnCaller& caller, Kind kind, long id, std::size_t bytes = 0) {
        const ResultCode result = accounts.Charge(caller, kind, bytes);
        if (result == ResultCode::Success) {
            accounts.Add(caller, {kind, id}, bytes);
        }
        return result;
    }

    const KnCaller one = Process(1);
    const KnCaller two = Process(2);
    CallerAccounts accounts{Small()};
};

TEST_F(CallerAccountsTest, Charge_BeyondThatOfAProcess_IsRefusedUntilOneIsRemoved) {
    EXPECT_EQ(Register(one, Kind::Publisher, 1), ResultCode::Success);
    EXPECT_EQ(Register(one, Kind::Publisher, 2), ResultCode::Success);
    EXPECT_EQ(Register(one, Kind::Publisher, 3), ResultCode::TooManyRegistrations);
    EXPECT_EQ(Register(one, Kind::Subscriber, 3), ResultCode::Success) << "of another kind";
    accounts.Remove({Kind::Publisher, 1});
    EXPECT_EQ(Register(one, Kind::Publisher, 4), ResultCode::Success);
}

TEST_F(CallerAccountsTest, Charge_BeyondThatOfAll_IsRefused) {
    Register(one, Kind::Publisher, 1);
    Register(one, Kind::Publisher, 2);
    EXPECT_EQ(Register(two, Kind::Publisher, 3), ResultCode::Success);
    EXPECT_EQ(Register(two, Kind::Publisher, 4), ResultCode::TooManyRegistrations);
}

TEST_F(CallerAccountsTest, TheLastSixteenthOfATotal_IsForCallersWithLittle) {
    Limits limits;
    limits.publishers = 160;
    limits.nameBytes = 16 * CallerAccounts::FewBytes;
    limits.nameBytesPerProcess = limits.nameBytes;
    CallerAccounts shared{limits};
    for (int count = 0; count < 150; ++count) {
        ASSERT_EQ(shared.Charge(one, Kind::Publisher, 0), ResultCode::Success) << count;
    }
    EXPECT_EQ(shared.Charge(one, Kind::Publisher, 0), ResultCode::TooManyRegistrations);
    for (int count = 0; count < 10; ++count) {
        ASSERT_EQ(shared.Charge(two, Kind::Publisher, 0), ResultCode::Success) << count;
    }
    EXPECT_EQ(shared.Charge(two, Kind::Publisher, 0), ResultCode::TooManyRegistrations);

    ASSERT_EQ(shared.Charge(one, Kind::Subscriber, 15 * CallerAccounts::FewBytes), ResultCode::Success);
    EXPECT_EQ(shared.Charge(one, Kind::Subscriber, 1), ResultCode::TooManyBytes);
    EXPECT_EQ(shared.Charge(two, Kind::Subscriber, CallerAccounts::FewBytes - 1), ResultCode::Success);
    EXPECT_EQ(shared.Charge(two, Kind::Subscriber, 1), ResultCode::TooManyBytes);
}

TEST_F(CallerAccountsTest, TheProcessesOfAGuest_HaveHalfOfATotal) {
    const std::uint32_t user = ::geteuid() + 1;
    Limits limits;
    limits.publishersPerProcess = 2;
    limits.publishers = 5;
    limits.nameBytes = 20;
    CallerAccounts shared{limits};
    const auto charge = [&shared](const KnCaller& caller, std::size_t bytes) {
        return shared.Charge(caller, Kind::Publisher, bytes);
    };
    EXPECT_EQ(charge(Guest(1, user), 11), ResultCode::TooManyBytes);
    EXPECT_EQ(charge(Guest(1, user), 4), ResultCode::Success);
    EXPECT_EQ(charge(Guest(1, user), 4), ResultCode::Success);
    EXPECT_EQ(charge(Guest(2, user), 3), ResultCode::TooManyBytes);
    EXPECT_EQ(charge(Guest(2, user), 2), ResultCode::Success);
    EXPECT_EQ(charge(Guest(3, user), 0), ResultCode::TooManyRegistrations);
    EXPECT_EQ(charge(Guest(3, user), 0), ResultCode::TooManyRegistrations);
    EXPECT_THAT(journal.All(),
                ElementsAre("3 RefuseGuest: process 1001 () is refused more bytes of names and topics: those of user " +
                                std::to_string(user) + " have 0, the share of a user is 10",
                            "3 RefuseGuest: process 1002 () is refused more bytes of names and topics: those of user " +
                                std::to_string(user) + " have 8, the share of a user is 10",
                            "3 RefuseGuest: process 1003 () is refused more publishers: those of user " +
                                std::to_string(user) + " have 3, the share of a user is 3"));
    EXPECT_EQ(charge(Guest(4, user + 1), 10), ResultCode::Success);
    shared.Refund(Guest(2, user), Kind::Publisher, 2);
    EXPECT_EQ(charge(Guest(3, user), 0), ResultCode::Success);
}

TEST_F(CallerAccountsTest, TheServersUserAndRoot_MayHaveAll) {
    Limits limits;
    limits.publishers = 4;
    CallerAccounts shared{limits};
    EXPECT_EQ(shared.Charge(Guest(1, ::geteuid()), Kind::Publisher, 0), ResultCode::Success);
    for (const std::uint64_t id : {1U, 2U, 1U}) {
        EXPECT_EQ(shared.Charge(Guest(id, id == 1 ? ::geteuid() : 0), Kind::Publisher, 0), ResultCode::Success);
    }
}

TEST_F(CallerAccountsTest, TheServersOwnProcess_IsNotLimited) {
    KnCaller own = Process(3);
    own.pid = ::getpid();
    for (long id = 1; id <= 3; ++id) {
        Register(id == 3 ? two : one, Kind::Publisher, id);
    }
    EXPECT_EQ(Register(two, Kind::Publisher, 4), ResultCode::TooManyRegistrations);
    EXPECT_EQ(Register(own, Kind::Publisher, 4, 100), ResultCode::Success);
}

TEST_F(CallerAccountsTest, Charge_CountsWhatIsOnItsWay) {
    EXPECT_EQ(accounts.Charge(one, Kind::Handshake, 0), ResultCode::Success);
    EXPECT_EQ(accounts.Charge(one, Kind::Handshake, 0), ResultCode::TooManyHandshakes);
    accounts.Refund(one, Kind::Handshake, 0);
    EXPECT_EQ(accounts.Charge(one, Kind::Handshake, 0), ResultCode::Success);
}

TEST_F(CallerAccountsTest, Charge_CountsBytes) {
    EXPECT_EQ(Register(one, Kind::Publisher, 1, 11), ResultCode::TooManyBytes);
    EXPECT_EQ(Register(one, Kind::Publisher, 1, 10), ResultCode::Success);
    EXPECT_EQ(Register(two, Kind::Publisher, 2, 6), ResultCode::TooManyBytes);
    EXPECT_EQ(Register(two, Kind::Publisher, 2, 5), ResultCode::Success);
    accounts.Remove({Kind::Publisher, 1});
    EXPECT_EQ(Register(two, Kind::Publisher, 3, 5), ResultCode::Success);
}

TEST_F(CallerAccountsTest, TheTopicsOfAHandshake_AreChargedAndEndWithIt) {
    Register(one, Kind::Handshake, 7, 4);
    EXPECT_EQ(accounts.ChargeTopic(7, 6), ResultCode::Success);
    EXPECT_EQ(accounts.ChargeTopic(7, 1), ResultCode::TooManyBytes);
    accounts.RefundTopic(7, 6);
    EXPECT_EQ(accounts.ChargeTopic(7, 5), ResultCode::Success);
    accounts.Remove({Kind::Handshake, 7});
    EXPECT_EQ(Register(one, Kind::Publisher, 1, 10), ResultCode::Success);
    EXPECT_EQ(accounts.ChargeTopic(7, 100), ResultCode::Success) << "the bus says that it is unknown";
}

TEST_F(CallerAccountsTest, ARefusal_IsLoggedOnceUntilThereIsRoom) {
    Register(one, Kind::Publisher, 1);
    Register(one, Kind::Publisher, 2);
    for (int times = 0; times < 3; ++times) {
        Register(one, Kind::Publisher, 3);
    }
    const std::string line = "3 Refuse: process 1001 () is refused more publishers: it has 2, all processes together 2";
    EXPECT_THAT(journal.All(), ElementsAre(line));
    accounts.Remove({Kind::Publisher, 2});
    Register(one, Kind::Publisher, 3);
    Register(one, Kind::Publisher, 4);
    EXPECT_THAT(journal.All(), ElementsAre(line, line));
}

TEST_F(CallerAccountsTest, WithoutLimits_NothingIsRefused) {
    CallerAccounts unlimited{std::nullopt};
    for (long id = 1; id <= 10'000; ++id) {
        ASSERT_EQ(unlimited.Charge(one, Kind::Publisher, 1'000'000), ResultCode::Success);
        unlimited.Add(one, {Kind::Publisher, id}, 1'000'000);
    }
    EXPECT_FALSE(unlimited.NextExpiry());
}

TEST_F(CallerAccountsTest, MayUse_IsForItsProcessOnly) {
    Register(one, Kind::Publisher, 1);
    EXPECT_TRUE(accounts.MayUse(one, {Kind::Publisher, 1}));
    EXPECT_FALSE(accounts.MayUse(two, {Kind::Publisher, 1}));
    EXPECT_FALSE(accounts.MayUse(Unidentified(3), {Kind::Publisher, 1}));
    EXPECT_EQ(accounts.OwnerOf({Kind::Publisher, 1}).pid, one.pid);
    accounts.Remove({Kind::Publisher, 1});
    EXPECT_EQ(accounts.OwnerOf({Kind::Publisher, 1}).pid, 0);
}

TEST_F(CallerAccountsTest, MayUse_OfAPublisherThatNobodyRegistered_IsForNobody) {
    EXPECT_FALSE(accounts.MayUse(one, {Kind::Publisher, 1})) << "it is the server's own";
    EXPECT_TRUE(accounts.MayUse(one, {Kind::Subscriber, 1})) << "the bus says that it is unknown";
}

TEST_F(CallerAccountsTest, MayUse_OfWhatIsBeingRegistered_IsForNobody) {
    for (const Kind kind : {Kind::Subscriber, Kind::Handshake}) {
        Register(one, kind, 1);
        accounts.Remove({kind, 1});
        ASSERT_EQ(accounts.Charge(two, kind, 0), ResultCode::Success);
        EXPECT_FALSE(accounts.MayUse(one, {kind, 2})) << "it may be the one that is charged";
        EXPECT_TRUE(accounts.MayUse(one, {kind, 1})) << "the bus says that it has ended";
        accounts.Refund(two, kind, 0);
        EXPECT_TRUE(accounts.MayUse(one, {kind, 2})) << "the bus says that it is unknown";
    }
}

TEST_F(CallerAccountsTest, WhatAnUnidentifiedCallerRegistered_IsForAllOfThem) {
    Register(Unidentified(3), Kind::Publisher, 1);
    EXPECT_TRUE(accounts.MayUse(Unidentified(4), {Kind::Publisher, 1}))
        << "it may be another connection of the process";
    EXPECT_FALSE(accounts.MayUse(one, {Kind::Publisher, 1}));
}

TEST_F(CallerAccountsTest, AllOf_IsInTheOrderOfIds_HandshakesLast) {
    Register(one, Kind::Subscriber, 5);
    Register(one, Kind::Handshake, 0);
    Register(two, Kind::Publisher, 4);
    Register(one, Kind::Publisher, 9);
    Register(one, Kind::Publisher, 2);
    EXPECT_THAT(accounts.AllOf(one.id),
                ElementsAre(Registration{Kind::Publisher, 2}, Registration{Kind::Subscriber, 5},
                            Registration{Kind::Publisher, 9}, Registration{Kind::Handshake, 0}));
    EXPECT_THAT(accounts.AllOf(77), IsEmpty());
}

TEST_F(CallerAccountsTest, AHandshake_ExpiresSoManySecondsAfterItBegan) {
    EXPECT_FALSE(accounts.NextExpiry());
    const auto before = CallerAccounts::Clock::now();
    Register(one, Kind::Handshake, 7);
    const auto expiry = accounts.NextExpiry();
    ASSERT_TRUE(expiry);
    const std::chrono::seconds life(Small().handshakeSeconds);
    EXPECT_GE(*expiry, before + life);
    EXPECT_LE(*expiry, CallerAccounts::Clock::now() + life);
    EXPECT_THAT(accounts.Expired(*expiry - std::chrono::milliseconds(1)), IsEmpty());
    EXPECT_THAT(accounts.Expired(*expiry), ElementsAre(Registration{Kind::Handshake, 7}));
    accounts.Remove({Kind::Handshake, 7});
    EXPECT_FALSE(accounts.NextExpiry());
}

} // namespace
