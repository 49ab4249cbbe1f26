#include "joining/poller.h"

#include <sys/eventfd.h>

#include <cassert>
#include <cerrno>
#include <system_error>
#include <utility>

namespace borven_host {

namespace {

// The data of an event: the id, shifted, and a bit that says whether the event is the process's or the socket's.
constexpr std::uint64_t WakeData = 0;
constexpr std::uint64_t ProcessBit = 1;

UniqueFd Checked(int fd) {
    UniqueFd owned(fd);
    if (!owned) {
        throw std::system_error(errno, std::generic_category());
    }
    return owned;
}

} // namespace

void Poller::Open() {
    assert(!descriptors.epoll && !descriptors.wake);
    Descriptors opened{Checked(::epoll_create1(EPOLL_CLOEXEC)), Checked(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))};
    descriptors = std::move(opened);
    if (!Control(EPOLL_CTL_ADD, descriptors.wake.Get(), EPOLLIN, WakeData)) {
        const int error = errno;
        static_cast<void>(Release());
        throw std::system_error(error, std::generic_category());
    }
}

Poller::Descriptors Poller::Release() noexcept {
    return std::exchange(descriptors, {});
}

Poller::Event Poller::Decode(const epoll_event& event) noexcept {
    return {event.data.u64 >> 1, (event.data.u64 & ProcessBit) != 0, event.events};
}

void Poller::Wake() const noexcept {
    constexpr std::uint64_t one = 1;
    static_cast<void>(::write(descriptors.wake.Get(), &one, sizeof one));
}

void Poller::ForgetWake() const noexcept {
    std::uint64_t count = 0;
    static_cast<void>(::read(descriptors.wake.Get(), &count, sizeof count));
}

bool Poller::WatchSocket(int socket, std::uint32_t events, std::uint64_t id) const noexcept {
    return Control(EPOLL_CTL_ADD, socket, events, id << 1);
}

bool Poller::ChangeSocket(int socket, std::uint32_t events, std::uint64_t id) const noexcept {
    return Control(EPOLL_CTL_MOD, socket, events, id << 1);
}

bool Poller::WatchProcess(int process, std::uint64_t id) const noexcept {
    return Control(EPOLL_CTL_ADD, process, EPOLLIN, id << 1 | ProcessBit);
}

void Poller::Unwatch(int fd) const noexcept {
    ::epoll_ctl(descriptors.epoll.Get(), EPOLL_CTL_DEL, fd, nullptr);
}

bool Poller::Control(int operation, int fd, std::uint32_t events, std::uint64_t data) const noexcept {
    epoll_event event{events, {.u64 = data}};
    return ::epoll_ctl(descriptors.epoll.Get(), operation, fd, &event) == 0;
}

} // namespace borven_host
