#include "account/loop_watch.h"

#include "account/away_time.h"
#include "kn/caller.h"
#include "kn/status.h"
#include "request_time.h"

namespace msgbus_server {

using cor::ResultCode;

template <typename Call>
ResultCode LoopWatch::Watched(const Call& call) {
    const RequestTime time;
    const AwayTime away(keeper.ThisThread(), time.Begin().time_since_epoch().count());
    return call();
}

ResultCode LoopWatch::Push(long publisherId, long message) {
    return Watched([&] { return bus.provider.Push(publisherId, message); });
}

ResultCode LoopWatch::RegisterPublisher(const std::string& topic, long& publisherId) {
    const ResultCode result = Watched([&] { return bus.control.RegisterPublisher(topic, publisherId); });
    NoteRefusal(result, topic);
    return result;
}

ResultCode LoopWatch::RegisterSubscriber(const std::string& name, const std::set<std::string>& topics,
                                         long& subscriberId) {
    const ResultCode result = Watched([&] { return bus.control.RegisterSubscriber(name, topics, subscriberId); });
    NoteRefusal(result, name);
    return result;
}

void LoopWatch::NoteRefusal(ResultCode result, const std::string& name) {
    KnCaller caller;
    if (result != ResultCode::Success && KnCallerOfRequest(&caller) == KnStatusOk) {
        keeper.NoteRefusal(caller, result, name);
    }
}

ResultCode LoopWatch::UnregisterPublisher(long publisherId) {
    return Watched([&] { return bus.control.UnregisterPublisher(publisherId); });
}

ResultCode LoopWatch::UnregisterSubscriber(long subscriberId) {
    return Watched([&] { return bus.control.UnregisterSubscriber(subscriberId); });
}

ResultCode LoopWatch::Wait(long subscriberId, std::string& topic, long& message) {
    const auto wait = [&] { return bus.worker.Wait(subscriberId, topic, message); };
    return mayBlock ? wait() : Watched(wait);
}

} // namespace msgbus_server
