#include "records/shared_memory_connection.h"

#include "kn/status.h"
#include "names/peer.h"
#include "names/server_process.h"
#include "records/event_fd.h"
#include "records/owed_replies.h"
#include "records/shared_memory_slot.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/timerfd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <system_error>
#include <utility>

namespace borven_host {

namespace {

/// In a crowd, replies come in turn.
constexpr std::chrono::microseconds CrowdedSpinLimit = 4 * ClientSpinLimit;

constexpr std::uint64_t DoorbellData = 0;
constexpr std::uint64_t ServerData = 1; ///< its socket or its process
constexpr std::uint64_t TimerData = 2;

constexpr std::uint32_t ServerEvents = EPOLLIN | EPOLLRDHUP;

/// Blocks until `socket` can be read or `process` is gone. Returns: false when the deadline came first.
bool WaitReadable(int socket, int process, Deadline deadline) noexcept {
    std::array<pollfd, 2> waited{pollfd{socket, POLLIN, 0}, pollfd{process, POLLIN, 0}};
    while (true) {
        const int count = ::poll(waited.data(), waited.size(), PollTimeout(deadline));
        if (count > 0) {
            return true;
        }
        if (count == 0 && SteadyClock::now() >= deadline) {
            return false;
        }
    }
}

/// Watches what a call sleeps on. Returns: false, with errno set, when the kernel refuses.
bool WatchAll(const UniqueFd& epoll, const UniqueFd& doorbell, const UniqueFd& socket, const UniqueFd& process) {
    return Watch(epoll, doorbell.Get(), EPOLLIN | EPOLLET, DoorbellData) &&
           Watch(epoll, socket.Get(), ServerEvents, ServerData) &&
           (!process || Watch(epoll, process.Get(), EPOLLIN, ServerData));
}

UniqueFd MakeEpoll(const UniqueFd& doorbell, const UniqueFd& socket, const UniqueFd& process) {
    UniqueFd epoll(::epoll_create1(EPOLL_CLOEXEC));
    if (!epoll || !WatchAll(epoll, doorbell, socket, process)) {
        throw std::system_error(errno, std::generic_category());
    }
    return epoll;
}

void Unwatch(const UniqueFd& epoll, const UniqueFd& watched) noexcept {
    ::epoll_ctl(epoll.Get(), EPOLL_CTL_DEL, watched.Get(), nullptr);
}

/// Whether one of the events says that the server is gone. The mark is an event of the socket too.
bool HasEndOfServer(const std::array<epoll_event, 3>& events, int count) noexcept {
    return std::any_of(events.begin(), events.begin() + std::max(count, 0), [](const epoll_event& event) {
        return event.data.u64 == ServerData && (event.events & ~std::uint32_t{EPOLLOUT}) != 0;
    });
}

} // namespace

std::int32_t Connection::Join(UniqueFd socket, Deadline deadline, std::shared_ptr<Connection>& connection) {
    Peer server;
    if (const auto status = IdentifyPeer(socket.Get(), server); status != KnStatusOk) {
        return status == KnStatusPeerGone ? KnStatusClosed : status;
    }
    if (!WaitReadable(socket.Get(), server.process.Get(), deadline)) {
        return KnStatusTimedOut;
    }
    SharedMemoryEnds ends;
    if (const auto status = ReceiveEnds(socket.Get(), ends); status != KnStatusOk) {
        return status;
    }
    try {
        connection = std::make_shared<Connection>(std::move(socket), ShareProcess(server), std::move(ends));
    } catch (const std::system_error&) {
        return KnStatusNoResources;
    }
    return KnStatusOk;
}

Connection::Connection(UniqueFd connected, std::shared_ptr<const UniqueFd> process, SharedMemoryEnds ends)
    : socket(std::move(connected)), serverProcess(std::move(process)), shared(std::move(ends)),
      epoll(MakeEpoll(shared.doorbell, socket, *serverProcess)) {
    if (polledCount.load(std::memory_order_relaxed) == 0) {
        CloseDoorbell();
    }
}

std::int32_t Connection::Call(const nk_message* request, nk_message* response) noexcept {
    if (const auto status = Enter(WithoutLimit); status != KnStatusOk) {
        return status;
    }
    std::int32_t status = KnStatusOk;
    if (IsOffered(request) && TakeOffer(response)) {
        place.NoteAwake();
    } else {
        CallUnderWay counted;
        Send(request);
        status = TakeReply(response, counted, Deadline::max(), true);
    }
    turn.Release();
    return status;
}

std::int32_t Connection::Begin(const nk_message* request, std::uint32_t timeoutMs) noexcept {
    if (const auto status = Enter(timeoutMs); status != KnStatusOk) {
        return status;
    }
    if (IsOffered(request)) {
        begun.store(Begun::ByOffer, std::memory_order_relaxed);
    } else {
        Send(request);
        begun.store(Begun::Sent, std::memory_order_relaxed);
    }
    return KnStatusOk;
}

std::int32_t Connection::Finish(nk_message* response, std::uint32_t timeoutMs) noexcept {
    const auto state = begun.load(std::memory_order_relaxed);
    if (state == Begun::None || state == Begun::Abandoned) {
        return isClosed.load(std::memory_order_acquire) ? KnStatusClosed : KnStatusInvalidArgument;
    }
    std::int32_t status = KnStatusClosed;
    if (!isClosed.load(std::memory_order_acquire)) {
        if (state == Begun::ByOffer && TakeOffer(response)) {
            place.NoteAwake();
            status = KnStatusOk;
        } else {
            CallUnderWay counted;
            if (state == Begun::ByOffer) { // the server has taken the offers back
                Record request;
                std::memcpy(request.data(), repeatable.request.data(), NkRecordSize);
                Send(reinterpret_cast<const nk_message*>(request.data()));
                begun.store(Begun::Sent, std::memory_order_relaxed);
            }
            status = TakeReply(response, counted, DeadlineIn(timeoutMs), timeoutMs != 0);
        }
    }
    if (status != KnStatusTimedOut) {
        begun.store(Begun::None, std::memory_order_relaxed);
        turn.Release();
    }
    return status;
}

std::int32_t Connection::Abandon() noexcept {
    const auto state = begun.load(std::memory_order_relaxed);
    if (state == Begun::None || state == Begun::Abandoned) {
        return isClosed.load(std::memory_order_acquire) ? KnStatusClosed : KnStatusInvalidArgument;
    }
    begun.store(state == Begun::Sent ? Begun::Abandoned : Begun::None, std::memory_order_relaxed);
    turn.Release();
    return isClosed.load(std::memory_order_acquire) ? KnStatusClosed : KnStatusOk;
}

/// Acquires the turn, and finishes a call that was abandoned. Returns: 0; KnStatusTimedOut and KnStatusClosed without
/// it.
std::int32_t Connection::Enter(std::uint32_t timeoutMs) noexcept {
    const bool hasTurn = turn.TryAcquire();
    if (!hasTurn || begun.load(std::memory_order_relaxed) == Begun::Abandoned) {
        return EnterSlowly(hasTurn, DeadlineIn(timeoutMs));
    }
    if (isClosed.load(std::memory_order_acquire)) {
        turn.Release();
        return KnStatusClosed;
    }
    CloseDoorbell();
    return KnStatusOk;
}

std::int32_t Connection::EnterSlowly(bool hasTurn, Deadline deadline) noexcept {
    if (!hasTurn) {
        if (const auto status = turn.Acquire(deadline); status != KnStatusOk) {
            return status;
        }
    }
    std::int32_t status = isClosed.load(std::memory_order_acquire) ? KnStatusClosed : KnStatusOk;
    if (status == KnStatusOk && begun.load(std::memory_order_relaxed) == Begun::Abandoned) {
        Record dropped;
        CallUnderWay counted;
        status = TakeReply(reinterpret_cast<nk_message*>(dropped.data()), counted, deadline,
                           std::chrono::steady_clock::now() < deadline);
        if (status != KnStatusTimedOut) {
            begun.store(Begun::None, std::memory_order_relaxed);
            status = status == KnStatusClosed ? KnStatusClosed : KnStatusOk;
        }
    }
    if (status != KnStatusOk) {
        turn.Release();
    }
    return status;
}

void Connection::Send(const nk_message* request) noexcept {
    SharedSlot& slot = shared.region.Slot();
    lastPieces = slot.request.Put(request, NkRecordSize);
    const std::uint32_t sequence = ++lastSequence;
    learner = &learners[(request->iid * 5U + request->mid) % LearnerCount];
    slot.request.wake.store(WakeHint::Here().Raw(), std::memory_order_relaxed);
    // Publish, then read whether the poller looks; a poller that gives up clears the hint, then looks once more.
    slot.request.word.store(SlotWord(sequence, lastPieces).Raw(), std::memory_order_seq_cst);
    hasRung = slot.reply.hint.load(std::memory_order_seq_cst) == 0;
    if (hasRung) {
        RingBell();
    }
}

std::int32_t Connection::TakeReply(nk_message* response, CallUnderWay& counted, Deadline deadline,
                                   bool mayWait) noexcept {
    const bool isCrowded = counted.IsInACrowd();
    SlotWord reply;
    auto found = HasReply(reply) ? Found::Reply : Found::Nothing; // on a shared CPU the server may have run first
    if (found == Found::Nothing && !hasRung) {
        if (learner->IsWorthwhile()) {
            const auto look = [&] { return HasReply(reply); };
            const bool isAnswered =
                SpinUntil(isCrowded ? CrowdedSpinLimit : ClientSpinLimit, *learner, look, isCrowded);
            isAnswered ? learner->Succeeded() : learner->Failed();
            found = isAnswered ? Found::Reply : Found::Nothing;
        }
        if (found == Found::Nothing) { // the hint may be stale, so a client never sleeps without having rung
            RingBell();
            hasRung = true;
        }
    }
    if (found == Found::Reply) {
        place.NoteAwake();
        KeepReadable(lookedInVain == lastSequence);
    } else {
        found = mayWait ? Sleep(counted, reply, deadline) : LookOnce(reply);
    }
    switch (found) {
    case Found::Reply:
        break;
    case Found::Nothing:
        return KnStatusTimedOut;
    case Found::EndOfServer:
        Close();
        return KnStatusClosed;
    }
    if (reply.Status() != KnStatusOk) {
        return reply.Status() == KnStatusTimedOut ? KnStatusBadReply : reply.Status(); // the call is over
    }
    const SharedSlot& slot = shared.region.Slot();
    slot.reply.Get(response, reply.Pieces());
    if (OfferWord(slot.offers.word.load(std::memory_order_acquire)).Sequence() == lastSequence) {
        NoteOffers(response);
    }
    return KnStatusOk;
}

bool Connection::IsOffered(const nk_message* request) noexcept {
    if (!repeatable.isOffered) {
        return false;
    }
    const OfferWord word(shared.region.Slot().offers.word.load(std::memory_order_acquire));
    repeatable.isOffered = word.Sequence() == lastSequence &&
                           word.Next() < std::min<std::uint32_t>(word.Count(), NkMaxOffers) &&
                           std::memcmp(request, repeatable.request.data(), NkRecordSize) == 0;
    return repeatable.isOffered;
}

bool Connection::TakeOffer(nk_message* response) noexcept {
    SlotOffers& offers = shared.region.Slot().offers;
    std::uint64_t seen = offers.word.load(std::memory_order_acquire);
    const OfferWord word(seen);
    if (word.Sequence() == lastSequence && word.Next() < std::min<std::uint32_t>(word.Count(), NkMaxOffers)) {
        const std::int64_t value = offers.values[word.Next()].load(std::memory_order_relaxed);
        const OfferWord taken(word.Sequence(), word.Next() + 1, word.Count());
        // Only the server could change the word meanwhile, to take all offers back.
        if (offers.word.compare_exchange_strong(seen, taken.Raw(), std::memory_order_acq_rel)) {
            std::memcpy(static_cast<void*>(response), repeatable.reply.data(), NkRecordSize);
            std::memcpy(reinterpret_cast<std::byte*>(response) + repeatable.offset, &value, sizeof value);
            return true;
        }
    }
    repeatable.isOffered = false;
    return false;
}

void Connection::NoteOffers(const nk_message* response) noexcept {
    const SharedSlot& slot = shared.region.Slot();
    const std::size_t offset = slot.offers.offset.load(std::memory_order_relaxed);
    if (offset > NkRecordSize - sizeof(std::int64_t)) {
        return; // never takes any of them
    }
    repeatable.isOffered = true;
    repeatable.offset = offset;
    slot.request.Get(repeatable.request.data(), lastPieces);
    std::memcpy(repeatable.reply.data(), response, NkRecordSize);
}

bool Connection::HasReply(SlotWord& reply) const noexcept {
    reply = SlotWord(shared.region.Slot().reply.word.load(std::memory_order_seq_cst));
    return reply.Sequence() == lastSequence;
}

/// Looks for the reply. Returns: whether it is there; else it rings, and nothing but rings, and the end of the server,
/// makes the descriptor readable.
bool Connection::LookOrAskForRing(SlotWord& reply) noexcept {
    // Set the hint, then look for the reply; the server replies, then reads the hint. A hint for an earlier call has no
    // effect, so it is never cleared.
    shared.region.Slot().request.hint.store(lastSequence, std::memory_order_seq_cst);
    if (HasReply(reply)) {
        KeepReadable(lookedInVain == lastSequence);
        return true;
    }
    lookedInVain = lastSequence;
    Unmark();
    isReadable = false;
    return false;
}

/// Looks without sleeping, and reads off the rings that came before.
Connection::Found Connection::LookOnce(SlotWord& reply) noexcept {
    if (LookOrAskForRing(reply)) {
        return Found::Reply;
    }
    std::array<epoll_event, 3> events{};
    const int count = ::epoll_wait(epoll.Get(), events.data(), events.size(), 0);
    if (HasReply(reply)) {
        KeepReadable(false); // its ring may have been among the events
        return Found::Reply;
    }
    return HasEndOfServer(events, count) ? Found::EndOfServer : Found::Nothing;
}

Connection::Found Connection::Sleep(CallUnderWay& counted, SlotWord& reply, Deadline deadline) noexcept {
    if (LookOrAskForRing(reply)) {
        return Found::Reply;
    }
    common::ConfinedThread self;
    place.Enter(self);
    do {
        std::array<epoll_event, 3> events{};
        const int count = SleepUntilEvent(
            epoll, events.data(), events.size(),
            [&] {
                self.LetGo();
                counted.End();
            },
            deadline);
        if (HasEndOfServer(events, count)) {
            if (!HasReply(reply)) {
                return Found::EndOfServer;
            }
            break;
        }
        if (count == 0 && !HasReply(reply)) {
            return Found::Nothing;
        }
    } while (!HasReply(reply));
    self.LetGo(); // first: what it costs counts
    place.Leave(WakeHint(shared.region.Slot().reply.wake.load(std::memory_order_relaxed)));
    KeepReadable(false);
    return Found::Reply;
}

void Connection::RingBell() noexcept {
    shared.region.Slot().request.wake.store(WakeHint::Now().Raw(), std::memory_order_relaxed);
    Ring(shared.bell);
}

std::int32_t Connection::Descriptor(int& descriptor) noexcept {
    CloseDoorbell();
    if (!isPolled) {
        SetPolled(true);
        KeepReadable(false);
    }
    if (SlotWord reply; begun.load(std::memory_order_relaxed) == Begun::Sent) {
        if (!hasRung) {
            RingBell();
            hasRung = true;
        }
        static_cast<void>(LookOnce(reply)); // the end of the server is seen by the next Finish
    }
    descriptor = epoll.Get();
    return KnStatusOk;
}

std::int32_t Connection::MoveDescriptorOf(Connection& former) noexcept {
    if (&former == this || isPolled || !shared.doorbell || !former.isPolled || !former.epoll) {
        return KnStatusInvalidArgument;
    }
    former.Close();
    former.UnwatchServer();
    if (former.hasTimer) { // a child made by fork may have it too, and then closing it does not end the watch
        Unwatch(former.epoll, former.shared.bell);
    }
    former.shared.bell.Reset();
    former.SetPolled(false);
    epoll = std::move(former.epoll);
    if (!WatchAll(epoll, shared.doorbell, socket, *serverProcess)) {
        return KnStatusNoResources;
    }
    SetPolled(true);
    isReadable = true; // a bell begins with an edge
    CloseDoorbell();
    return KnStatusOk;
}

std::int32_t Connection::WakeDescriptor(std::uint32_t afterMs) noexcept {
    if (!isPolled || !isClosed.load(std::memory_order_acquire)) {
        return KnStatusInvalidArgument;
    }
    if (!hasTimer) {
        UniqueFd timer(::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
        if (!timer || !Watch(epoll, timer.Get(), EPOLLIN, TimerData)) {
            return KnStatusNoResources;
        }
        UnwatchServer();
        shared.bell = std::move(timer); // in its place: nobody hears the bell any more
        hasTimer = true;
    }
    std::array<epoll_event, 3> events{};
    static_cast<void>(::epoll_wait(epoll.Get(), events.data(), events.size(), 0)); // the doorbell's last ring
    constexpr std::uint32_t msPerSecond = 1000;
    constexpr long nsPerMs = 1'000'000;
    const itimerspec once{{}, {afterMs / msPerSecond, static_cast<long>(afterMs % msPerSecond) * nsPerMs + 1}};
    ::timerfd_settime(shared.bell.Get(), 0, &once, nullptr);
    return KnStatusOk;
}

/// The server is gone for certain.
void Connection::UnwatchServer() noexcept {
    Unwatch(epoll, socket);
    if (*serverProcess) {
        Unwatch(epoll, *serverProcess);
    }
    isMarked = false;
}

NkLoss Connection::Loss() const noexcept {
    const SharedSlot& slot = shared.region.Slot();
    return {slot.reason.load(std::memory_order_relaxed), slot.lost.load(std::memory_order_relaxed)};
}

void Connection::Close() noexcept {
    isClosed.store(true, std::memory_order_release);
    ::shutdown(socket.Get(), SHUT_RDWR);
    turn.End();
}

/// After a reply: the descriptor stays readable until a look in vain. `ringIsCertain`: a ring comes, or is there.
void Connection::KeepReadable(bool ringIsCertain) noexcept {
    if (isPolled && !isReadable) {
        isReadable = true;
        if (!ringIsCertain) {
            Mark();
        }
    }
}

/// Makes the descriptor readable: the socket has room for writing.
void Connection::Mark() noexcept {
    epoll_event event{ServerEvents | EPOLLOUT, {.u64 = ServerData}};
    ::epoll_ctl(epoll.Get(), EPOLL_CTL_MOD, socket.Get(), &event);
    isMarked = true;
}

void Connection::Unmark() noexcept {
    if (isMarked) {
        epoll_event event{ServerEvents, {.u64 = ServerData}};
        ::epoll_ctl(epoll.Get(), EPOLL_CTL_MOD, socket.Get(), &event);
        isMarked = false;
    }
}

} // namespace borven_host
