#include "records/shared_memory_connection.h"

#include "kn/status.h"
#include "names/peer.h"
#include "records/event_fd.h"
#include "records/shared_memory_slot.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>

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

UniqueFd MakeEpoll(const UniqueFd& doorbell, const UniqueFd& socket, const UniqueFd& process) {
    UniqueFd epoll(::epoll_create1(EPOLL_CLOEXEC));
    if (!epoll || !Watch(epoll, doorbell.Get(), EPOLLIN | EPOLLET, DoorbellData) ||
        !Watch(epoll, socket.Get(), EPOLLIN | EPOLLRDHUP, ServerData) ||
        (process && !Watch(epoll, process.Get(), EPOLLIN, ServerData))) {
        throw std::system_error(errno, std::generic_category());
    }
    return epoll;
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
        connection = std::make_shared<Connection>(std::move(socket), std::move(server.process), std::move(ends));
    } catch (const std::system_error&) {
        return KnStatusNoResources;
    }
    return KnStatusOk;
}

Connection::Connection(UniqueFd connected, UniqueFd process, SharedMemoryEnds ends)
    : socket(std::move(connected)), serverProcess(std::move(process)), shared(std::move(ends)),
      epoll(MakeEpoll(shared.doorbell, socket, serverProcess)) {}

std::int32_t Connection::Call(const nk_message* request, nk_message* response) noexcept {
    const common::MutexLock lock(callMutex);
    if (isClosed.load(std::memory_order_acquire)) {
        return KnStatusClosed;
    }
    if (repeatable.isOffered && TakeOffer(request, response)) {
        place.NoteAwake();
        return KnStatusOk;
    }
    SharedSlot& slot = shared.region.Slot();
    const std::uint32_t pieces = slot.request.Put(request, NkRecordSize);
    const std::uint32_t sequence = ++lastSequence;
    slot.request.wake.store(WakeHint::Here().Raw(), std::memory_order_relaxed);
    // Publish, then read whether the poller looks; a poller that gives up clears the hint, then looks once more.
    slot.request.word.store(SlotWord(sequence, pieces).Raw(), std::memory_order_seq_cst);
    CallUnderWay counted;
    const bool isCrowded = counted.IsInACrowd();
    bool hasRung = slot.reply.hint.load(std::memory_order_seq_cst) == 0;
    SlotWord reply;
    bool isAnswered = false;
    if (hasRung) {
        RingBell();
        isAnswered = HasReply(sequence, reply); // on a shared CPU the server may have run first
    } else if (auto& learner = learners[(request->iid * 5U + request->mid) % LearnerCount]; learner.IsWorthwhile()) {
        const auto look = [&] { return HasReply(sequence, reply); };
        isAnswered = SpinUntil(isCrowded ? CrowdedSpinLimit : ClientSpinLimit, learner, look, isCrowded);
        isAnswered ? learner.Succeeded() : learner.Failed();
    }
    if (!isAnswered) {
        // The hint may be stale, so a client never sleeps without having rung.
        if (!hasRung) {
            RingBell();
        }
        if (!Sleep(sequence, counted, reply)) {
            Close();
            return KnStatusClosed;
        }
    } else {
        place.NoteAwake();
    }
    if (reply.Status() != KnStatusOk) {
        return reply.Status();
    }
    slot.reply.Get(response, reply.Pieces());
    if (OfferWord(slot.offers.word.load(std::memory_order_acquire)).Sequence() == sequence) {
        NoteOffers(request, response);
    }
    return KnStatusOk;
}

bool Connection::TakeOffer(const nk_message* request, nk_message* response) noexcept {
    SlotOffers& offers = shared.region.Slot().offers;
    std::uint64_t seen = offers.word.load(std::memory_order_acquire);
    const OfferWord word(seen);
    if (word.Sequence() == lastSequence && word.Next() < std::min<std::uint32_t>(word.Count(), NkMaxOffers) &&
        std::memcmp(request, repeatable.request.data(), NkRecordSize) == 0) {
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

void Connection::NoteOffers(const nk_message* request, const nk_message* response) noexcept {
    const std::size_t offset = shared.region.Slot().offers.offset.load(std::memory_order_relaxed);
    if (offset > NkRecordSize - sizeof(std::int64_t)) {
        return; // never takes any of them
    }
    repeatable.isOffered = true;
    repeatable.offset = offset;
    std::memcpy(repeatable.request.data(), request, NkRecordSize);
    std::memcpy(repeatable.reply.data(), response, NkRecordSize);
}

bool Connection::HasReply(std::uint32_t sequence, SlotWord& reply) const noexcept {
    reply = SlotWord(shared.region.Slot().reply.word.load(std::memory_order_seq_cst));
    return reply.Sequence() == sequence;
}

/// Returns: false when the server is gone, or this end was closed, before the reply.
bool Connection::Sleep(std::uint32_t sequence, CallUnderWay& counted, SlotWord& reply) noexcept {
    // Set the hint, then look for the reply; the server replies, then reads the hint. A hint for an earlier call has no
    // effect, so it is never cleared.
    shared.region.Slot().request.hint.store(sequence, std::memory_order_seq_cst);
    if (HasReply(sequence, reply)) {
        return true;
    }
    common::ConfinedThread self;
    place.Enter(self);
    do {
        std::array<epoll_event, 2> events{};
        const int count = SleepUntilEvent(epoll, events.data(), events.size(), [&] {
            self.LetGo();
            counted.End();
        });
        for (int i = 0; i < count; ++i) {
            if (events[static_cast<std::size_t>(i)].data.u64 == ServerData) {
                return HasReply(sequence, reply);
            }
        }
    } while (!HasReply(sequence, reply));
    self.LetGo(); // first: what it costs counts
    place.Leave(WakeHint(shared.region.Slot().reply.wake.load(std::memory_order_relaxed)));
    return true;
}

void Connection::RingBell() const noexcept {
    shared.region.Slot().request.wake.store(WakeHint::Now().Raw(), std::memory_order_relaxed);
    Ring(shared.bell);
}

NkLoss Connection::Loss() const noexcept {
    const SharedSlot& slot = shared.region.Slot();
    return {slot.reason.load(std::memory_order_relaxed), slot.lost.load(std::memory_order_relaxed)};
}

void Connection::Close() noexcept {
    isClosed.store(true, std::memory_order_release);
    ::shutdown(socket.Get(), SHUT_RDWR);
}

} // namespace borven_host
