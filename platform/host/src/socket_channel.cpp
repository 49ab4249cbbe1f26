#include "socket_channel.h"

#include "frame.h"
#include "guarded.h"
#include "kn/status.h"
#include "peer.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <system_error>
#include <unordered_map>
#include <vector>

namespace borven_host {

namespace {

using Record = std::array<std::byte, NkRecordSize>;

constexpr std::uint64_t wakeId = 0; ///< client ids begin with 1

nk_message& HeaderOf(Record& record) {
    return *reinterpret_cast<nk_message*>(record.data());
}

UniqueFd Checked(int fd) {
    UniqueFd owned(fd);
    if (!owned) {
        throw std::system_error(errno, std::generic_category());
    }
    return owned;
}

/// Returns: whether the other side of `socket` has ended it; only then is a read of no bytes not an empty record.
bool HasEnded(int socket) noexcept {
    pollfd ended{socket, POLLRDHUP, 0};
    return ::poll(&ended, 1, 0) == 1 && (ended.revents & (POLLRDHUP | POLLHUP | POLLERR)) != 0;
}

} // namespace

struct Channel::Client {
    Client(std::uint64_t number, const Screening& mayAsk) : id(number), screening(mayAsk) {}

    const std::uint64_t id;
    UniqueFd socket; ///< constant once the client is among the channel's
    const Screening screening;
};

struct Channel::State {
    explicit State(DeadClient reaction)
        : deadClient(reaction), poller(Checked(::epoll_create1(EPOLL_CLOEXEC))),
          wake(Checked(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))) {
        epoll_event event{EPOLLIN, {.u64 = wakeId}};
        if (::epoll_ctl(poller.Get(), EPOLL_CTL_ADD, wake.Get(), &event) != 0) {
            throw std::system_error(errno, std::generic_category());
        }
    }

    bool Arm(const Client& client, int operation) const noexcept {
        epoll_event event{EPOLLIN | EPOLLONESHOT, {.u64 = client.id}};
        return ::epoll_ctl(poller.Get(), operation, client.socket.Get(), &event) == 0;
    }

    /// Answers the client in place of a reply and lets it ask again.
    void Answer(const Client& client, std::int32_t status) const noexcept {
        if (SendAnswer(client.socket.Get(), status)) {
            Arm(client, EPOLL_CTL_MOD);
        } else {
            ::shutdown(client.socket.Get(), SHUT_RDWR);
        }
    }

    std::shared_ptr<Client> Find(std::uint64_t id) const {
        const std::lock_guard lock(mutex);
        const auto found = clients.find(id);
        return found == clients.end() ? nullptr : found->second;
    }

    const DeadClient deadClient;
    const UniqueFd poller;
    const UniqueFd wake; ///< readable for ever once the channel is closed
    std::atomic<bool> isClosed{false};
    mutable std::mutex mutex; ///< guards everything below
    std::unordered_map<std::uint64_t, std::shared_ptr<Client>> clients;
    std::uint64_t lastId = wakeId;
};

/// The requests that the calling thread has received and not answered: at most one for each channel.
struct Owed {
    struct Entry {
        std::shared_ptr<Channel::State> state;
        std::shared_ptr<Channel::Client> client;
    };

    Owed() = default;
    Owed(const Owed&) = delete;
    Owed& operator=(const Owed&) = delete;
    ~Owed() {
        if (owner != ::getpid()) {
            return; // a forked child owes nothing
        }
        for (const Entry& entry : entries) {
            entry.state->Answer(*entry.client, KnStatusAbandoned);
        }
    }

    /// Returns: the client to whom the thread owes a reply, no longer owed; null when there is none.
    std::shared_ptr<Channel::Client> Take(const std::shared_ptr<Channel::State>& state) noexcept {
        const auto found =
            std::find_if(entries.begin(), entries.end(), [&](const Entry& entry) { return entry.state == state; });
        if (found == entries.end()) {
            return nullptr;
        }
        auto client = std::move(found->client);
        *found = std::move(entries.back());
        entries.pop_back();
        return client;
    }

    static Owed& OfThisThread() {
        thread_local Owed owed;
        return owed;
    }

    const pid_t owner = ::getpid();
    std::vector<Entry> entries;
};

