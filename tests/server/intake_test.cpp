// Defends which pushes reach the bus: none while a server drains or lets others register first, and no more than a stop
// has time for where there are many subscribers.
#include "intake.h"

#include "support/bus_harness.h"
#include "support/bus_test.h"

#include <thread>

namespace {

using cor::ResultCode;
using msgbus_server::Intake;
namespace fault_points = test_support::fault_points;

/// Stands for the bus; its pushes take as long as a test wants.
class Recorder final : public message_bus::IProvider {
public:
    ResultCode Push(long /*publisherId*/, long /*message*/) override {
        if (onPush) {
            onPush();
        }
        ++count;
        return result;
    }
    std::function<void()> onPush;
    ResultCode result = ResultCode::Success;
    std::size_t count = 0;
};

class IntakeTest : public test_support::BusTest {
protected:
    const fault_points::Disarmer disarmer{};
    message_bus::MessageBus bus; // its events thread does not run, so what is pushed stays in the queue
    Recorder recorder;
    std::size_t subscribers = 0;
    Intake::Clock::time_point time{std::chrono::hours(1)};
    common::Mutex turn;
    std::vector<long> refused; ///< publishers
    Intake intake{turn,
                  recorder,
                  bus,
                  [this] { return subscribers; },
                  [this](long id) { refused.push_back(id); },
                  [this] { return time; }};

    std::size_t AcceptedOf(std::size_t pushes) {
        const std::size_t before = recorder.count;
        for (std::size_t i = 0; i < pushes; ++i) {
            const auto result = intake.Push(1, 5);
            EXPECT_EQ(result, recorder.count == before + i + 1 ? ResultCode::Success : ResultCode::Exhausted);
        }
        return recorder.count - before;
    }

    /// Pushes `count` values to the bus itself.
    void Queue(std::size_t count) {
        long publisher = -1;
        ASSERT_EQ(bus.RegisterPublisher("heat", publisher), ResultCode::Success);
        for (std::size_t i = 0; i < count; ++i) {
            ASSERT_EQ(bus.Push(publisher, 1), ResultCode::Success);
        }
    }
};

TEST_F(IntakeTest, Push_IsTheBuss) {
    recorder.result = ResultCode::Failed;
    EXPECT_EQ(intake.Push(1, 5), ResultCode::Failed);
    EXPECT_EQ(recorder.count, 1U);
}

TEST_F(IntakeTest, Push_AfterClose_IsAnsweredTwoAndNotPassedOn) {
    intake.Close();
    EXPECT_EQ(AcceptedOf(3), 0U);
    EXPECT_TRUE(journal.Logs().empty());
    EXPECT_EQ(refused, (std::vector<long>{1, 1, 1}));
}

TEST_F(IntakeTest, Close_WaitsForThePushesUnderWay) {
    std::thread closing;
    std::atomic<bool> isClosed{false};
    recorder.onPush = [&] {
        closing = std::thread([&] {
            intake.Close();
            isClosed = true;
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(20)); // it may not end, however long this lasts
        EXPECT_FALSE(isClosed);
    };
    {
        const common::MutexLock lock(turn);
        EXPECT_EQ(intake.Push(1, 5), ResultCode::Success);
    }
    closing.join();
    EXPECT_TRUE(isClosed);
    EXPECT_EQ(recorder.count, 1U);
}

TEST_F(IntakeTest, HoldFor_RefusesUntilTheTimeIsOver) {
    intake.HoldFor(std::chrono::seconds(2));
    EXPECT_EQ(intake.Push(1, 5), ResultCode::Exhausted);
    time += std::chrono::milliseconds(1999);
    EXPECT_EQ(intake.Push(1, 5), ResultCode::Exhausted);
    time += std::chrono::milliseconds(1);
    EXPECT_EQ(intake.Push(1, 5), ResultCode::Success);
    EXPECT_EQ(intake.Push(1, 5), ResultCode::Success);
}

TEST_F(IntakeTest, Push_WithFewSubscribers_HasTheLimitOfTheBusAlone) {
    Queue(1025);
    subscribers = Intake::MostLooks / 1025;
    EXPECT_EQ(AcceptedOf(10), 10U);
}

TEST_F(IntakeTest, Push_WithACrowdOfSubscribers_IsRefusedWhileTheQueueHoldsTheirWork) {
    subscribers = 10'000;
    Queue(Intake::MostLooks / subscribers - 1);
    EXPECT_EQ(AcceptedOf(10), 10U);
    long publisher = -1;
    ASSERT_EQ(bus.RegisterPublisher("fire", publisher), ResultCode::Success);
    ASSERT_EQ(bus.Push(publisher, 1), ResultCode::Success);
    EXPECT_EQ(AcceptedOf(10), 0U);
}

TEST_F(IntakeTest, Push_WithAnyNumberOfSubscribers_HasSomeRoom) {
    subscribers = 1'000'000'000;
    Queue(Intake::LeastBacklog - 1);
    EXPECT_EQ(AcceptedOf(10), 10U);
}

} // namespace
