#pragma once

#include "kn/caller.h"
#include "kn/connection_manager.h"
#include "kn/handle.h"
#include "nk/deferred_reply.h"
#include "nk/loss.h"
#include "nk/transport.h"
#include "ns/name_loss.h"
#include "ns/name_server.h"
#include "service_locator.h"

#include <sys/types.h>

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace test_support {

class InProcessChannel;
class InProcessConnection;

/// The contract of platform/include among the threads of one process: no sockets, no descriptors but those of
/// connections, no other users.
///
/// A channel is a queue of exchanges. An exchange is waiting (in the queue), owned (by the thread that received it),
/// deferred (any thread may reply) or finished (by a reply, or by the loss of either side); only the owner and a thread
/// that closes an end change that. The caller sleeps until its exchange is finished, so no loss leaves it waiting.
///
/// Threads: every operation from any thread, except as platform/include says.
class InProcessPlatform final {
public:
    static constexpr const char* TaskName = "scripted";
    static constexpr NsHandle TheNameServer = 1;
    static constexpr std::uint32_t MostConnections = 2048;

    InProcessPlatform();
    ~InProcessPlatform();

    KnHandle RegisterStatic(const char* connection, const ServiceLocatorDescriptor* services, std::uint32_t count,
                            std::uint32_t* iid);
    std::int32_t ConnectStatic(const char* connection, KnHandle* handle);

    std::int32_t Publish(NsHandle nameServer, const char* type, const char* serverName, const char* service);
    void OnNameLost(NsNameLostHandler handler, void* context);
    /// What another server does that claims a name of this task.
    void LoseName(const std::string& name);
    std::int32_t Lookup(NsHandle nameServer, const char* service) const;

    std::int32_t Listen(const char* filter, std::uint32_t timeoutMs, char* clientName, char* serviceName);
    std::int32_t Accept(const char* clientName, const char* serviceName, std::uint32_t iid, KnHandle channel,
                        KnHandle* handle);
    std::int32_t Connect(const char* service, std::uint32_t timeoutMs, KnHandle* handle);

    std::int32_t SetMethodCount(const char* type, std::uint32_t methodCount);
    std::int32_t SetConnectionLimits(std::uint32_t perCaller, std::uint32_t perChannel);
    std::uint64_t RefusedConnections() const;

    std::int32_t CallerOfRequest(KnCaller* caller) const;

    std::int32_t Close(KnHandle handle);
    void StopReceiving();
    void CloseServerEnds();

    std::int32_t Receive(const NkBosTransport* transport, nk_message* request);
    std::int32_t Reply(const NkBosTransport* transport, const nk_message* response);
    std::int32_t Call(const NkBosTransport* transport, const nk_message* request, nk_message* response);

    std::int32_t BeginCall(const NkBosTransport* transport, const nk_message* request, std::uint32_t timeoutMs);
    std::int32_t FinishCall(const NkBosTransport* transport, nk_message* response, std::uint32_t timeoutMs);
    std::int32_t AbandonCall(const NkBosTransport* transport);
    std::int32_t EndCalls(KnHandle connection);
    std::int32_t CallDescriptor(KnHandle connection, int* descriptor);
    std::int32_t MoveCallDescriptor(KnHandle connection, KnHandle former);
    std::int32_t WakeCallDescriptor(KnHandle connection, std::uint32_t afterMs);

    std::int32_t DeferReply(NkDeferredReply* deferred);
    std::int32_t ReplyDeferred(const NkDeferredReply& deferred, const nk_message* response, const NkOffers& offers,
                               std::size_t* offered);
    std::int32_t TakeBackOffers(const NkDeferredReply& deferred, std::size_t* taken);
    std::int32_t NoteLoss(const NkDeferredReply& deferred, const NkLoss& loss);
    std::int32_t ReadLoss(KnHandle connection, NkLoss* loss) const;

private:
    struct PendingClient {
        std::string name;
        std::string service;
        std::int32_t process = 0;
        bool isListed = false; // given to a listener
        bool isAnswered = false;
        bool isGone = false; // its own time-out passed
        std::int32_t status = 0;
        KnHandle handle = KnInvalidHandle;
    };

    std::shared_ptr<InProcessChannel> FindChannel(KnHandle handle, std::int32_t& status) const;
    std::shared_ptr<InProcessConnection> FindConnection(KnHandle handle, std::int32_t& status) const;
    /// The same for begun calls, of which a child made by fork has none.
    std::shared_ptr<InProcessConnection> FindOwnConnection(KnHandle handle, std::int32_t& status) const;
    KnHandle AddConnection(std::shared_ptr<InProcessConnection> connection);

    const pid_t owner;
    mutable std::mutex mutex; // guards all below
    std::condition_variable changed;
    KnHandle lastHandle = 0; // a closed handle is never given out again
    std::map<KnHandle, std::shared_ptr<InProcessChannel>> channels;
    std::map<KnHandle, std::shared_ptr<InProcessConnection>> connections;
    std::map<std::string, KnHandle> staticNames;
    std::map<std::string, std::string> services; // service to interface type
    std::map<std::string, std::uint32_t> methodCounts;
    std::uint32_t connectionsPerCaller = MostConnections;
    std::uint32_t connectionsPerChannel = MostConnections;
    std::uint64_t refusedConnections = 0;
    std::list<std::shared_ptr<PendingClient>> pending;
    std::uint64_t clientCount = 0;
    NsNameLostHandler nameLostHandler = nullptr;
    void* nameLostContext = nullptr;
    bool isClosed = false; // by StopReceiving and CloseServerEnds, until something is offered anew
};

} // namespace test_support
