#include "msgbus/subscriber.h"

#include "backend.h"
#include "common/mutex.h"
#include "common/thread_annotations.h"
#include "cor/result_code.h"
#include "failure.h"
#include "kn/status.h"
#include "publisher_watch.h"
#include "recovery.h"
#include "registrar.h"
#include "server_backend.h"
#include "time_limit.h"
#include "timed_descriptor.h"

#include <algorithm>
#include <chrono>
#include <optional>
#include <utility>

namespace msgbus {

namespace {

constexpr auto NotRegistered = static_cast<std::int32_t>(cor::ResultCode::NotRegistered);
constexpr auto TooManyValues = static_cast<std::int32_t>(cor::ResultCode::TooManyValues);
constexpr auto Conflict = static_cast<std::int32_t>(cor::ResultCode::Conflict);

std::shared_ptr<Registrar> MakeRegistrar(std::string name, const std::vector<std::string>& topics,
                                         const Options& options) {
    CheckText(name, "name");
    for (const auto& topic : topics) {
        CheckText(topic, "topic");
    }
    auto backend = options.backend ? options.backend : std::make_shared<ServerBackend>(options.route);
    return Registrar::Make(std::move(name), PublisherWatch::TopicsFor(topics, options), options, std::move(backend));
}

} // namespace

class __attribute__((visibility("hidden"))) Subscriber::State final {
public:
    State(std::string subscriberName, std::vector<std::string> topics, Options subscriberOptions)
        : name(subscriberName), options(std::move(subscriberOptions)),
          registrar(MakeRegistrar(std::move(subscriberName), topics, options)) {
        std::shared_ptr<Registration> first;
        AwaitServer(options, [&] { first = registrar->Register(); });
        if (options.onPublisher) {
            watch.emplace(std::move(topics), options);
        }
        registrar->SetCurrent(first);
        const common::MutexLock lock(mutex);
        registration = std::move(first);
    }

    ~State() { registrar->SetCurrent(nullptr); }

    /// Whether this process is a child of the one that made it.
    bool IsInherited() const noexcept { return ForkCount() != forks; }

    State(const State&) = delete;
    State& operator=(const State&) = delete;

    /// Waits until `deadline`: Deadline::max() for ever, Deadline::min() not at all.
    Outcome Receive(Deadline deadline, Message& message) EXCLUDES(mutex) {
        CheckProcess(forks);
        bool hasRecovered = false;
        while (true) {
            const auto [current, id] = Current();
            if (!current) {
                return Outcome::Canceled;
            }
            if (recovery) {
                // A server may end as soon as it has the subscriber, and so may those that follow it.
                if ((!hasRecovered || PauseBetweenAttempts(deadline)) && Recover(deadline)) {
                    hasRecovered = true;
                    continue;
                }
                return IsCanceled() ? Outcome::Canceled : Outcome::TimedOut;
            }
            const Deadline end = watch ? std::min(deadline, watch->NoteWait()) : deadline;
            const std::int32_t status = current->Links().receiver->Receive(id, TimeoutFor(end), message);
            if (status == 0) {
                if (watch && watch->Take(message)) {
                    continue;
                }
                return Outcome::Value;
            }
            if (status != KnStatusTimedOut) {
                HandleFailure(*current, status);
                continue;
            }
            ReportDue();
            if (deadline == Deadline::min() || std::chrono::steady_clock::now() >= deadline) {
                return IsCanceled() ? Outcome::Canceled : Outcome::TimedOut;
            }
        }
    }

    int Descriptor() EXCLUDES(mutex) {
        CheckProcess(forks);
        const auto [current, id] = Current();
        if (lastDescriptor < 0) {
            if (!current) {
                throw PlatformError(KnStatusInvalidArgument, "subscriber '" + name + "' was canceled");
            }
            const std::int32_t status = current->Links().receiver->Descriptor(lastDescriptor);
            ThrowUnlessOk(status);
        }
        if (!watch || !watch->HasDueTimes()) {
            return lastDescriptor;
        }
        if (!timedDescriptor) {
            timedDescriptor.emplace(lastDescriptor);
            timedDescriptor->WakeAt(watch->NoteWait());
        }
        return timedDescriptor->Number();
    }

