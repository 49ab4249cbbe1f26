#include "support/in_process_platform.h"

#include "kn/status.h"
#include "support/in_process_channel.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <string_view>

namespace test_support {

namespace {

bool IsName(const char* name) {
    constexpr std::size_t longestName = 255;
    if (name == nullptr) {
        return false;
    }
    const std::string_view text(name);
    return !text.empty() && text.size() <= longestName && text.find('/') == std::string_view::npos && text != "." &&
           text != "..";
}

/// The channel on which the thread received last.
thread_local KnHandle receivedLast = KnInvalidHandle;

void PutName(char* buffer, const std::string& name) {
    std::memcpy(buffer, name.c_str(), name.size() + 1);
}

} // namespace

InProcessPlatform::InProcessPlatform() : owner(::getpid()) {}
InProcessPlatform::~InProcessPlatform() = default;

KnHandle InProcessPlatform::RegisterStatic(const char* connection, const ServiceLocatorDescriptor* descriptors,
                                           std::uint32_t count, std::uint32_t* iid) {
    const std::lock_guard lock(mutex);
    if (!IsName(connection) || (descriptors == nullptr && count != 0) || staticNames.contains(connection)) {
        return KnInvalidHandle;
    }
    if (iid != nullptr) {
        *iid = count == 0 ? 0 : descriptors[0].iid;
    }
    isClosed = false;
    channels[++lastHandle] = std::make_shared<InProcessChannel>(InProcessChannel::DeadClient::ReplyReportsIt);
    staticNames[connection] = lastHandle;
    return lastHandle;
}

std::int32_t InProcessPlatform::ConnectStatic(const char* connection, KnHandle* handle) {
    const std::lock_guard lock(mutex);
    if (!IsName(connection) || handle == nullptr) {
        return KnStatusInvalidArgument;
    }
    const auto found = staticNames.find(connection);
    if (found == staticNames.end()) {
        return KnStatusNotFound;
    }
    if (!channels.at(found->second)->HasRoom(connectionsPerCaller, connectionsPerChannel)) {
        ++refusedConnections;
        return KnStatusBusy;
    }
    *handle = AddConnection(std::make_shared<InProcessConnection>(channels.at(found->second), ConnectionLimits{}));
    return KnStatusOk;
}

std::int32_t InProcessPlatform::Publish(NsHandle nameServer, const char* type, const char* serverName,
                                        const char* service) {
    const std::lock_guard lock(mutex);
    if (nameServer != TheNameServer || !IsName(type) || !IsName(serverName) || !IsName(service)) {
        return KnStatusInvalidArgument;
    }
    isClosed = false;
    return services.emplace(service, type).second ? KnStatusOk : KnStatusAlreadyExists;
}

void InProcessPlatform::OnNameLost(NsNameLostHandler handler, void* context) {
    const std::lock_guard lock(mutex);
    nameLostHandler = handler;
    nameLostContext = context;
}

void InProcessPlatform::LoseName(const std::string& name) {
    const std::lock_guard lock(mutex); // also during the call, so that a handler that was replaced is not being called
    if (staticNames.erase(name) + services.erase(name) != 0 && nameLostHandler != nullptr) {
        nameLostHandler(name.c_str(), nameLostContext);
    }
}

std::int32_t InProcessPlatform::Lookup(NsHandle nameServer, const char* service) const {
    const std::lock_guard lock(mutex);
    if (nameServer != TheNameServer || !IsName(service)) {
        return KnStatusInvalidArgument;
    }
    return services.contains(service) ? KnStatusOk : KnStatusNotFound;
}

std::int32_t InProcessPlatform::Listen(const char* filter, std::uint32_t timeoutMs, char* clientName,
                                       char* serviceName) {
    if (clientName == nullptr || serviceName == nullptr) {
        return KnStatusInvalidArgument;
    }
    std::unique_lock lock(mutex);
    const bool hearsUs = filter == nullptr || std::string_view(filter) == TaskName;
    const auto findNew = [&] {
        return std::find_if(pending.begin(), pending.end(),
                            [&](const auto& client) { return hearsUs && !client->isListed; });
    };
    if (!changed.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                          [&] { return isClosed || findNew() != pending.end(); })) {
        return KnStatusTimedOut;
    }
    if (isClosed) {
        return KnStatusClosed;
    }
    auto& client = **findNew();
    client.isListed = true;
    PutName(clientName, client.name);
    PutName(serviceName, client.service);
    return KnStatusOk;
}

