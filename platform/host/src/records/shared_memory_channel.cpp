#include "records/shared_memory_channel.h"

#include "base/no_throw.h"
#include "kn/status.h"
#include "names/handshake.h"
#include "records/adaptive_spin.h"
#include "records/event_fd.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <poll.h>
#include <sys/socket.h>
#include <system_error>
#include <unordered_map>
#include <vector>

// The slot and doorbell protocol. ../model/slot.pml is the same for the model checker spin.
//
// A client has one slot, in a page that only it and the server have. Calls on a connection take turns, so the slot is
// always in one of these states, and each step has one owner:
//
//     free -> claimed     client   takes the connection's mutex, puts the record in
//     claimed -> ready    client   request.word = the next sequence number
//     ready -> taken      server   compare-and-swap of Client::turn, which no client can reach: one receiver wins
//     taken -> replied    server   the thread that took it: record in, turn, reply.word = the sequence number
//     replied -> free     client   copies the record out, releases the mutex
//
// The server believes its own Client::turn and nothing in the page. Of the client's words it uses a sequence number,
// which must be the next one or the last one, a mask of pieces, of which every value is good, and a hint whether the
// client sleeps. A record is copied once, and the copy is screened and used. So a client that scribbles harms itself.
//
// Who wakes whom:
//
// - A client rings its bell, an event descriptor in the channel's epoll instance, unless the hint reply.hint says that
// a
//   receiver looks at its slot anyway; then it spins. The hint may be stale (a receiver leaves it set when it goes away
//   with a request, since mostly it is back before the next), so a client that stops spinning rings before it sleeps.
//   The bell says all there is to say: one ring, one look at that client. Each event is given to one receiver, in the
//   order of the rings, which is also what keeps the clients' turns fair.
// - A client says in request.hint that it sleeps, then looks for its reply; the server replies, then looks at
//   request.hint. Both in sequentially consistent order, so one of the two sees the other. It sleeps on its doorbell,
//   its socket and the server's process, so that the server's end wakes it as well.
// - Among the receivers one at a time has the role of the poller. Only it spins, over the clients that were active
//   lately, and only while that has paid; the others, and it when it gives up, sleep in the kernel. A poller that finds
//   a request goes away with it. If another request is visible then, and a receiver asleep, it wakes one; a receiver
//   that comes to sleep counts itself first and then looks whether the role is free, so one of the two sees the other.
//
// Nothing has a period: no wait ends by itself. While a request is ready, its client is awake (spinning, and about to
// ring), or its event is pending in the kernel, where every receiver that comes to sleep finds it.
//
// The death of a client: the housekeeper calls RemoveClient. Free, claimed, ready and replied slots are forgotten; a
// taken one is replied to by its thread, into memory that nobody reads, and goes with that thread's reference.
// The death of the server: the kernel ends the sockets; a client looks for its reply once more and gives up.

namespace borven_host {

namespace {

/// How long the poller looks after the last request. A client that slept needs most of that to come back.
constexpr std::chrono::microseconds spinLimit{50};

/// Requests that come closer than this are worth waiting for awake.
constexpr std::chrono::microseconds shortGap{100};
constexpr std::uint32_t shortGapsWanted = 2;

/// A client that spins for its reply has gone to sleep after so long.
constexpr std::chrono::microseconds clientSpins{20};

constexpr std::size_t maxRecent = 16; ///< clients that the poller looks at; a round costs a cache line each
constexpr int looksPerKernel = 64;    ///< after which those who ring are asked, so that pollees cannot starve them
constexpr std::uint32_t ringsForFree = 64;

constexpr std::uint64_t closedData = 0; ///< client ids begin with 2
constexpr std::uint64_t kickData = 1;

UniqueFd Checked(UniqueFd fd) {
    if (!fd) {
        throw std::system_error(errno, std::generic_category());
    }
    return fd;
}

/// Who has taken the last request of a client, and whether its reply is still owed.
class Turn final {
public:
    constexpr Turn(std::uint32_t sequence, bool isTaken) : bits(std::uint64_t{sequence} << 1 | (isTaken ? 1 : 0)) {}
    constexpr explicit Turn(std::uint64_t raw) : bits(raw) {}

