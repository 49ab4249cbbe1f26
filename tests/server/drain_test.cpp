// Defends that a drain waits for what subscribers have not read, in the bus and on its way to them, and counts what is
// left.
#include "drain.h"

#include "parked_waits.h"
#include "support/bus_harness.h"
#include "support/bus_test.h"
#include "support/deferring_clients.h"

namespace {

using cor::ResultCode;
using msgbus_server::Drain;
using msgbus_server::ParkedWaits;
using msgbus_server::Unread;
using test_support::DeferringClients;
using test_support::RunningBus;
using test_support::WaitOn;
namespace fault_points = test_support::fault_points;

constexpr auto Long = std::chrono::minutes(10);

class DrainTest : public test_support::BusTest {
protected:
    const fault_points::Disarmer disarmer{};
    RunningBus bus;
    int looks = 0;

    long Register(const std::string& topic) {
        long id = -1;
        EXPECT_TRUE(bus.Settle([&] { bus->RegisterSubscriber("reader", {topic}, id); }));
        return id;
    }

    void Give(long subscriber, long count) {
        for (long value = 0; value < count; ++value) {
            bus->GetSubscriberPtrById(subscriber)->queue.Enqueue(std::make_shared<message_bus::Message>("heat", value));
        }
    }

    std::function<bool(std::chrono::steady_clock::duration)> AfterLook(std::function<bool()> action) {
        return [this, act = std::move(action)](auto) {
            ++looks;
            return act();
        };
    }
};

TEST_F(DrainTest, Run_WithNothingUnread_EndsAtOnce) {
    const long subscriber = Register("heat");
    EXPECT_TRUE(Drain(*bus, nullptr, {subscriber}).Run(Long, AfterLook([] { return false; })).IsNothing());
    EXPECT_EQ(looks, 0);
}

TEST_F(DrainTest, Run_WaitsUntilEveryValueIsRead) {
    const long subscriber = Register("heat");
    Give(subscriber, 3);
    const Unread left = Drain(*bus, nullptr, {subscriber}).Run(Long, AfterLook([&] {
                                                                   WaitOn(*bus, subscriber);
                                                                   return false;
                                                               }));
    EXPECT_TRUE(left.IsNothing());
    EXPECT_EQ(looks, 3);
}

TEST_F(DrainTest, Run_ThatIsCanceled_ReturnsWhatIsLeftAndOfHowMany) {
    const std::vector<long> subscribers{Register("heat"), Register("heat"), Register("heat")};
    Give(subscribers[0], 3);
    Give(subscribers[2], 4);
    const Unread left = Drain(*bus, nullptr, subscribers).Run(Long, AfterLook([] { return true; }));
    EXPECT_EQ(left.values, 7U);
    EXPECT_EQ(left.subscribers, 2U);
    EXPECT_FALSE(left.IsNothing());
}

TEST_F(DrainTest, Run_AfterItsLimit_Ends) {
    const long subscriber = Register("heat");
    Give(subscriber, 1);
    EXPECT_EQ(Drain(*bus, nullptr, {subscriber}).Run(std::chrono::seconds(0), AfterLook([] { return false; })).values,
              1U);
    EXPECT_EQ(looks, 0);
}

TEST_F(DrainTest, Run_CountsNoValueOfASubscriberThatUnregisters) {
    const long subscriber = Register("heat");
    Give(subscriber, 3);
    const Unread left = Drain(*bus, nullptr, {subscriber}).Run(Long, AfterLook([&] {
                                                                   bus->UnregisterSubscriber(subscriber);
                                                                   return false;
                                                               }));
    EXPECT_TRUE(left.IsNothing());
    EXPECT_EQ(looks, 1);
}

TEST_F(DrainTest, Run_WakesAnEventsThreadThatHasLeftAValueBehind) {
    const long subscriber = Register("heat");
    message_bus::MessageBus stranded; // without events thread: no wake-up is taken
    long publisher = -1;
    ASSERT_EQ(stranded.RegisterPublisher("heat", publisher), ResultCode::Success);
    ASSERT_EQ(stranded.Push(publisher, 1), ResultCode::Success);
    stranded.Start(); // forgets the wake-up
    ASSERT_EQ(stranded.Inbound(), message_bus::InboundState::LeftBehind);
    EXPECT_TRUE(Drain(stranded, nullptr, {subscriber}).Run(Long, AfterLook([] { return false; })).IsNothing());
    msgbus_server::StopEventsThread(stranded);
}

TEST_F(DrainTest, Run_CountsWhatIsOnItsWayToAClient) {
    test_support::ScriptedPlatform platform;
    DeferringClients clients{platform};
    log.SetThreshold(2); // offers are made while debug is disabled
    ParkedWaits waits(*bus);
    const long subscriber = Register("heat");
    Give(subscriber, 5);
    clients.Wait(1, waits, subscriber);
    EXPECT_EQ(clients.Offers(1).size(), 4U);
    EXPECT_EQ(Drain(*bus, &waits, {subscriber}).Run(Long, AfterLook([] { return true; })).values, 4U);
}

} // namespace
