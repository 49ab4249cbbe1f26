// Defends the account under load: at every moment it adds up, with values in every stage and subscribers that come and
// go.
#include "account/accounted_bus.h"
#include "instruments/read_account.h"
#include "parked_waits.h"
#include "push_turn.h"
#include "registration_gate.h"
#include "stop_events_thread.h"
#include "support/bus_test.h"

#include <atomic>
#include <string>
#include <thread>

namespace {

using cor::ResultCode;
using instruments::Snapshot;
using msgbus_server::AccountedBus;
using msgbus_server::SubscriberWaits;

class AccountedBusLoadTest : public test_support::BusTest {
protected:
    AccountedBusLoadTest() {
        log.SetThreshold(5); // nothing
        bus.Start();
    }
    ~AccountedBusLoadTest() override { msgbus_server::StopEventsThread(bus); }

    message_bus::MessageBus bus;
    msgbus_server::AccountKeeper keeper{std::nullopt, {}, {}};
    msgbus_server::ParkedWaits waits{bus, [this] { accounted.NoteCopy(); },
                                     msgbus_server::QueueControl{.discrepancy = [](long) { ADD_FAILURE(); }}, false};
    common::Mutex turn;
    AccountedBus accounted{turn, bus, bus, keeper, [this](long id, SubscriberWaits::Account account) {
                               waits.Follow(id, 0, std::move(account));
                           }};
    msgbus_server::PushTurn pushes{turn, accounted};
    msgbus_server::RegistrationGate gate{pushes, accounted, false, {}};
};

TEST_F(AccountedBusLoadTest, EveryRead_WhileSubscribersComeAndGoAndValuesFlow_AddsUp) {
    std::atomic<bool> isEnding{false};
    long publisher = -1;
    ASSERT_EQ(gate.RegisterPublisher("t", publisher), ResultCode::Success);
    std::thread pushing([&] {
        while (!isEnding) {
            gate.Push(publisher, 1);
        }
    });
    std::thread changing([&] {
        while (!isEnding) {
            long subscriber = -1;
            EXPECT_EQ(gate.RegisterSubscriber("reader", {"t"}, subscriber), ResultCode::Success);
            while (waits.Unread(subscriber) < 20 && !isEnding) {
                std::this_thread::yield();
            }
            EXPECT_EQ(gate.UnregisterSubscriber(subscriber), ResultCode::Success);
        }
    });
    const instruments::AccountReader reader(keeper.File().Memory());
    std::uint64_t changes = 0;
    std::uint64_t last = 0;
    for (int i = 0; i < 3000 || changes < 100; ++i) {
        const Snapshot snapshot = reader.Read();
        ASSERT_TRUE(snapshot.bus.AddsUp());
        for (const auto& subscriber : snapshot.subscribers) {
            ASSERT_TRUE(subscriber.flows.AddsUp());
        }
        changes += snapshot.bus.flows.due != last ? 1 : 0;
        last = snapshot.bus.flows.due;
    }
    isEnding = true;
    pushing.join();
    changing.join();
    EXPECT_EQ(reader.Read().bus.discrepancies, 0U);
}

} // namespace