    void Cancel() noexcept EXCLUDES(mutex) {
        if (IsInherited()) {
            return;
        }
        std::shared_ptr<Registration> last;
        {
            const common::MutexLock lock(mutex);
            if (std::exchange(canceled, true)) {
                return;
            }
            last = registration; // for good
            pauseEnded.NotifyAll();
        }
        // A server that did not unregister the subscriber does not end the wait either.
        if (last->Unregister() != 0) {
            last->EndWait();
        }
        registrar->SetCurrent(nullptr);
    }

    Loss Lost() const EXCLUDES(mutex) {
        CheckProcess(forks);
        const common::MutexLock lock(mutex);
        Loss loss = registration->Links().receiver->Lost();
        loss.values += before.values;
        loss.reconnections = before.reconnections;
        return loss;
    }

    const std::string& Name() const noexcept { return name; }

    std::int64_t Id() const EXCLUDES(mutex) {
        CheckProcess(forks);
        const common::MutexLock lock(mutex);
        return canceled ? -1 : registration->Id();
    }

private:
    static std::uint32_t TimeoutFor(Deadline deadline) noexcept {
        if (deadline == Deadline::max()) {
            return Forever;
        }
        return deadline == Deadline::min() ? 0 : MillisecondsUntil(deadline);
    }

    /// Returns: the registration and its id; an empty pointer once canceled.
    std::pair<std::shared_ptr<Registration>, std::int64_t> Current() const EXCLUDES(mutex) {
        const common::MutexLock lock(mutex);
        if (canceled) {
            return {nullptr, -1};
        }
        return {registration, registration->Id()};
    }

    bool IsCanceled() const EXCLUDES(mutex) {
        const common::MutexLock lock(mutex);
        return canceled;
    }

    /// Reports what is due although nothing has come.
    void ReportDue() {
        if (!watch) {
            return;
        }
        watch->ReportDue();
        if (timedDescriptor) {
            timedDescriptor->WakeAt(watch->NoteWait());
        }
    }

    /// Begins the recovery if the server is gone. Throws otherwise, and unless canceled.
    void HandleFailure(Registration& failed, std::int32_t status) EXCLUDES(mutex) {
        CheckProcess(forks);
        if (IsCanceled()) {
            return;
        }
        if (isUnregistered && status > 0) {
            status = NotRegistered; // for want of an id the bus says something else
        }
        if (status == NotRegistered) {
            // Another client has unregistered this id, or the server has, which does so when it stops. Only a running
            // server answers the next call with "no such id".
            isUnregistered = isUnregistered || failed.Unregister() == Conflict;
            if (IsCanceled()) {
                return;
            }
            if (isUnregistered) {
                throw RefusedError(NotRegistered, "another client has unregistered subscriber '" + name + "'");
            }
            failed.EndWait(); // as if the server were gone already
            status = KnStatusClosed;
        }
        if (status == TooManyValues) {
            throw RefusedError(TooManyValues, "subscriber '" + name + "' left too many values unread, and the server " +
                                                  "has cut it; " + std::to_string(Lost().values) + " values are lost");
        }
        if (status != KnStatusClosed) {
            ThrowUnlessOk(status);
        }
        recovery.emplace(options, ServerGoneError(KnStatusClosed, "the message bus server is gone"));
    }

    /// Looks for a restarted server, with pauses until `deadline`. Returns: whether the subscriber is registered again.
    /// Throws: after Options::reconnectFor.
    bool Recover(Deadline deadline) EXCLUDES(mutex) {
        while (true) {
            std::shared_ptr<Registration> next;
            bool hasServer = false;
            try {
                hasServer = recovery->Try([&] { next = registrar->RegisterAgain(LongestAttempt(deadline)); });
            } catch (...) {
                recovery.reset();
                if (IsCanceled()) {
                    return false;
                }
                throw;
            }
            if (hasServer && next) {
                return Replace(std::move(next));
            }
            if (!PauseBetweenAttempts(deadline)) {
                return false;
            }
        }
    }

    /// Returns: false at the deadline, and once canceled.
    bool PauseBetweenAttempts(Deadline deadline) EXCLUDES(mutex) {
        const auto now = std::chrono::steady_clock::now();
        if (now >= deadline) {
            WakeDescriptor();
            return false;
        }
        return Pause(std::min<Deadline>(now + TimeBetweenAttempts, deadline));
    }

