#include "records/client_table.h"

#include "kn/status.h"
#include "records/connection_limits.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <system_error>
#include <utility>

namespace borven_host {

namespace {

constexpr std::uint64_t EndedData = 0;
constexpr std::uint64_t KickData = 1; ///< the clients' numbers follow

UniqueFd Checked(UniqueFd fd) {
    if (!fd) {
        throw std::system_error(errno, std::generic_category());
    }
    return fd;
}

} // namespace

ClientTable::ClientTable(Channel::DeadClient reaction)
    : deadClient(reaction), epoll(Checked(UniqueFd(::epoll_create1(EPOLL_CLOEXEC)))),
      ended(Checked(UniqueFd(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)))), kick(Checked(MakeBell())), lastId(KickData) {
    if (!Watch(epoll, ended.Get(), EPOLLIN, EndedData) || !Watch(epoll, kick.Get(), EPOLLIN | EPOLLET, KickData)) {
        throw std::system_error(errno, std::generic_category());
    }
}

std::int32_t ClientTable::Add(UniqueFd&& socket, SharedMemoryEnds&& ends, const UniqueFd* file,
                              const RequestFilter& filter, std::shared_ptr<const Caller> caller,
                              std::uint64_t* clientId) {
    const common::MutexLock lock(mutex);
    assert(IsCounted());
    if (isClosed.load(std::memory_order_relaxed)) {
        return KnStatusClosed;
    }
    if (clients.size() >= ConnectionLimits::Current().perChannel) {
        return KnStatusBusy;
    }
    const auto client =
        std::make_shared<ChannelClient>(lastId + 1, filter, deadClient, std::move(ends), std::move(caller));
    clients.emplace(client->id, client);
    std::int32_t status = KnStatusNoResources;
    if (Watch(epoll, client->Ends().bell.Get(), EPOLLIN | EPOLLET, client->id)) {
        status = file != nullptr ? SendEnds(socket.Get(), *file, client->Ends()) : KnStatusOk;
    }
    if (status != KnStatusOk) {
        Unwatch(*client);
        clients.erase(client->id);
        return status;
    }
    client->Attach(std::move(socket)); // a receiver that has an event of the client waits for the mutex
    count.store(clients.size(), std::memory_order_relaxed);
    *clientId = lastId = client->id;
    return KnStatusOk;
}

std::shared_ptr<ChannelClient> ClientTable::Remove(std::uint64_t clientId) noexcept {
    std::shared_ptr<ChannelClient> client;
    {
        const common::MutexLock lock(mutex);
        assert(IsCounted());
        const auto found = clients.find(clientId);
        if (found == clients.end()) {
            return nullptr;
        }
        client = std::move(found->second);
        clients.erase(found);
        count.store(clients.size(), std::memory_order_relaxed);
    }
    Unwatch(*client);
    client->End();
    return client;
}

std::int32_t ClientTable::Find(std::uint64_t clientId, std::shared_ptr<ChannelClient>& client) const {
    const common::MutexLock lock(mutex);
    if (const auto found = clients.find(clientId); found != clients.end()) {
        client = found->second;
        return KnStatusOk;
    }
    return clientId > KickData && clientId <= lastId ? KnStatusPeerGone : KnStatusInvalidArgument;
}

void ClientTable::StopReceiving() noexcept {
    isReceiving.store(false, std::memory_order_release);
    const std::uint64_t one = 1;
    static_cast<void>(!::write(ended.Get(), &one, sizeof one));
}

bool ClientTable::Close() noexcept {
    std::unordered_map<std::uint64_t, std::shared_ptr<ChannelClient>> removed;
    {
        const common::MutexLock lock(mutex);
        assert(IsCounted());
        if (isClosed.exchange(true, std::memory_order_acq_rel)) {
            return false;
        }
        removed.swap(clients);
        count.store(0, std::memory_order_relaxed);
    }
    StopReceiving();
    for (const auto& [id, client] : removed) {
        Unwatch(*client);
        client->End();
    }
    return true;
}

std::shared_ptr<ChannelClient> ClientTable::ClaimRung(nk_message* request) noexcept {
    epoll_event event{};
    return ::epoll_wait(epoll.Get(), &event, 1, 0) == 1 ? ClaimOf(event, request) : nullptr;
}

std::shared_ptr<ChannelClient> ClientTable::SleepAndClaim(nk_message* request, ReceiverPlace& place) noexcept {
    place.EnterSleep();
    epoll_event event{};
    const int events = place.IsConfined() ? SleepUntilEvent(epoll, &event, 1, [&] { place.LetGo(); })
                                          : ::epoll_wait(epoll.Get(), &event, 1, -1);
    auto client = events == 1 ? ClaimOf(event, request) : nullptr;
    place.LeaveSleep(WakeHint(client ? client->Slot().request.wake.load(std::memory_order_relaxed) : 0));
    return client;
}

std::shared_ptr<ChannelClient> ClientTable::ClaimOf(const epoll_event& event, nk_message* request) noexcept {
    auto client = Find(event.data.u64);
    if (!client) {
        return nullptr;
    }
    if (!client->CountRing()) {
        client->End();
        return nullptr;
    }
    return client->TryClaim(request) ? std::move(client) : nullptr;
}

void ClientTable::Unwatch(const ChannelClient& client) const noexcept {
    ::epoll_ctl(epoll.Get(), EPOLL_CTL_DEL, client.Ends().bell.Get(), nullptr);
}

} // namespace borven_host
