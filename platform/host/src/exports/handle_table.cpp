#include "exports/handle_table.h"

#include "common/confined_thread.h"
#include "common/mutex.h"
#include "kn/status.h"
#include "records/adaptive_spin.h"

#include <pthread.h>

#include <unordered_map>
#include <utility>

namespace borven_host {

struct HandleTable::Entries {
    // The lock is held from the first of these functions to the second or third, which the analysis cannot follow.
    void BeforeFork() NO_THREAD_SAFETY_ANALYSIS {
        // No other thread is in the middle of their first call then, which the child would wait for.
        static_cast<void>(HasOneCpu());
        static_cast<void>(common::MayConfineThreads());
        mutex.Lock();
    }
    void AfterForkInParent() NO_THREAD_SAFETY_ANALYSIS { mutex.Unlock(); }
    void AfterForkInChild() NO_THREAD_SAFETY_ANALYSIS {
        // The ends stay in the table for good: closing them would end the parent's.
        for (const auto& [handle, end] : open) {
            end->isInherited.store(true, std::memory_order_relaxed);
        }
        CallUnderWay::ForgetAll();
        mutex.Unlock();
    }

    common::Mutex mutex;
    std::unordered_map<KnHandle, std::shared_ptr<End>> open GUARDED_BY(mutex);
    KnHandle next GUARDED_BY(mutex) = 1;
    bool hasWrapped GUARDED_BY(mutex) = false;
};

namespace {

/// What the thread looked up last. Handles are not reused, so this needs no check against the table.
struct LastFound {
    KnHandle handle = KnInvalidHandle;
    std::shared_ptr<End> end;
};

thread_local LastFound lastFound;

// Made before any thread, which another one could fork in the middle of.
[[maybe_unused]] const HandleTable& madeEarly = HandleTable::Instance();

bool IsServerEnd(const End& end) {
    return end.channel && !end.isInherited.load(std::memory_order_relaxed);
}

} // namespace

HandleTable& HandleTable::Instance() {
    static HandleTable& table = *new HandleTable;
    return table;
}

HandleTable::HandleTable() : entries(std::make_unique<Entries>()) {
    ::pthread_atfork([] { Instance().entries->BeforeFork(); }, [] { Instance().entries->AfterForkInParent(); },
                     [] { Instance().entries->AfterForkInChild(); });
}

KnHandle HandleTable::Add(std::shared_ptr<End> end) {
    const common::MutexLock lock(entries->mutex);
    while (entries->open.contains(entries->next) || entries->next == 0 || entries->next == KnInvalidHandle) {
        entries->hasWrapped = entries->hasWrapped || entries->next == KnInvalidHandle;
        ++entries->next;
    }
    entries->open.emplace(entries->next, std::move(end));
    return entries->next++;
}

std::int32_t HandleTable::Find(KnHandle handle, End*& end) noexcept {
    if (handle == lastFound.handle && lastFound.end) {
        end = lastFound.end.get();
        return end->isInherited.load(std::memory_order_relaxed) ? KnStatusClosed : KnStatusOk;
    }
    const common::MutexLock lock(entries->mutex);
    const auto found = entries->open.find(handle);
    if (found == entries->open.end()) {
        const bool wasOpen =
            handle != 0 && handle != KnInvalidHandle && (entries->hasWrapped || handle < entries->next);
        return wasOpen ? KnStatusClosed : KnStatusInvalidArgument;
    }
    lastFound = {handle, found->second};
    end = lastFound.end.get();
    return end->isInherited.load(std::memory_order_relaxed) ? KnStatusClosed : KnStatusOk;
}

std::shared_ptr<End> HandleTable::Remove(KnHandle handle) noexcept {
    if (lastFound.handle == handle) {
        lastFound = {}; // its descriptors close with it
    }
    const common::MutexLock lock(entries->mutex);
    const auto found = entries->open.find(handle);
    if (found == entries->open.end() || found->second->isInherited.load(std::memory_order_relaxed)) {
        return nullptr;
    }
    auto end = std::move(found->second);
    entries->open.erase(found);
    return end;
}

std::vector<std::shared_ptr<Channel>> HandleTable::ServerEnds() const {
    const common::MutexLock lock(entries->mutex);
    std::vector<std::shared_ptr<Channel>> channels;
    channels.reserve(entries->open.size());
    for (const auto& [handle, end] : entries->open) {
        if (IsServerEnd(*end)) {
            channels.push_back(end->channel);
        }
    }
    return channels;
}

std::vector<std::shared_ptr<Channel>> HandleTable::RemoveServerEnds() {
    const common::MutexLock lock(entries->mutex);
    std::vector<std::shared_ptr<Channel>> channels;
    channels.reserve(entries->open.size()); // before anything is erased
    std::erase_if(entries->open, [&](const auto& entry) {
        if (IsServerEnd(*entry.second)) {
            channels.push_back(entry.second->channel);
            return true;
        }
        return false;
    });
    return channels;
}

} // namespace borven_host
