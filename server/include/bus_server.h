#pragma once

#include "account/account_keeper.h"
#include "account/accounted_bus.h"
#include "account/error_tally.h"
#include "account/loop_watch.h"
#include "caller_accounts.h"
#include "channel_deadline.h"
#include "clean_up.h"
#include "closing_log_filter.h"
#include "flush_wake.h"
#include "forwarding_connector.h"
#include "handshake_watch.h"
#include "inherited_thread_name.h"
#include "intake.h"
#include "ipc_server.h"
#include "message_bus.h"
#include "ownership.h"
#include "parked_waits.h"
#include "placement.h"
#include "push_turn.h"
#include "queue_budget.h"
#include "queue_limit.h"
#include "registration_gate.h"
#include "reserved_threads.h"
#include "server_limits.h"
#include "subscriber_ledger.h"

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace message_bus {
class BosConnector;
}

namespace msgbus_server {

/// The bus cannot be offered: what() is a sentence for the operator.
class OfferError final : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Where the account of the bus is kept, and what it says about the server.
struct AccountOptions {
    std::optional<std::string> directory; ///< of the file; none: in memory only
    std::string version;                  ///< of the program
    std::string options;                  ///< those that differ from the defaults, as on the command line
};

/// What the server adds around the bus. Everything is on by default; a member set to false leaves that part out.
struct BusServerOptions {
    message_bus::ConnectionType connectionType = message_bus::ConnectionType::Dynamic;
    bool parkedWaits = true; ///< ParkedWaits
    bool flushWake = true;   ///< FlushWake
    bool placement = true;   ///< Placement, where threads may be confined; it needs ParkedWaits to see deliveries
    bool ownership = true;   ///< Ownership, and the end of registrations with the process that made them
    std::optional<Limits> limits = Limits{};
    std::vector<QueueRule> queueRules{};                      ///< only with `limits`
    bool registrationGate = true;                             ///< RegistrationGate
    bool intake = true;                                       ///< Intake; without it a drain is a stop
    std::optional<AccountOptions> account = AccountOptions{}; ///< AccountKeeper
    bool notices = true;                                      ///< TopicNotices; only with `account`, as the next one
    std::vector<std::string> retain{}; ///< patterns of topics whose last value a new subscriber gets; with `notices`

    std::chrono::milliseconds holdPushes{0}; ///< pushes are refused until so long after the bus is served; see Intake
    /// A drain gives the subscribers so much time. Less than the ten seconds for which clients repeat a push.
    std::chrono::milliseconds drainLimit{5000};
};

/// The bus as a server: builds the bus, its decorators, the connector and the IPC server, runs them, and stops them in
/// order. One per process at a time.
///
/// Every thread that serving needs exists when `onServing` is called, and no thread is started from then until the
/// stop, unless a wait blocks its worker. The stop has a reserve for the threads that it needs.
///
/// The stop, in this order, each step while everything that it uses still exists:
/// 1. receiving stops on every channel, so idle threads end; busy ones send their replies first, then end;
/// 2. nothing is registered any more, and every subscriber is unregistered, which ends its blocked waits;
/// 3. the connector and the IPC server go, and with them the last threads that call the bus;
/// 4. the channels close and their names are free: a client that still waits for a reply gets an error;
/// 5. the events thread is let go (Placement), then ends.
///
/// Step 3 waits for ever for a thread that does not end; five seconds later step 4 is taken all the same.
class BusServer final {
public:
    /// Throws: OfferError when a thread cannot be started.
    explicit BusServer(const BusServerOptions& options = {});
    BusServer(const BusServer&) = delete;
    BusServer& operator=(const BusServer&) = delete;
    /// Requires: no Run under way.
    ~BusServer();

    /// Offers the bus to clients, calls `onServing` when every channel is received on, and serves until RequestStop;
    /// then stops in order. Returns: true after RequestStop; false when the bus could not serve, or its name was lost
    /// to another server, with the reason in the log. Throws: OfferError, with nothing left behind. Blocks: until then.
    /// Threads: once, on the thread that hosts the bus.
    bool Run(std::function<void()> onServing = {});

    /// Ends Run, at once or as soon as it is called. Threads: any; not from a signal handler.
    void RequestStop();

    /// Ends Run when the subscribers have read what was pushed: until then, nothing is registered, and a push is
    /// answered 2. Ends it all the same after the limit, or by RequestStop; the log has what was left.
    /// Threads: any; not from a signal handler.
    void RequestDrain();

    /// The bus itself, behind the decorators. Lifetime: this object's.
    message_bus::MessageBus& Bus() noexcept { return bus; }

    /// Returns: the account; null without one. Lifetime: this object's.
    AccountKeeper* Account() noexcept { return keeper ? &*keeper : nullptr; }

    /// Replaces the description of a topic, when the process `pid` owns its publisher. Requires: there is an account.
    /// Threads: any.
    Described Describe(const std::string& topic, std::int32_t pid, std::string_view text) {
        return accounted->Describe(topic, pid, text);
    }

    /// Follows single values of a topic, see Trace. Requires: there is an account. Threads: any.
    AccountedBus& Accounted() noexcept { return *accounted; }

private:
    void MakeAccount();
    void PublishAccount();
    message_bus::IWorker& MakeWorker();
    void MakePushes();
    FlushWake::Actions WakeActions();
    void Follow(long subscriberId, SubscriberWaits::Account account);
    std::optional<TopicNotices> MakeNotices();
    void CutSubscriber(long id);
    void OwnRegistrations();
    message_bus::IProvider& Provider() noexcept;
    void Offer();
    void CloseServerEnds();
    void HoldPushes(std::chrono::milliseconds duration);
    void SetState(instruments::ServerState state) noexcept;
    void NoteDelivery() noexcept;
    void OnServing();
    void DrainSubscribers();
    void Stop();

    const BusServerOptions options;
    std::function<void()> reportServing;
    std::string startFailure;                            ///< a sentence; empty: served
    std::optional<InheritedThreadName> eventsThreadName; ///< from the start of Run until the bus has started the thread

    // Each is used by those below it. The connector's workers use them all.
    message_bus::MessageBus bus;
    std::optional<AccountKeeper> keeper;
    std::optional<ErrorTally> errors;
    std::optional<ClosingLogFilter> logFilter; ///< in front of the tally: what it leaves out is no error
    std::optional<FlushWake> flushWake;
    std::optional<Placement> placement;
    std::optional<QueueBudget> queueBudget;
    std::optional<ParkedWaits> parkedWaits;
    common::Mutex pushTurn; ///< PushTurn's
    std::optional<AccountedBus> accounted;
    std::optional<Intake> intake;
    std::optional<PushTurn> turn;
    std::optional<SubscriberLedger> ledger;
    std::optional<RegistrationGate> gate;
    CallerAccounts accounts;
    std::optional<CleanUp> cleanUp;
    std::optional<HandshakeWatch> handshakeWatch;
    std::optional<Ownership> ownership;
    std::optional<LoopWatch> loopWatch;
    std::shared_ptr<bos_ipc::IpcServer> server; ///< null once stopped
    std::unique_ptr<message_bus::BosConnector> connector;
    std::shared_ptr<ForwardingConnector> forwarding; ///< the bus keeps a share of it until it is destroyed
    std::optional<ChannelDeadline> deadline;
    std::optional<ReservedThreads> reserve; ///< while Run serves: as many as the stop needs
};

} // namespace msgbus_server
