#include "subscribe_helper.h"

#include "diagnostics.h"

#include <cassert>
#include <utility>

namespace message_bus {

using cor::ResultCode;
using diagnostics::Log;
using diagnostics::LogLevel;

namespace {

constexpr auto Tag = "[Subscriber]";

} // namespace

SubscribeHelper::SubscribeHelper(std::shared_ptr<IProviderControl> control) : providerControl(std::move(control)) {}

ResultCode SubscribeHelper::StartSubscribing(const std::string& name, long& id) {
    const std::lock_guard lock(mutex);
    [[maybe_unused]] const bool isNew =
        registrations.try_emplace(nextRegistrationId, RegistrationItem{name, {}}).second;
    assert(isNew);
    id = nextRegistrationId;
    ++nextRegistrationId;
    return ResultCode::Success;
}

ResultCode SubscribeHelper::Subscribe(long id, const std::string& topic) {
    const std::lock_guard lock(mutex);
    const auto found = registrations.find(id);
    if (found == registrations.end()) {
        // Contract: an unknown id is 10 here and 8 in FinishSubscribing, so clients have to handle both.
        Log(LogLevel::Error, "{}: Unable to finish registration - undefined subscriber ID", Tag);
        return ResultCode::Failed;
    }
    if (!found->second.topics.insert(topic).second) {
        // Contract: no tag and this spelling, so a search for either, put right, does not find the line.
        Log(LogLevel::Error, "Unable to finish registration - the topic already exists in the registartion list of the "
                             "client.");
        return ResultCode::Conflict;
    }
    return ResultCode::Success;
}

ResultCode SubscribeHelper::FinishSubscribing(long id, bool complete, long& subscriberId) {
    try {
        RegistrationItem item;
        {
            const std::lock_guard lock(mutex);
            const auto found = registrations.find(id);
            if (found == registrations.end()) {
                // Contract: no tag, so a search for the tag does not find this line.
                Log(LogLevel::Error, "Unable to finish registration - the registration id is not recognized.");
                return ResultCode::Conflict;
            }
            if (complete) {
                item = found->second;
            }
            registrations.erase(found);
        }
        if (complete) {
            return providerControl->RegisterSubscriber(item.subscriberName, item.topics, subscriberId);
        }
        Log(LogLevel::Warning, "{}: The subscriber registration is cancelled", Tag);
        return ResultCode::NotRegistered;
    } catch (const std::exception& error) {
        Log(LogLevel::Error, "{}: {}", Tag, error.what());
        return ResultCode::Failed;
    }
}

} // namespace message_bus
