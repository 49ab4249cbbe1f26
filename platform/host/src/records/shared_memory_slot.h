#pragma once

#include "nk/deferred_reply.h"
#include "nk/message.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>

// The slot and doorbell protocol. platform/host/model/ has the same for the model checker spin; docs/transport.md names
// the traps and the tests.
//
// A client has one slot, in a page that only it and the server have. Calls on a connection take turns, so the slot is
// always in one of these states, and each step has one owner:
//
//     free -> filling      client   locks the connection's mutex, copies the record in
//     filling -> ready     client   request.word = the next sequence number
//     ready -> claimed     server   compare-and-swap of the turn, which no client can reach: one receiver wins
//     claimed -> replied   server   the thread that claimed it: record in, turn, reply.word = the sequence number
//     replied -> free      client   copies the record out, unlocks the mutex
//
// A server that cannot answer yet defers the reply (nk/deferred_reply.h):
//
//     claimed -> deferred  server   the thread that claimed it: turn; it receives the next request then
//     deferred -> claimed  server   compare-and-swap of the turn: one thread wins, and replies
//
// Offers are replies ahead: values and a word (sequence number, next, count) behind the halves. The server writes them
// before the reply that they come with, when no others are outstanding. At its next call with the same request, the
// client takes one instead of calling: it reads the value, then moves `next` on by compare-and-swap. The server takes
// back what is left by exchanging the word for zero, and the old word says how many were taken: each offer has one
// owner.
//
// The server trusts its own turn and nothing in the page. Of the client's words it uses a sequence number, which must
// be the next one or the last one, a mask of pieces, of which every value is valid, a hint whether the client sleeps,
// how many of its own offers are taken, which it bounds by the number that it put, and where and when the client rang,
// which decides nothing but the CPU of a receiver (sleep_place.h). It copies a record once, then checks and uses the
// copy. So a client that writes garbage harms itself only.
//
// Who wakes whom:
//
// - A client rings its bell, an event descriptor in the channel's epoll set, unless reply.hint says that a receiver
//   looks at its slot anyway; then it spins. The hint may be stale, so a client that stops spinning rings before it
//   sleeps. A ring has one meaning: look at this client once. The kernel gives each ring to one receiver, in the order
//   of the rings, which also keeps the clients' turns fair (client_table.h).
// - A client sets request.hint to the sequence number of its call, then looks for its reply; the server replies, then
//   reads request.hint. Both sides in sequentially consistent order, so one of the two sees the other. The client
//   sleeps on its doorbell, its socket and the server's process, so the end of the server wakes it as well.
// - At most one receiver spins, the poller (poller_role.h); the others sleep in the kernel.
//
// Nothing has a period: no wait ends by itself. A sleep may be interrupted once, after a second, to let a confined
// thread go; it then goes on without a look at anything. While a request is ready, either its client is awake (it
// spins, and will ring), or its event is pending in the kernel, where every receiver that comes to sleep finds it.
//
// The death of a client: the housekeeper calls RemoveClient. A free, filling, ready, deferred or replied slot is
// forgotten, with its offers; a claimed one is replied to by its thread, into memory that no process reads, and goes
// with that thread's reference. The death of the server: the kernel closes the sockets; a client looks for its reply
// once more and gives up.

namespace borven_host {

/// How long a client spins for its reply when the server is awake. A sleep costs the caller about as much.
inline constexpr std::chrono::microseconds ClientSpinLimit{20};

/// What a word of a slot says: which call it belongs to and, for its record, which pieces are not all zeros.
///
/// Bits 0 to 16: the pieces. Bits 24 to 31 (replies only): a status in place of a record, negated; 0 for a record.
/// Bits 32 to 63: the sequence number of the call.
class SlotWord final {
public:
    constexpr SlotWord() = default;
    constexpr explicit SlotWord(std::uint64_t raw) : bits(raw) {}
    constexpr SlotWord(std::uint32_t sequence, std::uint32_t pieces) : bits(std::uint64_t{sequence} << 32 | pieces) {}

    static constexpr SlotWord WithStatus(std::uint32_t sequence, std::int32_t status) {
        return {sequence, (static_cast<std::uint32_t>(-status) & 0xFF) << 24};
    }

    constexpr std::uint32_t Sequence() const { return static_cast<std::uint32_t>(bits >> 32); }
    constexpr std::uint32_t Pieces() const { return static_cast<std::uint32_t>(bits) & 0x1FFFF; }
    constexpr std::int32_t Status() const { return -static_cast<std::int32_t>(bits >> 24 & 0xFF); }
    constexpr std::uint64_t Raw() const { return bits; }

private:
    std::uint64_t bits = 0;
};

/// One direction of a slot. One side writes all of it, the other reads all of it.
///
/// A record lies behind its word, so that a short one travels in the word's own cache line; of a longer one, only the
/// pieces that are not all zeros are moved. Most of a record is zeros most of the time, and to move all of its 17 lines
/// from one CPU to another costs several times as much as the rest of a call.
struct alignas(64) SlotHalf {
    std::atomic<std::uint64_t> word;
    std::atomic<std::uint32_t> hint; ///< see SharedSlot
    std::atomic<std::uint32_t> wake; ///< WakeHint (sleep_place.h): where this side runs, and when it last rang
    std::array<std::byte, NkRecordSize> record;

    static constexpr std::size_t PieceSize = 64;
    static constexpr std::size_t FirstPieceSize = 48; ///< what is left of the word's line
    static constexpr std::size_t LastPieceSize = 48;
    static constexpr std::size_t PieceCount = 17;

