#include "server_backend.h"

#include "br_MessageBus_begun.h"
#include "connection.h"
#include "control.h"
#include "declaration.h"
#include "kn/status.h"
#include "nk/begun_call.h"
#include "nk/loss.h"
#include "time_limit.h"

#include <utility>

namespace msgbus {

namespace {

class Pusher final : public IPusher {
public:
    Pusher(Route& route, std::chrono::milliseconds timeout) : connection(Service::Provider, route, timeout) {}

    std::int32_t Push(std::int64_t id, std::int64_t value, std::uint32_t timeoutMs) noexcept override {
        if (isUnanswered) {
            const auto deadline = DeadlineIn(std::chrono::milliseconds(timeoutMs));
            if (const auto status = Drain(timeoutMs); status == KnStatusTimedOut || status == KnStatusClosed) {
                return status == KnStatusTimedOut ? KnStatusBusy : status;
            }
            timeoutMs = MillisecondsUntil(deadline);
        }
        NkBosTransport* const transport = connection.Transport();
        if (const auto status = br_MessageBusProvider_Push_begin(transport, id, value, timeoutMs); status != 0) {
            return status == KnStatusTimedOut ? KnStatusBusy : status;
        }
        const auto status = br_MessageBusProvider_Push_finish(transport, timeoutMs);
        isUnanswered = status == KnStatusTimedOut;
        return StatusOf(status);
    }

    std::int32_t Drain(std::uint32_t timeoutMs) noexcept override {
        if (!isUnanswered) {
            return 0;
        }
        const auto status = br_MessageBusProvider_Push_finish(connection.Transport(), timeoutMs);
        isUnanswered = status == KnStatusTimedOut;
        return StatusOf(status);
    }

private:
    Connection connection;
    bool isUnanswered = false;
};

class Receiver final : public IReceiver {
public:
    Receiver(Route& route, std::chrono::milliseconds timeout) : connection(Service::Subs, route, timeout) {}

    std::int32_t Receive(std::int64_t id, std::uint32_t timeoutMs, Message& message) override {
        NkBosTransport* const transport = connection.Transport();
        if (!isUnderWay) {
            if (const auto status = br_MessageBusSubs_Wait_begin(transport, id, timeoutMs); status != 0) {
                return StatusOf(status);
            }
            isUnderWay = true;
        }
        const auto status = br_MessageBusSubs_Wait_finish(transport, message.topic, message.value, timeoutMs);
        isUnderWay = status == KnStatusTimedOut;
        return StatusOf(status);
    }

    std::int32_t Descriptor(int& descriptor) noexcept override {
        return NkCallDescriptor(connection.Handle(), &descriptor);
    }

    std::int32_t TakeDescriptorOf(IReceiver& former) noexcept override {
        return NkMoveCallDescriptor(connection.Handle(), static_cast<Receiver&>(former).connection.Handle());
    }

    std::int32_t WakeDescriptor(std::uint32_t afterMs) noexcept override {
        return NkWakeCallDescriptor(connection.Handle(), afterMs);
    }

    Loss Lost() noexcept override {
        if (NkLoss loss; NkReadLoss(connection.Handle(), &loss) == KnStatusOk) {
            last = {loss.lost, static_cast<std::int32_t>(loss.reason), 0};
        }
        return last;
    }

    void Close() noexcept override { NkEndCalls(connection.Handle()); } // its descriptor may be polled

private:
    Connection connection;
    bool isUnderWay = false; ///< a wait
    Loss last;
};

} // namespace

ServerBackend::ServerBackend(Route wanted) : route(ResolveRoute(wanted)) {}

PublisherLinks ServerBackend::ConnectPublisher(std::chrono::milliseconds timeout) {
    Route found = route;
    auto control = Control::Shared(found, timeout);
    auto pusher = std::make_unique<Pusher>(found, timeout);
    return {std::move(control), std::move(pusher)};
}

SubscriberLinks ServerBackend::ConnectSubscriber(std::chrono::milliseconds timeout) {
    Route found = route;
    auto control = Control::Shared(found, timeout);
    auto receiver = std::make_unique<Receiver>(found, timeout);
    return {std::move(control), std::move(receiver)};
}

void ServerBackend::Declare(const std::string& topic, const std::string& description) noexcept {
    DeclareDescription(topic, description);
}

} // namespace msgbus
