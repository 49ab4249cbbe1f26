#include "monitored_account.h"

#include <utility>

namespace msgbus_monitor {

MonitoredAccount::MonitoredAccount(std::span<const std::byte> memory, HealthFunction whyUnhealthy,
                                   DescribeFunction describe)
    : account(memory), events(memory), health(std::move(whyUnhealthy)), describeTopic(std::move(describe)) {}

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

} // namespace msgbus_monitor