    /// Returns: false once canceled.
    bool Replace(std::shared_ptr<Registration> next) EXCLUDES(mutex) {
        recovery.reset();
        const auto replacement = next;
        {
            const common::MutexLock lock(mutex);
            if (canceled) {
                return false;
            }
            if (lastDescriptor >= 0) {
                ThrowUnlessOk(next->Links().receiver->TakeDescriptorOf(*registration->Links().receiver));
            }
            before.values += registration->Links().receiver->Lost().values;
            before.reconnections += next->Restarts();
            registration.swap(next);
        }
        if (watch) {
            watch->NoteRestart();
        }
        registrar->SetCurrent(replacement);
        if (IsCanceled()) { // meanwhile, and then after SetCurrent or before it
            registrar->SetCurrent(nullptr);
            return false;
        }
        Notify(options, Notice::RegisteredAgain,
               "subscribed as '" + name + "' again with a restarted server (id " + std::to_string(Id()) +
                   "); unread values, and values published in between, are lost");
        return true;
    }

    /// To try again when the descriptor is polled.
    void WakeDescriptor() EXCLUDES(mutex) {
        if (timedDescriptor) {
            timedDescriptor->WakeAt(Deadline::max()); // what is due is reported when there is a server again
        }
        const common::MutexLock lock(mutex);
        if (lastDescriptor >= 0) {
            ThrowUnlessOk(registration->Links().receiver->WakeDescriptor(
                static_cast<std::uint32_t>(TimeBetweenAttempts.count())));
        }
    }

    /// Waits until `deadline`, or until Cancel is called.
    /// Returns: false once canceled.
    bool Pause(Deadline deadline) EXCLUDES(mutex) {
        common::MutexLock lock(mutex);
        while (!canceled && pauseEnded.WaitUntil(lock, deadline) == std::cv_status::no_timeout) {
        }
        return !canceled;
    }

    const std::string name;
    const Options options;
    const std::shared_ptr<Registrar> registrar;
    const unsigned forks = ForkCount();

    // Of the thread that receives.
    std::optional<Recovery> recovery;
    int lastDescriptor = -1;
    bool isUnregistered = false; ///< by another client
    std::optional<PublisherWatch> watch;
    std::optional<TimedDescriptor> timedDescriptor; ///< around `lastDescriptor`

    mutable common::Mutex mutex;
    common::ConditionVariable pauseEnded; ///< of `canceled`
    bool canceled GUARDED_BY(mutex) = false;
    /// Replaced by the thread that receives only, and not any more once canceled.
    std::shared_ptr<Registration> registration GUARDED_BY(mutex);
    Loss before GUARDED_BY(mutex); ///< with earlier servers
};

Subscriber::Subscriber(std::string name, std::vector<std::string> topics, Options options)
    : state(std::make_unique<State>(std::move(name), std::move(topics), std::move(options))) {}
Subscriber::Subscriber(Subscriber&&) noexcept = default;
Subscriber& Subscriber::operator=(Subscriber&& other) noexcept {
    Subscriber taken(std::move(other));
    state.swap(taken.state);
    return *this;
}
Subscriber::~Subscriber() {
    if (state && state->IsInherited()) {
        // Another thread of the parent may have had its locks, or wait in it: then its destructor would wait for ever.
        static_cast<void>(state.release());
    }
}

std::optional<Message> Subscriber::Next() {
    std::optional<Message> message(std::in_place);
    if (state->Receive(Deadline::max(), *message) == Outcome::Canceled) {
        message.reset();
    }
    return message;
}

Received Subscriber::NextFor(std::chrono::nanoseconds duration) {
    return NextUntil(DeadlineIn(duration));
}

Received Subscriber::NextUntil(Deadline deadline) {
    Received received;
    received.outcome = state->Receive(deadline, received.message);
    return received;
}

Received Subscriber::TryNext() {
    return NextUntil(Deadline::min());
}

int Subscriber::Descriptor() {
    return state->Descriptor();
}

void Subscriber::Cancel() noexcept {
    state->Cancel();
}

Loss Subscriber::Lost() const {
    return state->Lost();
}

const std::string& Subscriber::Name() const noexcept {
    return state->Name();
}

std::int64_t Subscriber::Id() const {
    return state->Id();
}

} // namespace msgbus
