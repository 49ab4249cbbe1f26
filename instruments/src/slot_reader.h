#pragma once

#include "instruments/account_layout.h"
#include "instruments/read_account.h"
#include "instruments/snapshot.h"
#include "mapped_account.h"

namespace instruments {

/// Reads what the account says about publishers, subscribers and processes, each at one moment.
class SlotReader final {
public:
    /// What is read is added to `read`, which knows the time already. Lifetime: both outlive this object.
    SlotReader(const MappedAccount& source, AccountReader::Depth wanted, Snapshot& read)
        : account(source), depth(wanted), snapshot(read) {}

    void ReadPublisher(const layout::Publisher& slot);
    void ReadSubscriber(const layout::Subscriber& slot);
    void ReadClient(const layout::Client& slot);

private:
    const MappedAccount& account;
    const AccountReader::Depth depth;
    Snapshot& snapshot;
};

/// Returns: a histogram.
Latency LatencyIn(const MappedAccount& account,
                  const std::array<std::atomic<std::uint32_t>, LatencyBuckets::Pages>& pages);

} // namespace instruments
