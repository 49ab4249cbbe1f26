#include "msgbus/publisher.h"

#include "audience.h"
#include "backend.h"
#include "cor/result_code.h"
#include "failure.h"
#include "kn/status.h"
#include "msgbus/codec.h"
#include "recovery.h"
#include "registrar.h"
#include "server_backend.h"
#include "time_limit.h"

#include <algorithm>
#include <exception>
#include <optional>
#include <thread>
#include <utility>

namespace msgbus {

namespace {

constexpr auto Full = static_cast<std::int32_t>(cor::ResultCode::Exhausted);
constexpr auto Conflict = static_cast<std::int32_t>(cor::ResultCode::Conflict);

constexpr std::chrono::microseconds FirstPause{50};
constexpr std::chrono::microseconds LongestPause{10000};

} // namespace

class __attribute__((visibility("hidden"))) Publisher::State final {
public:
    State(std::string publisherTopic, Options publisherOptions)
        : topic(std::move(publisherTopic)), options(std::move(publisherOptions)),
          backend(options.backend ? options.backend : std::make_shared<ServerBackend>(options.route)),
          callTimeoutMs(Milliseconds(options.callTimeout)) {
        CheckText(topic, "topic");
        if (!options.description.empty()) {
            static_cast<void>(Description::FromText(options.description));
        }
        RegisterPatiently();
        if (options.onSubscribers) {
            try {
                static_cast<void>(Subscribers());
            } catch (...) {
                static_cast<void>(Unregister());
                throw;
            }
        }
    }

    ~State() { static_cast<void>(Unregister()); }

    State(const State&) = delete;
    State& operator=(const State&) = delete;

    /// Returns: whether the value is queued. `deadline`: in place of the times of the options.
    bool TryPush(std::int64_t value, std::optional<Deadline> deadline = {}) {
        const bool isQueued = Queue(value, deadline);
        if (isQueued) {
            ReportSubscribers();
        }
        return isQueued;
    }

    void Push(std::int64_t value, std::optional<Deadline> deadline = {}) {
        QueuePatiently(value, deadline);
        ReportSubscribers();
    }

    std::size_t PushAll(const std::int64_t* values, std::size_t count, std::optional<Deadline> deadline) {
        std::size_t pushed = 0;
        try {
            while (pushed < count) {
                QueuePatiently(values[pushed], deadline);
                ++pushed; // first: a value was published although the report throws
                ReportSubscribers();
            }
        } catch (const RefusedError& refusal) {
            if (refusal.Code() != Full) {
                KeepFailure(pushed);
            }
        } catch (const Error&) {
            KeepFailure(pushed);
        }
        return pushed;
    }

    bool Drain(Deadline deadline) {
        CheckUsable();
        const std::int32_t status = links.pusher->Drain(MillisecondsUntil(deadline));
        if (status == KnStatusTimedOut) {
            return false;
        }
        if (status == KnStatusClosed) {
            throw ServerGoneError(status, "the message bus server is gone; whether the last value was published is "
                                          "unknown");
        }
        return true; // whether the value was queued or refused: its push is answered
    }

    std::size_t Subscribers() {
        CheckUsable();
        if (!audience) {
            audience.emplace(topic, AudienceOptions());
        }
        audience->Update();
        ReportChanges();
        return audience->Count();
    }

    void Close() {
        CheckProcess(forks);
        if (std::exchange(isClosed, true)) {
            return;
        }
        audience.reset();
        const std::int32_t status = Unregister();
        ThrowIfTimedOut(status, options.callTimeout, "the publisher of topic '" + topic + "' is still registered",
                        "the request to unregister the publisher of topic '" + topic + "'");
        ThrowUnlessOk(
            status, status == Conflict ? "another client has unregistered the publisher of topic '" + topic + "'" : "");
    }

