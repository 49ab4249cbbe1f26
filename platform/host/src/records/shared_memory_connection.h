#pragma once

#include "base/deadline.h"
#include "base/unique_fd.h"
#include "common/mutex.h"
#include "nk/loss.h"
#include "nk/message.h"
#include "records/adaptive_spin.h"
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
class Connection final {
public:
    /// Waits for the server's answer on `socket`, which is connected to a server whose credentials were checked.
    ///
    /// Returns: 0 and `connection`; the status that the server refused with; KnStatusClosed; KnStatusTimedOut;
    /// KnStatusDenied when the server does not speak this protocol; KnStatusNoResources.
    /// Blocks: until the answer or the deadline.
    static std::int32_t Join(UniqueFd socket, Deadline deadline, std::shared_ptr<Connection>& connection);

    /// `process`: the server's, or empty. Throws std::system_error for want of descriptors.
    Connection(UniqueFd connected, UniqueFd process, SharedMemoryEnds ends);

    /// See nk/transport.h.
    std::int32_t Call(const nk_message* request, nk_message* response) noexcept EXCLUDES(callMutex);

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

    /// Takes the next offer in place of the reply to `request`, if there is one. Returns: whether there was.
    bool TakeOffer(const nk_message* request, nk_message* response) noexcept REQUIRES(callMutex);
    /// Remembers a call whose reply came with offers.
    void NoteOffers(const nk_message* request, const nk_message* response) noexcept REQUIRES(callMutex);

    bool HasReply(std::uint32_t sequence, SlotWord& reply) const noexcept;
    bool Sleep(std::uint32_t sequence, CallUnderWay& counted, SlotWord& reply) noexcept REQUIRES(callMutex);
    void RingBell() const noexcept;

    const UniqueFd socket;
    const UniqueFd serverProcess;
    const SharedMemoryEnds shared;
    const UniqueFd epoll; ///< what a call sleeps on: the doorbell, the socket, the server's process
    std::atomic<bool> isClosed{false};

    common::Mutex callMutex; ///< held for the length of a call: calls take turns
    std::uint32_t lastSequence GUARDED_BY(callMutex) = 0;
    Repeatable repeatable GUARDED_BY(callMutex);
    SleepPlace place GUARDED_BY(callMutex){SleepPlace::Sleeper::Caller};
    /// By method, because some methods answer at once and others after minutes.
    std::array<SpinLearner, LearnerCount> learners GUARDED_BY(callMutex);
};

} // namespace borven_host
