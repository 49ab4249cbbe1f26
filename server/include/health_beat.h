#pragma once

#include "common/mutex.h"
#include "ipc_server.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>

namespace msgbus_server {

/// Shows at intervals that the bus delivers: the thread "health", a client of its own server, registers a publisher and
/// a subscriber, pushes a value, waits for it, and unregisters both. Each time the value has come back, `onBeat` is
/// called.
///
/// The topic has a random name of 64 bits behind "~health-", new at each start, so that no client has taken it. A beat
/// takes two ids of the bus.
///
/// Threads: Start and the destructor on the same one; Relax on any.
class HealthBeat final {
public:
    /// `beatAction` is called on the thread "health".
    HealthBeat(message_bus::ConnectionType type, std::function<void()> beatAction);
    HealthBeat(const HealthBeat&) = delete;
    HealthBeat& operator=(const HealthBeat&) = delete;
    /// Requires: the bus serves, or its server ends are closed; else a beat under way does not end. Blocks: until then.
    ~HealthBeat();

    /// Begins with the first beat, and goes on with one in every `interval`. A beat that fails is logged as a warning
    /// and repeated after a tenth of that. Requires: the bus is served. Throws: std::system_error.
    void Start(std::chrono::steady_clock::duration interval);

    /// From now on a beat needs no value: the server drains, which ends by itself.
    void Relax() noexcept { isRelaxed = true; }

private:
    class Client;

    void Run(std::chrono::steady_clock::duration interval);
    bool AwaitEnd(std::chrono::steady_clock::duration limit);

    const message_bus::ConnectionType connectionType;
    const std::function<void()> onBeat;
    std::atomic<bool> isRelaxed{false};

    common::Mutex mutex;
    common::ConditionVariable changed;
    bool isEnding GUARDED_BY(mutex) = false;

    std::thread thread; ///< uses all members above
};

} // namespace msgbus_server
