#pragma once

#include "base/unique_fd.h"
#include "kn/status.h"
#include "nk/deferred_reply.h"
#include "nk/message.h"
#include "records/adaptive_spin.h"
#include "records/caller.h"
#include "records/event_fd.h"
#include "records/request_filter.h"
#include "records/shared_memory_channel.h"
#include "records/shared_memory_ends.h"
#include "records/shared_memory_slot.h"
#include "records/sleep_place.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <cassert>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <utility>

// The server's half of a slot (shared_memory_slot.h): ready -> claimed -> replied.
//
// - The turn says which request was claimed last and whether its reply is owed. It is private to the server, so no
//   client can forge it.
// - TryClaim: any receiver, for any client, at any time. The compare-and-swap of the turn lets one of them win.
// - Publish: only the thread that claimed the request, once. Until then the turn stays claimed and no receiver touches
//   the slot.
// - Defer: the thread that claimed the request. Resume: any thread; the compare-and-swap of the turn lets one of them
//   win, which has then claimed the request.
// - Offers: the thread that replies puts them, TakeBack any thread. `offered` is private to the server and says which
//   are outstanding: it keeps both apart, and bounds what the page says.
// - End: any thread, at any time. It marks the client and shuts its socket down; the housekeeper sees that as it sees
//   death and removes the client. A claimed request stays with its thread, whose reply reaches no client.
//
// What runs for each request is inline, because the loops that call it are in other source files.

namespace borven_host {

/// Which request of a client was claimed last, and whether its reply is still owed.
class Turn final {
public:
    enum class Reply { Sent, Owed, Deferred };

    constexpr Turn(std::uint32_t sequence, Reply reply)
        : bits(std::uint64_t{sequence} << 2 | static_cast<std::uint64_t>(reply)) {}
    constexpr explicit Turn(std::uint64_t raw) : bits(raw) {}

    constexpr std::uint32_t Sequence() const { return static_cast<std::uint32_t>(bits >> 2); }
    constexpr bool IsClaimed() const { return (bits & 3) != 0; }
    constexpr std::uint64_t Raw() const { return bits; }

private:
    std::uint64_t bits;
};

/// The server's end of one client.
class ChannelClient final {
public:
    ChannelClient(std::uint64_t number, const RequestFilter& allowed, Channel::DeadClient reaction,
                  SharedMemoryEnds given, std::shared_ptr<const Caller> process)
        : id(number), caller(std::move(process)), filter(allowed), deadClient(reaction), shared(std::move(given)),
          takesOffers(Slot().version >= 2) {}

    /// Requires: no other thread has the client yet.
    void Attach(UniqueFd&& connected) noexcept { socket = std::move(connected); }

    SharedSlot& Slot() const noexcept { return shared.region.Slot(); }
    const SharedMemoryEnds& Ends() const noexcept { return shared; }

    bool HasRequest() const noexcept {
        const Turn now(turn.load(std::memory_order_acquire));
        return !now.IsClaimed() &&
               SlotWord(Slot().request.word.load(std::memory_order_seq_cst)).Sequence() != now.Sequence();
    }

    /// Claims the next request, if there is one, and copies it to `request`. Answers one that the filter refuses, and
    /// ends a client whose sequence number is impossible. Returns: whether the calling thread now owes a reply.
    bool TryClaim(nk_message* request) noexcept {
        SlotWord word;
        if (!ClaimTurn(word)) {
            return false;
        }
        rings.store(0, std::memory_order_relaxed);
        const std::uint32_t room = request->size;
        Slot().request.Get(request, word.Pieces());
        if (const auto status = filter.Check(*request); status != KnStatusOk) {
            request->size = room;
            Answer(status);
            return false;
        }
        if (deadClient == Channel::DeadClient::ReplyReportsIt) {
            claimedAt.store(SteadyClock::now().time_since_epoch().count(), std::memory_order_relaxed);
        }
        return true;
    }

    /// Returns: 0; for a client that is gone, what `Channel::DeadClient` says. Requires, as Answer: the calling thread
    /// owes the reply.
    std::int32_t Reply(const nk_message& response) noexcept {
        if (IsGone() || (deadClient == Channel::DeadClient::ReplyReportsIt && HasLeftSinceClaim())) {
            return deadClient == Channel::DeadClient::ReplyReportsIt ? KnStatusPeerGone : KnStatusOk;
        }
        Publish(response);
        return KnStatusOk;
    }

