#include "bus_server.h"

#include "await_receivers.h"
#include "bos_connector.h"
#include "br_MessageBus.h"
#include "diagnostics.h"
#include "drain.h"
#include "kn/caller.h"
#include "kn/handle.h"
#include "kn/policy.h"
#include "kn/status.h"
#include "name_loss_watch.h"
#include "ns/name_server.h"
#include "request_time.h"
#include "service_locator.h"
#include "stop_events_thread.h"
#include "subscribe_helper.h"

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <iterator>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

namespace msgbus_server {

namespace {

namespace layout = instruments::layout;
using diagnostics::Log;
using diagnostics::LogLevel;
using message_bus::ConnectionType;

/// After this, the stop closes the channels although threads are left: their clients must not wait for ever.
constexpr std::chrono::seconds StopLimit{5};

/// After this likewise, although subscribers are registered: there may be very many.
constexpr std::chrono::seconds ReleaseLimit{30};

/// After this, a start that does not receive on every channel is given up.
constexpr std::chrono::seconds StartLimit{30};

/// Slots of an account for subscribers beside the limit, which does not count the server's own.
constexpr std::size_t SpareSlots = 64;

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

void WarnOfMemory(const instruments::AccountFileError& error) {
    Log(LogLevel::Warning, "{}; the account is kept in memory only", error.what());
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

BusServer::BusServer(const BusServerOptions& chosen)
    : options(chosen), accounts(options.limits), server(std::make_shared<bos_ipc::IpcServer>(options.connectionType)),
      connector(std::make_unique<message_bus::BosConnector>(server)),
      forwarding(std::make_shared<ForwardingConnector>(
          *connector, [this] { eventsThreadName.reset(); }, [this] { OnServing(); }, [this] { DrainSubscribers(); })) {
    StartingThreads([&] {
        deadline.emplace();
        MakeAccount();
        logFilter.emplace();
        MakePushes();
        message_bus::IProviderControl& registry =
            accounted ? static_cast<message_bus::IProviderControl&>(*accounted) : bus;
        ledger.emplace(registry, MakeWorker());
        if (options.ownership || options.limits || options.registrationGate) {
            OwnRegistrations();
        }
        if (keeper) {
            loopWatch.emplace(ownership ? LoopWatch::Bus{*ownership, *ownership, *ownership}
                                        : LoopWatch::Bus{Provider(), *ledger, *ledger},
                              *keeper, !options.parkedWaits);
        }
    });
}

/// Makes the account, in memory if there can be no file.
void BusServer::MakeAccount() {
    if (!options.account) {
        return;
    }
    instruments::AccountCapacities capacities;
    if (options.limits) {
        capacities.publishers = std::min(options.limits->publishers + AccountKeeper::MostRemembered, layout::MostSlots);
        capacities.subscribers = std::min(options.limits->subscribers + SpareSlots, layout::MostSlots);
    }
    const ServerIdentity identity{options.account->version, options.account->options,
                                  options.connectionType == ConnectionType::Static};
    try {
        keeper.emplace(options.account->directory, capacities, identity);
    } catch (const instruments::AccountFileError& error) {
        try {
            keeper.emplace(std::nullopt, capacities, identity);
        } catch (const instruments::AccountFileError&) {
            throw OfferError("there is no memory for the account of the bus, and it cannot be a file: " +
                             std::string(error.what()) + "; --no-account needs none");
        }
        WarnOfMemory(error);
    }
    errors.emplace(*keeper);
}

/// Gives the account its file. Not before all that may keep a server from serving: the one of the server before would
/// go out of the way, and with the next start that fails the evidence of its end.
void BusServer::PublishAccount() {
    if (!keeper) {
        return;
    }
    try {
        keeper->Publish();
    } catch (const instruments::AccountFileError& error) {
        WarnOfMemory(error);
    }
}

/// Makes the decorators of pushes that do not know the callers, the last one first.
void BusServer::MakePushes() {
    if (options.flushWake) {
        flushWake.emplace(bus, WakeActions());
    }
    if (options.placement && common::MayConfineThreads()) {
        placement.emplace(Provider(), RequestTime::Now);
    }
    if (keeper) {
        accounted.emplace(
            pushTurn, bus, Provider(), *keeper,
            [this](long id, SubscriberWaits::Account account) { Follow(id, std::move(account)); }, MakeNotices());
    }
    if (options.intake) {
        // Without FlushWake a value may be left in the queue until the next push, which must get there.
        intake.emplace(
            pushTurn, Provider(), bus, [this] { return flushWake ? ledger->Count() : 0; },
            accounted ? Intake::RefusalAction([this](long publisherId) { accounted->NoteRefused(publisherId); })
                      : nullptr);
    }
    if (accounted || intake) {
        turn.emplace(pushTurn, Provider());
    }
}

FlushWake::Actions BusServer::WakeActions() {
    if (!keeper) {
        return {};
    }
    return {[this](long publisherId) { return accounted->PushForNobody(publisherId); },
            [this](std::size_t count) { keeper->Bus().rescued.fetch_add(count, std::memory_order_relaxed); }};
}

void BusServer::Follow(long subscriberId, SubscriberWaits::Account account) {
    parkedWaits->Follow(subscriberId, KnCallerId(), std::move(account));
}

std::optional<TopicNotices> BusServer::MakeNotices() {
    if (!options.notices) {
        return std::nullopt;
    }
    const auto put = [this](long id, const std::shared_ptr<message_bus::Message>& value) {
        if (const auto subscriber = parkedWaits->Find(id)) {
            subscriber->Put(value);
        }
    };
    return TopicNotices(put, options.retain);
}

/// Makes the worker behind the ledger. Returns: it; the bus itself where nothing is added to waits.
message_bus::IWorker& BusServer::MakeWorker() {
    if (!options.parkedWaits && !options.limits && !keeper) {
        return bus;
    }
    QueueControl control;
    if (keeper) {
        control.unknownWait = [this] { keeper->NoteUnknownWait(); };
        control.discrepancy = [this](long id) { keeper->NoteDiscrepancy(fmt::format("subscriber {}", id)); };
    }
    if (options.limits) {
        queueBudget.emplace(options.limits->queuedBytesPerProcess, options.limits->queuedBytes);
        control.limitOf = [this](const message_bus::Subscriber& subscriber) {
            return QueueLimitOf(subscriber, *options.limits, options.queueRules);
        };
        control.budget = &*queueBudget;
        control.cut = [this](long id) { cleanUp->Post([this, id] { CutSubscriber(id); }); };
        control.exceeded = [this](QueueBudget::Exceeded what, std::uint64_t caller) {
            cleanUp->Post([this, what, caller] {
                const bool isTotal = what == QueueBudget::Exceeded::Total;
                queueBudget->Acknowledge(what, caller);
                parkedWaits->CutLargest(isTotal ? std::nullopt : std::optional(caller),
                                        isTotal ? queueBudget->MostOfAll() : queueBudget->MostOfCaller());
            });
        };
    }
    return parkedWaits.emplace(
        bus, [this] { NoteDelivery(); }, std::move(control), options.parkedWaits);
}

/// Unregisters a subscriber that was cut.
void BusServer::CutSubscriber(long id) {
    const auto kept = parkedWaits->Find(id); // what is unread must not be freed while the bus holds its lock
    const auto subscriber = bus.GetSubscriberPtrById(id);
    if (!kept || !subscriber) {
        return; // its client was faster
    }
    const KnCaller owner = accounts.OwnerOf({Kind::Subscriber, id});
    Log(LogLevel::Warning, "Subscriber {} ({}) of process {} ({}) leaves too many values unread and is cut", id,
        subscriber->name, owner.pid, static_cast<const char*>(owner.program));
    gate->UnregisterSubscriber(id);
    accounts.Remove({Kind::Subscriber, id});
    Log(LogLevel::Info, "Subscriber {} has lost {} values", id, kept->Lost());
    cleanUp->NoteFreedMuch();
}

/// Puts the decorators that know the callers before all others.
void BusServer::OwnRegistrations() {
    // AccountedBus lets a new subscriber be followed already before any value comes.
    const auto follow = [this](long id) { Follow(id, nullptr); };
    gate.emplace(Provider(), *ledger, !options.registrationGate,
                 options.limits && !accounted ? std::function<void(long)>(follow) : nullptr);
    cleanUp.emplace(accounts, *gate, [this](long handshake) {
        long none = -1;
        connector->GetSubscribeHelper()->FinishSubscribing(handshake, false, none);
    });
    const auto endAllOf = [this](const KnCaller& caller) {
        if (options.ownership) {
            cleanUp->EndAllOf(caller);
        }
        if (keeper) {
            keeper->EndClient(caller);
        }
    };
    HandshakeWatch::Actions actions{endAllOf, [this] { cleanUp->NoteHandshake(); }};
    if (keeper) {
        actions.noteRefusal = [this](const KnCaller& caller, cor::ResultCode code, std::string_view name) {
            keeper->NoteRefusal(caller, code, name);
        };
    }
    handshakeWatch.emplace(accounts, options.ownership, std::move(actions));
    ownership.emplace(Ownership::Bus{*gate, *gate, *ledger}, accounts, options.ownership, endAllOf);
}

/// Returns: the first of the decorators of pushes that exist and do not know the callers; the bus itself without any.
message_bus::IProvider& BusServer::Provider() noexcept {
    return turn        ? static_cast<message_bus::IProvider&>(*turn)
           : intake    ? static_cast<message_bus::IProvider&>(*intake)
           : accounted ? static_cast<message_bus::IProvider&>(*accounted)
           : placement ? static_cast<message_bus::IProvider&>(*placement)
           : flushWake ? static_cast<message_bus::IProvider&>(*flushWake)
                       : bus;
}

BusServer::~BusServer() = default;

void BusServer::Offer() {
    for (const auto& interface : br_MessageBus_interfaces) {
        KnPolicySetMethodCount(interface.type, interface.methodCount);
    }
    const Limits limits = options.limits.value_or(Limits{.connectionsPerProcess = Limits{}.connections});
    KnPolicySetConnectionLimits(static_cast<std::uint32_t>(limits.connectionsPerProcess),
                                static_cast<std::uint32_t>(limits.connections));
    if (handshakeWatch) {
        KnObserveRequests(&*handshakeWatch, br_MessageBusComponent_ctl_iid);
    }
    const auto offer = [this](auto& all) {
        return connector->Init(Lend<message_bus::IProviderControl>(all), Lend<message_bus::IProvider>(all),
                               Lend<message_bus::IWorker>(all));
    };
    const bool isOffered = loopWatch   ? offer(*loopWatch)
                           : ownership ? offer(*ownership)
                                       : connector->Init(Lend<message_bus::IProviderControl>(*ledger), Lend(Provider()),
                                                         Lend<message_bus::IWorker>(*ledger));
    if (!isOffered) {
        CloseServerEnds();
        reserve.reset();
        throw OfferError(ReasonOfFailure(options.connectionType));
    }
}

bool BusServer::Run(std::function<void()> onServing) {
    // All at once at first: a limit that is too low is an error here, but the end of the process when the bus meets it.
    StartingThreads(
        [this] { reserve.emplace(RemoverCount(options.connectionType) + LaterThreadCount(options.connectionType)); });
    reserve->Shrink(RemoverCount(options.connectionType));
    const NameLossWatch nameLoss([this] { RequestStop(); });
    HoldPushes(StartLimit + options.holdPushes); // from the first request on: some come before the report
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
    return isInOrder && !forwarding->HasFailed() && !nameLoss.HasLost();
}

void BusServer::HoldPushes(std::chrono::milliseconds duration) {
    if (intake && options.holdPushes.count() != 0) {
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

void BusServer::SetState(instruments::ServerState state) noexcept {
    if (keeper) {
        keeper->SetState(state);
    }
}

void BusServer::NoteDelivery() noexcept {
    if (accounted) {
        accounted->NoteCopy();
    }
    if (placement) {
        placement->NoteDelivery();
    }
}

void BusServer::OnServing() {
    deadline->Arm(StartLimit, "The start takes too long");
    startFailure = AwaitReceivers(options.connectionType);
    deadline->Disarm();
    if (!startFailure.empty()) {
        // Now, and not only in the exception: where the bus could not start its worker, the stop does not end.
        Log(LogLevel::Error, "Cannot serve: {}", startFailure);
        RequestStop();
        return;
    }
    HoldPushes(options.holdPushes);
    PublishAccount();
    SetState(instruments::ServerState::Serving);
    if (reportServing) {
        reportServing();
    }
}

void BusServer::CloseServerEnds() {
    KnHandleCloseServerEnds();
    KnObserveRequests(nullptr, 0);
}

void BusServer::DrainSubscribers() {
    SetState(instruments::ServerState::Draining);
    Log(LogLevel::Info, "Draining: registrations and pushes are refused");
    auto subscribers = ledger->RefuseNew();
    intake->Close();
    const Unread left = Drain(bus, parkedWaits ? &*parkedWaits : nullptr, std::move(subscribers))
                            .Run(options.drainLimit, [this](auto duration) { return forwarding->AwaitStop(duration); });
    if (left.IsNothing()) {
        Log(LogLevel::Info, "Drained: every value was read");
    } else {
        Log(LogLevel::Warning, "Values left unread: {} of {} subscribers{}", left.values, left.subscribers,
            left.isInboundEmpty ? "" : ", and those in the inbound queue");
    }
}

void BusServer::Stop() {
    SetState(instruments::ServerState::Stopping);
    if (accounted) {
        accounted->NoteStop();
    }
    Log(LogLevel::Debug, "Stopping");
    reserve.reset(); // first: every worker that ends from now on needs a thread
    server->SetStopSignal();
    logFilter->SetClosing(true);
    KnHandleStopReceiving(); // first: publishers that go on pushing could keep the next step waiting
    deadline->Arm(ReleaseLimit, "The subscribers are not released");
    const auto released = ledger->StopAndUnregisterAll();
    Log(released == 0 ? LogLevel::Debug : LogLevel::Info, "Released subscribers: {}", released);
    deadline->Arm(StopLimit, "A thread does not end");
    if (cleanUp) {
        cleanUp->Stop(); // it uses the connector
    }
    server->WaitAllThreads();
    server.reset();
    connector.reset(); // the last owner of the server, which joins its other threads
    deadline->Disarm();
    logFilter->SetClosing(false);
    CloseServerEnds();
    if (placement) {
        placement->End();
    }
    StopEventsThread(bus);
    SetState(instruments::ServerState::Stopped);
    Log(LogLevel::Debug, "Stopped");
}

} // namespace msgbus_server
