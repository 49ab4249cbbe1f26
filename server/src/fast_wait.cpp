#include "fast_wait.h"

#include "diagnostics.h"

namespace msgbus_server {

namespace {

using cor::ResultCode;
using diagnostics::Log;
using diagnostics::LogLevel;

constexpr const char* tag = "[MessageBus]"; // the lines are the bus's, whoever writes them
constexpr unsigned popTimeoutMs = 1;        // the least: the item that was seen may go to another wait

} // namespace

cor::ResultCode FastWait::Wait(long subscriberId, std::string& topic, long& message) {
    try {
        const auto subscriber = bus.GetSubscriberPtrById(subscriberId);
        if (subscriber && subscriber->queue.Size() != 0) {
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
                message = next->value;
                topic = next->topic;
                return ResultCode::Success;
            }
        }
    } catch (const std::exception& error) {
        Log(LogLevel::Error, "{}: {}", tag, error.what());
        return ResultCode::Failed;
    }
    return blockingWorker.Wait(subscriberId, topic, message);
}

} // namespace msgbus_server