    /// Hands the reply over. Returns: the number of the call, for Resume. Requires: the calling thread owes the reply.
    std::uint32_t Defer() noexcept {
        const std::uint32_t sequence = Turn(turn.load(std::memory_order_relaxed)).Sequence();
        turn.store(Turn(sequence, Turn::Reply::Deferred).Raw(), std::memory_order_release);
        return sequence;
    }

    /// Returns: whether the calling thread owes the reply now; false when `call` is not deferred any more.
    bool Resume(std::uint32_t call) noexcept {
        std::uint64_t expected = Turn(call, Turn::Reply::Deferred).Raw();
        return turn.compare_exchange_strong(expected, Turn(call, Turn::Reply::Owed).Raw(), std::memory_order_acq_rel);
    }

    /// Returns: 0 and how many offers came with the reply; KnStatusPeerGone.
    /// Requires: the calling thread owes the reply, by Resume.
    std::int32_t ReplyLate(const nk_message& response, const NkOffers& offers, std::size_t& put) noexcept {
        if (IsGone()) {
            return KnStatusPeerGone;
        }
        put = PutOffers(offers);
        Publish(response);
        return KnStatusOk;
    }

    /// Takes back the offers that came with the reply to `call`.
    /// Returns: how many were taken; nothing when that reply has none outstanding.
    std::optional<std::size_t> TakeBack(std::uint32_t call) noexcept {
        std::uint64_t seen = offered.load(std::memory_order_acquire);
        const OfferWord mine(seen);
        if (seen == TakingBack || mine.Sequence() != call || mine.Count() == 0 ||
            !offered.compare_exchange_strong(seen, TakingBack, std::memory_order_acq_rel)) {
            return std::nullopt;
        }
        const OfferWord left(Slot().offers.word.exchange(0, std::memory_order_acq_rel));
        offered.store(0, std::memory_order_release);
        const bool isMine = left.Sequence() == call && left.Count() == mine.Count();
        return isMine ? std::min(left.Next(), mine.Count()) : mine.Count();
    }

    /// Answers with a status in place of a reply. A client that is gone already saw the end of its socket; send nothing
    /// more.
    void Answer(std::int32_t status) noexcept {
        if (IsGone()) {
            return;
        }
        Publish(SlotWord::WithStatus(Turn(turn.load(std::memory_order_relaxed)).Sequence(), status));
    }

    /// Ends the connection. The housekeeper notices it as it notices death.
    void End() noexcept {
        isGone.store(true, std::memory_order_seq_cst);
        ForgetOffers();
        ::shutdown(socket.Get(), SHUT_RDWR);
    }

    bool IsGone() const noexcept { return isGone.load(std::memory_order_acquire); }

    /// Counts a ring. Returns: false when the client has rung too often since its last request.
    bool CountRing() noexcept { return rings.fetch_add(1, std::memory_order_relaxed) <= RingsForFree; }

    const std::uint64_t id;
    const std::shared_ptr<const Caller> caller; ///< null: not known

private:
    static constexpr std::uint64_t TakingBack = 0xFFFF; ///< of `offered`: no offers can be put meanwhile

    /// A client that keeps to the protocol rings once for a request. The rest is for requests that a receiver claims
    /// before it reads their ring.
    static constexpr std::uint32_t RingsForFree = 64;

    /// Returns: whether the calling thread claimed a request, and its `word`.
    bool ClaimTurn(SlotWord& word) noexcept {
        Turn seen(turn.load(std::memory_order_acquire));
        while (true) {
            if (seen.IsClaimed()) {
                return false;
            }
            word = SlotWord(Slot().request.word.load(std::memory_order_seq_cst));
            if (word.Sequence() == seen.Sequence()) {
                return false;
            }
            if (IsGone()) {
                return false;
            }
            // The claim contains the sequence number, so it cannot succeed for a request that another receiver has
            // served meanwhile. A claim of the client alone could; and while it lasted, a receiver that reads the ring
            // of the next request would find the client claimed and drop the ring.
            std::uint64_t expected = seen.Raw();
            if (word.Sequence() != seen.Sequence() + 1) {
                const Turn now(turn.load(std::memory_order_acquire));
                if (now.Raw() == seen.Raw()) {
                    End(); // no client that keeps to the protocol writes that number
                    return false;
                }
                seen = now;
            } else if (turn.compare_exchange_strong(expected, Turn(word.Sequence(), Turn::Reply::Owed).Raw(),
                                                    std::memory_order_acq_rel)) {
                return true;
            } else {
                seen = Turn(expected);
            }
        }
    }

