#pragma once

#include "kn/caller.h"

#include <atomic>
#include <cstdint>

namespace borven_host {

/// The observer of this process (kn/caller.h). It changes only while no server end is open.
class RequestObserver final {
public:
    static RequestObserver& Instance() noexcept {
        static RequestObserver observer;
        return observer;
    }

    void Set(KnIRequestObserver* newObserver, std::uint16_t interface) noexcept {
        iid.store(newObserver == nullptr ? NoInterface : interface, std::memory_order_relaxed);
        observer.store(newObserver, std::memory_order_release);
    }

    /// Returns: null when there is none.
    KnIRequestObserver* Get() const noexcept { return observer.load(std::memory_order_acquire); }

    /// Returns: the observer that sees `request`; null when none does.
    KnIRequestObserver* Of(const nk_message& request) const noexcept {
        return request.iid == iid.load(std::memory_order_relaxed) ? Get() : nullptr;
    }

private:
    static constexpr std::uint32_t NoInterface = 0x10000;

    std::atomic<KnIRequestObserver*> observer{nullptr};
    std::atomic<std::uint32_t> iid{NoInterface};
};

} // namespace borven_host
