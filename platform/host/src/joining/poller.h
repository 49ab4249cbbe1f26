#pragma once

#include "base/unique_fd.h"

#include <sys/epoll.h>

#include <cstdint>

namespace borven_host {

/// What the housekeeper's thread waits on: the sockets of listeners, and the sockets and processes of visitors. An
/// event carries the id of the listener or visitor that it belongs to.
///
/// Threads: the housekeeper's mutex guards every call; only the wait itself happens without it.
class Poller final {
public:
    /// Events that end a visit.
    static constexpr std::uint32_t LeavingEvents = EPOLLRDHUP | EPOLLHUP | EPOLLERR;

    struct Event {
        std::uint64_t id; ///< 0 for Wake
        bool isOfProcess; ///< false: of the socket
        std::uint32_t events;
    };

    struct Descriptors {
        UniqueFd epoll;
        UniqueFd wake;
    };

    /// Throws std::system_error.
    void Open();

    /// Returns: what was open, for the caller to close.
    Descriptors Release() noexcept;

    /// The descriptor to wait on; readable at once after Wake.
    int Get() const noexcept { return descriptors.epoll.Get(); }
    static Event Decode(const epoll_event& event) noexcept;
    void Wake() const noexcept;
    void ForgetWake() const noexcept;

    /// Returns: a number that no listener and no visitor of this process has had, from 1 on.
    std::uint64_t NewId() noexcept { return ++lastId; }

    /// Return: false with errno.
    bool WatchSocket(int socket, std::uint32_t events, std::uint64_t id) const noexcept;
    bool ChangeSocket(int socket, std::uint32_t events, std::uint64_t id) const noexcept;
    bool WatchProcess(int process, std::uint64_t id) const noexcept;

    void Unwatch(int fd) const noexcept;

private:
    bool Control(int operation, int fd, std::uint32_t events, std::uint64_t data) const noexcept;

    Descriptors descriptors;
    std::uint64_t lastId = 0;
};

} // namespace borven_host
