// Defends the end of the bus's events thread: a stop request whose wake-up is lost is not the last one.
#include "stop_events_thread.h"

#include "support/bus_harness.h"
#include "support/bus_test.h"

#include <thread>

namespace {

namespace fault_points = test_support::fault_points;

using StopEventsThreadTest = test_support::BusTest;

TEST_F(StopEventsThreadTest, AStopWhoseWakeUpIsLost_EndsTheThreadAllTheSame) {
    const fault_points::Disarmer disarmer;
    test_support::Gate gap;
    message_bus::MessageBus bus;
    fault_points::BeforeConditionWait([&] {
        fault_points::BeforeConditionWait(nullptr);
        gap.Pass();
    });
    bus.Start();
    gap.AwaitReached(); // the thread has tested its flags, and does not sleep yet
    std::thread stopping([&] { msgbus_server::StopEventsThread(bus); });
    // Behind the first request, whose notification found no sleeper, the push waits for the thread to sleep.
    EXPECT_TRUE(fault_points::AwaitBlockedOnMutex(stopping.get_id()));
    gap.Open();
    stopping.join();
} // the bus joins its thread

} // namespace
