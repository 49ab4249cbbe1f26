#include "stop_deadline.h"

#include "diagnostics.h"
#include "kn/handle.h"

#include <pthread.h>

#include <condition_variable>
#include <system_error>

namespace msgbus_server {

using diagnostics::Log;
using diagnostics::LogLevel;

StopDeadline::StopDeadline(std::chrono::steady_clock::duration limit) {
    try {
        thread = std::thread([this, deadline = std::chrono::steady_clock::now() + limit] { Run(deadline); });
        ::pthread_setname_np(thread.native_handle(), "stop-deadline");
    } catch (const std::system_error& error) {
        Log(LogLevel::Error, "Closing the channels without waiting for their threads: {}", error.what());
        KnHandleCloseServerEnds();
    }
}

StopDeadline::~StopDeadline() {
    {
        const common::MutexLock lock(mutex);
        isOver = true;
    }
    changed.NotifyAll();
    if (thread.joinable()) {
        thread.join();
    }
}

void StopDeadline::Run(std::chrono::steady_clock::time_point deadline) {
    {
        common::MutexLock lock(mutex);
        while (!isOver && changed.WaitUntil(lock, deadline) == std::cv_status::no_timeout) {
        }
        if (isOver) {
            return;
        }
    }
    Log(LogLevel::Error, "A thread does not end; closing the channels all the same");
    KnHandleCloseServerEnds();
}

} // namespace msgbus_server
