#include "control.h"

#include "br_MessageBus_begun.h"
#include "cor/result_code.h"
#include "kn/status.h"
#include "time_limit.h"

#include <pthread.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <new>
#include <optional>
#include <utility>

namespace msgbus {

namespace {

/// How a server that is about to stop answers registrations. Another one may follow it.
constexpr auto Stopping = static_cast<std::int32_t>(cor::ResultCode::Failed);

/// The control connections of this process. Never destroyed: clients may be used until the process has exited.
class Controls final {
public:
    static Controls& Instance() {
        static Controls& controls = *new Controls;
        return controls;
    }

    std::shared_ptr<Control> Share(Route& route, std::chrono::milliseconds timeout) EXCLUDES(mutex) {
        // Destroyed without the lock, which the thread that forks takes before others.
        std::vector<std::shared_ptr<Control>> lost;
        {
            const common::MutexLock lock(mutex);
            if (auto control = Find(route, lost)) {
                return control;
            }
        }
        auto fresh = std::make_shared<Control>(route, timeout);
        const common::MutexLock lock(mutex);
        if (auto control = Find(route, lost)) { // of another thread
            return control;
        }
        entries[Key(route)] = fresh;
        return fresh;
    }

    /// Keeps a connection while something is still to be settled on it.
    void KeepUntilSettled(std::shared_ptr<Control> control) noexcept EXCLUDES(mutex) {
        const common::MutexLock lock(mutex);
        if (control->IsSettled()) {
            std::erase(kept, control);
            return;
        }
        try {
            if (std::find(kept.begin(), kept.end(), control) == kept.end()) {
                kept.push_back(std::move(control));
            }
        } catch (const std::bad_alloc&) { // it is then settled as long as a client uses it
        }
    }

private:
    Controls() {
        ::pthread_atfork([] { Instance().BeforeFork(); }, [] { Instance().AfterFork(); },
                         [] { Instance().AfterForkInChild(); });
    }

    static std::pair<Route, std::string> Key(Route route) {
        const char* const directory = std::getenv("BORVEN_RUNTIME_DIR");
        return {route, directory == nullptr ? "" : directory};
    }

    /// Sets an automatic route to the mode of the connection that was found.
    std::shared_ptr<Control> Find(Route& route, std::vector<std::shared_ptr<Control>>& lost) REQUIRES(mutex) {
        for (const Route mode : {Route::Dynamic, Route::Static}) {
            if (route != Route::Automatic && route != mode) {
                continue;
            }
            const auto found = entries.find(Key(mode));
            auto control = found == entries.end() ? nullptr : found->second.lock();
            if (control && !control->IsLost()) {
                route = mode;
                return control;
            }
            lost.push_back(std::move(control));
        }
        return nullptr;
    }

    // The lock is held from one of these functions to the other, which the analysis cannot follow.
    void BeforeFork() NO_THREAD_SAFETY_ANALYSIS { mutex.Lock(); }
    void AfterFork() NO_THREAD_SAFETY_ANALYSIS { mutex.Unlock(); }
    void AfterForkInChild() NO_THREAD_SAFETY_ANALYSIS {
        entries.clear();
        // Not destroyed: another thread of the parent may have had their locks.
        static_cast<void>(new std::vector<std::shared_ptr<Control>>(std::move(kept)));
        kept.clear();
        mutex.Unlock();
    }

