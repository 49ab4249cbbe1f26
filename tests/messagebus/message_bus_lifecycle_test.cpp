// Defends start, run, stop and destruction: in which order the bus calls the connector, how failures end a run, and
// that nothing hangs or leaks when the bus goes down.
#include "support/bus_harness.h"
#include "support/bus_test.h"

#include <future>
#include <stdexcept>
#include <system_error>

namespace {

using cor::ResultCode;
using message_bus::MessageBus;
using test_support::AwaitIdleEventsThread;
using test_support::Delivered;
using test_support::FakeConnector;
using test_support::RunningBus;
using test_support::WaitOn;
using testing::ElementsAre;
using testing::IsEmpty;
namespace fault_points = test_support::fault_points;

constexpr auto Started = "2 EventsProcessor: [MessageBus]: queue thread started";
constexpr auto Stopped = "2 EventsProcessor: [MessageBus]: queue thread stopped";

class LifecycleTest : public test_support::BusTest {
protected:
    const fault_points::Disarmer disarmer;

    static long Publisher(MessageBus& target, const std::string& topic) {
        long id = -5;
        EXPECT_EQ(target.RegisterPublisher(topic, id), ResultCode::Success);
        return id;
    }

    /// Answers only while the events thread sleeps, so that no wake-up of the test is lost.
    std::shared_ptr<FakeConnector> MakeConnector() {
        auto made = std::make_shared<FakeConnector>();
        made->beforeAnswer = [this] { AwaitIdleEventsThread(*bus); };
        return made;
    }