    /// Returns: how many were put.
    std::size_t PutOffers(const NkOffers& offers) noexcept {
        if (!takesOffers || offers.count == 0 || offered.load(std::memory_order_acquire) != 0) {
            return 0;
        }
        assert(offers.count <= NkMaxOffers);
        SlotOffers& target = Slot().offers;
        target.offset.store(static_cast<std::uint32_t>(offers.offset), std::memory_order_relaxed);
        for (std::size_t i = 0; i < offers.count; ++i) {
            target.values[i].store(offers.values[i], std::memory_order_relaxed);
        }
        const OfferWord word(Turn(turn.load(std::memory_order_relaxed)).Sequence(), 0,
                             static_cast<std::uint32_t>(offers.count));
        offered.store(word.Raw(), std::memory_order_release);
        target.word.store(word.Raw(), std::memory_order_seq_cst);
        if (isGone.load(std::memory_order_seq_cst)) { // End may have been too early to see them
            ForgetOffers();
        }
        return offers.count;
    }

    /// A connection that has ended answers no call, not even ahead.
    void ForgetOffers() noexcept {
        if (takesOffers) {
            Slot().offers.word.store(0, std::memory_order_seq_cst);
        }
    }

    void Publish(const nk_message& response) noexcept {
        const std::size_t used = std::clamp<std::size_t>(NkGetSize(response), sizeof(nk_message), NkRecordSize);
        const std::uint32_t sequence = Turn(turn.load(std::memory_order_relaxed)).Sequence();
        Publish(SlotWord(sequence, Slot().reply.Put(&response, used)));
    }

    /// Ends the server's half of a call: the client sees what was put into the slot.
    void Publish(SlotWord word) noexcept {
        assert(turn.load(std::memory_order_relaxed) == Turn(word.Sequence(), Turn::Reply::Owed).Raw());
        turn.store(Turn(word.Sequence(), Turn::Reply::Sent).Raw(), std::memory_order_release);
        Slot().reply.word.store(word.Raw(), std::memory_order_seq_cst);
        if (IsAsleep(word.Sequence())) {
            Slot().reply.wake.store(WakeHint::Now().Raw(), std::memory_order_relaxed);
            Ring(shared.doorbell);
        }
    }

    bool IsAsleep(std::uint32_t sequence) const noexcept {
        return Slot().request.hint.load(std::memory_order_seq_cst) == sequence;
    }

    /// Returns: whether the client has ended its socket, which the housekeeper may not have seen yet. A request that
    /// was claimed a moment ago shows that the client lives, and saves the system call.
    bool HasLeftSinceClaim() const noexcept {
        const auto since = SteadyClock::now().time_since_epoch().count() - claimedAt.load(std::memory_order_relaxed);
        if (SteadyClock::duration(since) <= ClientSpinLimit) {
            return false;
        }
        pollfd ended{socket.Get(), POLLRDHUP, 0};
        return ::poll(&ended, 1, 0) == 1;
    }

    const RequestFilter filter;
    const Channel::DeadClient deadClient;
    UniqueFd socket; ///< constant once attached
    const SharedMemoryEnds shared;
    const bool takesOffers; ///< its layout has room for them
    std::atomic<std::uint64_t> turn{0};
    std::atomic<std::uint64_t> offered{0}; ///< the offers outstanding, as OfferWord without a next
    std::atomic<bool> isGone{false};
    std::atomic<std::uint32_t> rings{0};        ///< since the last request
    std::atomic<SteadyClock::rep> claimedAt{0}; ///< only for Channel::DeadClient::ReplyReportsIt
};

} // namespace borven_host
