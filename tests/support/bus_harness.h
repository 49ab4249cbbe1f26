#pragma once

#include "message_bus.h"
#include "stop_events_thread.h"
#include "support/fault_points.h"
#include "support/journal.h"

#include <atomic>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <thread>

namespace test_support {

/// Connector without an IPC server. Notes its calls in the journal and does what a test says.
class FakeConnector final : public message_bus::IConnector {
public:
    ~FakeConnector() override {
        if (onDestruction) {
            onDestruction();
        }
    }

    cor::ResultCode RunServer() override {
        Journal::Instance().AddCall("RunServer");
        return onRunServer ? onRunServer() : cor::ResultCode::Success;
    }
    cor::ResultCode SwitchActiveIpcServer() override {
        Journal::Instance().AddCall("SwitchActiveIpcServer");
        return onSwitch ? onSwitch() : cor::ResultCode::Success;
    }
    bool ShouldBeStopped() override {
        Journal::Instance().AddCall("ShouldBeStopped");
        if (beforeAnswer) {
            beforeAnswer();
        }
        return onShouldBeStopped ? onShouldBeStopped() : static_cast<bool>(shouldBeStopped);
    }

    void Stop() {
        shouldBeStopped = true;
        shouldBeStopped.notify_all();
    }
    void AwaitStop() const { shouldBeStopped.wait(false); }

    std::function<cor::ResultCode()> onRunServer;
    std::function<cor::ResultCode()> onSwitch;
    std::function<void()> beforeAnswer;
    std::function<bool()> onShouldBeStopped;
    std::function<void()> onDestruction;

private:
    std::atomic<bool> shouldBeStopped{false};
};

/// Waits until the events thread that `bus` has started last sleeps: the next wake-up is not lost then.
/// Returns: its id; none when it did not within Patience.
inline std::thread::id AwaitIdleEventsThread(message_bus::MessageBus& bus) {
    constexpr long unknownPublisher = -99;
    const std::string started = "2 EventsProcessor: [MessageBus]: queue thread started";
    std::thread::id thread;
    if (!Journal::Instance().Await(started)) {
        return {};
    }
    for (const auto& record : Journal::Instance().Records()) {
        if (ToString(record) == started) {
            thread = record.thread;
        }
    }
    if (!fault_points::AwaitSleepingOnCondition(thread)) {
        return {};
    }
    bus.Push(unknownPublisher, 0); // takes the lock that the sleeper released, so the thread is asleep
    return thread;
}

/// A bus inside Run, until destroyed; its sleep ends as soon as the connector is stopped.
class RunningBus final {
public:
    explicit RunningBus(std::shared_ptr<message_bus::MessageBus> busToRun = std::make_shared<message_bus::MessageBus>())
        : bus(std::move(busToRun)) {
        fault_points::SetSleep([fake = connector](std::chrono::nanoseconds) { fake->AwaitStop(); });
        runner = std::thread([this] { bus->Run(connector); });
        isReady = Journal::Instance().Await("ShouldBeStopped", 2);
        eventsThread = AwaitIdleEventsThread(*bus);
    }
    ~RunningBus() { Stop(); }
    RunningBus(const RunningBus&) = delete;
    RunningBus& operator=(const RunningBus&) = delete;

    message_bus::MessageBus* operator->() const { return bus.get(); }
    message_bus::MessageBus& operator*() const { return *bus; }

    /// As AwaitIdleEventsThread, also after the journal was cleared.
    [[nodiscard]] bool AwaitIdle() const {
        constexpr long unknownPublisher = -99;
        return fault_points::AwaitSleepingOnCondition(eventsThread) &&
               bus->Push(unknownPublisher, 0) != cor::ResultCode::Failed;
    }

    /// Runs `wake`, which wakes the idle events thread once, and waits until that is idle again: a push that follows
    /// cannot meet the wake-up.
    [[nodiscard]] bool Settle(const std::function<void()>& wake) const {
        if (!AwaitIdle()) {
            return false;
        }
        const auto sleeps = fault_points::SleepsOnCondition(eventsThread);
        wake();
        return fault_points::AwaitMoreSleepsOnCondition(eventsThread, sleeps) && AwaitIdle();
    }

    /// Ends Run, and the events thread.
    void Stop() {
        if (!runner.joinable()) {
            return;
        }
        connector->Stop();
        runner.join();
        fault_points::SetSleep(nullptr);
        msgbus_server::StopEventsThread(*bus);
    }

    std::shared_ptr<message_bus::MessageBus> bus;
    std::shared_ptr<FakeConnector> connector = std::make_shared<FakeConnector>();
    std::thread::id eventsThread;
    bool isReady = false;

private:
    std::thread runner;
};

/// What a Wait gave.
struct Waited {
    cor::ResultCode result{};
    std::string topic = "untouched";
    long message = -77;

    bool operator==(const Waited&) const = default;
};

inline void PrintTo(const Waited& waited, std::ostream* out) {
    *out << "{" << static_cast<int>(waited.result) << ", " << waited.topic << ", " << waited.message << "}";
}

inline Waited Delivered(const std::string& topic, long message) {
    return {cor::ResultCode::Success, topic, message};
}

inline Waited NotDelivered(int code) {
    return {static_cast<cor::ResultCode>(code), "untouched", -77};
}

inline Waited WaitOn(message_bus::IWorker& worker, long subscriberId) {
    Waited waited;
    waited.result = worker.Wait(subscriberId, waited.topic, waited.message);
    return waited;
}

/// A Wait on a thread of its own.
class PendingWait final {
public:
    PendingWait(message_bus::IWorker& worker, long subscriberId)
        : thread([this, &worker, subscriberId] { waited.set_value(WaitOn(worker, subscriberId)); }),
          id(thread.get_id()) {}
    ~PendingWait() {
        if (thread.joinable()) {
            thread.join();
        }
    }
    PendingWait(const PendingWait&) = delete;
    PendingWait& operator=(const PendingWait&) = delete;

    [[nodiscard]] bool AwaitBlocked() const { return fault_points::AwaitSleepingOnCondition(id); }

    Waited Get() {
        Waited result = waited.get_future().get();
        thread.join();
        return result;
    }

private:
    std::promise<Waited> waited;
    std::thread thread;
    std::thread::id id;
};

/// A gate that one thread goes through when another opens it.
class Gate final {
public:
    /// Called by the thread that is to stop here.
    void Pass() {
        reached.set_value();
        opened.get_future().wait();
    }
    void AwaitReached() { reached.get_future().wait(); }
    void Open() { opened.set_value(); }

private:
    std::promise<void> reached;
    std::promise<void> opened;
};

} // namespace test_support