std::int32_t InProcessPlatform::Accept(const char* clientName, const char* serviceName, std::uint32_t iid,
                                       KnHandle channel, KnHandle* handle) {
    if (clientName == nullptr || serviceName == nullptr || handle == nullptr) {
        return KnStatusInvalidArgument;
    }
    const std::lock_guard lock(mutex);
    const auto found = std::find_if(pending.begin(), pending.end(), [&](const auto& client) {
        return client->isListed && client->name == clientName && client->service == serviceName;
    });
    if (found == pending.end()) {
        return KnStatusNotFound;
    }
    const auto client = *found;
    pending.erase(found);
    if (client->isGone) {
        return KnStatusPeerGone;
    }
    if (isClosed) {
        client->status = KnStatusClosed;
        client->isAnswered = true;
        changed.notify_all();
        return KnStatusClosed;
    }
    std::shared_ptr<InProcessChannel> serverEnd;
    if (channel == KnInvalidHandle) {
        serverEnd = std::make_shared<InProcessChannel>(InProcessChannel::DeadClient::ReplyAnswersOk);
        channel = ++lastHandle;
        channels[channel] = serverEnd;
    } else if (const auto open = channels.find(channel); open != channels.end()) {
        serverEnd = open->second;
    } else {
        client->status = KnStatusClosed;
        client->isAnswered = true;
        changed.notify_all();
        return KnStatusClosed;
    }
    const ActingAs theClient(client->process);
    if (!serverEnd->HasRoom(connectionsPerCaller, connectionsPerChannel)) {
        ++refusedConnections;
        client->status = KnStatusBusy;
        client->isAnswered = true;
        changed.notify_all();
        return KnStatusBusy;
    }
    ConnectionLimits limits{static_cast<std::uint16_t>(iid), {}};
    if (const auto count = methodCounts.find(services[serviceName]); count != methodCounts.end()) {
        limits.methodCount = count->second;
    }
    client->handle = AddConnection(std::make_shared<InProcessConnection>(serverEnd, limits));
    client->isAnswered = true;
    *handle = channel;
    changed.notify_all();
    return KnStatusOk;
}

std::int32_t InProcessPlatform::Connect(const char* service, std::uint32_t timeoutMs, KnHandle* handle) {
    if (!IsName(service) || handle == nullptr) {
        return KnStatusInvalidArgument;
    }
    std::unique_lock lock(mutex);
    if (!services.contains(service)) {
        return KnStatusNotFound;
    }
    const auto client = std::make_shared<PendingClient>();
    client->name = "client-" + std::to_string(++clientCount);
    client->service = service;
    client->process = ActingAs::Current();
    pending.push_back(client);
    changed.notify_all();
    if (!changed.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return client->isAnswered; })) {
        client->isGone = true;
        if (!client->isListed) { // else its acceptance has to fail
            std::erase(pending, client);
        }
        return KnStatusTimedOut;
    }
    *handle = client->handle;
    return client->status;
}

std::int32_t InProcessPlatform::SetMethodCount(const char* type, std::uint32_t methodCount) {
    const std::lock_guard lock(mutex);
    if (type == nullptr || *type == '\0') {
        return KnStatusInvalidArgument;
    }
    methodCounts[type] = methodCount;
    return KnStatusOk;
}

std::int32_t InProcessPlatform::SetConnectionLimits(std::uint32_t perCaller, std::uint32_t perChannel) {
    const std::lock_guard lock(mutex);
    if (perCaller == 0 || perChannel == 0 || perChannel > MostConnections) {
        return KnStatusInvalidArgument;
    }
    connectionsPerCaller = perCaller;
    connectionsPerChannel = perChannel;
    return KnStatusOk;
}

std::uint64_t InProcessPlatform::RefusedConnections() const {
    const std::lock_guard lock(mutex);
    return refusedConnections;
}

std::int32_t InProcessPlatform::CallerOfRequest(KnCaller* caller) const {
    std::int32_t status = 0;
    const auto channel = FindChannel(receivedLast, status);
    const auto current = channel ? channel->CallerOfRequest() : nullptr;
    if (caller == nullptr || !current) {
        return KnStatusInvalidArgument;
    }
    *caller = current->identity;
    return InProcessCallers::Instance().IsGone(*current) ? KnStatusPeerGone : KnStatusOk;
}

