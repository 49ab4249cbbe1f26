#pragma once

#include "common/mutex.h"
#include "common/thread_annotations.h"
#include "exit_status.h"

#include <chrono>
#include <functional>
#include <optional>
#include <thread>

/// Ends the program on SIGINT or SIGTERM, at the time limit, or when the reader of stdout closes its end. The action
/// given to OnEnd then releases the main thread. If the watch still exists three seconds later, because the server does
/// not answer or the output blocks, the process exits without waiting longer. A signal that comes more than a second
/// after the cause ends the process at once; those before are the same request.
class EndWatch final {
public:
    enum class Cause { None, Signal, TimeLimit, OutputClosed };
    enum class Output { Watched, Ignored };

    /// Blocks the signals and starts the watching thread. Output::Watched: a closed stdout is a cause too.
    /// Throws: std::system_error. Threads: construct before any other thread starts, so that it inherits the mask.
    EndWatch(std::optional<std::chrono::milliseconds> timeLimit, Output output);
    EndWatch(const EndWatch&) = delete;
    EndWatch& operator=(const EndWatch&) = delete;
    /// Blocks: until a started action returns.
    ~EndWatch();

    /// Calls `action` once: on another thread when a cause occurs, or at once, on this thread, if one has occurred.
    void OnEnd(std::function<void()> action) EXCLUDES(mutex);

    /// Returns: None until a cause has occurred. Threads: any.
    Cause WhyEnded() const EXCLUDES(mutex);

    /// Returns: a descriptor that becomes readable when a cause occurs.
    int Descriptor() const noexcept { return endedDescriptor; }

private:
    void Run(std::optional<std::chrono::milliseconds> timeLimit, Output output) EXCLUDES(mutex);
    Cause AwaitCause(std::optional<std::chrono::milliseconds> timeLimit, Output output) const;
    bool AwaitQuit(std::chrono::steady_clock::time_point deadline) const;

    // Owned.
    int signalDescriptor;
    int quitDescriptor;  ///< becomes readable when the destructor ends the thread
    int endedDescriptor; ///< becomes readable when a cause occurs

    mutable common::Mutex mutex;
    Cause cause GUARDED_BY(mutex) = Cause::None;
    std::function<void()> endAction GUARDED_BY(mutex);
    bool isReleased GUARDED_BY(mutex) = false; ///< the action has returned

    std::thread thread; ///< last: uses all members above
};
