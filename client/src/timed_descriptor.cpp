#include "timed_descriptor.h"

#include "kn/status.h"
#include "msgbus/error.h"

#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <string>

namespace msgbus {

namespace {

[[noreturn]] void Fail() {
    throw PlatformError(KnStatusNoResources,
                        std::string("cannot make a descriptor that a time makes readable: ") + std::strerror(errno));
}

} // namespace

TimedDescriptor::TimedDescriptor(int other)
    : epoll(::epoll_create1(EPOLL_CLOEXEC)), timer(::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK)) {
    epoll_event event{};
    event.events = EPOLLIN;
    if (epoll == -1 || timer == -1 || ::epoll_ctl(epoll, EPOLL_CTL_ADD, other, &event) != 0 ||
        ::epoll_ctl(epoll, EPOLL_CTL_ADD, timer, &event) != 0) {
        const int error = errno;
        Close();
        errno = error;
        Fail();
    }
}

TimedDescriptor::~TimedDescriptor() {
    Close();
}

void TimedDescriptor::Close() noexcept {
    for (const int fd : {timer, epoll}) {
        if (fd != -1) {
            ::close(fd);
        }
    }
}

void TimedDescriptor::WakeAt(Deadline time) {
    if (time == wakesAt || (wakesAt < time && std::chrono::steady_clock::now() < wakesAt)) {
        return;
    }
    itimerspec setting{}; // zero: never
    if (time != Deadline::max()) {
        constexpr std::int64_t second = 1'000'000'000;
        const std::int64_t nanoseconds =
            std::max<std::int64_t>(std::chrono::nanoseconds(time.time_since_epoch()).count(), 1);
        setting.it_value.tv_sec = nanoseconds / second;
        setting.it_value.tv_nsec = nanoseconds % second;
    }
    if (::timerfd_settime(timer, TFD_TIMER_ABSTIME, &setting, nullptr) != 0) {
        Fail();
    }
    wakesAt = time;
}

} // namespace msgbus
