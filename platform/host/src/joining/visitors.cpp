#include "joining/visitors.h"

#include "base/log.h"
#include "kn/status.h"
#include "names/handshake.h"
#include "records/connection_limits.h"

#include <poll.h>

#include <algorithm>
#include <cassert>
#include <utility>

namespace borven_host {

using bos::logger::LogLevel;

namespace {

bool IsReadable(int fd) {
    pollfd waited{fd, POLLIN, 0};
    return fd >= 0 && ::poll(&waited, 1, 0) == 1;
}

[[maybe_unused]] bool Contains(const std::deque<std::uint64_t>& ids, std::uint64_t id) {
    return std::find(ids.begin(), ids.end(), id) != ids.end();
}

} // namespace

Visitors::Visitor* Visitors::Find(std::uint64_t id) noexcept {
    const auto found = visitors.find(id);
    return found == visitors.end() ? nullptr : &found->second;
}

Visitors::Visitor* Visitors::Add(std::uint64_t listenerId, UniqueFd socket, Peer peer, Deadline deadline) {
    const std::uint64_t id = poller.NewId();
    Visitor& visitor = visitors.try_emplace(id).first->second;
    visitor.id = id;
    visitor.listenerId = listenerId;
    visitor.peer = std::move(peer);
    visitor.watched = socket.Get();
    visitor.socket = std::move(socket);
    visitor.deadline = deadline;
    greeting.push_back(id);
    const int process = visitor.peer.process.Get();
    if (!poller.WatchSocket(visitor.watched, EPOLLIN | EPOLLRDHUP, id) ||
        (process >= 0 && !poller.WatchProcess(process, id))) {
        Refuse(visitor, KnStatusNoResources);
        return nullptr;
    }
    return &visitor;
}

void Visitors::RefuseOneGreeting(std::int32_t status) {
    assert(!greeting.empty());
    std::unordered_map<pid_t, std::size_t> counts;
    for (const std::uint64_t id : greeting) {
        ++counts[visitors.at(id).peer.pid];
    }
    const auto fewer = [&](std::uint64_t left, std::uint64_t right) {
        return counts.at(visitors.at(left).peer.pid) < counts.at(visitors.at(right).peer.pid);
    };
    RefuseGreeting(visitors.at(*std::max_element(greeting.begin(), greeting.end(), fewer)), status);
}

void Visitors::RefuseGreeting(Visitor& visitor, std::int32_t status) {
    Log(LogLevel::Warning,
        {"refused ", Describe(visitor.peer), ", which has sent no greeting: ", KnStatusText(status)});
    Refuse(visitor, status);
}

bool Visitors::IsAskingTooMuch(const Visitor& visitor) const {
    std::size_t sameService = 0;
    std::size_t sameProcess = 0;
    for (const std::uint64_t otherId : asking) {
        const Visitor& other = visitors.at(otherId);
        sameService += other.listenerId == visitor.listenerId ? 1 : 0;
        sameProcess += other.peer.pid == visitor.peer.pid ? 1 : 0;
    }
    return sameService >= MaxAskingPerService || sameProcess >= MaxAskingPerProcess;
}

void Visitors::Ask(Visitor& visitor, const std::string& service, const std::string& type) {
    assert(visitor.stage == Stage::Greeting && Contains(greeting, visitor.id));
    if (IsAskingTooMuch(visitor) || !poller.ChangeSocket(visitor.watched, EPOLLRDHUP, visitor.id)) {
        Log(LogLevel::Warning, {"too many clients are waiting for the service ", service, " to accept them"});
        Refuse(visitor, KnStatusBusy);
        return;
    }
    visitor.service = service;
    visitor.type = type;
    visitor.name = visitor.peer.program + '-' + std::to_string(visitor.peer.pid) + '-' + std::to_string(visitor.id);
    asking.push_back(visitor.id);
    std::erase(greeting, visitor.id);
    visitor.stage = Stage::Asking;
    visitor.deadline = Deadline::max();
    hasAsked.NotifyAll();
}

const Visitors::Visitor* Visitors::Announce(std::optional<std::string_view> task) {
    for (const std::uint64_t id : asking) {
        Visitor& visitor = visitors.at(id);
        if (visitor.stage == Stage::Asking && (!task || *task == visitor.peer.program)) {
            visitor.stage = Stage::Announced;
            return &visitor;
        }
    }
    return nullptr;
}

Visitors::Visitor* Visitors::FindAnnounced(std::string_view name, std::string_view service) {
    for (const std::uint64_t id : asking) {
        Visitor& visitor = visitors.at(id);
        if (visitor.stage != Stage::Asking && visitor.name == name && visitor.service == service) {
            return &visitor;
        }
    }
    return nullptr;
}

bool Visitors::HasLeft(const Visitor& visitor) {
    return visitor.stage == Stage::Left || IsReadable(visitor.peer.process.Get());
}

std::int32_t Visitors::Join(Visitor& visitor, const std::shared_ptr<Channel>& channel, const RequestFilter& filter) {
    assert(visitor.stage == Stage::Greeting || visitor.stage == Stage::Announced);
    auto caller = callers.Enter(visitor.peer, *channel, channel->ClientCount());
    std::int32_t status = caller ? KnStatusNoResources : KnStatusBusy;
    if (caller && poller.ChangeSocket(visitor.watched, EPOLLRDHUP, visitor.id)) {
        status =
            channel->AddClient(std::move(visitor.socket), visitor.layoutVersion, filter, &visitor.clientId, caller);
    }
    if (status != KnStatusOk) {
        if (caller && status != KnStatusPeerGone) { // without a caller it is logged
            Log(LogLevel::Warning, {"refused ", Describe(visitor.peer), ": ", KnStatusText(status)});
        }
        if (caller) {
            callers.Leave(*caller, *channel);
        }
        Refuse(visitor, status);
        return status;
    }
    std::erase(greeting, visitor.id);
    std::erase(asking, visitor.id);
    visitor.channel = channel;
    visitor.caller = std::move(caller);
    visitor.stage = Stage::Joined;
    visitor.deadline = Deadline::max();
    assert(!visitor.socket);
    return KnStatusOk;
}

void Visitors::Leave(Visitor& visitor) {
    if (visitor.stage == Stage::Left) {
        return; // one batch may hold the events of its socket and of its process
    }
    if (visitor.stage == Stage::Announced) {
        assert(Contains(asking, visitor.id));
        Unwatch(visitor);
        visitor.stage = Stage::Left;
        visitor.socket.Reset();
        visitor.peer.process.Reset();
        visitor.deadline = std::chrono::steady_clock::now() + LeftTime;
        return;
    }
    const auto channel = visitor.channel;
    const std::uint64_t clientId = visitor.clientId;
    Forget(visitor); // unwatches the socket before the channel closes it
    if (channel) {
        channel->RemoveClient(clientId);
    }
}

void Visitors::Refuse(Visitor& visitor, std::int32_t status) {
    if (status == KnStatusBusy) {
        ConnectionLimits::CountRefusal();
    }
    if (visitor.socket) {
        SendAnswer(visitor.socket.Get(), status);
    }
    Forget(visitor);
}

void Visitors::RefuseAllOf(std::uint64_t listenerId, std::int32_t status) {
    for (auto visitor = visitors.begin(); visitor != visitors.end();) {
        const auto current = visitor++;
        if (current->second.listenerId == listenerId) {
            Refuse(current->second, status);
        }
    }
}

void Visitors::RefuseAll(std::int32_t status) {
    while (!visitors.empty()) {
        Refuse(visitors.begin()->second, status);
    }
}

void Visitors::Forget(Visitor& visitor) {
    const std::uint64_t id = visitor.id;
    Unwatch(visitor);
    if (visitor.caller) {
        callers.Leave(*visitor.caller, *visitor.channel);
    }
    std::erase(greeting, id);
    std::erase(asking, id);
    visitors.erase(id);
}

void Visitors::ForgetAllOf(const Channel& channel) {
    for (auto visitor = visitors.begin(); visitor != visitors.end();) {
        const auto current = visitor++;
        if (current->second.channel.get() == &channel) {
            Forget(current->second);
        }
    }
}

void Visitors::Unwatch(const Visitor& visitor) const noexcept {
    if (visitor.stage == Stage::Left) {
        return; // was done when it left; the numbers may name other descriptors by now
    }
    poller.Unwatch(visitor.watched);
    if (visitor.peer.process) {
        poller.Unwatch(visitor.peer.process.Get());
    }
}

Deadline Visitors::NextDeadline() const {
    Deadline next = Deadline::max();
    if (!greeting.empty()) {
        next = visitors.at(greeting.front()).deadline;
    }
    for (const std::uint64_t id : asking) {
        next = std::min(next, visitors.at(id).deadline);
    }
    return next;
}

void Visitors::Expire(Deadline now) {
    while (!greeting.empty() && visitors.at(greeting.front()).deadline <= now) {
        RefuseGreeting(visitors.at(greeting.front()), KnStatusTimedOut);
    }
    for (std::size_t i = 0; i < asking.size();) {
        Visitor& visitor = visitors.at(asking[i]);
        if (visitor.deadline <= now) {
            assert(visitor.stage == Stage::Left);
            Forget(visitor);
        } else {
            ++i;
        }
    }
}

Visitors::Map Visitors::Release() noexcept {
    greeting.clear();
    asking.clear();
    callers = {};
    return std::exchange(visitors, {});
}

} // namespace borven_host
