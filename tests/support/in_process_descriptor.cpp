#include "support/in_process_descriptor.h"

#include "nk/begun_call.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <initializer_list>

namespace test_support {

InProcessDescriptor::InProcessDescriptor()
    : owner(::getpid()), poller(::epoll_create1(EPOLL_CLOEXEC)), event(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      timer(::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK)) {
    epoll_event readable{};
    readable.events = EPOLLIN;
    isOpen = ::epoll_ctl(poller, EPOLL_CTL_ADD, event, &readable) == 0 &&
             ::epoll_ctl(poller, EPOLL_CTL_ADD, timer, &readable) == 0;
}

InProcessDescriptor::~InProcessDescriptor() {
    for (const int descriptor : {poller, event, timer}) {
        if (descriptor >= 0) {
            ::close(descriptor);
        }
    }
}

void InProcessDescriptor::Signal() {
    if (IsOwn()) {
        static_cast<void>(::eventfd_write(event, 1));
    }
}

void InProcessDescriptor::Clear() {
    if (IsOwn()) {
        eventfd_t count = 0;
        static_cast<void>(::eventfd_read(event, &count));
        SetTimer(0, 0);
    }
}

void InProcessDescriptor::SignalIn(std::uint32_t afterMs) {
    Clear();
    if (afterMs != NkForever && IsOwn()) {
        constexpr std::uint32_t msPerSecond = 1000;
        constexpr std::int64_t nsPerMs = 1'000'000;
        const std::int64_t rest = afterMs % msPerSecond * nsPerMs;
        SetTimer(afterMs / msPerSecond, afterMs == 0 ? 1 : rest);
    }
}

void InProcessDescriptor::SetTimer(std::int64_t seconds, std::int64_t nanoseconds) {
    itimerspec time{};
    time.it_value.tv_sec = seconds;
    time.it_value.tv_nsec = nanoseconds;
    static_cast<void>(::timerfd_settime(timer, 0, &time, nullptr));
}

bool InProcessDescriptor::IsOwn() const {
    return owner == ::getpid();
}

} // namespace test_support
