#pragma once

#include "monitored.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace msgbus_monitor {

/// What one event stream is sent: server-sent events, as browsers read them.
class EventFeed final {
public:
    using Clock = std::chrono::steady_clock;

    /// Begins behind the event with the number `last`; without one, with the next event. A number that this server has
    /// not reached is another server's: then the stream begins with the oldest event that is kept.
    EventFeed(IMonitored& monitored, std::optional<std::uint64_t> last, Clock::duration keepAlive);

    /// Returns: what is to be sent now; mostly nothing.
    std::string Next(Clock::time_point now);

private:
    void AppendEvents(std::string& text);

    IMonitored& source;
    const Clock::duration keepAliveTime;
    std::uint64_t lastNumber = 0;
    bool isFirst = true; ///< so that a client sees at once that it is connected
    Clock::time_point lastText{};
};

} // namespace msgbus_monitor
