#include "clean_up.h"

#include "diagnostics.h"

#include <malloc.h>
#include <pthread.h>

#include <cstddef>
#include <optional>
#include <utility>

namespace msgbus_server {

using diagnostics::Log;
using diagnostics::LogLevel;

namespace {

constexpr std::size_t ManyRegistrations = 64;

} // namespace

CleanUp::CleanUp(CallerAccounts& kept, message_bus::IProviderControl& served, std::function<void(long)> cancelAction)
    : accounts(kept), control(served), cancelHandshake(std::move(cancelAction)), thread([this] { Run(); }) {
    ::pthread_setname_np(thread.native_handle(), "clean-up");
}

void CleanUp::Stop() {
    {
        const common::MutexLock lock(mutex);
        isStopping = true;
        tasks.clear();
    }
    changed.NotifyOne();
    if (thread.joinable()) {
        thread.join();
    }
}

bool CleanUp::IsStopping() {
    const common::MutexLock lock(mutex);
    return isStopping;
}

void CleanUp::EndAllOf(const KnCaller& caller) {
    Post([this, caller] { EndNow(caller); });
}

void CleanUp::Post(std::function<void()> task) {
    {
        const common::MutexLock lock(mutex);
        if (isStopping) {
            return;
        }
        tasks.push_back(std::move(task));
    }
    changed.NotifyOne();
}

void CleanUp::NoteHandshake() {
    {
        const common::MutexLock lock(mutex);
        if (std::exchange(hasHandshakes, true)) {
            return; // those begun before expire before
        }
    }
    changed.NotifyOne();
}

void CleanUp::NoteFreedMuch() {
    const common::MutexLock lock(mutex);
    hasFreedMuch = true;
}

void CleanUp::Run() {
    common::MutexLock lock(mutex);
    while (!isStopping) {
        if (!tasks.empty()) {
            const auto task = std::move(tasks.front());
            tasks.pop_front();
            lock.Unlock();
            task();
            lock.Lock();
            continue;
        }
        if (std::exchange(hasFreedMuch, false)) {
            lock.Unlock();
            ::malloc_trim(0);
            lock.Lock();
            continue;
        }
        const auto expiry = hasHandshakes ? accounts.NextExpiry() : std::nullopt;
        hasHandshakes = expiry.has_value();
        if (!expiry) {
            changed.Wait(lock);
        } else if (*expiry > CallerAccounts::Clock::now()) {
            changed.WaitUntil(lock, *expiry);
        } else {
            lock.Unlock();
            CancelExpired();
            lock.Lock();
        }
    }
}

void CleanUp::EndNow(const KnCaller& caller) {
    const auto registrations = accounts.AllOf(caller.id);
    if (registrations.size() >= ManyRegistrations) {
        NoteFreedMuch();
    }
    for (const auto& registration : registrations) {
        if (IsStopping()) {
            return;
        }
        Log(LogLevel::Info, "{} {} of process {} ({}), which is gone, is {}", NameOf(registration.kind),
            registration.id, caller.pid, static_cast<const char*>(caller.program),
            registration.kind == Kind::Handshake ? "cancelled" : "unregistered");
        End(registration);
    }
}

void CleanUp::End(const CallerAccounts::Registration& registration) {
    switch (registration.kind) {
    case Kind::Publisher:
        control.UnregisterPublisher(registration.id);
        break;
    case Kind::Subscriber:
        control.UnregisterSubscriber(registration.id);
        break;
    case Kind::Handshake:
        cancelHandshake(registration.id);
        break;
    }
    accounts.Remove(registration);
}

void CleanUp::CancelExpired() {
    for (const auto& registration : accounts.Expired(CallerAccounts::Clock::now())) {
        const KnCaller owner = accounts.OwnerOf(registration);
        if (owner.id == 0) {
            continue; // its client was faster
        }
        Log(LogLevel::Warning, "{} {} of process {} ({}) takes too long and is cancelled", NameOf(registration.kind),
            registration.id, owner.pid, static_cast<const char*>(owner.program));
        End(registration);
    }
}

} // namespace msgbus_server