    std::shared_ptr<FakeConnector> connector = MakeConnector();
    std::unique_ptr<MessageBus> bus = std::make_unique<MessageBus>();
};

using LifecycleDeathTest = LifecycleTest;

TEST_F(LifecycleTest, Run_WithAConnectorThatIsStoppedFromTheStart_StartsTheThreadButNotTheServerAndReturnsTrue) {
    connector->Stop();
    EXPECT_TRUE(bus->Run(connector));
    EXPECT_THAT(journal.Calls(), ElementsAre("ShouldBeStopped", "ShouldBeStopped"));
    EXPECT_TRUE(journal.Await(Started));
    EXPECT_TRUE(journal.Await(Stopped));
}

TEST_F(LifecycleTest, Run_AsksEveryFiveSecondsWhetherToStop) {
    int sleeps = 0;
    fault_points::SetSleep([&](std::chrono::nanoseconds duration) {
        journal.AddCall("sleep " + std::to_string(duration.count()));
        if (++sleeps == 2) {
            connector->Stop();
        }
    });
    EXPECT_TRUE(bus->Run(connector));
    EXPECT_THAT(journal.Calls(), ElementsAre("ShouldBeStopped", "RunServer", "ShouldBeStopped", "sleep 5000000000",
                                             "ShouldBeStopped", "sleep 5000000000", "ShouldBeStopped"));
    EXPECT_TRUE(journal.Await(Stopped));
}

TEST_F(LifecycleTest, Run_DoesNotLookAtTheResultOfRunServer) {
    connector->onRunServer = [&] {
        connector->Stop();
        return ResultCode::InitFailed;
    };
    EXPECT_TRUE(bus->Run(connector));
    EXPECT_THAT(journal.Logs(3), IsEmpty());
}

TEST_F(LifecycleTest, Run_WhoseRunServerThrows_LogsItTellsTheThreadToStopAndReturnsFalse) {
    connector->onRunServer = []() -> ResultCode { throw std::runtime_error("no channel"); };
    EXPECT_FALSE(bus->Run(connector));
    EXPECT_THAT(journal.Logs(3), ElementsAre("4 Run: [MessageBus]: no channel"));
    EXPECT_TRUE(journal.Await(Stopped));
}

TEST_F(LifecycleTest, Run_WhoseFirstQuestionThrows_ReturnsFalseWithoutRunServer) {
    connector->onShouldBeStopped = []() -> bool { throw std::runtime_error("deaf"); };
    EXPECT_FALSE(bus->Run(connector));
    EXPECT_THAT(journal.Calls(), ElementsAre("ShouldBeStopped"));
    EXPECT_THAT(journal.Logs(3), ElementsAre("4 Run: [MessageBus]: deaf"));
    EXPECT_TRUE(journal.Await(Stopped));
}

TEST_F(LifecycleTest, Run_WhoseLaterQuestionThrows_ReturnsFalse) {
    int questions = 0;
    connector->onShouldBeStopped = [&] {
        if (++questions == 2) {
            throw std::runtime_error("deaf");
        }
        return false;
    };
    EXPECT_FALSE(bus->Run(connector));
    EXPECT_THAT(journal.Calls(), ElementsAre("ShouldBeStopped", "RunServer", "ShouldBeStopped"));
}

TEST_F(LifecycleTest, Run_WhoseSleepThrows_ReturnsFalse) {
    fault_points::SetSleep([](std::chrono::nanoseconds) { throw std::runtime_error("awake"); });
    EXPECT_FALSE(bus->Run(connector));
    EXPECT_THAT(journal.Logs(3), ElementsAre("4 Run: [MessageBus]: awake"));
    EXPECT_TRUE(journal.Await(Stopped));
}

TEST_F(LifecycleTest, Run_LetsExceptionsPassThatAreNotStandardOnesWithTheThreadRunning) {
    connector->onRunServer = []() -> ResultCode { throw 42; };
    EXPECT_THROW(static_cast<void>(bus->Run(connector)), int);
    EXPECT_TRUE(journal.Await(Started));
    EXPECT_EQ(journal.Count(Stopped), 0U);
    bus->Stop();
}

TEST_F(LifecycleTest, Run_WithoutAThread_LetsTheExceptionOutWithTheConnectorStored) {
    fault_points::stdThreadStart.Arm();
    EXPECT_THROW(static_cast<void>(bus->Run(connector)), std::system_error);
    EXPECT_THAT(journal.Calls(), IsEmpty());
    long reader = 0;
    EXPECT_EQ(bus->RegisterSubscriber("reader", {}, reader), ResultCode::Success);
    connector->onSwitch = [&] { return bus->UnregisterSubscriber(reader); };
    EXPECT_EQ(WaitOn(*bus, reader).result, ResultCode::NotRegistered);
    EXPECT_THAT(journal.Calls(), ElementsAre("SwitchActiveIpcServer"));
}

TEST_F(LifecycleTest, Run_ReleasesTheConnectorStoredBefore) {
    fault_points::stdThreadStart.Arm();
    EXPECT_THROW(static_cast<void>(bus->Run(connector)), std::system_error);
    const std::weak_ptr<FakeConnector> former = connector;
    connector = MakeConnector();
    connector->Stop();
    EXPECT_FALSE(former.expired());
    EXPECT_TRUE(bus->Run(connector));
    EXPECT_TRUE(former.expired());
}

TEST_F(LifecycleTest, Run_KeepsTheConnectorUntilTheBusGoes) {
    connector->Stop();
    EXPECT_TRUE(bus->Run(connector));
    const std::weak_ptr<FakeConnector> kept = connector;
    connector.reset();
    EXPECT_FALSE(kept.expired());
    bus.reset();
    EXPECT_TRUE(kept.expired());
}

TEST_F(LifecycleTest, Start_ForgetsAnEarlierWakeUpSoThatQueuedMessagesStayUntilTheNextOne) {
    const auto prepared = std::make_shared<MessageBus>();
    long reader = 0;
    EXPECT_EQ(prepared->RegisterSubscriber("reader", {"heat"}, reader), ResultCode::Success);
    const long publisher = Publisher(*prepared, "heat");
    EXPECT_EQ(prepared->Push(publisher, 1), ResultCode::Success);
    RunningBus running(prepared);
    ASSERT_TRUE(running.AwaitIdle());
    EXPECT_EQ(running->GetSubscriberPtrById(reader)->queue.Size(), 0U); // left in the inbound queue
    EXPECT_EQ(running->Push(publisher, 2), ResultCode::Success);
    EXPECT_EQ(WaitOn(*running, reader), Delivered("heat", 1)); // not lost
    EXPECT_EQ(WaitOn(*running, reader), Delivered("heat", 2));
}

TEST_F(LifecycleTest, Start_ClearsAnEarlierStopRequest) {
    bus->Stop();
    bus->Start();
    ASSERT_TRUE(journal.Await(Started));
    EXPECT_NE(AwaitIdleEventsThread(*bus), std::thread::id());
    bus->Stop();
    EXPECT_TRUE(journal.Await(Stopped));
}

TEST_F(LifecycleDeathTest, Start_OfAStartedBus_EndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            bus->Start();
            bus->Start();
        },
        testing::KilledBySignal(SIGABRT), "");
}

TEST_F(LifecycleTest, Stop_BeforeTheThreadsFirstSleep_EndsItWithBothLines) {
    EXPECT_EQ(bus->Push(Publisher(*bus, "heat"), 1), ResultCode::Success);
    log.Before(Started, [&] { bus->Stop(); });
    bus->Start();
    EXPECT_TRUE(journal.Await(Stopped));
    EXPECT_THAT(journal.Logs(2), ElementsAre(Started, Stopped));
}

