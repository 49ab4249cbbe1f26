#include "joining/housekeeper.h"

#include "base/log.h"
#include "base/thread_name.h"
#include "kn/connection_manager.h"
#include "kn/status.h"
#include "names/handshake.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <poll.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <system_error>
#include <utility>

namespace borven_host {

using bos::logger::LogLevel;

namespace {

// Event data: an id, shifted, and whether the event is the process's or the socket's.
constexpr std::uint64_t wakeData = 0;

constexpr std::uint64_t SocketData(std::uint64_t id) {
    return id << 1;
}

constexpr std::uint64_t ProcessData(std::uint64_t id) {
    return id << 1 | 1;
}

constexpr std::uint32_t leavingEvents = EPOLLRDHUP | EPOLLHUP | EPOLLERR;

UniqueFd Checked(int fd) {
    UniqueFd owned(fd);
    if (!owned) {
        throw std::system_error(errno, std::generic_category());
    }
    return owned;
}

UniqueFd OpenReserve() {
    return UniqueFd(::open("/dev/null", O_RDONLY | O_CLOEXEC));
}

/// What the system calls the process; letters that could confuse a log or a name are replaced.
std::string TaskNameOf(pid_t pid) {
    const UniqueFd file(::open(("/proc/" + std::to_string(pid) + "/comm").c_str(), O_RDONLY | O_CLOEXEC));
    std::array<char, 32> buffer{};
    const ssize_t length = file ? ::read(file.Get(), buffer.data(), buffer.size()) : 0;
    std::string name(buffer.data(), static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
    while (!name.empty() && name.back() == '\n') {
        name.pop_back();
    }
    for (char& c : name) {
        if (std::isalnum(static_cast<unsigned char>(c)) == 0 && c != '.' && c != '_') {
            c = '_';
        }
    }
    return name.empty() ? "unknown" : name;
}

void CopyName(std::string_view name, char* buffer) {
    const std::size_t length = std::min(name.size(), KnCmNameSize - 1);
    std::copy_n(name.data(), length, buffer);
    buffer[length] = '\0';
}

bool IsReadable(int fd) {
    pollfd waited{fd, POLLIN, 0};
    return fd >= 0 && ::poll(&waited, 1, 0) == 1;
}

} // namespace

Housekeeper& Housekeeper::Instance() {
    static Housekeeper& housekeeper = *new Housekeeper;
    return housekeeper;
}

Housekeeper::Housekeeper() {
    // What registers last is locked first by fork, and the logger is locked inside of these locks.
    static_cast<void>(bos::logger::BOSLogger::RootLogger());
    ::pthread_atfork(
        [] {
            Instance().lifeMutex.lock();
            Instance().mutex.lock();
        },
        [] {
            Instance().mutex.unlock();
            Instance().lifeMutex.unlock();
        },
        [] {
            Instance().LeaveToParent();
            Instance().mutex.unlock();
            Instance().lifeMutex.unlock();
        });
}

/// In a forked child: keeps no name alive, and touches nothing that is still shared with the parent.
void Housekeeper::LeaveToParent() {
    struct Inherited {
        std::thread thread;
        Visitors visitors;
        UniqueFd poller;
    };
    static std::vector<Inherited>& inherited = *new std::vector<Inherited>;
    inherited.push_back({std::move(thread), std::exchange(visitors, {}), std::move(poller)});
    listeners.clear();
    greeting.clear();
    asking.clear();
    wake.Reset();
    reserve.Reset();
}

std::int32_t Housekeeper::Offer(std::string_view name, std::shared_ptr<Channel> channel) {
    Listener listener;
    listener.channel = std::move(channel);
    const auto status = NamedSocket::Create(NameKind::Static, name, listener.socket);
    if (status == KnStatusOk) {
        Add(std::move(listener));
    }
    return status;
}

std::int32_t Housekeeper::Publish(std::string_view service, std::string_view type) {
    Listener listener;
    listener.service = service;
    listener.type = type;
    const auto status = NamedSocket::Create(NameKind::Service, service, listener.socket);
    if (status == KnStatusOk) {
        Add(std::move(listener));
    }
    return status;
}

void Housekeeper::Add(Listener listener) {
    const std::lock_guard life(lifeMutex);
    Start();
    const std::lock_guard lock(mutex);
    const std::uint64_t id = ++lastId;
    const int fd = listener.socket->Get();
    isClosed = isClosed && listener.channel != nullptr;
    listeners.emplace(id, std::move(listener));
    if (!Watch(fd, EPOLLIN, SocketData(id), EPOLL_CTL_ADD)) {
        listeners.erase(id);
        throw std::system_error(errno, std::generic_category());
    }
}

void Housekeeper::Start() {
    if (thread.joinable()) {
        return;
    }
    poller = Checked(::epoll_create1(EPOLL_CLOEXEC));
    wake = Checked(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    reserve = OpenReserve();
    isStopping = false;
    admissionPausedUntil.reset();
    nextPause = {};
    if (!Watch(wake.Get(), EPOLLIN, wakeData, EPOLL_CTL_ADD)) {
        throw std::system_error(errno, std::generic_category());
    }
    // The program's signals are for the program's threads.
    sigset_t all;
    sigset_t before;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &before);
    try {
        thread = std::thread([this] { Run(); });
    } catch (...) {
        ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
        throw;
    }
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    NamePlatformThread(thread, "borven-house");
}

void Housekeeper::StopWhenIdle() {
    {
        const std::lock_guard lock(mutex);
        if (!thread.joinable() || !listeners.empty() || !visitors.empty()) {
            return;
        }
        isStopping = true;
        const std::uint64_t one = 1;
        static_cast<void>(::write(wake.Get(), &one, sizeof one));
    }
    thread.join();
    poller.Reset();
    wake.Reset();
    reserve.Reset();
}

std::int32_t Housekeeper::Listen(std::optional<std::string_view> task, Deadline deadline, char* clientName,
                                 char* serviceName) {
    std::unique_lock lock(mutex);
    const std::uint64_t closingsBefore = closings;
    bool isLate = false;
    while (true) {
        if (isClosed || closings != closingsBefore) {
            return KnStatusClosed;
        }
        for (const std::uint64_t id : asking) {
            Visitor& visitor = visitors.at(id);
            if (visitor.stage == Stage::Asking && (!task || *task == visitor.task)) {
                visitor.stage = Stage::Announced;
                CopyName(visitor.name, clientName);
                CopyName(listeners.at(visitor.listenerId).service, serviceName);
                return KnStatusOk;
            }
        }
        if (isLate) {
            return KnStatusTimedOut;
        }
        if (deadline == Deadline::max()) {
            asked.wait(lock);
        } else {
            isLate = asked.wait_until(lock, deadline) == std::cv_status::timeout;
        }
    }
}

std::int32_t Housekeeper::Accept(std::string_view clientName, std::string_view service, std::uint16_t iid,
                                 const std::shared_ptr<Channel>& channel, std::int32_t refusal) {
    const std::lock_guard lock(mutex);
    const auto found = std::find_if(asking.begin(), asking.end(), [&](std::uint64_t id) {
        const Visitor& visitor = visitors.at(id);
        return visitor.stage != Stage::Asking && visitor.name == clientName &&
               listeners.at(visitor.listenerId).service == service;
    });
    if (found == asking.end()) {
        return KnStatusNotFound;
    }
    const auto visitor = visitors.find(*found);
    if (visitor->second.stage == Stage::Left || IsReadable(visitor->second.peer.process.Get())) {
        Forget(visitor);
        return KnStatusPeerGone;
    }
    if (!channel) {
        Refuse(visitor, refusal);
        return refusal;
    }
    const RequestFilter filter{iid, DeclaredMethodCount(listeners.at(visitor->second.listenerId).type)};
    return Join(visitor, channel, filter);
}

void Housekeeper::Close(const std::shared_ptr<Channel>& channel) {
    const std::lock_guard life(lifeMutex);
    Listener closed; // gives up its name without the lock
    {
        const std::lock_guard lock(mutex);
        CloseNow(*channel);
        const auto found = std::find_if(listeners.begin(), listeners.end(),
                                        [&](const auto& entry) { return entry.second.channel == channel; });
        if (found != listeners.end()) {
            for (auto visitor = visitors.begin(); visitor != visitors.end();) {
                const auto current = visitor++;
                if (current->second.listenerId == found->first) {
                    Refuse(current, KnStatusClosed);
                }
            }
            ::epoll_ctl(poller.Get(), EPOLL_CTL_DEL, found->second.socket->Get(), nullptr);
            closed = std::move(found->second);
            listeners.erase(found);
        }
    }
    closed.socket.reset();
    StopWhenIdle();
}

void Housekeeper::CloseAll(const std::vector<std::shared_ptr<Channel>>& channels) {
    const std::lock_guard life(lifeMutex);
    std::unordered_map<std::uint64_t, Listener> closed; // give up their names without the lock
    {
        const std::lock_guard lock(mutex);
        for (const auto& channel : channels) {
            CloseNow(*channel);
        }
        while (!visitors.empty()) {
            Refuse(visitors.begin(), KnStatusClosed);
        }
        for (const auto& [id, listener] : listeners) {
            ::epoll_ctl(poller.Get(), EPOLL_CTL_DEL, listener.socket->Get(), nullptr);
        }
        closed = std::exchange(listeners, {});
        isClosed = true;
        ++closings;
        asked.notify_all();
    }
    closed.clear();
    StopWhenIdle();
}

/// The watches go first: once the channel has closed its sockets, their numbers may name others.
void Housekeeper::CloseNow(Channel& channel) {
    for (auto visitor = visitors.begin(); visitor != visitors.end();) {
        const auto current = visitor++;
        if (current->second.channel.get() == &channel) {
            Forget(current);
        }
    }
    channel.Close();
}

void Housekeeper::Run() {
    std::array<epoll_event, 64> events{};
    int timeout = -1;
    while (true) {
        const int count = ::epoll_wait(poller.Get(), events.data(), static_cast<int>(events.size()), timeout);
        const std::lock_guard lock(mutex);
        if (isStopping) {
            return;
        }
        try {
            for (int i = 0; i < count; ++i) {
                Handle(events[static_cast<std::size_t>(i)].data.u64, events[static_cast<std::size_t>(i)].events);
            }
            Expire();
        } catch (const std::exception& error) {
            Log(LogLevel::Error, {"a client was lost: ", error.what()});
        }
        timeout = NextTimeout();
    }
}

void Housekeeper::Handle(std::uint64_t eventData, std::uint32_t events) {
    const std::uint64_t id = eventData >> 1;
    if (const auto listener = listeners.find(id); listener != listeners.end()) {
        Admit(id, listener->second.socket->Get());
        return;
    }
    // An event of this batch may name a visitor that an earlier one has ended.
    const auto visitor = visitors.find(id);
    if (visitor == visitors.end()) {
        return;
    }
    if (eventData == ProcessData(id) || (events & leavingEvents) != 0) {
        SeeLeaving(visitor);
    } else if (visitor->second.stage == Stage::Greeting) {
        ReadGreeting(visitor);
    }
}

void Housekeeper::Admit(std::uint64_t listenerId, int listening) {
    constexpr int atOnce = 16; // then it is the turn of those who leave
    for (int i = 0; i < atOnce; ++i) {
        UniqueFd socket(::accept4(listening, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (socket) {
            nextPause = {};
            Welcome(listenerId, std::move(socket));
            continue;
        }
        switch (errno) {
        case EINTR:
        case ECONNABORTED:
            continue;
        case EAGAIN:
            return;
        case EMFILE:
        case ENFILE:
            TurnAway(listening);
            return;
        default:
            PauseAdmission();
            return;
        }
    }
}

/// There is no descriptor left to accept with: answers one client by means of the reserve.
void Housekeeper::TurnAway(int listening) {
    reserve.Reset();
    {
        const UniqueFd socket(::accept4(listening, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (socket) {
            SendAnswer(socket.Get(), KnStatusNoResources);
        }
    }
    reserve = OpenReserve();
    if (!reserve) {
        PauseAdmission(); // somebody else took it; a listener that cannot be served would keep this thread busy
    }
}

void Housekeeper::ArmListeners(std::uint32_t events) {
    for (const auto& [id, listener] : listeners) {
        Watch(listener.socket->Get(), events, SocketData(id), EPOLL_CTL_MOD);
    }
}

void Housekeeper::PauseAdmission() {
    using std::chrono::milliseconds;
    nextPause = std::clamp(nextPause * 2, milliseconds(10), milliseconds(1000));
    admissionPausedUntil = std::chrono::steady_clock::now() + nextPause;
    ArmListeners(0);
}

void Housekeeper::Welcome(std::uint64_t listenerId, UniqueFd socket) {
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    // The kernel gives the lowest number that is free, so a high one means that nearly all are in use.
    if (static_cast<rlim_t>(socket.Get()) + descriptorReserve >= limit.rlim_cur) {
        SendAnswer(socket.Get(), KnStatusNoResources);
        return;
    }
    Peer peer;
    if (const auto status = IdentifyPeer(socket.Get(), peer); status != KnStatusOk) {
        SendAnswer(socket.Get(), status);
        return;
    }
    if (greeting.size() >= maxGreeting) {
        Refuse(visitors.find(greeting.front()), KnStatusBusy);
    }
    const std::uint64_t id = ++lastId;
    const auto visitor = visitors.try_emplace(id).first;
    visitor->second.listenerId = listenerId;
    visitor->second.peer = std::move(peer);
    visitor->second.watched = socket.Get();
    visitor->second.socket = std::move(socket);
    visitor->second.deadline = std::chrono::steady_clock::now() + greetingTime;
    greeting.push_back(id);
    const int process = visitor->second.peer.process.Get();
    if (!Watch(visitor->second.watched, EPOLLIN | EPOLLRDHUP, SocketData(id), EPOLL_CTL_ADD) ||
        (process >= 0 && !Watch(process, EPOLLIN, ProcessData(id), EPOLL_CTL_ADD))) {
        Refuse(visitor, KnStatusNoResources);
        return;
    }
    ReadGreeting(visitor);
}

void Housekeeper::ReadGreeting(Visitors::iterator visitor) {
    Greeting word{};
    const ssize_t length = ::recv(visitor->second.socket.Get(), &word, sizeof word, MSG_DONTWAIT | MSG_TRUNC);
    if (length < 0 && (errno == EAGAIN || errno == EINTR)) {
        return;
    }
    if (length != sizeof word || !IsValid(word)) {
        Refuse(visitor, KnStatusDenied);
        return;
    }
    const Listener& listener = listeners.at(visitor->second.listenerId);
    if (listener.channel) {
        Join(visitor, listener.channel, {});
    } else {
        Ask(visitor, listener);
    }
}

void Housekeeper::Ask(Visitors::iterator visitor, const Listener& listener) {
    auto& [id, asker] = *visitor;
    std::size_t sameService = 0;
    std::size_t sameProcess = 0;
    for (const std::uint64_t otherId : asking) {
        const Visitor& other = visitors.at(otherId);
        sameService += other.listenerId == asker.listenerId ? 1 : 0;
        sameProcess += other.peer.pid == asker.peer.pid ? 1 : 0;
    }
    if (sameService >= maxAskingPerService || sameProcess >= maxAskingPerProcess ||
        !Watch(asker.watched, EPOLLRDHUP, SocketData(id), EPOLL_CTL_MOD)) {
        Log(LogLevel::Warning, {"too many clients ask for ", listener.service, " and wait to be accepted"});
        Refuse(visitor, KnStatusBusy);
        return;
    }
    asker.task = TaskNameOf(asker.peer.pid);
    asker.name = asker.task + '-' + std::to_string(asker.peer.pid) + '-' + std::to_string(id);
    asking.push_back(id);
    std::erase(greeting, id);
    asker.stage = Stage::Asking;
    asker.deadline = Deadline::max();
    asked.notify_all();
}

std::int32_t Housekeeper::Join(Visitors::iterator visitor, const std::shared_ptr<Channel>& channel,
                               const RequestFilter& filter) {
    auto& [id, joining] = *visitor;
    std::int32_t status = KnStatusNoResources;
    if (Watch(joining.watched, EPOLLRDHUP, SocketData(id), EPOLL_CTL_MOD)) {
        status = channel->AddClient(std::move(joining.socket), filter, &joining.clientId);
    }
    if (status != KnStatusOk) {
        Refuse(visitor, status);
        return status;
    }
    std::erase(greeting, id);
    std::erase(asking, id);
    joining.channel = channel;
    joining.stage = Stage::Joined;
    joining.deadline = Deadline::max();
    return KnStatusOk;
}

void Housekeeper::SeeLeaving(Visitors::iterator visitor) {
    auto& [id, leaving] = *visitor;
    if (leaving.stage == Stage::Left) {
        return; // its socket and its process may tell in one batch
    }
    if (leaving.stage == Stage::Announced) {
        Unwatch(leaving);
        leaving.stage = Stage::Left;
        leaving.socket.Reset();
        leaving.peer.process.Reset();
        leaving.deadline = std::chrono::steady_clock::now() + leftTime;
        return;
    }
    const auto channel = leaving.channel;
    const std::uint64_t clientId = leaving.clientId;
    Forget(visitor);
    if (channel) {
        channel->RemoveClient(clientId);
    }
}

void Housekeeper::Refuse(Visitors::iterator visitor, std::int32_t status) {
    if (visitor->second.socket) {
        SendAnswer(visitor->second.socket.Get(), status);
    }
    Forget(visitor);
}

void Housekeeper::Forget(Visitors::iterator visitor) {
    Unwatch(visitor->second);
    std::erase(greeting, visitor->first);
    std::erase(asking, visitor->first);
    visitors.erase(visitor);
}

void Housekeeper::Unwatch(const Visitor& visitor) noexcept {
    if (visitor.stage != Stage::Left) {
        ::epoll_ctl(poller.Get(), EPOLL_CTL_DEL, visitor.watched, nullptr);
        if (visitor.peer.process) {
            ::epoll_ctl(poller.Get(), EPOLL_CTL_DEL, visitor.peer.process.Get(), nullptr);
        }
    }
}

bool Housekeeper::Watch(int fd, std::uint32_t events, std::uint64_t eventData, int operation) noexcept {
    epoll_event event{events, {.u64 = eventData}};
    return ::epoll_ctl(poller.Get(), operation, fd, &event) == 0;
}

int Housekeeper::NextTimeout() const {
    Deadline next = admissionPausedUntil.value_or(Deadline::max());
    if (!greeting.empty()) {
        next = std::min(next, visitors.at(greeting.front()).deadline);
    }
    for (const std::uint64_t id : asking) {
        next = std::min(next, visitors.at(id).deadline);
    }
    return PollTimeout(next);
}

void Housekeeper::Expire() {
    const auto now = std::chrono::steady_clock::now();
    if (admissionPausedUntil && *admissionPausedUntil <= now) {
        admissionPausedUntil.reset();
        ArmListeners(EPOLLIN);
    }
    while (!greeting.empty() && visitors.at(greeting.front()).deadline <= now) {
        Refuse(visitors.find(greeting.front()), KnStatusTimedOut);
    }
    for (std::size_t i = 0; i < asking.size();) {
        const auto visitor = visitors.find(asking[i]);
        if (visitor->second.deadline <= now) {
            Forget(visitor);
        } else {
            ++i;
        }
    }
}

} // namespace borven_host
