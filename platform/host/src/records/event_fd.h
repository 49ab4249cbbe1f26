#pragma once

#include "base/deadline.h"
#include "base/unique_fd.h"

#include <linux/magic.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cstdint>

namespace borven_host {

// An event descriptor that a process shares with one that it does not trust. It is never read: a process that waits for
// it has it in an epoll instance, edge-triggered, and each ring is an edge. Its counter stays at 1, because a ring adds
// 0: unlike any other number, that neither overflows nor blocks, whatever the other side has written to the descriptor
// and whichever flags it has changed.

inline UniqueFd MakeBell() noexcept {
    return UniqueFd(::eventfd(1, EFD_CLOEXEC | EFD_NONBLOCK));
}

/// Returns: whether to ring `fd`, which another process made, can neither block nor raise SIGPIPE, as it can for a pipe
/// or a socket: it is one of the kernel's anonymous objects, as every event descriptor is.
inline bool IsBell(const UniqueFd& fd) noexcept {
    struct statfs status {};
    return ::fstatfs(fd.Get(), &status) == 0 && status.f_type == ANON_INODE_FS_MAGIC;
}

inline void Ring(const UniqueFd& bell) noexcept {
    const std::uint64_t nothing = 0;
    static_cast<void>(!::write(bell.Get(), &nothing, sizeof nothing));
}

/// An edge-triggered bell reports one ring at once. Returns: false, with errno set, when the kernel refuses.
inline bool Watch(const UniqueFd& epoll, int fd, std::uint32_t events, std::uint64_t data) noexcept {
    epoll_event event{events, {.u64 = data}};
    return ::epoll_ctl(epoll.Get(), EPOLL_CTL_ADD, fd, &event) == 0;
}

constexpr int LongestSleepMs = 1000; ///< of a thread that a sleep keeps from something else

/// epoll_wait until `deadline`. Calls `release` when the sleep takes long, or a signal comes.
/// Returns: as epoll_wait; 0 only at the deadline.
template <typename Release>
int SleepUntilEvent(const UniqueFd& epoll, epoll_event* events, int count, const Release& release,
                    Deadline deadline = Deadline::max()) noexcept {
    const int limit = PollTimeout(deadline);
    const bool isShort = limit >= 0 && limit <= LongestSleepMs;
    const int happened = ::epoll_wait(epoll.Get(), events, count, isShort ? limit : LongestSleepMs);
    if (happened > 0 || (happened == 0 && isShort)) {
        return happened;
    }
    release();
    return happened < 0 ? happened : ::epoll_wait(epoll.Get(), events, count, PollTimeout(deadline));
}

} // namespace borven_host
