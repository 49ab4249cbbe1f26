#include "exports/handle_table.h"

#include "kn/status.h"

#include <mutex>
#include <pthread.h>
#include <unordered_map>

namespace borven_host {

struct HandleTable::Entries {
    std::mutex mutex; ///< guards everything below
    std::unordered_map<KnHandle, std::shared_ptr<End>> open;
    KnHandle next = 1;
    bool hasWrapped = false;
};

namespace {

/// What the thread looked up last. Handles do not come again, so this needs no check against the table.
struct LastFound {
    KnHandle handle = KnInvalidHandle;
    std::shared_ptr<End> end;
};

thread_local LastFound lastFound;

} // namespace

HandleTable& HandleTable::Instance() {
    static HandleTable& table = *new HandleTable;
    return table;
}

HandleTable::HandleTable() : entries(std::make_unique<Entries>()) {
    ::pthread_atfork([] { Instance().entries->mutex.lock(); }, [] { Instance().entries->mutex.unlock(); },
                     [] {
                         // The ends stay in the table for good: closing them would end the parent's.
                         auto& table = *Instance().entries;
                         for (const auto& [handle, end] : table.open) {
                             end->isInherited.store(true, std::memory_order_relaxed);
                         }
                         table.mutex.unlock();
                     });
}

KnHandle HandleTable::Add(std::shared_ptr<End> end) {
    const std::lock_guard lock(entries->mutex);
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
    const std::lock_guard lock(entries->mutex);
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
    const std::lock_guard lock(entries->mutex);
    const auto found = entries->open.find(handle);
    if (found == entries->open.end() || found->second->isInherited.load(std::memory_order_relaxed)) {
        return nullptr;
    }
    auto end = std::move(found->second);
    entries->open.erase(found);
    return end;
}

std::vector<std::shared_ptr<End>> HandleTable::RemoveServerEnds() {
    const std::lock_guard lock(entries->mutex);
    std::vector<std::shared_ptr<End>> ends;
    ends.reserve(entries->open.size());
    std::erase_if(entries->open, [&](const auto& entry) {
        if (!entry.second->channel || entry.second->isInherited.load(std::memory_order_relaxed)) {
            return false;
        }
        ends.push_back(entry.second);
        return true;
    });
    return ends;
}

} // namespace borven_host
