// Defends, with real races, that no value stays behind: after each burst the publishers stop until all of it has
// arrived.
#include "flush_wake.h"
#include "stop_events_thread.h"
#include "support/bus_test.h"

#include <barrier>
#include <memory>
#include <thread>
#include <vector>

namespace {

using cor::ResultCode;
using message_bus::Message;

class FlushWakeLoadTest : public test_support::BusTest, public testing::WithParamInterface<int> {};

INSTANTIATE_TEST_SUITE_P(Publishers, FlushWakeLoadTest, testing::Values(1, 3), testing::PrintToStringParamName());

TEST_P(FlushWakeLoadTest, TheLastValuesOfEveryBurst_ArriveWithoutAnotherPush) {
    constexpr long bursts = 20000;
    constexpr long longest = 7;
    log.SetThreshold(5); // nothing
    message_bus::MessageBus bus;
    long reader = -1;
    ASSERT_EQ(bus.RegisterSubscriber("reader", {"heat"}, reader), ResultCode::Success);
    bus.Start();
    {
        msgbus_server::FlushWake flushWake(bus);
        long publisher = -1;
        ASSERT_EQ(bus.RegisterPublisher("heat", publisher), ResultCode::Success);
        std::barrier<> next(GetParam() + 1);
        std::vector<std::jthread> publishers;
        for (int i = 0; i < GetParam(); ++i) {
            publishers.emplace_back([&] {
                for (long burst = 0; burst < bursts; ++burst) {
                    next.arrive_and_wait();
                    for (long value = 0; value <= burst % longest; ++value) {
                        EXPECT_EQ(flushWake.Push(publisher, value), ResultCode::Success);
                    }
                }
            });
        }
        auto& queue = bus.GetSubscriberPtrById(reader)->queue;
        for (long burst = 0; burst < bursts; ++burst) {
            next.arrive_and_wait();
            for (long left = GetParam() * (burst % longest + 1); left > 0; --left) {
                std::shared_ptr<Message> message;
                EXPECT_TRUE(queue.Pop(message, 0));
            }
        }
    }
    msgbus_server::StopEventsThread(bus);
    RecordProperty("doubtful", static_cast<int>(bus.DoubtfulPushes()));
}

} // namespace