Channel::Channel(DeadClient deadClient) : state(std::make_shared<State>(deadClient)) {}

Channel::~Channel() {
    Close();
}

std::int32_t Channel::AddClient(UniqueFd&& socket, const Screening& screening, std::uint64_t* clientId) {
    const std::lock_guard lock(state->mutex);
    if (state->isClosed.load(std::memory_order_relaxed)) {
        return KnStatusClosed;
    }
    if (state->clients.size() >= maxClients) {
        return KnStatusBusy;
    }
    const auto client = std::make_shared<Client>(++state->lastId, screening);
    state->clients.emplace(client->id, client);
    client->socket = std::move(socket);
    std::int32_t status = state->Arm(*client, EPOLL_CTL_ADD) ? KnStatusOk : KnStatusNoResources;
    if (status == KnStatusOk && !SendAnswer(client->socket.Get(), KnStatusOk)) {
        ::epoll_ctl(state->poller.Get(), EPOLL_CTL_DEL, client->socket.Get(), nullptr);
        status = KnStatusPeerGone;
    }
    if (status != KnStatusOk) {
        socket = std::move(client->socket);
        state->clients.erase(client->id);
        return status;
    }
    *clientId = client->id;
    return KnStatusOk;
}

void Channel::RemoveClient(std::uint64_t clientId) noexcept {
    const std::lock_guard lock(state->mutex);
    const auto found = state->clients.find(clientId);
    if (found == state->clients.end()) {
        return;
    }
    const int socket = found->second->socket.Get();
    ::epoll_ctl(state->poller.Get(), EPOLL_CTL_DEL, socket, nullptr);
    ::shutdown(socket, SHUT_RDWR);
    state->clients.erase(found);
}

std::int32_t Channel::Receive(nk_message* request) noexcept {
    return Guarded([&]() -> std::int32_t {
        auto& owed = Owed::OfThisThread();
        if (const auto abandoned = owed.Take(state)) {
            state->Answer(*abandoned, KnStatusAbandoned);
        }
        // Reserved now, because a request that was taken must not be lost for want of memory.
        owed.entries.reserve(owed.entries.size() + 1);
        while (true) {
            epoll_event event{};
            if (::epoll_wait(state->poller.Get(), &event, 1, -1) != 1) {
                continue; // a signal
            }
            if (state->isClosed.load(std::memory_order_acquire)) {
                return KnStatusClosed;
            }
            const auto client = state->Find(event.data.u64);
            if (!client) {
                continue;
            }
            // Taken once into memory that no client can change; MSG_TRUNC tells the length that was sent.
            Record record;
            const ssize_t length = ::recv(client->socket.Get(), record.data(), record.size(), MSG_DONTWAIT | MSG_TRUNC);
            if (length < 0 && (errno == EINTR || errno == EAGAIN)) {
                state->Arm(*client, EPOLL_CTL_MOD);
                continue;
            }
            if (length < 0 || (length == 0 && HasEnded(client->socket.Get()))) {
                continue; // gone: not armed again, the housekeeper removes it
            }
            const std::int32_t status = static_cast<std::size_t>(length) == record.size()
                                            ? Screen(client->screening, HeaderOf(record))
                                            : KnStatusBadRecord;
            if (status != KnStatusOk) {
                state->Answer(*client, status);
                continue;
            }
            std::memcpy(request, record.data(), record.size());
            owed.entries.push_back({state, client});
            return KnStatusOk;
        }
    });
}

std::int32_t Channel::Reply(const nk_message* response) noexcept {
    const auto client = Owed::OfThisThread().Take(state);
    if (state->isClosed.load(std::memory_order_acquire)) {
        return KnStatusClosed;
    }
    if (!client) {
        return KnStatusInvalidArgument;
    }
    Record record{};
    const std::size_t used = std::clamp<std::size_t>(NkGetSize(*response), sizeof(nk_message), record.size());
    std::memcpy(record.data(), response, used);
    if (::send(client->socket.Get(), record.data(), record.size(), MSG_DONTWAIT | MSG_NOSIGNAL) ==
        static_cast<ssize_t>(record.size())) {
        state->Arm(*client, EPOLL_CTL_MOD);
        return KnStatusOk;
    }
    // Gone, or it leaves its replies unread: then it shall go.
    ::shutdown(client->socket.Get(), SHUT_RDWR);
    return state->deadClient == DeadClient::ReplyReportsIt ? KnStatusPeerGone : KnStatusOk;
}

