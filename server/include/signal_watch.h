#pragma once

#include <signal.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>

namespace msgbus_server {

/// SIGTERM and SIGINT: the first one calls back, on the thread "signals"; one that comes more than a second later
/// ends the process at once. Those in between are the same request: timeout(1), for example, signals the process and
/// then its group. SIGUSR1 asks for a drain.
class SignalWatch final {
public:
    static constexpr std::chrono::seconds SameRequest{1};

    /// Blocks these signals for the calling thread and every one that it starts later. To be called before any thread
    /// is started.
    static void BlockSignals();

    /// `onStop` is called once, with the signal's number; `onDrain` at each SIGUSR1 before that. `sameRequestTime`: how
    /// long behind the first signal further ones are the same request.
    SignalWatch(std::function<void(int)> onStop, std::function<void()> onDrain,
                std::chrono::nanoseconds sameRequestTime = SameRequest);
    SignalWatch(const SignalWatch&) = delete;
    SignalWatch& operator=(const SignalWatch&) = delete;
    ~SignalWatch();

private:
    static sigset_t Watched();
    int Next() const;
    bool IgnoreTheSameRequest() const;
    void Run(const std::function<void(int)>& onStop, const std::function<void()>& onDrain);

    const std::chrono::nanoseconds sameRequest;
    std::atomic<bool> ending{false};
    std::thread thread;
};

} // namespace msgbus_server
