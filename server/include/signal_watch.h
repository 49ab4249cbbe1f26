#pragma once

#include <signal.h>

#include <atomic>
#include <functional>
#include <thread>

namespace msgbus_server {

/// SIGTERM and SIGINT: the first one calls back, on the thread "signals", the second one ends the process at once.
class SignalWatch final {
public:
    /// Blocks both signals for the calling thread and every one that it starts later. To be called before any thread is
    /// started.
    static void BlockSignals();

    /// `onSignal` is called once, with the signal's number.
    explicit SignalWatch(std::function<void(int)> onSignal);
    SignalWatch(const SignalWatch&) = delete;
    SignalWatch& operator=(const SignalWatch&) = delete;
    ~SignalWatch();

private:
    static sigset_t Watched();
    void Run(const std::function<void(int)>& onSignal);

    std::atomic<bool> ending{false};
    std::thread thread;
};

} // namespace msgbus_server
