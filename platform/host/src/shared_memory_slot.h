#pragma once

#include "nk/message.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace borven_host {

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
/// from one CPU to another costs several times what the rest of a call does.
struct alignas(64) SlotHalf {
    std::atomic<std::uint64_t> word;
    std::atomic<std::uint32_t> hint; ///< see SharedSlot
    std::uint32_t unused;
    std::array<std::byte, NkRecordSize> record;

    static constexpr std::size_t pieceSize = 64;
    static constexpr std::size_t firstPieceSize = 48; ///< what is left of the word's line
    static constexpr std::size_t pieceCount = 17;

    static constexpr std::size_t PieceStart(std::size_t piece) {
        return piece == 0 ? 0 : firstPieceSize + (piece - 1) * pieceSize;
    }
    static constexpr std::size_t PieceEnd(std::size_t piece) { return std::min(PieceStart(piece + 1), NkRecordSize); }

    /// Copies the first `used` bytes of a record in. Returns: its pieces. What lies behind them counts as zeros.
    std::uint32_t Put(const void* source, std::size_t used) noexcept {
        const auto* bytes = static_cast<const std::byte*>(source);
        std::uint32_t pieces = 0;
        for (std::size_t piece = 0; piece < pieceCount && PieceStart(piece) < used; ++piece) {
            const std::size_t start = PieceStart(piece);
            const std::size_t length = PieceEnd(piece) - start;
            std::array<std::byte, pieceSize> copy{};
            std::memcpy(copy.data(), bytes + start, std::min(length, used - start));
            const auto words = std::bit_cast<std::array<std::uint64_t, pieceSize / sizeof(std::uint64_t)>>(copy);
            std::uint64_t all = 0;
            for (const std::uint64_t each : words) {
                all |= each;
            }
            if (all != 0) {
                std::memcpy(record.data() + start, copy.data(), length);
                pieces |= 1U << piece;
            }
        }
        return pieces;
    }

    /// Copies a whole record out, once: what the other side does to it later is not seen any more.
    void Get(void* target, std::uint32_t pieces) const noexcept {
        auto* bytes = static_cast<std::byte*>(target);
        std::memset(bytes, 0, NkRecordSize);
        for (; pieces != 0; pieces &= pieces - 1) {
            const auto piece = static_cast<std::size_t>(std::countr_zero(pieces));
            const std::size_t start = PieceStart(piece);
            std::memcpy(bytes + start, record.data() + start, PieceEnd(piece) - start);
        }
        std::atomic_signal_fence(std::memory_order_seq_cst); // the compiler shall not read a second time either
    }
};
static_assert(SlotHalf::PieceEnd(SlotHalf::pieceCount - 1) == NkRecordSize);
static_assert(offsetof(SlotHalf, record) + SlotHalf::firstPieceSize == 64);

/// The memory that a client and its server share: one page, nothing of any other client in it.
struct SharedSlot {
    static constexpr std::uint32_t expectedMagic = 0x53565242; ///< "BRVS"
    static constexpr std::uint32_t expectedVersion = 1;

    std::uint32_t magic;
    std::uint32_t version;
    std::uint32_t size; ///< of this structure
    std::uint32_t recordSize;

    SlotHalf request; ///< written by the client; hint: the sequence of the call that it sleeps for
    SlotHalf reply;   ///< written by the server; hint: 1 while the client may count on being looked at without a ring
};
static_assert(std::atomic<std::uint64_t>::is_always_lock_free && std::atomic<std::uint32_t>::is_always_lock_free);
static_assert(offsetof(SharedSlot, request) == 64 && offsetof(SharedSlot, reply) == 1152 && sizeof(SharedSlot) <= 4096);

} // namespace borven_host
