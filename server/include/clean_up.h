#pragma once

#include "bus_interfaces.h"
#include "caller_accounts.h"
#include "common/mutex.h"

#include <cstdint>
#include <deque>
#include <functional>
#include <thread>

namespace msgbus_server {

/// Ends what is left behind: the registrations of callers that are gone, handshakes that are not finished in time,
/// and whatever else is posted. On a thread of its own, "clean-up": those that notice must not block.
/// Threads: any.
class CleanUp final {
public:
    /// `cancelAction` cancels the handshake with the id that it is given. Lifetime: `served`, to which unregistrations
    /// go, and `kept` must outlive this object. Throws: std::system_error when the thread cannot be started.
    CleanUp(CallerAccounts& kept, message_bus::IProviderControl& served, std::function<void(long)> cancelAction);
    CleanUp(const CleanUp&) = delete;
    CleanUp& operator=(const CleanUp&) = delete;
    ~CleanUp() { Stop(); }

    /// Ends the thread. What is posted and not begun, now or later, is dropped.
    void Stop();

    /// Unregisters what the caller has, one line for each.
    void EndAllOf(const KnCaller& caller);

    /// Runs `task` on the thread.
    void Post(std::function<void()> task);

    /// Much memory was freed: gives what is left of it back to the system when there is nothing else to do.
    void NoteFreedMuch();

    /// A handshake was begun, so one may expire.
    void NoteHandshake();

private:
    void Run();
    void EndNow(const KnCaller& caller);
    void End(const CallerAccounts::Registration& registration);
    bool IsStopping() EXCLUDES(mutex);
    void CancelExpired();

    CallerAccounts& accounts;
    message_bus::IProviderControl& control;
    const std::function<void(long)> cancelHandshake;

    common::Mutex mutex;
    common::ConditionVariable changed;
    bool isStopping GUARDED_BY(mutex) = false;
    bool hasHandshakes GUARDED_BY(mutex) = false;
    bool hasFreedMuch GUARDED_BY(mutex) = false; ///< so that the system gets the memory back
    std::deque<std::function<void()>> tasks GUARDED_BY(mutex);

    std::thread thread; ///< last: uses all members above
};

} // namespace msgbus_server
