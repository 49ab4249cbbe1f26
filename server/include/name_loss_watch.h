#pragma once

#include <atomic>
#include <functional>

namespace msgbus_server {

/// Calls `onLoss` when the platform reports that a name of this process is lost (ns/name_loss.h): clients no longer
/// find the server, and another one may serve in its place. One per process at a time.
class NameLossWatch final {
public:
    explicit NameLossWatch(std::function<void()> onLoss);
    NameLossWatch(const NameLossWatch&) = delete;
    NameLossWatch& operator=(const NameLossWatch&) = delete;
    /// Blocks: while `onLoss` is being called.
    ~NameLossWatch();

    /// Threads: any.
    bool HasLost() const noexcept { return hasLost.load(); }

private:
    static void OnLost(const char* name, void* self);

    const std::function<void()> reportLoss;
    std::atomic<bool> hasLost{false};
};

} // namespace msgbus_server