    constexpr std::uint32_t Sequence() const { return static_cast<std::uint32_t>(bits >> 1); }
    constexpr bool IsTaken() const { return (bits & 1) != 0; }
    constexpr std::uint64_t Raw() const { return bits; }

private:
    std::uint64_t bits;
};

/// Sends the answer that joins a client, with its ends. Returns: 0; KnStatusPeerGone; KnStatusNoResources.
std::int32_t SendEnds(int socket, const UniqueFd& file, const SharedMemoryEnds& ends) noexcept {
    Answer answer = MakeAnswer(KnStatusOk);
    const std::array<int, 3> descriptors{file.Get(), ends.bell.Get(), ends.doorbell.Get()};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof descriptors)> control{};
    iovec content{&answer, sizeof answer};
    msghdr message{};
    message.msg_iov = &content;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    cmsghdr* const part = CMSG_FIRSTHDR(&message);
    part->cmsg_level = SOL_SOCKET;
    part->cmsg_type = SCM_RIGHTS;
    part->cmsg_len = CMSG_LEN(sizeof descriptors);
    std::memcpy(CMSG_DATA(part), descriptors.data(), sizeof descriptors);
    if (::sendmsg(socket, &message, MSG_DONTWAIT | MSG_NOSIGNAL) == sizeof answer) {
        return KnStatusOk;
    }
    return errno == EPIPE || errno == ECONNRESET || errno == EAGAIN ? KnStatusPeerGone : KnStatusNoResources;
}

/// Returns: whether the other side of `socket` has ended it.
bool HasEnded(int socket) noexcept {
    pollfd ended{socket, POLLRDHUP, 0};
    return ::poll(&ended, 1, 0) == 1;
}

} // namespace

struct Channel::Client {
    Client(std::uint64_t number, const RequestFilter& mayAsk, SharedMemoryEnds given)
        : id(number), filter(mayAsk), shared(std::move(given)) {}

    SharedSlot& Slot() const noexcept { return shared.region.Slot(); }

    bool HasRequest() const noexcept {
        const Turn now(turn.load(std::memory_order_acquire));
        return !now.IsTaken() &&
               SlotWord(Slot().request.word.load(std::memory_order_seq_cst)).Sequence() != now.Sequence();
    }

    /// Ends the reply's half of a call: what was put into the slot becomes visible to the client.
    void Publish(SlotWord word) noexcept {
        turn.store(Turn(word.Sequence(), false).Raw(), std::memory_order_release);
        Slot().reply.word.store(word.Raw(), std::memory_order_seq_cst);
        if (IsAsleep(word.Sequence())) {
            Ring(shared.doorbell);
        }
    }

    /// Answers in place of a reply; one who is gone has been told so by its socket, and shall hear nothing else.
    void Answer(std::int32_t status) noexcept {
        if (isGone.load(std::memory_order_acquire)) {
            return;
        }
        Publish(SlotWord::WithStatus(Turn(turn.load(std::memory_order_relaxed)).Sequence(), status));
    }

    bool IsAsleep(std::uint32_t sequence) const noexcept {
        return Slot().request.hint.load(std::memory_order_seq_cst) == sequence;
    }

    /// Leaves it to the housekeeper, which notices as it notices death.
    void End() noexcept {
        isGone.store(true, std::memory_order_release);
        ::shutdown(socket.Get(), SHUT_RDWR);
    }

    const std::uint64_t id;
    const RequestFilter filter;
    UniqueFd socket; ///< set under the channel's mutex, before the client is found there
    const SharedMemoryEnds shared;
    std::atomic<std::uint64_t> turn{0};
    std::atomic<bool> isGone{false};
    std::atomic<std::uint32_t> rings{0};      ///< since the last request
    std::atomic<SteadyClock::rep> takenAt{0}; ///< only where a reply reports a dead client
};