    const std::string& Topic() const noexcept { return topic; }
    std::int64_t Id() const noexcept { return id; }

private:
    void CheckUsable() {
        CheckProcess(forks);
        if (isClosed) {
            throw PlatformError(KnStatusInvalidArgument, "the publisher of topic '" + topic + "' was closed");
        }
        if (kept) {
            std::rethrow_exception(std::exchange(kept, nullptr));
        }
    }

    /// As TryPush, without a report.
    bool Queue(std::int64_t value, std::optional<Deadline> deadline) {
        CheckUsable();
        std::optional<Deadline> patience; // once the server was gone
        while (true) {
            const std::int32_t status =
                links.pusher->Push(id, value, deadline ? MillisecondsUntil(*deadline) : callTimeoutMs);
            if (status == 0) {
                return true;
            }
            if (status == Full) {
                return false;
            }
            if (status == KnStatusClosed) {
                // A server may end with the value, and so may those that follow it.
                if (patience && !PauseBetweenAttempts(*patience)) {
                    id = -1;
                    throw ServerGoneError(status, NotAcknowledged(value));
                }
                patience = patience ? patience : deadline ? deadline : DeadlineIn(options.reconnectFor);
                RegisterAgain(value, deadline);
                continue;
            }
            const std::string what = "value " + std::to_string(value);
            if (deadline) {
                ThrowIfTimedOut(status, "by the deadline", what + " was published", what);
            }
            ThrowIfTimedOut(status, options.callTimeout, what + " was published", what);
            ThrowUnlessOk(status);
        }
    }

    /// As Push, without a report.
    void QueuePatiently(std::int64_t value, std::optional<Deadline> deadline) {
        if (Queue(value, deadline)) {
            return;
        }
        const Deadline end = deadline ? *deadline : DeadlineIn(options.fullQueueTimeout);
        auto pause = FirstPause;
        do {
            if (std::chrono::steady_clock::now() >= end) {
                throw RefusedError(Full,
                                   "the bus stayed full " +
                                       (deadline ? std::string("until the deadline")
                                                 : "for " + std::to_string(options.fullQueueTimeout.count()) + " ms") +
                                       "; the value was not published");
            }
            std::this_thread::sleep_until(std::min(std::chrono::steady_clock::now() + Deadline::duration(pause), end));
            pause = std::min(2 * pause, LongestPause);
        } while (!Queue(value, deadline));
    }

    /// Throws the current exception, now or, after some values were pushed, with the next call.
    void KeepFailure(std::size_t pushed) {
        if (pushed == 0) {
            throw;
        }
        kept = std::current_exception();
    }

    Options AudienceOptions() const {
        Options chosen = options;
        chosen.backend = backend;
        return chosen;
    }

    /// Reports what has changed, behind a push. A failure is none of the push: the next one tries again.
    void ReportSubscribers() {
        if (!options.onSubscribers) {
            return;
        }
        try {
            audience->Update();
        } catch (const Error&) {
        }
        ReportChanges();
    }

    void ReportChanges() {
        while (const auto count = audience->TakeChange()) {
            if (options.onSubscribers) {
                options.onSubscribers(*count);
            }
        }
    }

    std::int32_t Unregister() noexcept {
        const std::int64_t registered = std::exchange(id, -1);
        return registered == -1 ? 0 : links.control->UnregisterPublisher(registered, options.callTimeout);
    }

    /// `longest`: of what the options allow for one request.
    void Register(std::chrono::milliseconds longest = std::chrono::milliseconds::max()) {
        const auto timeout = std::min(options.callTimeout, longest);
        std::int64_t newId = -1;
        std::int32_t status = KnStatusClosed;
        PublisherLinks fresh;
        // The first attempt may be over a connection of this process whose server is gone.
        for (int attempt = 0; attempt < 2 && status == KnStatusClosed; ++attempt) {
            fresh = backend->ConnectPublisher(std::min(options.connectTimeout, longest));
            status = fresh.control->RegisterPublisher(topic, timeout, newId);
        }
        ThrowIfTimedOut(status, timeout, "the publisher of topic '" + topic + "' is registered",
                        "the registration of topic '" + topic + "'");
        ThrowUnlessOk(status, status == Conflict ? "topic '" + topic + "' already has a publisher" : "");
        links = std::move(fresh);
        id = newId;
        if (!options.description.empty()) {
            backend->Declare(topic, options.description);
        }
    }

