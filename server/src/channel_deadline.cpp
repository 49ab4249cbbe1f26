#include "channel_deadline.h"

#include "diagnostics.h"
#include "kn/handle.h"

#include <pthread.h>

#include <utility>

namespace msgbus_server {

ChannelDeadline::ChannelDeadline() : thread([this] { Run(); }) {
    ::pthread_setname_np(thread.native_handle(), "deadline");
}

ChannelDeadline::~ChannelDeadline() {
    {
        const common::MutexLock lock(mutex);
        isEnding = true;
    }
    changed.NotifyAll();
    thread.join();
}

void ChannelDeadline::Arm(std::chrono::steady_clock::duration limit, std::string failure) {
    {
        const common::MutexLock lock(mutex);
        isArmed = true;
        deadline = std::chrono::steady_clock::now() + limit;
        message = std::move(failure);
    }
    changed.NotifyAll();
}

void ChannelDeadline::Disarm() {
    const common::MutexLock lock(mutex);
    isArmed = false;
}

void ChannelDeadline::Run() {
    common::MutexLock lock(mutex);
    while (!isEnding) {
        if (!isArmed) {
            changed.Wait(lock);
        } else if (std::chrono::steady_clock::now() < deadline) {
            changed.WaitUntil(lock, deadline);
        } else {
            isArmed = false;
            const std::string failure = std::move(message);
            lock.Unlock();
            diagnostics::Log(diagnostics::LogLevel::Error, "{}; closing the channels", failure);
            KnHandleCloseServerEnds();
            lock.Lock();
        }
    }
}

} // namespace msgbus_server
