#include "registrar.h"

#include "cor/result_code.h"
#include "failure.h"
#include "kn/status.h"
#include "recovery.h"

#include <pthread.h>

#include <algorithm>
#include <utility>

namespace msgbus {

namespace {

constexpr auto Conflict = static_cast<std::int32_t>(cor::ResultCode::Conflict);

/// A deadline may be too far away for a clock.
constexpr std::chrono::seconds LongestLook{1};

/// The subscribers of this process. Never destroyed: they may be used until the process has exited.
class Subscribers final {
public:
    static Subscribers& Instance() {
        static Subscribers& subscribers = *new Subscribers;
        return subscribers;
    }

    void Add(const std::shared_ptr<Registrar>& subscriber) EXCLUDES(mutex) {
        const common::MutexLock lock(mutex);
        std::erase_if(all, [](const auto& entry) { return entry.expired(); });
        all.push_back(subscriber);
    }

    std::vector<std::shared_ptr<Registrar>> All() EXCLUDES(mutex) {
        const common::MutexLock lock(mutex);
        std::vector<std::shared_ptr<Registrar>> living;
        for (const auto& entry : all) {
            if (auto subscriber = entry.lock()) {
                living.push_back(std::move(subscriber));
            }
        }
        return living;
    }

private:
    Subscribers() {
        ::pthread_atfork([] { Instance().BeforeFork(); }, [] { Instance().AfterFork(); },
                         [] { Instance().AfterForkInChild(); });
    }

    // The lock is held from one of these functions to the other, which the analysis cannot follow.
    void BeforeFork() NO_THREAD_SAFETY_ANALYSIS { mutex.Lock(); }
    void AfterFork() NO_THREAD_SAFETY_ANALYSIS { mutex.Unlock(); }
    void AfterForkInChild() NO_THREAD_SAFETY_ANALYSIS {
        all.clear();
        mutex.Unlock();
    }

    common::Mutex mutex;
    std::vector<std::weak_ptr<Registrar>> all GUARDED_BY(mutex);
};

// Made before any thread, which another one could fork in the middle of.
[[maybe_unused]] const Subscribers& madeEarly = Subscribers::Instance();

} // namespace

std::int32_t Registration::Unregister() noexcept {
    const std::int64_t registered = id.exchange(-1);
    return registered == -1 ? 0 : links.control->UnregisterSubscriber(registered, callTimeout);
}

std::shared_ptr<Registrar> Registrar::Make(std::string name, std::vector<std::string> topics, const Options& options,
                                           std::shared_ptr<Backend> backend) {
    std::shared_ptr<Registrar> made(new Registrar(std::move(name), std::move(topics), options, std::move(backend)));
    Subscribers::Instance().Add(made);
    return made;
}

Registrar::Registrar(std::string subscriberName, std::vector<std::string> subscriberTopics,
                     const Options& subscriberOptions, std::shared_ptr<Backend> bus)
    : name(std::move(subscriberName)), topics(std::move(subscriberTopics)),
      connectTimeout(subscriberOptions.connectTimeout), callTimeout(subscriberOptions.callTimeout),
      reconnects(subscriberOptions.reconnectFor > std::chrono::milliseconds::zero()), backend(std::move(bus)) {}

std::shared_ptr<Registration> Registrar::Register(std::chrono::milliseconds longest) {
    const auto timeout = std::min(callTimeout, longest);
    std::int64_t id = -1;
    std::string refused;
    std::int32_t status = KnStatusClosed;
    SubscriberLinks links;
    // The first attempt may be over a connection of this process whose server is gone.
    for (int attempt = 0; attempt < 2 && status == KnStatusClosed; ++attempt) {
        links = backend->ConnectSubscriber(std::min(connectTimeout, longest));
        status = links.control->RegisterSubscriber(name, topics, timeout, id, refused);
    }
    ThrowIfTimedOut(status, timeout, "subscriber '" + name + "' is registered",
                    "the registration of subscriber '" + name + "'");
    ThrowUnlessOk(status, status == Conflict && !refused.empty() ? "topic '" + refused + "' is named twice" : "");
    return std::make_shared<Registration>(std::move(links), id, callTimeout);
}

std::shared_ptr<Registration> Registrar::RegisterAgain(std::chrono::milliseconds longest) {
    {
        const common::MutexLock lock(mutex);
        if (isRegistering) {
            return nullptr;
        }
        if (prepared) {
            return std::exchange(prepared, nullptr);
        }
        isRegistering = true;
    }
    std::shared_ptr<Registration> made;
    try {
        made = Register(longest);
    } catch (...) {
        const common::MutexLock lock(mutex);
        EndRegistering();
        throw;
    }
    const common::MutexLock lock(mutex);
    EndRegistering();
    if (current) {
        current = made->Links().control; // a publisher that goes on now needs no other one
    }
    return made;
}

void Registrar::EndRegistering() {
    isRegistering = false;
    registeringEnded.NotifyAll();
}

void Registrar::SetCurrent(const std::shared_ptr<Registration>& registration) {
    std::shared_ptr<Registration> unwanted; // destroyed without the lock
    const common::MutexLock lock(mutex);
    current = registration ? registration->Links().control : nullptr;
    unwanted.swap(prepared);
}

void Registrar::RegisterAllOf(const std::shared_ptr<IControl>& lost, Deadline deadline) {
    for (const auto& subscriber : Subscribers::Instance().All()) {
        subscriber->Prepare(lost, deadline);
    }
}

/// Whether its last registration was over `lost`: that in use, or one that is prepared and whose server is gone again.
bool Registrar::IsRegisteredOver(const std::shared_ptr<IControl>& lost) const {
    return current && (prepared ? prepared->Links().control : current) == lost;
}

void Registrar::Prepare(const std::shared_ptr<IControl>& lost, Deadline deadline) {
    {
        common::MutexLock lock(mutex);
        while (isRegistering && std::chrono::steady_clock::now() < deadline) { // on its way, or about to fail
            registeringEnded.WaitUntil(lock, std::min(deadline, std::chrono::steady_clock::now() + LongestLook));
        }
        if (!reconnects || !IsRegisteredOver(lost) || isRegistering) {
            return;
        }
        isRegistering = true;
    }
    std::shared_ptr<Registration> made;
    try {
        const bool hasServer = SucceedsWithServer([&] { made = Register(LongestAttempt(deadline)); });
        const common::MutexLock lock(mutex);
        EndRegistering();
        if (hasServer && IsRegisteredOver(lost)) {
            if (prepared) {
                made->Follow(*prepared);
            }
            prepared.swap(made);
        }
        if (!hasServer) {
            throw NoServerError(KnStatusNotFound, "no message bus server is running");
        }
    } catch (const NoServerError&) {
        throw;
    } catch (const std::exception&) { // the subscriber meets the failure itself
        const common::MutexLock lock(mutex);
        EndRegistering();
    }
}

} // namespace msgbus
