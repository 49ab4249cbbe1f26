#include "msgbus/subscriber.h"

#include "br_MessageBus_client.h"
#include "common/mutex.h"
#include "common/thread_annotations.h"
#include "connection.h"
#include "cor/result_code.h"
#include "kn/status.h"
#include "nk/loss.h"
#include "recovery.h"

#include <chrono>
#include <stdexcept>
#include <utility>

namespace msgbus {

namespace {

constexpr auto NotRegistered = static_cast<std::int32_t>(cor::ResultCode::NotRegistered);
constexpr auto TooManyValues = static_cast<std::int32_t>(cor::ResultCode::TooManyValues);
constexpr auto Conflict = static_cast<std::int32_t>(cor::ResultCode::Conflict);

/// One registration with one server. A wait occupies its connection until the reply, so ctl has a separate one.
/// Threads: Wait on one thread; the caller serializes the others.
class Registration final {
public:
    Registration(const std::string& name, const std::vector<std::string>& topics, Route route,
                 std::chrono::milliseconds timeout)
        : ctl(Service::Ctl, route, timeout), subs(Service::Subs, route, timeout) {
        std::int64_t handshake = -1;
        ThrowUnlessOk(br_MessageBusCtl_StartSubs_call(ctl.Transport(), name, handshake));
        for (const auto& topic : topics) {
            const std::int32_t status = br_MessageBusCtl_Subscribe_call(ctl.Transport(), handshake, topic);
            if (status != 0) {
                // The server keeps a registration that is neither committed nor canceled.
                std::int64_t none = -1;
                static_cast<void>(br_MessageBusCtl_FinishSubs_call(ctl.Transport(), handshake, 0, none));
            }
            ThrowUnlessOk(status, ResultCodeOf(status) == Conflict ? "topic '" + topic + "' is named twice" : "");
        }
        ThrowUnlessOk(br_MessageBusCtl_FinishSubs_call(ctl.Transport(), handshake, 1, id));
    }
    Registration(const Registration&) = delete;
    Registration& operator=(const Registration&) = delete;
    ~Registration() { Unregister(); }

    /// Returns: the status of the call; 0 when not registered.
    std::int32_t Unregister() noexcept {
        const std::int64_t registered = std::exchange(id, -1);
        return registered == -1 ? 0 : br_MessageBusCtl_UnregisterSubscriber_call(ctl.Transport(), registered);
    }

    std::int32_t Wait(std::int64_t subscriberId, Message& message) {
        return br_MessageBusSubs_Wait_call(subs.Transport(), subscriberId, message.topic, message.value);
    }

    /// Returns: how many values the server has dropped so far, or had when the wait ended.
    std::uint64_t Lost() noexcept {
        if (NkLoss loss; NkReadLoss(subs.Transport()->handle, &loss) == KnStatusOk) {
            lost = loss.lost;
        }
        return lost;
    }

    void EndWait() noexcept {
        Lost();
        subs.Close();
    }
    std::int64_t Id() const noexcept { return id; }

private:
    Connection ctl;
    Connection subs;
    std::int64_t id = -1; // -1: not registered
    std::uint64_t lost = 0;
};

} // namespace

class Subscriber::State final {
public:
    State(std::string subscriberName, std::vector<std::string> subscriberTopics, Options subscriberOptions)
        : name(std::move(subscriberName)), topics(std::move(subscriberTopics)), options(std::move(subscriberOptions)),
          route(ResolveRoute(options.route)) {
        CheckText(name, "name");
        for (const auto& topic : topics) {
            CheckText(topic, "topic");
        }
        registration = Register();
    }

    std::optional<Message> Next() EXCLUDES(mutex) {
        Message message;
        while (true) {
            const auto [current, id] = Current();
            if (!current) {
                return std::nullopt;
            }
            const std::int32_t status = current->Wait(id, message);
            if (status == 0) {
                return message;
            }
            if (!HandleFailure(status)) {
                return std::nullopt;
            }
        }
    }

    void Cancel() noexcept EXCLUDES(mutex) {
        const common::MutexLock lock(mutex);
        if (std::exchange(canceled, true)) {
            return;
        }
        pauseEnded.NotifyAll();
        // A server that did not unregister the subscriber does not end the wait either.
        if (registration && registration->Unregister() != 0) {
            registration->EndWait();
        }
    }