    common::Mutex mutex;
    std::map<std::pair<Route, std::string>, std::weak_ptr<Control>> entries GUARDED_BY(mutex);
    std::vector<std::shared_ptr<Control>> kept GUARDED_BY(mutex);
};

// Made before any thread, which another one could fork in the middle of.
[[maybe_unused]] const Controls& madeEarly = Controls::Instance();

} // namespace

std::shared_ptr<Control> Control::Shared(Route& route, std::chrono::milliseconds timeout) {
    return Controls::Instance().Share(route, timeout);
}

Control::Control(Route& route, std::chrono::milliseconds timeout) : connection(Service::Ctl, route, timeout) {}

std::int32_t Control::RegisterPublisher(const std::string& topic, std::chrono::milliseconds timeout, std::int64_t& id) {
    return Request(
        Registered::Publisher, timeout,
        [&](std::uint32_t limit) {
            return br_MessageBusCtl_RegisterPublisher_begin(connection.Transport(), topic, limit);
        },
        [this](std::int64_t& newId, std::uint32_t limit) {
            return br_MessageBusCtl_RegisterPublisher_finish(connection.Transport(), newId, limit);
        },
        id);
}

std::int32_t Control::RegisterSubscriber(const std::string& name, const std::vector<std::string>& topics,
                                         std::chrono::milliseconds timeout, std::int64_t& id, std::string& refused) {
    std::int64_t handshake = -1;
    std::int32_t status = Request(
        Registered::Handshake, timeout,
        [&](std::uint32_t limit) { return br_MessageBusCtl_StartSubs_begin(connection.Transport(), name, limit); },
        [this](std::int64_t& newId, std::uint32_t limit) {
            return br_MessageBusCtl_StartSubs_finish(connection.Transport(), newId, limit);
        },
        handshake);
    if (status != 0) {
        return status;
    }
    std::int64_t none = -1;
    for (const auto& topic : topics) {
        status = Request(
            Registered::Nothing, timeout,
            [&](std::uint32_t limit) {
                return br_MessageBusCtl_Subscribe_begin(connection.Transport(), handshake, topic, limit);
            },
            [this](std::int64_t&, std::uint32_t limit) {
                return br_MessageBusCtl_Subscribe_finish(connection.Transport(), limit);
            },
            none);
        if (status != 0) {
            refused = topic;
            // The server keeps a registration that is neither committed nor canceled.
            Unregister({Registered::Handshake, handshake}, timeout);
            return status;
        }
    }
    status = Request(
        Registered::Subscriber, timeout,
        [&](std::uint32_t limit) {
            return br_MessageBusCtl_FinishSubs_begin(connection.Transport(), handshake, 1, limit);
        },
        [this](std::int64_t& newId, std::uint32_t limit) {
            return br_MessageBusCtl_FinishSubs_finish(connection.Transport(), newId, limit);
        },
        id);
    if (status == KnStatusBusy) { // was not sent
        Unregister({Registered::Handshake, handshake}, timeout);
    }
    return status;
}

std::int32_t Control::UnregisterPublisher(std::int64_t id, std::chrono::milliseconds timeout) noexcept {
    return Unregister({Registered::Publisher, id}, timeout);
}

std::int32_t Control::UnregisterSubscriber(std::int64_t id, std::chrono::milliseconds timeout) noexcept {
    return Unregister({Registered::Subscriber, id}, timeout);
}

bool Control::IsLost() const noexcept {
    const common::MutexLock lock(mutex);
    return isLost;
}

bool Control::IsSettled() const noexcept {
    const common::MutexLock lock(mutex);
    return isLost || (!isLate && unwanted.empty());
}

std::int32_t Control::Request(Registered registered, std::chrono::milliseconds timeout, const Begin& begin,
                              const Finish& finish, std::int64_t& id) {
    if (ForkCount() != forks) { // the parent's, whose threads may have had the lock
        return KnStatusClosed;
    }
    const Deadline deadline = DeadlineIn(timeout);
    const Turn turn = Enter(deadline, true);
    if (!turn) {
        return KnStatusBusy;
    }
    std::int32_t status = Settle(deadline);
    if (status == 0) {
        status = Exchange(registered, deadline, begin, finish, id);
    }
    NoteStatus(status);
    return status;
}

std::int32_t Control::Unregister(const Registration& registration, std::chrono::milliseconds timeout) noexcept {
    if (ForkCount() != forks) {
        return KnStatusClosed;
    }
    try {
        const Deadline deadline = DeadlineIn(timeout);
        const Turn turn = Enter(deadline, false);
        if (!turn) {
            {
                const common::MutexLock lock(mutex);
                unwanted.push_back(registration);
            }
            Controls::Instance().KeepUntilSettled(shared_from_this());
            return KnStatusBusy;
        }
        std::int32_t status = Settle(deadline);
        if (status == 0) {
            status = Undo(registration, deadline);
        }
        if (status == KnStatusBusy) {
            const common::MutexLock lock(mutex);
            unwanted.push_back(registration);
        }
        NoteStatus(status);
        return status;
    } catch (const std::bad_alloc&) {
        return KnStatusNoResources;
    }
}

/// Takes the turn. Returns: null when it is not free by the deadline, or, unless the caller `isPatient`, when a reply
/// is late and has not come.
Control::Turn Control::Enter(Deadline deadline, bool isPatient) {
    common::MutexLock lock(mutex);
    while (isBusy) {
        if (isLate && !isPatient) {
            return nullptr;
        }
        if (left.WaitUntil(lock, deadline) == std::cv_status::timeout && isBusy) {
            return nullptr;
        }
    }
    isBusy = true;
    Turn turn(this);
    if (!isLate || isPatient) {
        return turn;
    }
    lock.Unlock();
    return TakeLateReply(Deadline::min()) == KnStatusBusy ? nullptr : std::move(turn);
}

void Control::Leave() noexcept {
    {
        const common::MutexLock lock(mutex);
        isBusy = false;
        left.NotifyOne();
    }
    Controls::Instance().KeepUntilSettled(shared_from_this());
}

/// Takes the reply that is still to come. Returns: 0; KnStatusBusy when it does not come. Requires: the turn.
std::int32_t Control::TakeLateReply(Deadline deadline) {
    {
        const common::MutexLock lock(mutex);
        if (!isLate) {
            return 0;
        }
    }
    std::int64_t id = -1;
    const std::int32_t status = StatusOf(lateFinish(id, MillisecondsUntil(deadline)));
    if (status == KnStatusTimedOut) {
        return KnStatusBusy;
    }
    const common::MutexLock lock(mutex);
    isLate = false;
    if (status == 0 && late != Registered::Nothing) {
        unwanted.push_back({late, id});
    }
    return 0;
}

/// Takes the reply that is still to come, and unregisters what is not wanted any more.
/// Returns: 0; KnStatusBusy when the server does not answer; KnStatusClosed. Requires: the turn.
std::int32_t Control::Settle(Deadline deadline) {
    if (const std::int32_t status = TakeLateReply(deadline); status != 0) {
        return status;
    }
    while (true) {
        std::optional<Registration> next;
        {
            const common::MutexLock lock(mutex);
            if (unwanted.empty()) {
                return 0;
            }
            next = unwanted.back();
            unwanted.pop_back();
        }
        const std::int32_t status = Undo(*next, deadline);
        if (status == KnStatusClosed) {
            return status;
        }
        if (status == KnStatusTimedOut || status == KnStatusBusy) {
            if (status == KnStatusBusy) {
                const common::MutexLock lock(mutex);
                unwanted.push_back(*next);
            }
            return KnStatusBusy;
        }
    }
}

/// Returns: the status of one request. Requires: the turn, and everything is settled.
std::int32_t Control::Exchange(Registered registered, Deadline deadline, const Begin& begin, const Finish& finish,
                               std::int64_t& id) {
    std::int32_t status = StatusOf(begin(MillisecondsUntil(deadline)));
    if (status != 0) {
        return status == KnStatusTimedOut ? KnStatusBusy : status;
    }
    status = StatusOf(finish(id, MillisecondsUntil(deadline)));
    if (status == KnStatusTimedOut) {
        lateFinish = finish;
        late = registered;
        const common::MutexLock lock(mutex);
        isLate = true;
    }
    return status;
}

std::int32_t Control::Undo(const Registration& registration, Deadline deadline) {
    std::int64_t none = -1;
    NkBosTransport* const transport = connection.Transport();
    const std::int64_t id = registration.id;
    switch (registration.kind) {
    case Registered::Nothing:
        break;
    case Registered::Publisher:
        return Exchange(
            Registered::Nothing, deadline,
            [&](std::uint32_t limit) { return br_MessageBusCtl_UnregisterPublisher_begin(transport, id, limit); },
            [transport](std::int64_t&, std::uint32_t limit) {
                return br_MessageBusCtl_UnregisterPublisher_finish(transport, limit);
            },
            none);
    case Registered::Subscriber:
        return Exchange(
            Registered::Nothing, deadline,
            [&](std::uint32_t limit) { return br_MessageBusCtl_UnregisterSubscriber_begin(transport, id, limit); },
            [transport](std::int64_t&, std::uint32_t limit) {
                return br_MessageBusCtl_UnregisterSubscriber_finish(transport, limit);
            },
            none);
    case Registered::Handshake:
        return Exchange(
            Registered::Nothing, deadline,
            [&](std::uint32_t limit) { return br_MessageBusCtl_FinishSubs_begin(transport, id, 0, limit); },
            [transport](std::int64_t& unused, std::uint32_t limit) {
                return br_MessageBusCtl_FinishSubs_finish(transport, unused, limit);
            },
            none);
    }
    return 0;
}

void Control::NoteStatus(std::int32_t status) noexcept {
    if (status == KnStatusClosed || status == Stopping) {
        const common::MutexLock lock(mutex);
        isLost = true;
    }
}

} // namespace msgbus
