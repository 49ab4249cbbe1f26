#include "kn/caller.h"

#include "kn/status.h"
#include "records/owed_replies.h"
#include "records/request_observer.h"

using namespace borven_host;

namespace {

/// Returns: null when the calling thread serves no request.
const Caller* Current() noexcept {
    const auto* const client = OwedReplies::OfThisThread().Latest();
    return client == nullptr ? nullptr : client->caller.get();
}

} // namespace

std::int32_t KnCallerOfRequest(KnCaller* caller) noexcept {
    const Caller* const current = Current();
    if (caller == nullptr || current == nullptr) {
        return KnStatusInvalidArgument;
    }
    *caller = current->identity;
    return current->isGone.load() ? KnStatusPeerGone : KnStatusOk;
}

std::uint64_t KnCallerId() noexcept {
    const Caller* const current = Current();
    return current == nullptr ? 0 : current->identity.id;
}

std::int32_t KnObserveRequests(KnIRequestObserver* observer, std::uint16_t iid) noexcept {
    RequestObserver::Instance().Set(observer, iid);
    return KnStatusOk;
}