    std::uint64_t Lost() const EXCLUDES(mutex) {
        const common::MutexLock lock(mutex);
        return lostBefore + registration->Lost();
    }

    const std::string& Name() const noexcept { return name; }

    std::int64_t Id() const EXCLUDES(mutex) {
        const common::MutexLock lock(mutex);
        return registration->Id();
    }

private:
    std::shared_ptr<Registration> Register() const {
        return std::make_shared<Registration>(name, topics, route, options.connectTimeout);
    }

    /// Returns: the registration and its id; an empty pointer once canceled.
    std::pair<std::shared_ptr<Registration>, std::int64_t> Current() const EXCLUDES(mutex) {
        const common::MutexLock lock(mutex);
        if (canceled) {
            return {nullptr, -1};
        }
        return {registration, registration->Id()};
    }

    /// Returns: true when registered with a restarted server; false once canceled. Throws otherwise.
    bool HandleFailure(std::int32_t status) EXCLUDES(mutex) {
        {
            const common::MutexLock lock(mutex);
            if (canceled) {
                return false;
            }
            if (ResultCodeOf(status) == NotRegistered) {
                // Another client has unregistered this id, or the server has, which does so when it stops. Only a
                // running server answers the next call with "no such id".
                const std::int32_t answer = registration->Unregister();
                if (ResultCodeOf(answer) == Conflict) {
                    throw RefusedError(NotRegistered, "another client has unregistered subscriber '" + name + "'");
                }
                status = KnStatusClosed;
            }
        }
        if (ResultCodeOf(status) == TooManyValues) {
            throw RefusedError(TooManyValues, "subscriber '" + name + "' left too many values unread, and the server " +
                                                  "has cut it; " + std::to_string(Lost()) + " values are lost");
        }
        if (status != KnStatusClosed) {
            ThrowUnlessOk(status);
        }
        return RegisterAnew();
    }

    bool RegisterAnew() EXCLUDES(mutex) {
        std::shared_ptr<Registration> next;
        const ServerGoneError loss(KnStatusClosed, "the message bus server is gone");
        const bool found = Recover(
            options, loss, [&] { next = Register(); },
            [this](std::chrono::milliseconds duration) { return Pause(duration); });
        {
            const common::MutexLock lock(mutex);
            if (!found || canceled) {
                return false;
            }
            lostBefore += registration->Lost();
            registration.swap(next);
        }
        Notify(options, "subscribed as '" + name + "' again with a restarted server (id " + std::to_string(Id()) +
                            "); unread values, and values published in between, are lost");
        return true;
    }

    /// Waits for `duration`, or until Cancel is called.
    /// Returns: false once canceled.
    bool Pause(std::chrono::milliseconds duration) EXCLUDES(mutex) {
        const auto deadline = std::chrono::steady_clock::now() + duration;
        common::MutexLock lock(mutex);
        while (!canceled && pauseEnded.WaitUntil(lock, deadline) == std::cv_status::no_timeout) {
        }
        return !canceled;
    }

    const std::string name;
    const std::vector<std::string> topics;
    const Options options;
    const Route route;

    mutable common::Mutex mutex;
    common::ConditionVariable pauseEnded; ///< of `canceled`
    bool canceled GUARDED_BY(mutex) = false;
    /// Replaced by Next only. Its Unregister and Id are called under `mutex`, its Wait without.
    std::shared_ptr<Registration> registration GUARDED_BY(mutex);
    std::uint64_t lostBefore GUARDED_BY(mutex) = 0; ///< with earlier servers
};

Subscriber::Subscriber(std::string name, std::vector<std::string> topics, Options options)
    : state(std::make_unique<State>(std::move(name), std::move(topics), std::move(options))) {}
Subscriber::Subscriber(Subscriber&&) noexcept = default;
Subscriber& Subscriber::operator=(Subscriber&&) noexcept = default;
Subscriber::~Subscriber() = default;

std::optional<Message> Subscriber::Next() {
    return state->Next();
}

void Subscriber::Cancel() noexcept {
    state->Cancel();
}

std::uint64_t Subscriber::Lost() const {
    return state->Lost();
}

const std::string& Subscriber::Name() const noexcept {
    return state->Name();
}

std::int64_t Subscriber::Id() const {
    return state->Id();
}

} // namespace msgbus
