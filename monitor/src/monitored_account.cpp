#include "monitored_account.h"

#include <utility>

namespace msgbus_monitor {

MonitoredAccount::MonitoredAccount(std::span<const std::byte> memory, HealthFunction whyUnhealthy,
                                   DescribeFunction describe, TraceFunctions traceFunctions)
    : account(memory), events(memory), health(std::move(whyUnhealthy)), describeTopic(std::move(describe)),
      trace(std::move(traceFunctions)) {}

instruments::Snapshot MonitoredAccount::Read() {
    return account.Read();
}

std::vector<instruments::Event> MonitoredAccount::EventsAfter(std::uint64_t after) {
    return events.EventsAfter(after);
}

std::int64_t MonitoredAccount::ClockOffset() const noexcept {
    return account.ClockOffset();
}

std::optional<std::string> MonitoredAccount::WhyUnhealthy() {
    return health();
}

DescribeOutcome MonitoredAccount::Describe(const Peer& peer, std::string_view topic, std::string_view text) {
    return describeTopic(peer, topic, text);
}

bool MonitoredAccount::StartTrace(std::string_view topic, std::size_t values) {
    return trace.start(topic, values);
}

void MonitoredAccount::StopTrace() {
    trace.stop();
}

instruments::TraceRecord MonitoredAccount::ReadTrace() {
    return trace.read();
}

} // namespace msgbus_monitor