struct Channel::State {
    explicit State(DeadClient reaction)
        : deadClient(reaction), poller(Checked(UniqueFd(::epoll_create1(EPOLL_CLOEXEC)))),
          closed(Checked(UniqueFd(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)))), kick(Checked(MakeBell())) {
        recent.reserve(maxRecent);
        if (!Watch(poller, closed.Get(), EPOLLIN, closedData) ||
            !Watch(poller, kick.Get(), EPOLLIN | EPOLLET, kickData)) {
            throw std::system_error(errno, std::generic_category());
        }
    }

    std::int32_t Add(UniqueFd&& socket, SharedMemoryEnds&& ends, const UniqueFd* file, const RequestFilter& filter,
                     std::uint64_t* clientId);
    bool Take(Client& client, nk_message* request) const noexcept;
    std::shared_ptr<Client> TakeRung(nk_message* request, int timeoutMs) noexcept;
    std::shared_ptr<Client> Sleep(nk_message* request) noexcept;

    std::shared_ptr<Client> Find(std::uint64_t id) const {
        const std::lock_guard lock(mutex);
        const auto found = clients.find(id);
        return found == clients.end() ? nullptr : found->second;
    }

    void ForgetGone() noexcept;

    const DeadClient deadClient;
    const UniqueFd poller;
    const UniqueFd closed; ///< readable for ever once the channel is closed
    const UniqueFd kick;   ///< wakes one receiver to look at all recent clients
    std::atomic<bool> isClosed{false};
    std::atomic<std::uint32_t> sleepers{0};
    std::atomic<SteadyClock::rep> lastArrival{0};
    std::atomic<std::size_t> clientCount{0};
    std::atomic<bool> hasGone{false};  ///< somebody among the recent is gone
    std::atomic<bool> isPolled{false}; ///< the recent clients have been told that they need not ring; set in the role

    std::atomic<bool> roleTaken{false}; ///< guards, as a lock that nobody waits for:
    std::vector<std::shared_ptr<Client>> recent;
    std::size_t nextRecent = 0;
    std::uint32_t shortGaps = 0;
    int looks = 0;
    SpinLearner learner;

    mutable std::mutex mutex; ///< guards everything below
    std::unordered_map<std::uint64_t, std::shared_ptr<Client>> clients;
    std::uint64_t lastId = kickData;
};

/// The requests that the calling thread has received and not answered: at most one for each channel.
struct Owed {
    struct Entry {
        const void* state; ///< compared only; the client's channel may be gone
        std::shared_ptr<Channel::Client> client;
    };

    ~Owed() {
        if (owner != ::getpid()) {
            return; // a forked child owes nothing
        }
        for (const Entry& entry : entries) {
            entry.client->Answer(KnStatusAbandoned);
        }
    }

