#include "subscriber_ledger.h"

#include <utility>

namespace msgbus_server {

using cor::ResultCode;

cor::ResultCode SubscriberLedger::RegisterPublisher(const std::string& topic, long& publisherId) {
    return IsStopping() ? ResultCode::Failed : control.RegisterPublisher(topic, publisherId);
}

cor::ResultCode SubscriberLedger::RegisterSubscriber(const std::string& name, const std::set<std::string>& topics,
                                                     long& subscriberId) {
    if (IsStopping()) {
        return ResultCode::Failed;
    }
    const ResultCode result = control.RegisterSubscriber(name, topics, subscriberId);
    if (result != ResultCode::Success) {
        return result;
    }
    {
        const std::lock_guard lock(mutex);
        if (!stopping) {
            subscribers.insert(subscriberId);
            return result;
        }
    }
    // The stop came while the bus registered it, and has not seen it.
    control.UnregisterSubscriber(subscriberId);
    return ResultCode::Failed;
}

cor::ResultCode SubscriberLedger::UnregisterPublisher(long publisherId) {
    return control.UnregisterPublisher(publisherId);
}

cor::ResultCode SubscriberLedger::UnregisterSubscriber(long subscriberId) {
    {
        const std::lock_guard lock(mutex);
        if (stopping) {
            return ResultCode::Failed;
        }
        subscribers.erase(subscriberId);
    }
    return control.UnregisterSubscriber(subscriberId);
}

void SubscriberLedger::StopAndUnregisterAll() {
    std::unordered_set<long> left;
    {
        const std::lock_guard lock(mutex);
        stopping = true;
        left.swap(subscribers);
    }
    for (const long id : left) {
        control.UnregisterSubscriber(id);
    }
}

bool SubscriberLedger::IsStopping() const {
    const std::lock_guard lock(mutex);
    return stopping;
}

} // namespace msgbus_server
