#include "end_watch.h"

#include "arguments.h"

#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <limits>
#include <system_error>
#include <utility>

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds TimeToRelease{3000};

/// Signals within this time of the cause belong to it: timeout(1), for example, signals the process and its group.
constexpr milliseconds SameRequest{1000};

// Names of threads; the kernel takes at most 15 bytes.
constexpr const char* WatchThreadName = "msgbus-watch";
constexpr const char* ReleaseThreadName = "msgbus-release";

sigset_t EndingSignals() {
    sigset_t set;
    ::sigemptyset(&set);
    ::sigaddset(&set, SIGINT);
    ::sigaddset(&set, SIGTERM);
    return set;
}

int Checked(int descriptor) {
    if (descriptor < 0) {
        throw std::system_error(errno, std::generic_category(), "cannot watch for signals");
    }
    return descriptor;
}

int SignalDescriptor() {
    const sigset_t set = EndingSignals();
    ::pthread_sigmask(SIG_BLOCK, &set, nullptr);
    return Checked(::signalfd(-1, &set, SFD_CLOEXEC));
}

void MakeReadable(int eventDescriptor) {
    const std::uint64_t one = 1;
    // Cannot fail: the counter is far below its limit.
    static_cast<void>(!::write(eventDescriptor, &one, sizeof one));
}

int RemainingMs(std::optional<steady_clock::time_point> deadline) {
    if (!deadline) {
        return -1;
    }
    const auto left = std::chrono::ceil<milliseconds>(*deadline - steady_clock::now()).count();
    return static_cast<int>(std::clamp<milliseconds::rep>(left, 0, std::numeric_limits<int>::max()));
}

} // namespace

EndWatch::EndWatch(std::optional<milliseconds> timeLimit, Output output)
    : signalDescriptor(SignalDescriptor()), quitDescriptor(Checked(::eventfd(0, EFD_CLOEXEC))),
      endedDescriptor(Checked(::eventfd(0, EFD_CLOEXEC))), thread([=, this] { Run(timeLimit, output); }) {}

EndWatch::~EndWatch() {
    MakeReadable(quitDescriptor);
    thread.join();
    for (const int descriptor : {signalDescriptor, quitDescriptor, endedDescriptor}) {
        ::close(descriptor);
    }
}

void EndWatch::OnEnd(std::function<void()> action) {
    {
        const common::MutexLock lock(mutex);
        if (cause == Cause::None) {
            endAction = std::move(action);
            return;
        }
    }
    action();
}

EndWatch::Cause EndWatch::WhyEnded() const {
    const common::MutexLock lock(mutex);
    return cause;
}

/// Waits for the first cause.
/// Returns: None when the destructor ends the wait.
EndWatch::Cause EndWatch::AwaitCause(std::optional<milliseconds> timeLimit, Output output) const {
    std::optional<steady_clock::time_point> deadline;
    if (timeLimit) {
        deadline = steady_clock::now() + *timeLimit;
    }
    while (true) {
        // poll ignores a negative descriptor, and reports POLLERR (the reader of stdout is gone) without being asked.
        std::array<pollfd, 3> watched{{{quitDescriptor, POLLIN, 0},
                                       {signalDescriptor, POLLIN, 0},
                                       {output == Output::Watched ? STDOUT_FILENO : -1, 0, 0}}};
        const int ready = ::poll(watched.data(), watched.size(), RemainingMs(deadline));
        if (watched[0].revents != 0) {
            return Cause::None;
        }
        if (watched[1].revents != 0) {
            return Cause::Signal;
        }
        if (watched[2].revents != 0) {
            return Cause::OutputClosed;
        }
        if (ready == 0 && steady_clock::now() >= *deadline) {
            return Cause::TimeLimit;
        }
    }
}

/// Returns: whether the destructor ended the wait.
bool EndWatch::AwaitQuit(steady_clock::time_point deadline) const {
    pollfd quit{quitDescriptor, POLLIN, 0};
    while (::poll(&quit, 1, RemainingMs(deadline)) <= 0 && steady_clock::now() < deadline) {
    }
    return quit.revents != 0;
}

void EndWatch::Run(std::optional<milliseconds> timeLimit, Output output) {
    ::pthread_setname_np(::pthread_self(), WatchThreadName);
    const Cause found = AwaitCause(timeLimit, output);
    if (found == Cause::None) {
        return;
    }
    std::function<void()> action;
    {
        const common::MutexLock lock(mutex);
        cause = found;
        action.swap(endAction);
    }
    MakeReadable(endedDescriptor);
    std::thread releasing([this, release = std::move(action)] {
        ::pthread_setname_np(::pthread_self(), ReleaseThreadName);
        if (release) {
            release();
            const common::MutexLock lock(mutex);
            isReleased = true;
        }
    });
    const auto deadline = steady_clock::now() + TimeToRelease;
    bool isQuitting = AwaitQuit(steady_clock::now() + SameRequest);
    if (!isQuitting) {
        const sigset_t set = EndingSignals();
        const timespec now{};
        while (::sigtimedwait(&set, nullptr, &now) > 0) { // consume these: the default action is for a later one
        }
        ::pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
        isQuitting = AwaitQuit(deadline);
    }
    if (isQuitting) {
        releasing.join();
        return;
    }
    bool released = false;
    {
        const common::MutexLock lock(mutex);
        released = isReleased;
    }
    if (!released) {
        Say("the message bus server does not answer; exiting without its reply");
    }
    if (found == Cause::TimeLimit) {
        ::_exit(static_cast<int>(ExitStatus::TimedOut));
    }
    ::_exit(static_cast<int>(released ? ExitStatus::Done : ExitStatus::NoServer));
}
