#include "signal_watch.h"

#include <pthread.h>

#include <utility>

namespace msgbus_server {

sigset_t SignalWatch::Watched() {
    sigset_t set;
    ::sigemptyset(&set);
    ::sigaddset(&set, SIGTERM);
    ::sigaddset(&set, SIGINT);
    return set;
}

void SignalWatch::BlockSignals() {
    const sigset_t set = Watched();
    ::pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

SignalWatch::SignalWatch(std::function<void(int)> onSignal)
    : thread([this, callback = std::move(onSignal)] { Run(callback); }) {
    ::pthread_setname_np(thread.native_handle(), "signals");
}

SignalWatch::~SignalWatch() {
    ending.store(true);
    ::pthread_kill(thread.native_handle(), SIGTERM);
    thread.join();
}

void SignalWatch::Run(const std::function<void(int)>& onSignal) {
    const sigset_t set = Watched();
    int signalNumber = 0;
    ::sigwait(&set, &signalNumber);
    if (ending.load()) {
        return;
    }
    onSignal(signalNumber);
    ::sigwait(&set, &signalNumber);
    if (ending.load()) {
        return;
    }
    ::signal(signalNumber, SIG_DFL);
    ::pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
    ::raise(signalNumber);
}

} // namespace msgbus_server
