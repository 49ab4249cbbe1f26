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

TEST_F(CallerAccountsTest, Charge_OfTheServerItself_IsNeverRefused) {
    KnCaller self = Process(3);
    self.pid = ::getpid();
    for (long id = 1; id <= 10; ++id) {
        EXPECT_EQ(Register(self, Kind::Publisher, id, 10), ResultCode::Success);
    }
    EXPECT_EQ(Register(one, Kind::Publisher, 11), ResultCode::TooManyRegistrations) << "it counts all the same";
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

TEST_F(CallerAccountsTest, MayUse_OfARegistrationThatNobodyMade_IsForNobody) {
    for (const Kind kind : {Kind::Publisher, Kind::Subscriber, Kind::Handshake}) {
        EXPECT_FALSE(accounts.MayUse(one, {kind, 1})) << NameOf(kind);
    }
}

TEST_F(CallerAccountsTest, MayUse_OfASubscriberThatHasEnded_IsForEverybody) {
    Register(one, Kind::Subscriber, 4);
    accounts.Remove({Kind::Subscriber, 4});
    EXPECT_TRUE(accounts.MayUse(one, {Kind::Subscriber, 4})) << "the bus knows how it ended";
    EXPECT_FALSE(accounts.MayUse(one, {Kind::Subscriber, 5}));
}

TEST_F(CallerAccountsTest, MayUse_OfASubscriberThatIsUnderWay_IsForNobody) {
    accounts.Charge(one, Kind::Subscriber, 0); // gets the id 4
    accounts.Charge(one, Kind::Publisher, 0);
    accounts.Add(one, {Kind::Publisher, 5}, 0);
    EXPECT_FALSE(accounts.MayUse(two, {Kind::Subscriber, 4}));
    accounts.Refund(one, Kind::Subscriber, 0);
    EXPECT_TRUE(accounts.MayUse(two, {Kind::Subscriber, 4})) << "it has failed";
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