    static constexpr std::size_t PieceStart(std::size_t piece) {
        return piece == 0 ? 0 : FirstPieceSize + (piece - 1) * PieceSize;
    }
    static constexpr std::size_t PieceEnd(std::size_t piece) { return std::min(PieceStart(piece + 1), NkRecordSize); }

    /// Copies the first `used` bytes of a record in. Returns: its pieces. What lies behind them counts as zeros.
    std::uint32_t Put(const void* source, std::size_t used) noexcept {
        const auto* bytes = static_cast<const std::byte*>(source);
        std::uint32_t pieces = PutPiece<FirstPieceSize>(0, bytes, used);
        for (std::size_t piece = 1; piece < PieceCount - 1 && PieceStart(piece) < used; ++piece) {
            pieces |= PutPiece<PieceSize>(piece, bytes, used);
        }
        return pieces | PutPiece<LastPieceSize>(PieceCount - 1, bytes, used);
    }

    /// Copies a whole record out, once: what the other side does to it later is not seen any more.
    void Get(void* target, std::uint32_t pieces) const noexcept {
        auto* bytes = static_cast<std::byte*>(target);
        GetPiece<FirstPieceSize>(0, bytes, pieces);
        for (std::size_t piece = 1; piece < PieceCount - 1; ++piece) {
            GetPiece<PieceSize>(piece, bytes, pieces);
        }
        GetPiece<LastPieceSize>(PieceCount - 1, bytes, pieces);
        std::atomic_signal_fence(std::memory_order_seq_cst); // the compiler must not read a second time either
    }

private:
    template <std::size_t Size>
    std::uint32_t PutPiece(std::size_t piece, const std::byte* bytes, std::size_t used) noexcept {
        const std::size_t start = PieceStart(piece);
        if (start >= used) {
            return 0;
        }
        std::array<std::byte, Size> cut;
        const std::byte* source = bytes + start;
        if (used - start < Size) {
            cut.fill(std::byte{0});
            std::memcpy(cut.data(), source, used - start);
            source = cut.data();
        }
        // Sixteen bytes at a time, because most pieces are only compared with zeros and not moved.
        using Block = std::uint64_t __attribute__((vector_size(16)));
        Block all{};
        for (std::size_t i = 0; i < Size; i += sizeof(Block)) {
            Block block;
            std::memcpy(&block, source + i, sizeof block);
            all |= block;
        }
        if ((all[0] | all[1]) == 0) {
            return 0;
        }
        std::memcpy(record.data() + start, source, Size);
        return 1U << piece;
    }

    template <std::size_t Size>
    void GetPiece(std::size_t piece, std::byte* bytes, std::uint32_t pieces) const noexcept {
        const std::size_t start = PieceStart(piece);
        if ((pieces >> piece & 1) != 0) {
            std::memcpy(bytes + start, record.data() + start, Size);
        } else {
            std::memset(bytes + start, 0, Size);
        }
    }
};
static_assert(SlotHalf::PieceEnd(SlotHalf::PieceCount - 1) == NkRecordSize);
static_assert(offsetof(SlotHalf, record) + SlotHalf::FirstPieceSize == 64);

/// What the word of the offers says: the call whose reply they came with, and which of them are taken. Zero: none.
class OfferWord final {
public:
    constexpr explicit OfferWord(std::uint64_t raw) : bits(raw) {}
    constexpr OfferWord(std::uint32_t sequence, std::uint32_t next, std::uint32_t count)
        : bits(std::uint64_t{sequence} << 32 | next << 16 | count) {}

    constexpr std::uint32_t Sequence() const { return static_cast<std::uint32_t>(bits >> 32); }
    constexpr std::uint32_t Next() const { return static_cast<std::uint32_t>(bits >> 16) & 0xFFFF; }
    constexpr std::uint32_t Count() const { return static_cast<std::uint32_t>(bits) & 0xFFFF; }
    constexpr std::uint64_t Raw() const { return bits; }

private:
    std::uint64_t bits;
};

/// Offers to the client. The server writes all of it; the client moves `next` in the word.
struct alignas(64) SlotOffers {
    std::atomic<std::uint64_t> word;   ///< OfferWord
    std::atomic<std::uint32_t> offset; ///< of the value in the record
    std::uint32_t unused;
    std::array<std::atomic<std::int64_t>, NkMaxOffers> values;
};

/// The memory that a client and its server share: one page, with nothing of another client in it.
struct SharedSlot {
    static constexpr std::uint32_t ExpectedMagic = 0x53565242; ///< "BRVS"

    std::uint32_t magic;
    std::uint32_t version; ///< LayoutVersion, or the older one that the client speaks
    std::uint32_t size;    ///< of this structure in that version
    std::uint32_t recordSize;

    // Written by the server only.
    std::atomic<std::uint32_t> reason; ///< NkLoss::reason
    std::uint32_t unused;
    std::atomic<std::uint64_t> lost; ///< NkLoss::lost

    SlotHalf request; ///< written by the client; hint: the sequence of the call that it sleeps for
    SlotHalf reply;   ///< written by the server; hint: 1 while the poller looks at the slot without a ring
    SlotOffers offers;

    /// The length of the structure in `version`: version 1 ends behind the halves.
    static constexpr std::uint32_t SizeIn(std::uint32_t layoutVersion) {
        return layoutVersion == 1 ? 2240 : sizeof(SharedSlot);
    }
};
static_assert(std::atomic<std::uint64_t>::is_always_lock_free && std::atomic<std::uint32_t>::is_always_lock_free);
static_assert(offsetof(SharedSlot, request) == 64 && offsetof(SharedSlot, reply) == 1152);
static_assert(offsetof(SharedSlot, offers) == SharedSlot::SizeIn(1) && sizeof(SharedSlot) <= 4096);

} // namespace borven_host