std::int32_t InProcessPlatform::Close(KnHandle handle) {
    const std::lock_guard lock(mutex);
    if (const auto channel = channels.find(handle); channel != channels.end()) {
        channel->second->Close();
        channels.erase(channel);
        std::erase_if(staticNames, [handle](const auto& entry) { return entry.second == handle; });
        return KnStatusOk;
    }
    if (const auto connection = connections.find(handle); connection != connections.end()) {
        connection->second->Close();
        connections.erase(connection);
        return KnStatusOk;
    }
    return KnStatusInvalidArgument;
}

void InProcessPlatform::StopReceiving() {
    const std::lock_guard lock(mutex);
    for (const auto& [handle, channel] : channels) {
        channel->StopReceiving();
    }
    isClosed = true;
    changed.notify_all();
}

void InProcessPlatform::CloseServerEnds() {
    const std::lock_guard lock(mutex);
    for (const auto& [handle, channel] : channels) {
        channel->Close();
    }
    channels.clear();
    staticNames.clear();
    services.clear();
    for (const auto& client : pending) {
        client->status = KnStatusClosed;
        client->isAnswered = true;
    }
    pending.clear();
    isClosed = true;
    changed.notify_all();
}

std::shared_ptr<InProcessChannel> InProcessPlatform::FindChannel(KnHandle handle, std::int32_t& status) const {
    const std::lock_guard lock(mutex);
    const auto found = channels.find(handle);
    if (found != channels.end()) {
        status = KnStatusOk;
        return found->second;
    }
    status =
        handle == 0 || handle > lastHandle || connections.contains(handle) ? KnStatusInvalidArgument : KnStatusClosed;
    return nullptr;
}

std::shared_ptr<InProcessConnection> InProcessPlatform::FindConnection(KnHandle handle, std::int32_t& status) const {
    const std::lock_guard lock(mutex);
    const auto found = connections.find(handle);
    if (found != connections.end()) {
        status = KnStatusOk;
        return found->second;
    }
    const bool wasClient = handle != 0 && handle <= lastHandle && !channels.contains(handle);
    status = wasClient ? KnStatusClosed : KnStatusInvalidArgument;
    return nullptr;
}

std::shared_ptr<InProcessConnection> InProcessPlatform::FindOwnConnection(KnHandle handle, std::int32_t& status) const {
    if (owner != ::getpid()) { // no lock: a thread that the child does not have may hold it
        status = KnStatusClosed;
        return nullptr;
    }
    return FindConnection(handle, status);
}

KnHandle InProcessPlatform::AddConnection(std::shared_ptr<InProcessConnection> connection) {
    connections[++lastHandle] = std::move(connection);
    return lastHandle;
}

std::int32_t InProcessPlatform::Receive(const NkBosTransport* transport, nk_message* request) {
    if (transport == nullptr || transport->initialised == 0 || request == nullptr ||
        NkGetSize(*request) != NkRecordSize) {
        return KnStatusInvalidArgument;
    }
    std::int32_t status = 0;
    const auto channel = FindChannel(transport->handle, status);
    receivedLast = transport->handle;
    return channel ? channel->Receive(request) : status;
}

std::int32_t InProcessPlatform::Reply(const NkBosTransport* transport, const nk_message* response) {
    if (transport == nullptr || transport->initialised == 0 || response == nullptr) {
        return KnStatusInvalidArgument;
    }
    std::int32_t status = 0;
    const auto channel = FindChannel(transport->handle, status);
    return channel ? channel->Reply(response) : status;
}

std::int32_t InProcessPlatform::Call(const NkBosTransport* transport, const nk_message* request, nk_message* response) {
    if (transport == nullptr || transport->initialised == 0 || request == nullptr || response == nullptr) {
        return KnStatusInvalidArgument;
    }
    std::int32_t status = 0;
    const auto connection = FindConnection(transport->handle, status);
    return connection ? connection->Call(request, response) : status;
}

std::int32_t InProcessPlatform::BeginCall(const NkBosTransport* transport, const nk_message* request,
                                          std::uint32_t timeoutMs) {
    if (transport == nullptr || transport->initialised == 0 || request == nullptr) {
        return KnStatusInvalidArgument;
    }
    std::int32_t status = 0;
    const auto connection = FindOwnConnection(transport->handle, status);
    return connection ? connection->Begin(request, timeoutMs) : status;
}

