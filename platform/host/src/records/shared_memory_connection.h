#pragma once

#include "base/deadline.h"
#include "base/unique_fd.h"
#include "nk/loss.h"
#include "nk/message.h"
#include "records/adaptive_spin.h"
#include "records/call_turn.h"
#include "records/shared_memory_ends.h"
#include "records/shared_memory_slot.h"
#include "records/sleep_place.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>

namespace borven_host {

/// One of the calls of this process that wait for their replies.
class CallUnderWay final {
public:
    CallUnderWay() noexcept : others(count.fetch_add(1, std::memory_order_relaxed)) {}
    CallUnderWay(const CallUnderWay&) = delete;
    CallUnderWay& operator=(const CallUnderWay&) = delete;
    ~CallUnderWay() { End(); }

    /// Returns: whether there were so many when it began that callers keep each other off the CPUs.
    bool IsInACrowd() const noexcept { return others >= Crowd; }

    /// In a child made by fork: the calls stay with the parent.
    static void ForgetAll() noexcept { count.store(0, std::memory_order_relaxed); }

    /// It takes long, and leaves the CPUs to the other ones.
    void End() noexcept {
        if (isCounted) {
            isCounted = false;
            count.fetch_sub(1, std::memory_order_relaxed);
        }
    }

private:
    static constexpr int Crowd = 3;

    static inline std::atomic<int> count{0}; // relaxed: advice

    const int others;
    bool isCounted = true;
};

/// Client end of a channel (see shared_memory_slot.h).
///
/// Descriptors: three, the socket, the bell and the epoll instance. Where another connection's descriptor is in use,
/// which this one may take over, the doorbell is a fourth one until the first call.
class Connection final : public std::enable_shared_from_this<Connection> {
public:
    /// Waits for the server's answer on `socket`, which is connected to a server whose credentials were checked.
    ///
    /// Returns: 0 and `connection`; the status that the server refused with; KnStatusClosed; KnStatusTimedOut;
    /// KnStatusDenied when the server does not speak this protocol; KnStatusNoResources.
    /// Blocks: until the answer or the deadline.
    static std::int32_t Join(UniqueFd socket, Deadline deadline, std::shared_ptr<Connection>& connection);

    /// `process`: the server's, or empty. Throws std::system_error for want of descriptors.
    Connection(UniqueFd connected, std::shared_ptr<const UniqueFd> process, SharedMemoryEnds ends);
    ~Connection() { SetPolled(false); }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    /// See nk/transport.h.
    std::int32_t Call(const nk_message* request, nk_message* response) noexcept;

    /// See nk/begun_call.h.
    std::int32_t Begin(const nk_message* request, std::uint32_t timeoutMs) noexcept;
    std::int32_t Finish(nk_message* response, std::uint32_t timeoutMs) noexcept;
    std::int32_t Abandon() noexcept;
    std::int32_t Descriptor(int& descriptor) noexcept;
    std::int32_t MoveDescriptorOf(Connection& former) noexcept;
    std::int32_t WakeDescriptor(std::uint32_t afterMs) noexcept;

    /// See nk/loss.h.
    NkLoss Loss() const noexcept;

    /// Ends a call that is under way. Idempotent. Threads: any.
    void Close() noexcept;

private:
    static constexpr std::size_t LearnerCount = 16;

    /// What a repeated call may take ahead: the last request, its reply, and where the offered values stand in it.
    struct Repeatable {
        bool isOffered = false;
        std::size_t offset = 0;
        std::array<std::byte, NkRecordSize> request;
        std::array<std::byte, NkRecordSize> reply;
    };

    /// The call that was begun. It has the turn, unless it was abandoned: then the next call finishes it first.
    enum class Begun : std::uint8_t { None, Sent, ByOffer, Abandoned };

    enum class Found : std::uint8_t { Reply, Nothing, EndOfServer };

    std::int32_t Enter(std::uint32_t timeoutMs) noexcept;
    std::int32_t EnterSlowly(bool hasTurn, Deadline deadline) noexcept;

    /// Whether `request` may be answered by the next offer.
    bool IsOffered(const nk_message* request) noexcept;
    /// Takes the next offer, if there is one. Returns: whether there was.
    bool TakeOffer(nk_message* response) noexcept;
    /// Remembers a call whose reply came with offers.
    void NoteOffers(const nk_message* response) noexcept;

    void Send(const nk_message* request) noexcept;
    /// Takes the reply to what was sent last. Returns: as Finish.
    std::int32_t TakeReply(nk_message* response, CallUnderWay& counted, Deadline deadline, bool mayWait) noexcept;
    bool HasReply(SlotWord& reply) const noexcept;
    bool LookOrAskForRing(SlotWord& reply) noexcept;
    Found LookOnce(SlotWord& reply) noexcept;
    Found Sleep(CallUnderWay& counted, SlotWord& reply, Deadline deadline) noexcept;
    void RingBell() noexcept;

    void KeepReadable(bool ringIsCertain) noexcept;
    void Mark() noexcept;
    void Unmark() noexcept;
    void UnwatchServer() noexcept;
    void CloseDoorbell() noexcept { shared.doorbell.Reset(); }
    void SetPolled(bool isInUse) noexcept {
        polledCount.fetch_add(static_cast<int>(isInUse) - static_cast<int>(isPolled), std::memory_order_relaxed);
        isPolled = isInUse;
    }

    static inline std::atomic<int> polledCount{0}; ///< connections of this process whose descriptor is in use

    const UniqueFd socket;
    const std::shared_ptr<const UniqueFd> serverProcess;
    std::atomic<bool> isClosed{false};
    CallTurn turn; ///< has all below
    SharedMemoryEnds shared;
    UniqueFd epoll; ///< what a call sleeps on: the doorbell, the socket, the server's process
    std::atomic<Begun> begun{Begun::None};
    std::uint32_t lastSequence = 0;
    std::uint32_t lastPieces = 0;
    bool hasRung = false;           ///< for the last request
    std::uint32_t lookedInVain = 0; ///< the call whose reply rings for certain: its hint was set before
    SpinLearner* learner = nullptr; ///< of the last request
    Repeatable repeatable;
    SleepPlace place{SleepPlace::Sleeper::Caller};
    /// By method, because some methods answer at once and others after minutes.
    std::array<SpinLearner, LearnerCount> learners;

    bool isPolled = false;   ///< a descriptor was given out
    bool isReadable = false; ///< it is, for certain
    bool hasTimer = false;   ///< in place of the bell
    bool isMarked = false;   ///< because of the socket's room for writing
};

} // namespace borven_host
