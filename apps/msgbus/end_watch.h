#pragma once

#include "exit_status.h"

#include "common/mutex.h"
#include "common/thread_annotations.h"

#include <chrono>
#include <functional>
#include <optional>
#include <thread>

/// Watches for what ends the program from outside: SIGINT or SIGTERM, the time limit, a reader of stdout that is gone.
/// When one comes, the action given to OnEnd releases the main thread; a main thread that is not through soon after,
/// because the server does not answer or nobody reads the output, is not waited for: the process exits. A second signal
/// ends the process at once.
class EndWatch final {
public:
    enum class Cause { None, Signal, TimeLimit, OutputClosed };
    enum class Output { Watched, Ignored };

    /// To be made before any other thread is started: the signals are blocked from here on.
    EndWatch(std::optional<std::chrono::milliseconds> timeLimit, Output output);
    EndWatch(const EndWatch&) = delete;
    EndWatch& operator=(const EndWatch&) = delete;
    ~EndWatch();

    /// `action` is called once, on another thread, or here and now when the end has come already.
    void OnEnd(std::function<void()> action) EXCLUDES(mutex);

    Cause WhyEnded() const EXCLUDES(mutex);

    /// Becomes readable when the end comes.
    int Descriptor() const noexcept { return endedDescriptor; }

private:
    void Run(std::optional<std::chrono::milliseconds> timeLimit, Output output) EXCLUDES(mutex);
    Cause AwaitCause(std::optional<std::chrono::milliseconds> timeLimit, Output output) const;

    // Owned; closed with the process.
    int signalDescriptor;
    int quitDescriptor;
    int endedDescriptor;

    mutable common::Mutex mutex;
    Cause cause GUARDED_BY(mutex) = Cause::None;
    std::function<void()> endAction GUARDED_BY(mutex);
    bool isReleased GUARDED_BY(mutex) = false; ///< the action has returned

    std::thread thread;
};
