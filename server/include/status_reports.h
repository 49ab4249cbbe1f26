#pragma once

#include "common/mutex.h"
#include "instruments/snapshot.h"
#include "service_manager.h"

#include <chrono>
#include <functional>
#include <thread>

namespace msgbus_server {

/// Keeps the service manager's status of the program up to date while the bus serves: the thread "status" reads the
/// account at intervals, and reports StatusLine when that has changed. Threads: any, but for construction, destruction
/// and more than one Stop at once.
class StatusReports final {
public:
    static constexpr std::chrono::seconds Interval{5};

    /// `accountReader` is called on the thread "status". An exception of it is logged as a warning, once until it
    /// succeeds again. Lifetime: `receiver` outlives this object.
    StatusReports(const ServiceManager& receiver, std::function<instruments::Snapshot()> accountReader,
                  std::chrono::steady_clock::duration readInterval = Interval);
    StatusReports(const StatusReports&) = delete;
    StatusReports& operator=(const StatusReports&) = delete;
    /// Stops.
    ~StatusReports();

    /// The first report comes an interval later. Does nothing without a manager, or after Stop. A thread that cannot be
    /// started is a warning. Requires: it is called once.
    void Start();

    /// From now on nothing is reported. Blocks: for a report under way, which takes a second at most.
    void Stop();

private:
    void Run();
    bool AwaitEnd();

    const ServiceManager& manager;
    const std::function<instruments::Snapshot()> readAccount;
    const std::chrono::steady_clock::duration interval;

    common::Mutex mutex;
    common::ConditionVariable changed;
    bool isEnding GUARDED_BY(mutex) = false;
    std::thread thread GUARDED_BY(mutex); ///< uses all members above
};

} // namespace msgbus_server
