#pragma once

#include "instruments/read_account.h"
#include "instruments/sample_snapshot.h"
#include "monitored.h"

#include <condition_variable>
#include <mutex>
#include <new>
#include <string>
#include <vector>

/// A server as the test says. Threads: any.
class FakeMonitored final : public msgbus_monitor::IMonitored {
public:
    struct Description {
        msgbus_monitor::Peer peer;
        std::string topic;
        std::string text;
    };

    instruments::Snapshot Read() override {
        std::unique_lock lock(mutex);
        ++reads;
        changed.notify_all();
        changed.wait(lock, [this] { return !isHeld; });
        if (!failure.empty()) {
            throw instruments::AccountError(failure);
        }
        if (isWithoutMemory) {
            throw std::bad_alloc();
        }
        return snapshot;
    }

    std::vector<instruments::Event> EventsAfter(std::uint64_t after) override {
        const std::lock_guard lock(mutex);
        std::vector<instruments::Event> found;
        for (const auto& event : snapshot.events) {
            if (event.number > after) {
                found.push_back(event);
            }
        }
        return found;
    }

    std::int64_t ClockOffset() const noexcept override { return instruments::samples::ClockOffset; }

    std::optional<std::string> WhyUnhealthy() override {
        const std::lock_guard lock(mutex);
        return illness;
    }

    msgbus_monitor::DescribeOutcome Describe(const msgbus_monitor::Peer& peer, std::string_view topic,
                                             std::string_view text) override {
        const std::lock_guard lock(mutex);
        described.push_back({peer, std::string(topic), std::string(text)});
        return outcome;
    }

    bool StartTrace(std::string_view topic, std::size_t values) override {
        const std::lock_guard lock(mutex);
        if (isWithoutMemory) {
            throw std::bad_alloc();
        }
        if (isTraceBusy) {
            return false;
        }
        trace.topic = topic;
        trace.wanted = values;
        return true;
    }
    void StopTrace() override {
        const std::lock_guard lock(mutex);
        trace = {};
    }
    instruments::TraceRecord ReadTrace() override {
        const std::lock_guard lock(mutex);
        return trace;
    }

    /// Calls `action` with this object, locked.
    template <typename Action>
    void Change(Action action) {
        const std::lock_guard lock(mutex);
        action(*this);
        changed.notify_all();
    }

    void AddEvent(std::uint64_t number, std::string name = "display") {
        Change([&](auto&) {
            snapshot.events.push_back({number,
                                       instruments::samples::Second,
                                       instruments::EventKind::SubscriberGone,
                                       18,
                                       0,
                                       0,
                                       {4713, 101, "screen"},
                                       std::move(name)});
        });
    }

    /// Waits until Read is held up.
    void AwaitRead() {
        std::unique_lock lock(mutex);
        changed.wait(lock, [this] { return reads != 0; });
    }

    int Reads() {
        const std::lock_guard lock(mutex);
        return reads;
    }

    // With the lock.
    instruments::Snapshot snapshot = instruments::samples::OneOfEach();
    std::optional<std::string> illness;
    std::string failure;
    instruments::TraceRecord trace;
    bool isTraceBusy = false;
    bool isWithoutMemory = false;
    bool isHeld = false; ///< Read does not return
    msgbus_monitor::DescribeOutcome outcome = msgbus_monitor::DescribeOutcome::Done;
    std::vector<Description> described;
    int reads = 0;

private:
    std::mutex mutex;
    std::condition_variable changed;
};
