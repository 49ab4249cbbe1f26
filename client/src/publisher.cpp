#include "msgbus/publisher.h"

#include "br_MessageBus_client.h"
#include "connection.h"
#include "cor/result_code.h"
#include "kn/status.h"
#include "recovery.h"

#include <algorithm>
#include <thread>
#include <utility>

namespace msgbus {

namespace {

constexpr auto Full = static_cast<std::int32_t>(cor::ResultCode::Exhausted);
constexpr auto Conflict = static_cast<std::int32_t>(cor::ResultCode::Conflict);

constexpr std::chrono::microseconds FirstPause{50};
constexpr std::chrono::microseconds LongestPause{10000};

} // namespace

class Publisher::State final {
public:
    State(std::string publisherTopic, Options publisherOptions)
        : topic(std::move(publisherTopic)), options(std::move(publisherOptions)), route(ResolveRoute(options.route)) {
        CheckText(topic, "topic");
        Register();
    }

    ~State() {
        try {
            Unregister();
        } catch (const Error&) { // a destructor cannot report it
        }
    }

    State(const State&) = delete;
    State& operator=(const State&) = delete;

    bool TryPush(std::int64_t value) {
        std::int32_t status = PushOnce(value);
        while (status == KnStatusClosed) {
            RegisterAnew(value);
            status = PushOnce(value);
        }
        if (ResultCodeOf(status) == Full) {
            return false;
        }
        ThrowUnlessOk(status);
        return true;
    }

    void Push(std::int64_t value) {
        const auto deadline = std::chrono::steady_clock::now() + options.fullQueueTimeout;
        auto pause = FirstPause;
        while (!TryPush(value)) {
            if (std::chrono::steady_clock::now() >= deadline) {
                throw RefusedError(Full, "the bus stayed full for " + std::to_string(options.fullQueueTimeout.count()) +
                                             " ms; the value was not published");
            }
            std::this_thread::sleep_for(pause);
            pause = std::min(2 * pause, LongestPause);
        }
    }

    void Unregister() {
        provider.reset();
        if (const std::int64_t registered = std::exchange(id, -1); registered != -1) {
            const std::int32_t status = br_MessageBusCtl_UnregisterPublisher_call(ctl->Transport(), registered);
            ThrowUnlessOk(status, ResultCodeOf(status) == Conflict
                                      ? "another client has unregistered the publisher of topic '" + topic + "'"
                                      : "");
        }
    }

    const std::string& Topic() const noexcept { return topic; }
    std::int64_t Id() const noexcept { return id; }

private:
    std::int32_t PushOnce(std::int64_t value) {
        if (!provider) { // the bus would answer a push of an unknown publisher with success
            return KnStatusInvalidArgument;
        }
        return br_MessageBusProvider_Push_call(provider->Transport(), id, value);
    }

    void Register() {
        Route found = route;
        auto newCtl = std::make_unique<Connection>(Service::Ctl, found, options.connectTimeout);
        auto newProvider = std::make_unique<Connection>(Service::Provider, found, options.connectTimeout);
        std::int64_t newId = -1;
        const std::int32_t status = br_MessageBusCtl_RegisterPublisher_call(newCtl->Transport(), topic, newId);
        ThrowUnlessOk(status, ResultCodeOf(status) == Conflict ? "topic '" + topic + "' already has a publisher" : "");
        ctl = std::move(newCtl);
        provider = std::move(newProvider);
        id = newId;
    }

    void RegisterAnew(std::int64_t value) {
        id = -1;
        const ServerGoneError loss(KnStatusClosed, "the message bus server is gone; value " + std::to_string(value) +
                                                       " was not acknowledged");
        Recover(
            options, loss, [this] { Register(); },
            [](std::chrono::milliseconds duration) {
                std::this_thread::sleep_for(duration);
                return true;
            });
        Notify(options, "registered topic '" + topic + "' again with a restarted server (id " + std::to_string(id) +
                            "); value " + std::to_string(value) +
                            " is published again and may arrive twice; earlier values that were not read are lost");
    }

    const std::string topic;
    const Options options;
    const Route route;

    std::unique_ptr<Connection> ctl;
    std::unique_ptr<Connection> provider;
    std::int64_t id = -1; // -1: not registered
};

Publisher::Publisher(std::string topic, Options options)
    : state(std::make_unique<State>(std::move(topic), std::move(options))) {}
Publisher::Publisher(Publisher&&) noexcept = default;
Publisher& Publisher::operator=(Publisher&&) noexcept = default;
Publisher::~Publisher() = default;

void Publisher::Push(std::int64_t value) {
    state->Push(value);
}

bool Publisher::TryPush(std::int64_t value) {
    return state->TryPush(value);
}

void Publisher::Close() {
    state->Unregister();
}

const std::string& Publisher::Topic() const noexcept {
    return state->Topic();
}

std::int64_t Publisher::Id() const noexcept {
    return state->Id();
}

} // namespace msgbus
