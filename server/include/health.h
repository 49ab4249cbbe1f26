#pragma once

#include "account/away_time.h"
#include "instruments/account_file.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace msgbus_server {

/// Says from the account whether the bus does what it is for. Costs little, and never waits.
/// Threads: one at a time.
class Health final {
public:
    /// A thread of the server is never away from its loop for so long, and no value is in the inbound queue.
    static constexpr std::chrono::seconds Patience{10};

    /// Lifetime: `written` must outlive this object.
    explicit Health(const instruments::AccountFile& written) : file(written) {}

    /// Returns: nothing when the bus serves; else why it does not, a sentence. That values do not leave the inbound
    /// queue shows only in several calls. `now`: nanoseconds of CLOCK_MONOTONIC.
    std::optional<std::string> WhyIll(std::int64_t now = RoughTime());

private:
    std::optional<std::string> WhyNotServing() const;
    std::optional<std::string> WhichThreadIsAway(std::int64_t now) const;
    std::optional<std::string> WhyNotDelivering(std::int64_t now);

    const instruments::AccountFile& file;
    std::uint64_t leftInbound = 0; ///< so many values had left the inbound queue ...
    std::int64_t leftSince = 0;    ///< ... since then, or it was empty
};

} // namespace msgbus_server
