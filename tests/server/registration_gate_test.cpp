// Defends the turns of registrations: a push that comes while one is under way waits for it, once, and for no other.
#include "registration_gate.h"

#include "support/bus_test.h"

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

namespace {

using cor::ResultCode;
using msgbus_server::RegistrationGate;
using testing::ElementsAre;

/// A bus whose registrations last until they may end.
class SlowBus final : public message_bus::IProvider, public message_bus::IProviderControl {
public:
    ResultCode Push(long, long) override {
        ++pushes;
        return ResultCode::Success;
    }
    ResultCode RegisterPublisher(const std::string&, long&) override { return ResultCode::Success; }
    ResultCode RegisterSubscriber(const std::string&, const std::set<std::string>&, long& id) override {
        id = 7;
        return Change();
    }
    ResultCode UnregisterPublisher(long) override { return ResultCode::Success; }
    ResultCode UnregisterSubscriber(long) override { return Change(); }

    std::atomic<int> pushes{0};
    std::atomic<int> begun{0};
    std::atomic<int> mayEnd{0};
    ResultCode result = ResultCode::Success;

private:
    ResultCode Change() {
        const int mine = ++begun;
        begun.notify_all();
        for (int now = mayEnd; now < mine; now = mayEnd) {
            mayEnd.wait(now);
        }
        return result;
    }
};

class RegistrationGateTest : public test_support::BusTest {
protected:
    void AwaitBegun(int count) const {
        for (int now = bus.begun; now < count; now = bus.begun) {
            bus.begun.wait(now);
        }
    }
    void LetEnd(int count) {
        bus.mayEnd = count;
        bus.mayEnd.notify_all();
    }

    SlowBus bus;
    std::vector<long> registered;
    RegistrationGate gate{bus, bus, false, [this](long id) { registered.push_back(id); }};
};

TEST_F(RegistrationGateTest, APush_WithoutARegistration_Passes) {
    EXPECT_EQ(gate.Push(1, 2), ResultCode::Success);
    EXPECT_EQ(bus.pushes, 1);
}

TEST_F(RegistrationGateTest, APush_DuringAChange_WaitsForItAndForNoOther) {
    long id = -1;
    std::thread first([&] { gate.RegisterSubscriber("reader", {"t"}, id); });
    AwaitBegun(1);
    std::thread push([&] { gate.Push(1, 2); });
    std::this_thread::sleep_for(std::chrono::milliseconds(20)); // it may not pass, however long this lasts
    EXPECT_EQ(bus.pushes, 0);
    std::thread second([&] { gate.UnregisterSubscriber(7); });
    AwaitBegun(2);
    LetEnd(1);
    push.join(); // although another change is under way
    EXPECT_EQ(bus.pushes, 1);
    EXPECT_EQ(bus.mayEnd, 1);
    LetEnd(2);
    first.join();
    second.join();
    EXPECT_THAT(registered, ElementsAre(7));
}

TEST_F(RegistrationGateTest, AFailedRegistration_IsNotReported) {
    bus.result = ResultCode::Failed;
    LetEnd(1);
    long id = -1;
    EXPECT_EQ(gate.RegisterSubscriber("reader", {"t"}, id), ResultCode::Failed);
    EXPECT_THAT(registered, testing::IsEmpty());
}

TEST_F(RegistrationGateTest, AnOpenGate_HoldsNothingBack) {
    RegistrationGate open(bus, bus, true, [](long) {});
    std::thread change([&] { open.UnregisterSubscriber(7); });
    AwaitBegun(1);
    EXPECT_EQ(open.Push(1, 2), ResultCode::Success);
    LetEnd(1);
    change.join();
}

} // namespace
