#include "fast_wait.h"

#include "diagnostics.h"

#include <utility>

namespace msgbus_server {

namespace {

using cor::ResultCode;
using diagnostics::Log;
using diagnostics::LogLevel;

constexpr const char* tag = "[MessageBus]"; // the lines are the bus's, whoever writes them
constexpr unsigned popTimeoutMs = 1;        // the least: the item that was seen may go to another wait
constexpr std::chrono::microseconds quickGap{200};
constexpr int quickDeliveriesOfAStream = 4;

} // namespace

cor::ResultCode FastWait::Wait(long subscriberId, std::string& topic, long& message) {
    try {
        const auto subscriber = bus.GetSubscriberPtrById(subscriberId);
        const bool isDue = IsDueAnyMoment(subscriberId);
        if (subscriber && (isDue || subscriber->queue.Size() != 0)) {
            std::shared_ptr<message_bus::Message> next;
            const bool taken = subscriber->queue.Pop(next, popTimeoutMs);
            const bool canceled = subscriber->queue.IsCanceled();
            if (taken || canceled) {
                Log(LogLevel::Debug, "Wait is called by subscriber ({})", subscriberId);
            }
            if (canceled) {
                Log(LogLevel::Debug, "{}: Canceled", tag);
                return ResultCode::NotRegistered;
            }
            if (taken) {
                std::string text = next->topic; // all that can fail, before either output is written
                message = next->value;
                topic = std::move(text);
                NoteDelivery(subscriberId);
                return ResultCode::Success;
            }
            quickDeliveries.store(0, std::memory_order_relaxed); // the stream has ended
        }
    } catch (const std::exception& error) {
        Log(LogLevel::Error, "{}: {}", tag, error.what());
        return ResultCode::Failed;
    }
    const ResultCode result = blockingWorker.Wait(subscriberId, topic, message);
    if (result == ResultCode::Success) {
        NoteDelivery(subscriberId);
    }
    return result;
}

bool FastWait::IsDueAnyMoment(long subscriberId) const {
    return linger == Linger::InAStream && lastSubscriber.load(std::memory_order_relaxed) == subscriberId &&
           quickDeliveries.load(std::memory_order_relaxed) >= quickDeliveriesOfAStream;
}

void FastWait::NoteDelivery(long subscriberId) {
    if (linger == Linger::Never) {
        return;
    }
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    const auto before =
        std::chrono::steady_clock::duration(lastDelivery.exchange(now.count(), std::memory_order_relaxed));
    if (lastSubscriber.exchange(subscriberId, std::memory_order_relaxed) == subscriberId && now - before < quickGap) {
        quickDeliveries.fetch_add(1, std::memory_order_relaxed);
    } else {
        quickDeliveries.store(0, std::memory_order_relaxed);
    }
}

} // namespace msgbus_server