    void RegisterPatiently() {
        const auto topicDeadline = DeadlineIn(options.waitForTopic);
        bool isNoted = false;
        AwaitServer(options, [&] {
            while (true) {
                try {
                    return Register();
                } catch (const RefusedError& refusal) {
                    if (refusal.Code() != Conflict || std::chrono::steady_clock::now() >= topicDeadline) {
                        throw;
                    }
                    if (!std::exchange(isNoted, true)) {
                        Notify(options, Notice::WaitingForTopic,
                               "topic '" + topic + "' has another publisher; waiting for it to end");
                    }
                }
                std::this_thread::sleep_for(TimeBetweenAttempts);
            }
        });
    }

    static std::string NotAcknowledged(std::int64_t value) {
        return "the message bus server is gone; value " + std::to_string(value) + " was not acknowledged";
    }

    /// Waits between two attempts. Returns: false at `end`.
    static bool PauseBetweenAttempts(Deadline end) {
        const auto now = std::chrono::steady_clock::now();
        std::this_thread::sleep_until(std::min<Deadline>(now + TimeBetweenAttempts, end));
        return now < end;
    }

    void RegisterAgain(std::int64_t value, std::optional<Deadline> deadline) {
        id = -1;
        Recovery recovery(options, ServerGoneError(KnStatusClosed, NotAcknowledged(value)), deadline);
        const auto lost = links.control;
        const Deadline end = deadline.value_or(Deadline::max());
        while (!recovery.Try([&] {
            Registrar::RegisterAllOf(lost, end);
            Register(LongestAttempt(end));
        })) {
            if (!PauseBetweenAttempts(end)) {
                throw TimedOutError(KnStatusTimedOut, "no restarted message bus server was found by the deadline; "
                                                      "whether value " +
                                                          std::to_string(value) + " was published is unknown");
            }
        }
        Notify(options, Notice::RegisteredAgain,
               "registered topic '" + topic + "' again with a restarted server (id " + std::to_string(id) +
                   "); value " + std::to_string(value) +
                   " is published again and may arrive twice; earlier values that were not read are lost");
    }

    const std::string topic;
    const Options options;
    const std::shared_ptr<Backend> backend;
    const std::uint32_t callTimeoutMs;
    const unsigned forks = ForkCount();

    PublisherLinks links;
    std::int64_t id = -1; // -1: not registered
    bool isClosed = false;
    std::exception_ptr kept; ///< a failure that PushAll has met after the first value
    std::optional<Audience> audience;
};

Publisher::Publisher(std::string topic, Options options)
    : state(std::make_unique<State>(std::move(topic), std::move(options))) {}
Publisher::Publisher(Publisher&&) noexcept = default;
Publisher& Publisher::operator=(Publisher&&) noexcept = default;
Publisher::~Publisher() = default;

void Publisher::Push(std::int64_t value) {
    state->Push(value);
}

void Publisher::Push(std::int64_t value, Deadline deadline) {
    state->Push(value, deadline);
}

bool Publisher::TryPush(std::int64_t value) {
    return state->TryPush(value);
}

std::size_t Publisher::PushAll(const std::int64_t* values, std::size_t count) {
    return state->PushAll(values, count, std::nullopt);
}

std::size_t Publisher::PushAll(const std::int64_t* values, std::size_t count, Deadline deadline) {
    return state->PushAll(values, count, deadline);
}

bool Publisher::Drain(Deadline deadline) {
    return state->Drain(deadline);
}

std::size_t Publisher::Subscribers() {
    return state->Subscribers();
}

void Publisher::Close() {
    state->Close();
}

const std::string& Publisher::Topic() const noexcept {
    return state->Topic();
}

std::int64_t Publisher::Id() const noexcept {
    return state->Id();
}

} // namespace msgbus