void Channel::Close() noexcept {
    const std::lock_guard lock(state->mutex);
    if (state->isClosed.exchange(true, std::memory_order_acq_rel)) {
        return;
    }
    const std::uint64_t one = 1;
    static_cast<void>(::write(state->wake.Get(), &one, sizeof one));
    for (const auto& [id, client] : state->clients) {
        ::epoll_ctl(state->poller.Get(), EPOLL_CTL_DEL, client->socket.Get(), nullptr);
        ::shutdown(client->socket.Get(), SHUT_RDWR);
    }
    state->clients.clear();
}

std::size_t Channel::ClientCount() const noexcept {
    const std::lock_guard lock(state->mutex);
    return state->clients.size();
}

namespace {

enum class Arrival { Ready, TimedOut };

/// Blocks until `socket` can be read, its server's process is gone, or the deadline. Returns at once with Ready when
/// reading will tell what happened.
Arrival Await(int socket, int process, Deadline deadline) noexcept {
    std::array<pollfd, 2> waited{pollfd{socket, POLLIN, 0}, pollfd{process, POLLIN, 0}};
    while (true) {
        const int count = ::poll(waited.data(), waited.size(), PollTimeout(deadline));
        if (count > 0) {
            return Arrival::Ready;
        }
        if (count == 0 && std::chrono::steady_clock::now() >= deadline) {
            return Arrival::TimedOut;
        }
    }
}

/// Returns: the length of the message, 0 when there will be none.
std::size_t Take(int socket, void* buffer, std::size_t size) noexcept {
    while (true) {
        const ssize_t length = ::recv(socket, buffer, size, MSG_DONTWAIT | MSG_TRUNC);
        if (length >= 0) {
            return static_cast<std::size_t>(length);
        }
        // A server that closed without reading what we sent: the kernel says so once, before the answer that it left.
        if (errno != EINTR && errno != ECONNRESET) {
            return 0;
        }
    }
}

} // namespace

std::int32_t Connection::Join(UniqueFd socket, Deadline deadline, std::shared_ptr<Connection>& connection) {
    Peer server;
    if (const auto status = IdentifyPeer(socket.Get(), server); status != KnStatusOk) {
        return status == KnStatusPeerGone ? KnStatusClosed : status;
    }
    if (Await(socket.Get(), server.process.Get(), deadline) == Arrival::TimedOut) {
        return KnStatusTimedOut;
    }
    Answer answer{};
    const std::size_t length = Take(socket.Get(), &answer, sizeof answer);
    if (length == 0) {
        return KnStatusClosed;
    }
    if (length != sizeof answer || !IsValid(answer)) {
        return KnStatusDenied; // whoever listens there does not speak this protocol
    }
    if (answer.status == KnStatusOk) {
        connection.reset(new Connection(std::move(socket), std::move(server.process)));
    }
    return answer.status;
}

std::int32_t Connection::Call(const nk_message* request, nk_message* response) noexcept {
    const std::lock_guard lock(callMutex);
    if (isClosed.load(std::memory_order_acquire)) {
        return KnStatusClosed;
    }
    while (::send(socket.Get(), request, NkRecordSize, MSG_NOSIGNAL) < 0) {
        if (errno != EINTR) {
            Close();
            return KnStatusClosed;
        }
    }
    Await(socket.Get(), serverProcess.Get(), Deadline::max());
    Record record;
    const std::size_t length = Take(socket.Get(), record.data(), record.size());
    if (length == record.size()) {
        std::memcpy(response, record.data(), record.size());
        return KnStatusOk;
    }
    if (length == sizeof(Answer)) {
        Answer answer{};
        std::memcpy(&answer, record.data(), sizeof answer);
        if (IsValid(answer) && answer.status != KnStatusOk) {
            return answer.status;
        }
    }
    Close();
    return length == 0 ? KnStatusClosed : KnStatusBadRecord;
}

void Connection::Close() noexcept {
    isClosed.store(true, std::memory_order_release);
    ::shutdown(socket.Get(), SHUT_RDWR);
}

} // namespace borven_host
