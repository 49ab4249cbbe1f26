// Defends the stop of a server: every subscriber is released, and none registers afterwards.
#include "subscriber_ledger.h"

#include "support/bus_harness.h"
#include "support/bus_test.h"

namespace {

using cor::ResultCode;
using msgbus_server::SubscriberLedger;
using test_support::NotDelivered;
using test_support::PendingWait;
using test_support::RunningBus;
namespace fault_points = test_support::fault_points;

class SubscriberLedgerTest : public test_support::BusTest {
protected:
    const fault_points::Disarmer disarmer{};
    RunningBus bus;
    SubscriberLedger ledger{*bus, *bus};

    long Register() {
        long id = -1;
        EXPECT_EQ(ledger.RegisterSubscriber("reader", {"heat"}, id), ResultCode::Success);
        return id;
    }
};

TEST_F(SubscriberLedgerTest, StopAndUnregisterAll_ReleasesEveryWait) {
    PendingWait first(*bus, Register());
    PendingWait second(*bus, Register());
    ASSERT_TRUE(first.AwaitBlocked());
    ASSERT_TRUE(second.AwaitBlocked());
    ledger.StopAndUnregisterAll();
    EXPECT_EQ(first.Get(), NotDelivered(1));
    EXPECT_EQ(second.Get(), NotDelivered(1));
}

TEST_F(SubscriberLedgerTest, StopAndUnregisterAll_LeavesThoseAloneWhoHaveLeftBefore) {
    const long gone = Register();
    EXPECT_EQ(ledger.UnregisterSubscriber(gone), ResultCode::Success);
    const long there = Register();
    journal.Clear();
    ledger.StopAndUnregisterAll();
    EXPECT_EQ(journal.Logs(), std::vector<std::string>{"1 UnregisterSubscriber: [MessageBus]: The subscriber ID (" +
                                                       std::to_string(there) + ") has been removed"});
}

TEST_F(SubscriberLedgerTest, Registration_WhileStopping_IsRefusedWithTenAndNotPassedOn) {
    const long subscriber = Register();
    ledger.StopAndUnregisterAll();
    journal.Clear();
    long id = -1;
    EXPECT_EQ(ledger.RegisterSubscriber("late", {"heat"}, id), ResultCode::Failed);
    EXPECT_EQ(ledger.RegisterPublisher("heat", id), ResultCode::Failed);
    EXPECT_EQ(ledger.UnregisterSubscriber(subscriber), ResultCode::Failed);
    EXPECT_EQ(id, -1);
    EXPECT_TRUE(journal.All().empty());
}

TEST_F(SubscriberLedgerTest, StopAndUnregisterAll_GoesFromTheOldestToTheNewest) {
    std::vector<std::string> expected;
    for (int i = 0; i < 40; ++i) {
        expected.push_back("1 UnregisterSubscriber: [MessageBus]: The subscriber ID (" + std::to_string(Register()) +
                           ") has been removed");
    }
    journal.Clear();
    ledger.StopAndUnregisterAll();
    EXPECT_EQ(journal.Logs(), expected);
}

TEST_F(SubscriberLedgerTest, RefuseNew_RefusesRegistrationsAloneAndReturnsWhoIsThere) {
    const long first = Register();
    const long second = Register();
    EXPECT_EQ(ledger.Count(), 2U);
    EXPECT_EQ(ledger.RefuseNew(), (std::vector<long>{first, second}));
    long id = -1;
    EXPECT_EQ(ledger.RegisterSubscriber("late", {"heat"}, id), ResultCode::Failed);
    EXPECT_EQ(ledger.RegisterPublisher("heat", id), ResultCode::Failed);
    bus->GetSubscriberPtrById(first)->queue.Enqueue(std::make_shared<message_bus::Message>("heat", 5));
    EXPECT_EQ(test_support::WaitOn(ledger, first), test_support::Delivered("heat", 5));
    EXPECT_EQ(ledger.UnregisterSubscriber(first), ResultCode::Success);
    EXPECT_EQ(ledger.Count(), 1U);
}

TEST_F(SubscriberLedgerTest, Registration_ThatTheStopOvertakes_IsTakenBack) {
    log.Before("1 RegisterSubscriber:", [this] { ledger.StopAndUnregisterAll(); });
    long id = -1;
    EXPECT_EQ(ledger.RegisterSubscriber("late", {"heat"}, id), ResultCode::Failed);
    EXPECT_EQ(bus->GetSubscriberPtrById(id), nullptr);
}

TEST_F(SubscriberLedgerTest, Wait_IsTheWorkersUntilTheStop) {
    const long subscriber = Register();
    bus->GetSubscriberPtrById(subscriber)->queue.Enqueue(std::make_shared<message_bus::Message>("heat", 5));
    EXPECT_EQ(test_support::WaitOn(ledger, subscriber), test_support::Delivered("heat", 5));
}

TEST_F(SubscriberLedgerTest, Wait_WhileStopping_ReturnsOneAndIsNotPassedOn) {
    const long subscriber = Register();
    ledger.StopAndUnregisterAll();
    journal.Clear();
    EXPECT_EQ(test_support::WaitOn(ledger, subscriber), NotDelivered(1));
    EXPECT_TRUE(journal.All().empty());
}

TEST_F(SubscriberLedgerTest, Results_AreTheBuss) {
    long id = -1;
    EXPECT_EQ(ledger.RegisterPublisher("heat", id), ResultCode::Success);
    long second = -1;
    EXPECT_EQ(ledger.RegisterPublisher("heat", second), ResultCode::Conflict);
    EXPECT_EQ(ledger.UnregisterPublisher(id), ResultCode::Success);
    EXPECT_EQ(ledger.UnregisterPublisher(id), ResultCode::Conflict);
    EXPECT_EQ(ledger.UnregisterSubscriber(4711), ResultCode::Conflict);
}

} // namespace
