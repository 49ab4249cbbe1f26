#include "subscriber_ledger.h"

#include <cassert>

namespace msgbus_server {

using cor::ResultCode;

cor::ResultCode SubscriberLedger::RegisterPublisher(const std::string& topic, long& publisherId) {
    return isRefusing ? ResultCode::Failed : control.RegisterPublisher(topic, publisherId);
}

cor::ResultCode SubscriberLedger::RegisterSubscriber(const std::string& name, const std::set<std::string>& topics,
                                                     long& subscriberId) {
    if (isRefusing) {
        return ResultCode::Failed;
    }
    const ResultCode result = control.RegisterSubscriber(name, topics, subscriberId);
    if (result != ResultCode::Success) {
        return result;
    }
    {
        const common::MutexLock lock(mutex);
        if (!isStopping) {
            [[maybe_unused]] const bool isNew = subscribers.insert(subscriberId).second;
            assert(isNew); // the bus never gives an id twice
            count.store(subscribers.size(), std::memory_order_relaxed);
            return result;
        }
    }
    // The stop came while the bus registered the subscriber, and missed it.
    control.UnregisterSubscriber(subscriberId);
    return ResultCode::Failed;
}

cor::ResultCode SubscriberLedger::UnregisterPublisher(long publisherId) {
    return control.UnregisterPublisher(publisherId);
}

cor::ResultCode SubscriberLedger::UnregisterSubscriber(long subscriberId) {
    {
        const common::MutexLock lock(mutex);
        if (isStopping) {
            return ResultCode::Failed;
        }
        subscribers.erase(subscriberId);
        count.store(subscribers.size(), std::memory_order_relaxed);
    }
    return control.UnregisterSubscriber(subscriberId);
}

cor::ResultCode SubscriberLedger::Wait(long subscriberId, std::string& topic, long& message) {
    return isStopping ? ResultCode::NotRegistered : worker.Wait(subscriberId, topic, message);
}

std::vector<long> SubscriberLedger::RefuseNew() {
    const common::MutexLock lock(mutex);
    isRefusing = true;
    return {subscribers.begin(), subscribers.end()};
}

std::size_t SubscriberLedger::StopAndUnregisterAll() {
    std::set<long> left;
    {
        const common::MutexLock lock(mutex);
        isRefusing = true;
        isStopping = true;
        left.swap(subscribers);
    }
    count.store(0, std::memory_order_relaxed);
    for (const long id : left) {
        control.UnregisterSubscriber(id);
    }
    return left.size();
}

} // namespace msgbus_server
