#pragma once

#include "instruments/read_account.h"
#include "monitored.h"

#include <cstddef>
#include <functional>
#include <span>

namespace msgbus_monitor {

/// The account of the calling server itself, and what only the server knows.
class MonitoredAccount final : public IMonitored {
public:
    using HealthFunction = std::function<std::optional<std::string>()>;
    using DescribeFunction =
        std::function<DescribeOutcome(const Peer& peer, std::string_view topic, std::string_view text)>;

    struct TraceFunctions {
        std::function<bool(std::string_view topic, std::size_t values)> start;
        std::function<void()> stop;
        std::function<instruments::TraceRecord()> read;
    };

    /// `memory`: of the account; it must outlive this object. The functions do what the operations of IMonitored with
    /// their names do. Throws: instruments::AccountError.
    MonitoredAccount(std::span<const std::byte> memory, HealthFunction whyUnhealthy, DescribeFunction describe,
                     TraceFunctions traceFunctions);

    instruments::Snapshot Read() override;
    std::vector<instruments::Event> EventsAfter(std::uint64_t after) override;
    std::int64_t ClockOffset() const noexcept override;
    std::optional<std::string> WhyUnhealthy() override;
    DescribeOutcome Describe(const Peer& peer, std::string_view topic, std::string_view text) override;
    bool StartTrace(std::string_view topic, std::size_t values) override;
    void StopTrace() override;
    instruments::TraceRecord ReadTrace() override;

private:
    const instruments::AccountReader account; ///< of Read
    const instruments::AccountReader events;  ///< of EventsAfter, because a reader serves one thread at a time
    const HealthFunction health;
    const DescribeFunction describeTopic;
    const TraceFunctions trace;
};

} // namespace msgbus_monitor
