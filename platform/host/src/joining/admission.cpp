#include "joining/admission.h"

#include "base/log.h"
#include "kn/status.h"
#include "names/admitted_group.h"
#include "names/handshake.h"
#include "names/peer.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <system_error>
#include <utility>

namespace borven_host {

using bos::logger::LogLevel;

namespace {

UniqueFd OpenSpare() {
    return UniqueFd(::open("/dev/null", O_RDONLY | O_CLOEXEC));
}

UniqueFd AcceptFrom(int listening) {
    return UniqueFd(::accept4(listening, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
}

/// Returns: whether a descriptor with this number leaves the server fewer than its reserve. The kernel gives the lowest
/// number that is free, so a high one means that nearly all are in use.
bool IsFromReserve(int fd) {
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    return static_cast<rlim_t>(fd) + Admission::DescriptorReserve >= limit.rlim_cur;
}

} // namespace

void Admission::Start() {
    spare = OpenSpare();
    pausedUntil.reset();
    lastPause = {};
    namesDue = Deadline::max();
    nameWatch.Start();
}

void Admission::Stop() noexcept {
    nameWatch.Stop();
    spare.Reset();
}

void Admission::Add(Listener listener) {
    const std::uint64_t id = poller.NewId();
    const int fd = listener.socket->Get();
    Listener& added = listeners.emplace(id, std::move(listener)).first->second;
    if (!poller.WatchSocket(fd, EPOLLIN, id)) {
        const int error = errno;
        listeners.erase(id);
        throw std::system_error(error, std::generic_category());
    }
    WatchName(added);
}

std::optional<Admission::Listener> Admission::Remove(const Channel& channel) {
    const auto found = std::find_if(listeners.begin(), listeners.end(),
                                    [&](const auto& entry) { return entry.second.channel.get() == &channel; });
    if (found == listeners.end()) {
        return std::nullopt;
    }
    visitors.RefuseAllOf(found->first, KnStatusClosed);
    poller.Unwatch(found->second.socket->Get());
    std::optional<Listener> removed(std::move(found->second));
    listeners.erase(found);
    return removed;
}

Admission::Listeners Admission::RemoveAll() {
    for (const auto& [id, listener] : listeners) {
        poller.Unwatch(listener.socket->Get());
    }
    return std::exchange(listeners, {});
}

void Admission::Abandon() noexcept {
    nameWatch.Abandon();
    listeners.clear();
    spare.Reset();
}

bool Admission::Admit(std::uint64_t id) {
    if (nameWatch.Notice(id)) {
        namesDue = Deadline::min();
        return true;
    }
    const auto listener = listeners.find(id);
    if (listener == listeners.end()) {
        return false;
    }
    constexpr int atOnce = 16; // then the clients that leave have their turn
    const int listening = listener->second.socket->Get();
    for (int i = 0; i < atOnce && AcceptOne(id, listening); ++i) {
    }
    return true;
}

/// Returns: whether there may be another client to accept.
bool Admission::AcceptOne(std::uint64_t id, int listening) {
    UniqueFd socket = AcceptFrom(listening);
    if (socket) {
        lastPause = {};
        Welcome(id, std::move(socket));
        return true;
    }
    switch (errno) {
    case EINTR:
    case ECONNABORTED:
        return true;
    case EAGAIN:
        return false;
    case EMFILE:
    case ENFILE:
        AcceptWithSpare(listening);
        return false;
    default:
        Pause();
        return false;
    }
}

void Admission::AcceptWithSpare(int listening) {
    spare.Reset();
    if (const UniqueFd socket = AcceptFrom(listening); socket) {
        Log(LogLevel::Warning, {"refused a client: every descriptor of this process is in use"});
        SendAnswer(socket.Get(), KnStatusNoResources);
    }
    spare = OpenSpare();
    if (!spare) {
        Pause(); // another thread was faster; a listener that cannot be served would keep this thread busy
    }
}

void Admission::Welcome(std::uint64_t listenerId, UniqueFd socket) {
    Peer peer;
    auto status = IdentifyPeer(socket.Get(), peer);
    if (status == KnStatusOk && !MayConnect(socket.Get(), peer)) {
        status = KnStatusDenied;
    }
    if (IsFromReserve(socket.Get())) {
        Log(LogLevel::Warning, {"refused ", Describe(peer), ": the descriptors of this process run out"});
        SendAnswer(socket.Get(), KnStatusNoResources);
        return;
    }
    if (status != KnStatusOk) {
        if (status != KnStatusPeerGone) {
            Log(LogLevel::Warning, {"refused ", Describe(peer), ": ", KnStatusText(status)});
        }
        SendAnswer(socket.Get(), status);
        return;
    }
    if (visitors.GreetingCount() >= MaxGreeting) {
        visitors.RefuseOneGreeting(KnStatusBusy);
    }
    const Deadline greetBy = std::chrono::steady_clock::now() + GreetingTime;
    if (auto* const visitor = visitors.Add(listenerId, std::move(socket), std::move(peer), greetBy)) {
        ReadGreeting(*visitor);
    }
}

void Admission::ReadGreeting(Visitors::Visitor& visitor) {
    assert(visitor.stage == Visitors::Stage::Greeting && visitor.socket);
    Greeting greeting{};
    const ssize_t length = ::recv(visitor.socket.Get(), &greeting, sizeof greeting, MSG_DONTWAIT | MSG_TRUNC);
    if (length < 0 && (errno == EAGAIN || errno == EINTR)) {
        return;
    }
    const std::int32_t status = length == sizeof greeting ? Check(greeting) : KnStatusDenied;
    if (status == KnStatusOtherVersion) {
        Log(LogLevel::Warning, {"refused ", Describe(visitor.peer), ": it speaks version ",
                                std::to_string(greeting.layoutVersion), " of the protocol"});
    } else if (status != KnStatusOk && length > 0) { // 0 or less: a look-up, which disconnects without a greeting
        Log(LogLevel::Warning, {"refused ", Describe(visitor.peer), ": it sent no valid greeting"});
    }
    if (status != KnStatusOk) {
        visitors.Refuse(visitor, status);
        return;
    }
    visitor.layoutVersion = greeting.layoutVersion;
    const Listener& listener = listeners.at(visitor.listenerId);
    if (listener.channel) {
        static_cast<void>(visitors.Join(visitor, listener.channel, {}));
    } else {
        visitors.Ask(visitor, listener.service, listener.type);
    }
}

void Admission::Pause() {
    using std::chrono::milliseconds;
    lastPause = std::clamp(lastPause * 2, milliseconds(10), milliseconds(1000));
    pausedUntil = std::chrono::steady_clock::now() + lastPause;
    WatchListeners(0);
}

void Admission::Resume(Deadline now) {
    if (pausedUntil && *pausedUntil <= now) {
        pausedUntil.reset();
        WatchListeners(EPOLLIN);
    }
}

/// What happened to the name before it was watched is noticed, too.
void Admission::WatchName(Listener& listener) {
    nameWatch.Add(*listener.socket);
    if (!listener.socket->IsInPlace()) {
        namesDue = Deadline::min();
        poller.Wake();
    }
}

std::vector<std::string> Admission::RestoreNames(Deadline now) {
    std::vector<std::string> lost;
    if (now < namesDue) {
        return lost;
    }
    namesDue = Deadline::max();
    for (auto& [id, listener] : listeners) {
        if (!listener.isNameLost && !RestoreName(id, listener, now)) {
            listener.isNameLost = true;
            lost.push_back(listener.socket->Name());
        }
    }
    return lost;
}

/// Returns: false when the name is lost for good.
bool Admission::RestoreName(std::uint64_t id, Listener& listener, Deadline now) {
    if (listener.socket->IsInPlace()) {
        listener.missingSince.reset();
        return true;
    }
    const Deadline since = listener.missingSince.value_or(now);
    listener.missingSince = since;
    std::unique_ptr<NamedSocket> next;
    switch (const auto status = listener.socket->ClaimAgain(next)) {
    case KnStatusOk:
        if (poller.WatchSocket(next->Get(), pausedUntil ? 0u : EPOLLIN, id)) {
            Replace(id, listener, std::move(next));
            return true;
        }
        next->Release();
        break;
    case KnStatusAlreadyExists:
        if (now - since >= NameTime) {
            Log(LogLevel::Error, {"the name ", listener.socket->Name(), " was removed, and another server has it now"});
            return false;
        }
        break;
    case KnStatusTimedOut:
    case KnStatusNoResources:
        break;
    default:
        Log(LogLevel::Error, {"the name ", listener.socket->Name(),
                              " was removed, and cannot be claimed again: ", KnStatusText(status)});
        return false;
    }
    namesDue = std::min(namesDue, now + NamePause);
    return true;
}

void Admission::Replace(std::uint64_t id, Listener& listener, std::unique_ptr<NamedSocket> next) {
    constexpr int most = 1024; // more than can wait there; if the socket was only moved, others may go on coming
    for (int i = 0; i < most && AcceptOne(id, listener.socket->Get()); ++i) {
    }
    poller.Unwatch(listener.socket->Get());
    listener.socket->Release(); // where it was moved to
    listener.socket = std::move(next);
    listener.missingSince.reset();
    WatchName(listener);
    Log(LogLevel::Warning, {"the name ", listener.socket->Name(), " was removed; it is restored"});
}

void Admission::WatchListeners(std::uint32_t events) const {
    for (const auto& [id, listener] : listeners) {
        poller.ChangeSocket(listener.socket->Get(), events, id);
    }
}

} // namespace borven_host