    /// Returns: the client to whom the thread owes a reply, no longer owed; null when there is none.
    std::shared_ptr<Channel::Client> Take(const void* state) noexcept {
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

/// The right to look at the slots of the recent clients and to spin. Never waited for.
class Channel::PollerRole final {
public:
    explicit PollerRole(State& served) noexcept
        : state(served), isHeld(!state.roleTaken.load(std::memory_order_relaxed) &&
                                !state.roleTaken.exchange(true, std::memory_order_seq_cst)) {}

    ~PollerRole() { Leave(); }

    PollerRole(const PollerRole&) = delete;
    PollerRole& operator=(const PollerRole&) = delete;

    explicit operator bool() const noexcept { return isHeld; }

    /// Looks for a request, and spins for one if that is worthwhile. Returns: its client, or null.
    std::shared_ptr<Client> Poll(nk_message* request) noexcept {
        if (state.isPolled.load(std::memory_order_relaxed)) {
            if (auto client = Scan(request)) {
                state.learner.Succeeded();
                return client;
            }
        } else if (state.recent.empty() || state.shortGaps < shortGapsWanted || !state.learner.IsWorthwhile()) {
            return nullptr;
        }
        Tell(1);
        std::shared_ptr<Client> client;
        SpinUntil(spinLimit, state.learner, [&] {
            client = Scan(request);
            return client || state.isClosed.load(std::memory_order_relaxed);
        });
        if (client) {
            state.learner.Succeeded();
            return client;
        }
        state.learner.Failed();
        // Told, then looked once more: a client publishes, then looks whether it was told.
        Tell(0);
        client = Scan(request);
        state.recent.clear();
        return client;
    }

    /// A client has rung and was served: it is looked at from now on.
    void Learn(const std::shared_ptr<Client>& client, SteadyClock::duration gap) noexcept {
        state.shortGaps = gap < shortGap ? std::min(state.shortGaps + 1, shortGapsWanted) : 0;
        auto& recent = state.recent;
        if (std::find(recent.begin(), recent.end(), client) != recent.end()) {
            return;
        }
        if (recent.size() < maxRecent) {
            recent.push_back(client);
        } else {
            auto& replaced = recent[state.nextRecent % maxRecent];
            replaced->Slot().reply.hint.store(0, std::memory_order_seq_cst);
            replaced = client;
        }
        if (state.isPolled.load(std::memory_order_relaxed)) {
            client->Slot().reply.hint.store(1, std::memory_order_relaxed);
        }
    }

    /// Returns: whether a recent client has a request that nobody has taken.
    bool SeesRequest() const noexcept {
        return std::any_of(state.recent.begin(), state.recent.end(),
                           [](const auto& client) { return client->HasRequest(); });
    }

    std::size_t RecentCount() const noexcept { return state.recent.size(); }

    void Leave() noexcept {
        while (isHeld) {
            state.roleTaken.store(false, std::memory_order_seq_cst);
            isHeld = state.hasGone.load(std::memory_order_seq_cst) &&
                     !state.roleTaken.exchange(true, std::memory_order_seq_cst);
            if (isHeld) {
                ForgetGone();
            }
        }
    }

private:
    /// Tells the recent clients whether they are looked at.
    void Tell(std::uint32_t hint) noexcept {
        if (state.isPolled.load(std::memory_order_relaxed) == (hint != 0)) {
            return;
        }
        for (const auto& client : state.recent) {
            client->Slot().reply.hint.store(hint, std::memory_order_seq_cst);
        }
        state.isPolled.store(hint != 0, std::memory_order_relaxed);
    }

    /// One round over the recent clients, from the one after the last that had a request.
    std::shared_ptr<Client> Scan(nk_message* request) noexcept {
        if (++state.looks >= looksPerKernel) {
            state.looks = 0;
            if (state.clientCount.load(std::memory_order_relaxed) > state.recent.size()) {
                if (auto client = state.TakeRung(request, 0)) {
                    Learn(client, SteadyClock::duration::zero());
                    return client;
                }
            }
        }
        for (std::size_t i = 0; i < state.recent.size(); ++i) {
            const std::size_t index = (state.nextRecent + i) % state.recent.size();
            if (state.Take(*state.recent[index], request)) {
                state.nextRecent = index + 1;
                return state.recent[index];
            }
        }
        return nullptr;
    }

    void ForgetGone() noexcept {
        state.hasGone.store(false, std::memory_order_seq_cst);
        std::erase_if(state.recent, [](const auto& client) { return client->isGone.load(std::memory_order_acquire); });
    }

    State& state;
    bool isHeld;
};

/// Takes the request of `client` into `request` if there is one. Returns: whether it shall be served.
bool Channel::State::Take(Client& client, nk_message* request) const noexcept {
    Turn turn(client.turn.load(std::memory_order_acquire));
    SlotWord word;
    while (true) {
        if (turn.IsTaken()) {
            return false;
        }
        word = SlotWord(client.Slot().request.word.load(std::memory_order_seq_cst));
        if (word.Sequence() == turn.Sequence()) {
            return false;
        }
        if (client.isGone.load(std::memory_order_acquire)) {
            return false;
        }
        // With the sequence number in it, the claim cannot be for a request that somebody has served meanwhile. A claim
        // of the client alone could, and while it lasts, the ring for the next request would fall flat.
        std::uint64_t expected = turn.Raw();
        if (word.Sequence() != turn.Sequence() + 1) {
            const Turn now(client.turn.load(std::memory_order_acquire));
            if (now.Raw() == turn.Raw()) {
                client.End(); // no client of ours says that
                return false;
            }
            turn = now;
        } else if (client.turn.compare_exchange_strong(expected, Turn(word.Sequence(), true).Raw(),
                                                       std::memory_order_acq_rel)) {
            break;
        } else {
            turn = Turn(expected);
        }
    }
    client.rings.store(0, std::memory_order_relaxed);
    const std::uint32_t room = request->size;
    client.Slot().request.Get(request, word.Pieces());
    if (const auto status = client.filter.Check(*request); status != KnStatusOk) {
        request->size = room;
        client.Answer(status);
        return false;
    }
    if (deadClient == DeadClient::ReplyReportsIt) {
        client.takenAt.store(SteadyClock::now().time_since_epoch().count(), std::memory_order_relaxed);
    }
    return true;
}

/// Takes the request of a client that has rung. Returns: the client; null when there was another event, or none.
std::shared_ptr<Channel::Client> Channel::State::TakeRung(nk_message* request, int timeoutMs) noexcept {
    epoll_event event{};
    if (::epoll_wait(poller.Get(), &event, 1, timeoutMs) != 1) {
        return nullptr;
    }
    const auto client = Find(event.data.u64);
    if (!client) {
        return nullptr;
    }
    // A client of ours rings once for a request; some slack is for those that were taken before their ring was heard.
    if (client->rings.fetch_add(1, std::memory_order_relaxed) > ringsForFree) {
        client->End();
        return nullptr;
    }
    return Take(*client, request) ? client : nullptr;
}

std::shared_ptr<Channel::Client> Channel::State::Sleep(nk_message* request) noexcept {
    const auto asleepAt = SteadyClock::now().time_since_epoch().count();
    sleepers.fetch_add(1, std::memory_order_seq_cst);
    if (!roleTaken.load(std::memory_order_seq_cst) && isPolled.load(std::memory_order_relaxed)) {
        sleepers.fetch_sub(1, std::memory_order_relaxed); // the poller has left, and nobody looks at its clients
        return nullptr;
    }
    auto client = TakeRung(request, -1);
    sleepers.fetch_sub(1, std::memory_order_relaxed);
    if (client) {
        const auto now = SteadyClock::now().time_since_epoch().count();
        const auto before = std::max(lastArrival.exchange(now, std::memory_order_relaxed), asleepAt);
        if (PollerRole role{*this}) {
            role.Learn(client, SteadyClock::duration(now - before));
        }
    }
    return client;
}

/// Drops the references of the recent clients to those that are gone, now or when the poller leaves its role.
void Channel::State::ForgetGone() noexcept {
    hasGone.store(true, std::memory_order_seq_cst);
    PollerRole role(*this);
    role.Leave();
}

/// `file`: the region's, to be sent to the client with its ends; null when the client has them already.
std::int32_t Channel::State::Add(UniqueFd&& socket, SharedMemoryEnds&& ends, const UniqueFd* file,
                                 const RequestFilter& filter, std::uint64_t* clientId) {
    const std::lock_guard lock(mutex);
    if (isClosed.load(std::memory_order_relaxed)) {
        return KnStatusClosed;
    }
    if (clients.size() >= maxClients) {
        return KnStatusBusy;
    }
    const auto client = std::make_shared<Client>(lastId + 1, filter, std::move(ends));
    clients.emplace(client->id, client);
    std::int32_t status = KnStatusNoResources;
    if (Watch(poller, client->shared.bell.Get(), EPOLLIN | EPOLLET, client->id)) {
        status = file != nullptr ? SendEnds(socket.Get(), *file, client->shared) : KnStatusOk;
    }
    if (status != KnStatusOk) {
        ::epoll_ctl(poller.Get(), EPOLL_CTL_DEL, client->shared.bell.Get(), nullptr);
        clients.erase(client->id);
        return status;
    }
    client->socket = std::move(socket);
    clientCount.store(clients.size(), std::memory_order_relaxed);
    *clientId = lastId = client->id;
    return KnStatusOk;
}

Channel::Channel(DeadClient deadClient) : state(std::make_shared<State>(deadClient)) {}

Channel::~Channel() {
    Close();
}

std::int32_t Channel::AddClient(UniqueFd&& socket, const RequestFilter& filter, std::uint64_t* clientId) {
    if (state->clientCount.load(std::memory_order_relaxed) >= maxClients) {
        return KnStatusBusy;
    }
    SharedMemoryEnds ends;
    UniqueFd file;
    if (const auto status = SharedMemoryRegion::Create(ends.region, file); status != KnStatusOk) {
        return status;
    }
    ends.bell = MakeBell();
    ends.doorbell = MakeBell();
    if (!ends.bell || !ends.doorbell) {
        return KnStatusNoResources;
    }
    return state->Add(std::move(socket), std::move(ends), &file, filter, clientId);
}

std::int32_t Channel::AddClient(UniqueFd&& socket, SharedMemoryEnds&& ends, const RequestFilter& filter,
                                std::uint64_t* clientId) {
    return state->Add(std::move(socket), std::move(ends), nullptr, filter, clientId);
}

void Channel::RemoveClient(std::uint64_t clientId) noexcept {
    std::shared_ptr<Client> client;
    {
        const std::lock_guard lock(state->mutex);
        const auto found = state->clients.find(clientId);
        if (found == state->clients.end()) {
            return;
        }
        client = std::move(found->second);
        state->clients.erase(found);
        state->clientCount.store(state->clients.size(), std::memory_order_relaxed);
    }
    ::epoll_ctl(state->poller.Get(), EPOLL_CTL_DEL, client->shared.bell.Get(), nullptr);
    client->End();
    state->ForgetGone();
}

std::int32_t Channel::Receive(nk_message* request) noexcept {
    return NoThrow([&]() -> std::int32_t {
        auto& owed = Owed::OfThisThread();
        if (const auto abandoned = owed.Take(state.get())) {
            abandoned->Answer(KnStatusAbandoned);
        }
        // Reserved now, because a request that was taken must not be lost for want of memory.
        if (owed.entries.size() == owed.entries.capacity()) {
            owed.entries.reserve(owed.entries.size() + 4);
        }
        std::shared_ptr<Client> client;
        while (true) {
            if (state->isClosed.load(std::memory_order_acquire)) {
                if (client) {
                    client->Answer(KnStatusClosed);
                }
                return KnStatusClosed;
            }
            if (client) {
                owed.entries.push_back({state.get(), std::move(client)});
                return KnStatusOk;
            }
            std::size_t looked = 0;
            if (PollerRole role{*state}) {
                client = role.Poll(request);
                looked = role.RecentCount();
            }
            if (!client) {
                client = state->Sleep(request);
            } else if (looked > 1 && state->sleepers.load(std::memory_order_seq_cst) > 0) {
                // On leaving: if work is visible, wake one more.
                const PollerRole role{*state};
                if (role && role.SeesRequest()) {
                    Ring(state->kick);
                }
            }
        }
    });
}

std::int32_t Channel::Reply(const nk_message* response) noexcept {
    const auto client = Owed::OfThisThread().Take(state.get());
    if (state->isClosed.load(std::memory_order_acquire)) {
        return KnStatusClosed;
    }
    if (!client) {
        return KnStatusInvalidArgument;
    }
    const Turn turn(client->turn.load(std::memory_order_relaxed));
    bool isGone = client->isGone.load(std::memory_order_acquire);
    if (!isGone && state->deadClient == DeadClient::ReplyReportsIt) {
        // Death may have come before the housekeeper. One that has just called is alive enough.
        const auto since =
            SteadyClock::now().time_since_epoch().count() - client->takenAt.load(std::memory_order_relaxed);
        isGone = SteadyClock::duration(since) > clientSpins && HasEnded(client->socket.Get());
    }
    if (isGone) {
        return state->deadClient == DeadClient::ReplyReportsIt ? KnStatusPeerGone : KnStatusOk;
    }
    const std::size_t used = std::clamp<std::size_t>(NkGetSize(*response), sizeof(nk_message), NkRecordSize);
    client->Publish(SlotWord(turn.Sequence(), client->Slot().reply.Put(response, used)));
    return KnStatusOk;
}

void Channel::Close() noexcept {
    std::unordered_map<std::uint64_t, std::shared_ptr<Client>> ended;
    {
        const std::lock_guard lock(state->mutex);
        if (state->isClosed.exchange(true, std::memory_order_acq_rel)) {
            return;
        }
        ended.swap(state->clients);
        state->clientCount.store(0, std::memory_order_relaxed);
    }
    const std::uint64_t one = 1;
    static_cast<void>(!::write(state->closed.Get(), &one, sizeof one));
    for (const auto& [id, client] : ended) {
        ::epoll_ctl(state->poller.Get(), EPOLL_CTL_DEL, client->shared.bell.Get(), nullptr);
        client->End();
    }
    state->ForgetGone();
}

std::size_t Channel::ClientCount() const noexcept {
    return state->clientCount.load(std::memory_order_relaxed);
}

} // namespace borven_host
