#pragma once

#include "monitor.h"
#include "monitored.h"
#include "routes.h"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <map>
#include <memory>
#include <string>
#include <string_view>

namespace msgbus_monitor {

/// What a request is answered. Many requests share one body.
struct Answer {
    unsigned status = 200;
    std::string_view type;
    std::shared_ptr<const std::string> body;
    std::string allowed{}; ///< the methods, with status 405
};

Answer ToAnswer(const Refusal& refusal);

/// Makes the answers that need the account or the server. An account that was read serves all requests for a short
/// time, and so does each text that was made of it: see MonitorLimits. Threads: one at a time.
class Answers final {
public:
    using Clock = std::chrono::steady_clock;

    /// Lifetime: both must outlive this object. The bodies may outlive it.
    Answers(IMonitored& monitored, const MonitorLimits& bounds);

    /// Requires: the resource is neither Health, Events, Description nor Trace.
    Answer Get(const Route& route);

    /// Replaces a description.
    Answer Put(const Peer& peer, const std::string& topic, const std::string& text);

    /// Starts, stops or reads a trace.
    Answer Trace(const Route& route);

private:
    void Refresh();
    std::shared_ptr<const std::string> Keep(std::string text);
    Answer TopicAnswer(const std::string& topic);
    Answer NoMemory();

    IMonitored& source;
    const MonitorLimits& limits;
    const std::shared_ptr<std::atomic<std::size_t>> bytesInUse; ///< shared with the bodies
    const Answer noMemory;                                      ///< made while there is some
    Clock::time_point readAt{};
    Clock::duration spent{};                                      ///< on reading the account, and on the texts
    std::unique_ptr<instruments::Snapshot> snapshot;              ///< null: none was read
    std::map<Resource, std::shared_ptr<const std::string>> texts; ///< made of it
};

} // namespace msgbus_monitor
