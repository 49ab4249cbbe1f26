#include "signal_watch.h"

#include <pthread.h>

#include <ctime>
#include <utility>

namespace msgbus_server {

sigset_t SignalWatch::Watched() {
    sigset_t set;
    ::sigemptyset(&set);
    ::sigaddset(&set, SIGTERM);
    ::sigaddset(&set, SIGINT);
    ::sigaddset(&set, SIGUSR1);
    return set;
}

void SignalWatch::BlockSignals() {
    const sigset_t set = Watched();
    ::pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

SignalWatch::SignalWatch(std::function<void(int)> onStop, std::function<void()> onDrain,
                         std::chrono::nanoseconds sameRequestTime)
    : sameRequest(sameRequestTime),
      thread([this, stop = std::move(onStop), drain = std::move(onDrain)] { Run(stop, drain); }) {
    ::pthread_setname_np(thread.native_handle(), "signals");
}

SignalWatch::~SignalWatch() {
    ending.store(true);
    ::pthread_kill(thread.native_handle(), SIGTERM);
    thread.join();
}

/// Returns: the next signal; 0 when the destructor has sent it.
int SignalWatch::Next() const {
    const sigset_t set = Watched();
    int signalNumber = 0;
    ::sigwait(&set, &signalNumber);
    return ending.load() ? 0 : signalNumber;
}

/// Returns: false when the destructor ended it.
bool SignalWatch::IgnoreTheSameRequest() const {
    using Clock = std::chrono::steady_clock;
    const sigset_t set = Watched();
    const auto end = Clock::now() + sameRequest;
    for (auto left = Clock::duration(sameRequest); left > left.zero() && !ending.load(); left = end - Clock::now()) {
        const auto nanoseconds = std::chrono::nanoseconds(left).count();
        const timespec timeout{nanoseconds / std::nano::den, nanoseconds % std::nano::den};
        static_cast<void>(::sigtimedwait(&set, nullptr, &timeout));
    }
    return !ending.load();
}

void SignalWatch::Run(const std::function<void(int)>& onStop, const std::function<void()>& onDrain) {
    int signalNumber = Next();
    for (; signalNumber == SIGUSR1; signalNumber = Next()) {
        onDrain();
    }
    if (signalNumber == 0) {
        return;
    }
    onStop(signalNumber);
    if (!IgnoreTheSameRequest()) {
        return;
    }
    do {
        signalNumber = Next();
    } while (signalNumber == SIGUSR1);
    if (signalNumber == 0) {
        return;
    }
    sigset_t set;
    ::sigemptyset(&set);
    ::sigaddset(&set, signalNumber);
    ::signal(signalNumber, SIG_DFL);
    ::pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
    ::raise(signalNumber);
}

} // namespace msgbus_server