TEST_F(LifecycleTest, Stop_LetsTheThreadDrainWhatIsQueuedThenEnds) {
    const auto prepared = std::make_shared<MessageBus>();
    long reader = 0;
    EXPECT_EQ(prepared->RegisterSubscriber("reader", {"heat"}, reader), ResultCode::Success);
    const long publisher = Publisher(*prepared, "heat");
    EXPECT_EQ(prepared->Push(publisher, 1), ResultCode::Success);
    EXPECT_EQ(prepared->Push(publisher, 2), ResultCode::Success);
    RunningBus running(prepared);
    ASSERT_TRUE(running.AwaitIdle());
    running->Stop();
    ASSERT_TRUE(journal.Await(Stopped));
    EXPECT_EQ(running->GetSubscriberPtrById(reader)->queue.Size(), 2U);
    EXPECT_EQ(running->Push(publisher, 3), ResultCode::Success); // accepted, and stays inbound
    running.Stop();
    EXPECT_EQ(running->GetSubscriberPtrById(reader)->queue.Size(), 2U);
}

TEST_F(LifecycleTest, StoppedBus_RegistersAcceptsPushesUpToItsLimitAndServesWaits) {
    RunningBus running;
    running.Stop();
    ASSERT_TRUE(journal.Await(Stopped));
    long reader = 0;
    EXPECT_EQ(running->RegisterSubscriber("reader", {"heat"}, reader), ResultCode::Success);
    const long publisher = Publisher(*running, "heat");
    for (long value = 0; value < 1025; ++value) {
        ASSERT_EQ(running->Push(publisher, value), ResultCode::Success) << value;
    }
    EXPECT_EQ(running->Push(publisher, 0), ResultCode::Exhausted); // no thread drains the queue
    const auto record = running->GetSubscriberPtrById(reader);
    EXPECT_EQ(record->queue.Size(), 0U);
    record->queue.Enqueue(std::make_shared<message_bus::Message>("heat", 7));
    EXPECT_EQ(WaitOn(*running, reader), Delivered("heat", 7));
    EXPECT_EQ(running->UnregisterSubscriber(reader), ResultCode::Success);
    EXPECT_EQ(running->UnregisterPublisher(publisher), ResultCode::Success);
}

TEST_F(LifecycleTest, Stop_MayBeCalledWithoutAStartedThread) {
    bus->Stop();
    EXPECT_EQ(bus->Push(Publisher(*bus, "heat"), 1), ResultCode::Success);
}

TEST_F(LifecycleTest, Destructor_AfterRunJoinsTheEventsThread) {
    connector->Stop();
    EXPECT_TRUE(bus->Run(connector));
    bus.reset();
    EXPECT_EQ(journal.Count(Stopped), 1U);
    EXPECT_EQ(journal.Count("join std thread"), 1U);
}

TEST_F(LifecycleTest, Destructor_OfAnUnstartedBus_JoinsNothing) {
    bus.reset();
    EXPECT_THAT(journal.All(), IsEmpty());
}

TEST_F(LifecycleTest, Destructor_DoesNotAskForAStopAndBlocksUntilSomebodyDoes) {
    bus->Start();
    AwaitIdleEventsThread(*bus);
    MessageBus* const running = bus.get();
    // Stop must have returned before the bus is destroyed.
    std::promise<void> isStopped;
    log.Before(Stopped, [&] { isStopped.get_future().wait(); });
    std::thread destroying([&] { bus.reset(); });
    EXPECT_TRUE(journal.Await("join std thread"));
    EXPECT_EQ(journal.Count(Stopped), 0U);
    running->Stop();
    isStopped.set_value();
    destroying.join();
    EXPECT_EQ(journal.Count(Stopped), 1U);
}

TEST_F(LifecycleTest, Destructor_DropsAFailureOfTheJoin) {
    connector->Stop();
    EXPECT_TRUE(bus->Run(connector));
    fault_points::stdThreadJoin.Arm();
    bus.reset();
    EXPECT_THAT(journal.Logs(3), IsEmpty());
}

TEST_F(LifecycleTest, Destructor_ReleasesTheSubscribersBeforeTheConnector) {
    connector->Stop();
    EXPECT_TRUE(bus->Run(connector));
    long reader = 0;
    EXPECT_EQ(bus->RegisterSubscriber("reader", {}, reader), ResultCode::Success);
    const std::weak_ptr<message_bus::Subscriber> subscriber = bus->GetSubscriberPtrById(reader);
    bool subscriberWasGone = false;
    connector->onDestruction = [&] { subscriberWasGone = subscriber.expired(); };
    connector.reset();
    bus.reset();
    EXPECT_TRUE(subscriberWasGone);
}

TEST_F(LifecycleTest, Destructor_LeavesARecordThatSomebodyStillHolds) {
    long reader = 0;
    EXPECT_EQ(bus->RegisterSubscriber("reader", {}, reader), ResultCode::Success);
    const auto held = bus->GetSubscriberPtrById(reader);
    bus.reset();
    EXPECT_EQ(held->name, "reader");
    EXPECT_EQ(held.use_count(), 1);
}

} // namespace
