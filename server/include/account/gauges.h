#pragma once

#include "common/mutex.h"
#include "instruments/account_layout.h"

#include <functional>
#include <optional>
#include <thread>

namespace msgbus_server {

/// Returns: the threads, descriptors and memory of this process; nothing when they cannot be read, because descriptors
/// have run out.
std::optional<instruments::layout::Gauges> ReadGauges();

/// Keeps the gauges of the account up to date, on the thread "gauges": a second after something has happened, and then
/// again only when something more has. Threads: any, but for construction and destruction.
class GaugeRefresh final {
public:
    /// `refreshAction` is called on the thread; the first of its exceptions in a row is logged. Throws:
    /// std::system_error when that cannot be started.
    explicit GaugeRefresh(std::function<void()> refreshAction);
    GaugeRefresh(const GaugeRefresh&) = delete;
    GaugeRefresh& operator=(const GaugeRefresh&) = delete;
    ~GaugeRefresh();

    /// Something has happened. Never blocks for long.
    void Note() noexcept;

private:
    void Run();
    void Refresh() noexcept;

    const std::function<void()> refresh;
    bool hasFailed = false; ///< the last time; of the thread

    common::Mutex mutex;
    common::ConditionVariable changed;
    bool isDue GUARDED_BY(mutex) = true;
    bool isEnding GUARDED_BY(mutex) = false;

    std::thread thread; ///< last: uses all members above
};

} // namespace msgbus_server
