#include "bus_server.h"

#include "await_receivers.h"
#include "bos_connector.h"
#include "br_MessageBus.h"
#include "diagnostics.h"
#include "drain.h"
#include "kn/handle.h"
#include "kn/policy.h"
#include "kn/status.h"
#include "ns/name_server.h"
#include "service_locator.h"
#include "stop_events_thread.h"

#include <chrono>
#include <cstddef>
#include <iterator>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

namespace msgbus_server {

namespace {

using diagnostics::Log;
using diagnostics::LogLevel;
using message_bus::ConnectionType;

/// After this, the stop closes the channels although threads are left: their clients must not wait for ever.
constexpr std::chrono::seconds StopLimit{5};

/// After this, a start that does not receive on every channel is given up.
constexpr std::chrono::seconds StartLimit{30};

/// Threads of the bus that end in an orderly stop, each of which needs a remover then: the worker of the static
/// channel; the accept worker and the dispatcher of the subscriber service.
std::size_t RemoverCount(ConnectionType type) {
    return type == ConnectionType::Static ? 1 : 2;
}

/// Threads that are started behind the reserve: the events thread, that of the host platform, and the workers and
/// dispatchers, one for each channel and one that accepts.
std::size_t LaterThreadCount(ConnectionType type) {
    return 2 + (type == ConnectionType::Static ? 1 : std::size(br_MessageBus_interfaces) + 1);
}

const char* ModeName(ConnectionType type) {
    return type == ConnectionType::Static ? "static" : "dynamic";
}

/// A shared pointer that owns nothing: the server owns the object.
template <typename Interface>
std::shared_ptr<Interface> Lend(Interface& object) {
    return {std::shared_ptr<void>(), &object};
}

/// Looks for another server in the same place. Returns: 0 when there is one, or the platform's status.
std::int32_t FindOther(ConnectionType type) {
    constexpr std::uint32_t probeTimeoutMs = 1000;
    if (type == ConnectionType::Static) {
        KnHandle other = KnInvalidHandle;
        const std::int32_t status = ServiceLocatorConnect(br_MessageBus_connection, probeTimeoutMs, &other);
        if (status == KnStatusOk) {
            KnHandleClose(other);
        }
        return status;
    }
    NsHandle nameServer = 0;
    if (const std::int32_t status = NsCreate(nullptr, probeTimeoutMs, &nameServer); status != KnStatusOk) {
        return status;
    }
    for (const auto& interface : br_MessageBus_interfaces) {
        if (NsLookupService(nameServer, interface.service) == KnStatusOk) {
            return KnStatusOk;
        }
    }
    return KnStatusNotFound;
}

/// Why the bus could not be offered. Requires: no server end of our own is open.
std::string ReasonOfFailure(ConnectionType type) {
    const std::int32_t status = FindOther(type);
    if (status == KnStatusOk) {
        return std::string("another msgbusd is already serving in ") + ModeName(type) +
               " mode (BORVEN_RUNTIME_DIR chooses where)";
    }
    if (status == KnStatusDenied) {
        return "cannot offer the bus: the runtime directory cannot be used, see the log (BORVEN_RUNTIME_DIR chooses "
               "another)";
    }
    return "cannot offer the bus" +
           (status == KnStatusNotFound ? std::string() : std::string(": ") + KnStatusText(status)) +
           "; is the runtime directory (BORVEN_RUNTIME_DIR) writable and yours alone?";
}

/// Returns: `decorator`, made of the bus, or the bus itself.
message_bus::IWorker& MakeWorker(std::optional<ParkedWaits>& decorator, message_bus::MessageBus& bus, bool isWanted,
                                 std::function<void()> onDelivery) {
    return isWanted ? static_cast<message_bus::IWorker&>(decorator.emplace(bus, std::move(onDelivery))) : bus;
}

/// Runs `start`, which starts threads. Throws: OfferError when the system refuses one.
template <typename Start>
void StartingThreads(const Start& start) {
    try {
        start();
    } catch (const std::system_error& error) {
        throw OfferError(std::string("cannot start the threads of the bus: ") + error.what() +
                         "; raise the limit of threads (ulimit -u, or pids.max of the cgroup)");
    }
}

} // namespace

BusServer::BusServer(const BusServerOptions& options)
    : connectionType(options.connectionType), holdPushes(options.holdPushes), drainLimit(options.drainLimit),
      ledger(bus, MakeWorker(parkedWaits, bus, options.parkedWaits, [this] { NoteDelivery(); })),
      server(std::make_shared<bos_ipc::IpcServer>(options.connectionType)),
      connector(std::make_unique<message_bus::BosConnector>(server)),
      forwarding(std::make_shared<ForwardingConnector>(
          *connector, [this] { eventsThreadName.reset(); }, [this] { OnServing(); }, [this] { DrainSubscribers(); })) {
    StartingThreads([&] {
        deadline.emplace();
        if (options.flushWake) {
            flushWake.emplace(bus);
        }
        if (options.placement && common::MayConfineThreads()) {
            placement.emplace(flushWake ? static_cast<message_bus::IProvider&>(*flushWake) : bus);
        }
    });
    if (options.intake) {
        intake.emplace(placement   ? static_cast<message_bus::IProvider&>(*placement)
                       : flushWake ? static_cast<message_bus::IProvider&>(*flushWake)
                                   : bus,
                       bus,
                       // Without FlushWake a value may be left in the queue until the next push, which must get there.
                       [this] { return flushWake ? ledger.Count() : 0; });
    }
}

BusServer::~BusServer() = default;

void BusServer::Offer() {
    for (const auto& interface : br_MessageBus_interfaces) {
        KnPolicySetMethodCount(interface.type, interface.methodCount);
    }
    message_bus::IProvider& provider = intake      ? static_cast<message_bus::IProvider&>(*intake)
                                       : placement ? static_cast<message_bus::IProvider&>(*placement)
                                       : flushWake ? static_cast<message_bus::IProvider&>(*flushWake)
                                                   : bus;
    if (!connector->Init(Lend<message_bus::IProviderControl>(ledger), Lend(provider),
                         Lend<message_bus::IWorker>(ledger))) {
        KnHandleCloseServerEnds();
        reserve.reset();
        throw OfferError(ReasonOfFailure(connectionType));
    }
}

bool BusServer::Run(std::function<void()> onServing) {
    // All at once at first: a limit that is too low is an error here, but the end of the process when the bus meets it.
    StartingThreads([this] { reserve.emplace(RemoverCount(connectionType) + LaterThreadCount(connectionType)); });
    reserve->Shrink(RemoverCount(connectionType));
    HoldPushes(StartLimit +
               holdPushes); // from the first request on: some come before the report that the bus is served
    Offer();
    reportServing = std::move(onServing);
    eventsThreadName.emplace("bus-events");
    bool isInOrder = false;
    try {
        isInOrder = bus.Run(forwarding);
    } catch (const std::exception& error) {
        Log(LogLevel::Error, "The bus cannot run: {}", error.what());
    }
    eventsThreadName.reset();
    Stop();
    if (!startFailure.empty()) {
        throw OfferError("cannot serve: " + startFailure);
    }
    return isInOrder && !forwarding->HasFailed();
}

void BusServer::HoldPushes(std::chrono::milliseconds duration) {
    if (intake && holdPushes.count() != 0) {
        intake->HoldFor(duration);
    }
}

void BusServer::RequestStop() {
    forwarding->RequestStop();
}

void BusServer::RequestDrain() {
    if (intake) {
        forwarding->RequestDrain();
    } else {
        RequestStop();
    }
}

void BusServer::NoteDelivery() noexcept {
    if (placement) {
        placement->NoteDelivery();
    }
}

void BusServer::OnServing() {
    deadline->Arm(StartLimit, "The start takes too long");
    startFailure = AwaitReceivers(connectionType);
    deadline->Disarm();
    if (!startFailure.empty()) {
        // Now, and not only in the exception: where the bus could not start its worker, the stop does not end.
        Log(LogLevel::Error, "Cannot serve: {}", startFailure);
        RequestStop();
        return;
    }
    HoldPushes(holdPushes);
    Log(LogLevel::Info, "Serving in {} mode", ModeName(connectionType));
    if (reportServing) {
        reportServing();
    }
}

void BusServer::DrainSubscribers() {
    Log(LogLevel::Info, "Draining: registrations and pushes are refused");
    auto subscribers = ledger.RefuseNew();
    intake->Close();
    const Unread left = Drain(bus, parkedWaits ? &*parkedWaits : nullptr, std::move(subscribers))
                            .Run(drainLimit, [this](auto duration) { return forwarding->AwaitStop(duration); });
    if (left.IsNothing()) {
        Log(LogLevel::Info, "Drained: every value was read");
    } else {
        Log(LogLevel::Warning, "Values left unread: {} of {} subscribers{}", left.values, left.subscribers,
            left.isInboundEmpty ? "" : ", and those in the inbound queue");
    }
}

void BusServer::Stop() {
    Log(LogLevel::Info, "Stopping");
    reserve.reset(); // first: every worker that ends from now on needs a thread
    server->SetStopSignal();
    logFilter.SetClosing(true);
    KnHandleStopReceiving(); // first: publishers that go on pushing could keep the next step waiting
    Log(LogLevel::Info, "Released subscribers: {}", ledger.StopAndUnregisterAll());
    deadline->Arm(StopLimit, "A thread does not end");
    server->WaitAllThreads();
    server.reset();
    connector.reset(); // the last owner of the server, which joins its other threads
    deadline->Disarm();
    logFilter.SetClosing(false);
    KnHandleCloseServerEnds();
    if (placement) {
        placement->End();
    }
    StopEventsThread(bus);
    Log(LogLevel::Info, "Stopped");
}

} // namespace msgbus_server
