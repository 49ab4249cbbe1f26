#pragma once

#include "instruments/account_layout.h"
#include "instruments/read_account.h"
#include "instruments/snapshot.h"
#include "mapped_account.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace instruments {

/// Reads what the account says about publishers, subscribers and processes, each at one moment. No two of them share a
/// text or a page of a histogram, so all that is read together takes no more than the regions do: beyond that, the
/// account is damaged. All of it throws AccountError.
class SlotReader final {
public:
    /// What is read is added to `read`, which knows the time already. Lifetime: both outlive this object.
    SlotReader(const MappedAccount& source, AccountReader::Depth wanted, Snapshot& read)
        : account(source), depth(wanted), snapshot(read), textBytesLeft(2 * source.Regions().text.count * WordSize),
          pagesLeft(source.Regions().latencyPages.count) {}

    void ReadPublisher(const layout::Publisher& slot);
    void ReadSubscriber(const layout::Subscriber& slot);
    void ReadClient(const layout::Client& slot);
    Latency ReadLatency(const std::array<std::atomic<std::uint32_t>, LatencyBuckets::Pages>& pages);

private:
    static constexpr std::size_t WordSize = sizeof(std::uint64_t);

    void Charge(std::size_t textBytes);
    void Separate(std::string_view text, SubscriberAccount& subscriber) const;

    const MappedAccount& account;
    const AccountReader::Depth depth;
    Snapshot& snapshot;
    std::size_t textBytesLeft; ///< twice what there is: texts may move while they are read
    std::size_t pagesLeft;
};

} // namespace instruments