std::int32_t InProcessPlatform::FinishCall(const NkBosTransport* transport, nk_message* response,
                                           std::uint32_t timeoutMs) {
    if (transport == nullptr || transport->initialised == 0 || response == nullptr) {
        return KnStatusInvalidArgument;
    }
    std::int32_t status = 0;
    const auto connection = FindOwnConnection(transport->handle, status);
    return connection ? connection->Finish(response, timeoutMs) : status;
}

std::int32_t InProcessPlatform::AbandonCall(const NkBosTransport* transport) {
    if (transport == nullptr || transport->initialised == 0) {
        return KnStatusInvalidArgument;
    }
    std::int32_t status = 0;
    const auto connection = FindOwnConnection(transport->handle, status);
    return connection ? connection->Abandon() : status;
}

std::int32_t InProcessPlatform::EndCalls(KnHandle handle) {
    std::int32_t status = KnStatusOk;
    if (const auto connection = FindOwnConnection(handle, status)) {
        connection->End();
    }
    return status;
}

std::int32_t InProcessPlatform::CallDescriptor(KnHandle handle, int* descriptor) {
    if (descriptor == nullptr) {
        return KnStatusInvalidArgument;
    }
    std::int32_t status = 0;
    const auto connection = FindOwnConnection(handle, status);
    return connection ? connection->Descriptor(*descriptor) : status;
}

std::int32_t InProcessPlatform::MoveCallDescriptor(KnHandle handle, KnHandle formerHandle) {
    std::int32_t status = 0;
    const auto connection = FindOwnConnection(handle, status);
    const auto former = FindOwnConnection(formerHandle, status);
    return connection && former ? connection->MoveDescriptorFrom(*former) : std::int32_t{KnStatusInvalidArgument};
}

std::int32_t InProcessPlatform::WakeCallDescriptor(KnHandle handle, std::uint32_t afterMs) {
    std::int32_t status = 0;
    const auto connection = FindOwnConnection(handle, status);
    return connection ? connection->WakeDescriptor(afterMs) : std::int32_t{KnStatusInvalidArgument};
}

std::int32_t InProcessPlatform::DeferReply(NkDeferredReply* deferred) {
    if (deferred == nullptr || receivedLast == KnInvalidHandle) {
        return KnStatusInvalidArgument;
    }
    std::int32_t status = 0;
    const auto channel = FindChannel(receivedLast, status);
    deferred->channel = receivedLast;
    return channel ? channel->Defer(*deferred) : status;
}

std::int32_t InProcessPlatform::ReplyDeferred(const NkDeferredReply& deferred, const nk_message* response,
                                              const NkOffers& offers, std::size_t* offered) {
    if (response == nullptr || offers.count > NkMaxOffers || offers.offset > NkRecordSize - sizeof(std::int64_t) ||
        (offers.count != 0 && offers.values == nullptr)) {
        return KnStatusInvalidArgument;
    }
    std::int32_t status = 0;
    const auto channel = FindChannel(deferred.channel, status);
    std::size_t put = 0;
    if (channel) {
        status = channel->ReplyDeferred(deferred, *response, offers, put);
    }
    if (offered != nullptr) {
        *offered = put;
    }
    return status;
}

std::int32_t InProcessPlatform::TakeBackOffers(const NkDeferredReply& deferred, std::size_t* taken) {
    if (taken == nullptr) {
        return KnStatusInvalidArgument;
    }
    std::int32_t status = 0;
    const auto channel = FindChannel(deferred.channel, status);
    return channel ? channel->TakeBackOffers(deferred, *taken) : status;
}

std::int32_t InProcessPlatform::NoteLoss(const NkDeferredReply& deferred, const NkLoss& loss) {
    std::int32_t status = 0;
    const auto channel = FindChannel(deferred.channel, status);
    return channel ? channel->NoteLoss(deferred, loss) : status;
}

std::int32_t InProcessPlatform::ReadLoss(KnHandle connection, NkLoss* loss) const {
    if (loss == nullptr) {
        return KnStatusInvalidArgument;
    }
    std::int32_t status = 0;
    const auto found = FindConnection(connection, status);
    if (found) {
        *loss = found->Loss();
    }
    return status;
}

} // namespace test_support
