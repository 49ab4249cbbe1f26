#include "ownership.h"

#include "kn/status.h"

#include <array>
#include <atomic>
#include <numeric>

namespace msgbus_server {

using cor::ResultCode;

namespace {

constexpr long UnknownId = 0; // the bus counts from 1

std::atomic<std::uint64_t> instances{0};

/// A registration that a caller may use. It stays true: no id is given twice, and none changes its owner.
struct KnownUse {
    std::uint64_t instance = 0;
    std::uint64_t caller = 0;
    long id = 0;
};

/// Those that the thread has served lately: a push or a wait must not cost a lock and a search. Publishers and
/// subscribers share their ids, so an id is one or the other.
thread_local std::array<KnownUse, 1024> knownUses;

KnownUse& PlaceOf(long id) {
    return knownUses[static_cast<std::uint64_t>(id) % knownUses.size()];
}

} // namespace

Ownership::Ownership(Bus served, CallerAccounts& kept, bool checksOwners,
                     std::function<void(const KnCaller&)> endAction)
    : bus(served), accounts(kept), isOwned(checksOwners), endAllOf(std::move(endAction)), instance(++instances) {}

ResultCode Ownership::Push(long publisherId, long message) {
    return bus.provider.Push(VisibleOften(Kind::Publisher, publisherId), message);
}

ResultCode Ownership::RegisterPublisher(const std::string& topic, long& publisherId) {
    return Register(Kind::Publisher, topic.size(), publisherId,
                    [&] { return bus.control.RegisterPublisher(topic, publisherId); });
}

ResultCode Ownership::RegisterSubscriber(const std::string& name, const std::set<std::string>& topics,
                                         long& subscriberId) {
    const std::size_t bytes =
        std::accumulate(topics.begin(), topics.end(), name.size(),
                        [](std::size_t sum, const std::string& topic) { return sum + topic.size() + TopicOverhead; });
    return Register(Kind::Subscriber, bytes, subscriberId,
                    [&] { return bus.control.RegisterSubscriber(name, topics, subscriberId); });
}

template <typename Make>
ResultCode Ownership::Register(Kind kind, std::size_t bytes, long& id, const Make& make) {
    KnCaller caller;
    if (KnCallerOfRequest(&caller) == KnStatusInvalidArgument) {
        return make();
    }
    if (const ResultCode result = accounts.Charge(caller, kind, bytes); result != ResultCode::Success) {
        return result;
    }
    const ResultCode result = make();
    if (result != ResultCode::Success) {
        accounts.Refund(caller, kind, bytes);
        return result;
    }
    accounts.Add(caller, {kind, id}, bytes);
    if (isOwned && KnCallerOfRequest(&caller) == KnStatusPeerGone) {
        endAllOf(caller); // its end was reported before the registration was known
    }
    return result;
}

/// Returns: `id`, or an id that is unknown to the bus where the calling process must not use it.
long Ownership::Visible(Kind kind, long id) const {
    KnCaller caller;
    if (!isOwned || id < UnknownId || KnCallerOfRequest(&caller) == KnStatusInvalidArgument) {
        return id;
    }
    return accounts.MayUse(caller, {kind, id}) ? id : UnknownId;
}

/// Visible, for what is used again and again.
long Ownership::VisibleOften(Kind kind, long id) const {
    if (!isOwned) {
        return id;
    }
    const std::uint64_t caller = KnCallerId();
    KnownUse& known = PlaceOf(id);
    if (known.id == id && known.caller == caller && known.instance == instance) {
        return id;
    }
    const long visible = Visible(kind, id);
    if (visible == id && accounts.OwnerOf({kind, id}).id == caller) {
        known = {instance, caller, id};
    }
    return visible;
}

ResultCode Ownership::UnregisterPublisher(long publisherId) {
    const ResultCode result = bus.control.UnregisterPublisher(Visible(Kind::Publisher, publisherId));
    if (result == ResultCode::Success) {
        accounts.Remove({Kind::Publisher, publisherId});
    }
    return result;
}

ResultCode Ownership::UnregisterSubscriber(long subscriberId) {
    const ResultCode result = bus.control.UnregisterSubscriber(Visible(Kind::Subscriber, subscriberId));
    if (result == ResultCode::Success) {
        accounts.Remove({Kind::Subscriber, subscriberId});
    }
    return result;
}

ResultCode Ownership::Wait(long subscriberId, std::string& topic, long& message) {
    return bus.worker.Wait(VisibleOften(Kind::Subscriber, subscriberId), topic, message);
}

} // namespace msgbus_server
