#include "health_beat.h"

#include "br_MessageBus_client.h"
#include "cor/result_code.h"
#include "diagnostics.h"
#include "kn/connection_manager.h"
#include "kn/status.h"
#include "nk/transport.h"
#include "service_locator.h"

#include <pthread.h>
#include <sys/random.h>

#include <cstdint>
#include <stdexcept>
#include <utility>

namespace msgbus_server {

namespace {

using message_bus::ConnectionType;
using Duration = std::chrono::steady_clock::duration;

constexpr std::uint32_t ConnectTimeoutMs = 5000;
constexpr std::chrono::milliseconds PauseWhileFull{1};
constexpr auto Full = static_cast<std::uint16_t>(cor::ResultCode::Exhausted);
constexpr std::int64_t NoId = -1;

std::string RandomTopic() {
    std::uint64_t number = 0;
    static_cast<void>(!::getrandom(&number, sizeof number, 0)); // cannot fail for so few bytes
    return fmt::format("~health-{:016x}", number);
}

void Require(std::int32_t status, const char* step) {
    if (status != 0) {
        throw std::runtime_error(fmt::format("{}: {}", step, status));
    }
}

/// A client's end of one service.
class Connection final {
public:
    Connection(ConnectionType type, const char* service) {
        Require(type == ConnectionType::Static
                    ? ServiceLocatorConnect(br_MessageBus_connection, ConnectTimeoutMs, &handle)
                    : KnCmConnect(service, ConnectTimeoutMs, &handle),
                "connect");
        NkBosTransport_Init(&transport, handle, nullptr, 0);
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    ~Connection() { KnHandleClose(handle); }

    NkBosTransport* Transport() noexcept { return &transport; }

private:
    KnHandle handle = KnInvalidHandle;
    NkBosTransport transport{};
};

} // namespace

/// The connections, which outlive a beat, and what a beat has registered.
class HealthBeat::Client final {
public:
    explicit Client(ConnectionType type)
        : ctl(type, br_MessageBusComponent_ctl_service), provider(type, br_MessageBusComponent_provider_service),
          subs(type, br_MessageBusComponent_subs_service) {}

    /// Throws: std::runtime_error when the bus does not deliver. Blocks: until it does. `mayGoOn` waits for the given
    /// time; when it returns false, so does this function.
    bool RoundTrip(const std::function<bool(Duration)>& mayGoOn) {
        Register();
        ++value;
        std::int32_t status = Push();
        while (status == br_MessageBus_ErrorResult(Full)) {
            if (!mayGoOn(PauseWhileFull)) {
                return false;
            }
            status = Push();
        }
        Require(status, "push");
        Wait();
        Unregister();
        return true;
    }

private:
    void Register() {
        Require(br_MessageBusCtl_RegisterPublisher_call(ctl.Transport(), topic, publisher), "register a publisher");
        std::int64_t registration = NoId;
        Require(br_MessageBusCtl_StartSubs_call(ctl.Transport(), topic, registration), "start a subscription");
        Require(br_MessageBusCtl_Subscribe_call(ctl.Transport(), registration, topic), "subscribe");
        Require(br_MessageBusCtl_FinishSubs_call(ctl.Transport(), registration, 1, subscriber),
                "register a subscriber");
    }

    std::int32_t Push() { return br_MessageBusProvider_Push_call(provider.Transport(), publisher, value); }

    void Wait() {
        std::string received;
        std::int64_t receivedValue = 0;
        Require(br_MessageBusSubs_Wait_call(subs.Transport(), subscriber, received, receivedValue), "wait");
        if (received != topic || receivedValue != value) {
            throw std::runtime_error("another value was delivered");
        }
    }

    void Unregister() {
        Require(br_MessageBusCtl_UnregisterSubscriber_call(ctl.Transport(), subscriber), "unregister the subscriber");
        Require(br_MessageBusCtl_UnregisterPublisher_call(ctl.Transport(), publisher), "unregister the publisher");
    }

    const std::string topic = RandomTopic(); // another one after a failure, which may leave this one registered
    Connection ctl;
    Connection provider;
    Connection subs;
    std::int64_t publisher = NoId;
    std::int64_t subscriber = NoId;
    std::int64_t value = 0;
};

HealthBeat::HealthBeat(ConnectionType type, std::function<void()> beatAction)
    : connectionType(type), onBeat(std::move(beatAction)) {}

HealthBeat::~HealthBeat() {
    {
        const common::MutexLock lock(mutex);
        isEnding = true;
    }
    changed.NotifyAll();
    if (thread.joinable()) {
        thread.join();
    }
}

void HealthBeat::Start(Duration interval) {
    thread = std::thread([this, interval] { Run(interval); });
    ::pthread_setname_np(thread.native_handle(), "health");
}

void HealthBeat::Run(Duration interval) {
    constexpr int attemptsInAnInterval = 10;
    std::unique_ptr<Client> client;
    const auto mayGoOn = [this](Duration pause) { return !AwaitEnd(pause) && !isRelaxed; };
    Duration pause{0};
    while (!AwaitEnd(pause)) {
        pause = interval;
        try {
            if (!isRelaxed) {
                if (!client) {
                    client = std::make_unique<Client>(connectionType);
                }
                if (!client->RoundTrip(mayGoOn)) {
                    client.reset();
                }
            }
            onBeat();
        } catch (const std::exception& error) {
            client.reset();
            pause = isRelaxed ? Duration(0) : interval / attemptsInAnInterval;
            diagnostics::Log(diagnostics::LogLevel::Warning, "The check of the bus's health has failed: {}",
                             error.what());
        }
    }
}

/// Returns: whether the destructor was called. Blocks: until then, for `limit` at most.
bool HealthBeat::AwaitEnd(Duration limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    common::MutexLock lock(mutex);
    while (!isEnding && changed.WaitUntil(lock, deadline) == std::cv_status::no_timeout) {
    }
    return isEnding;
}

} // namespace msgbus_server
