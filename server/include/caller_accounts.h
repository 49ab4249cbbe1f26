#pragma once

#include "common/mutex.h"
#include "cor/result_code.h"
#include "kn/caller.h"
#include "server_limits.h"

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace msgbus_server {

/// What a caller registers.
enum class Kind : std::size_t { Publisher, Subscriber, Handshake };
inline constexpr std::size_t KindCount = 3;

/// Returns: the name of a kind in messages, such as "publisher".
std::string_view NameOf(Kind kind);

/// Which process has made which registration, and what it has of its limits.
///
/// A registration is charged before the bus makes it, so that two at once cannot exceed a limit, and then added with
/// its id or refunded. Publishers and subscribers share their ids, handshakes have ids of their own.
///
/// A process that is not identified (kn/caller.h) has several callers; so what one of those has registered, each of
/// them may use.
///
/// Threads: any.
class CallerAccounts final {
public:
    using Clock = std::chrono::steady_clock;

    struct Registration {
        Kind kind;
        long id;

        bool operator==(const Registration&) const = default;
    };

    /// `limits`: none: nothing is refused. This process is never refused.
    explicit CallerAccounts(const std::optional<Limits>& limits);
    CallerAccounts(const CallerAccounts&) = delete;
    CallerAccounts& operator=(const CallerAccounts&) = delete;

    /// Takes one more of `kind`, with `bytes` of names and topics, from the limits of `caller`.
    /// Returns: 0; 3, 4 or 7 when a limit is reached, which is logged once until there is room again.
    cor::ResultCode Charge(const KnCaller& caller, Kind kind, std::size_t bytes);
    void Refund(const KnCaller& caller, Kind kind, std::size_t bytes);

    /// Adds what was charged. A handshake expires some time after this.
    void Add(const KnCaller& caller, Registration made, std::size_t bytes);

    /// Takes `bytes` more for an open handshake. Returns: 0; 7.
    cor::ResultCode ChargeTopic(long handshake, std::size_t bytes);
    void RefundTopic(long handshake, std::size_t bytes);

    /// Ends a registration, and what was charged for it. Does nothing when it is not known.
    void Remove(Registration ended);

    /// Returns: whether `caller` may use the registration. A subscriber that has ended belongs to nobody: the bus has
    /// its answer. Any other id that is not known is for nobody: its registration may be under way.
    bool MayUse(const KnCaller& caller, Registration used) const;

    /// Returns: the caller that made the registration; one without a process when it is not known.
    KnCaller OwnerOf(Registration made) const;

    /// Returns: what `caller` has registered, in the order of ids, handshakes last.
    std::vector<Registration> AllOf(std::uint64_t caller) const;

    /// Returns: when the first handshake expires.
    std::optional<Clock::time_point> NextExpiry() const;
    /// Returns: the handshakes that have expired.
    std::vector<Registration> Expired(Clock::time_point now) const;

private:
    struct Entry {
        std::uint64_t owner;
        std::size_t bytes;
        Clock::time_point expires;
    };

    using Registrations = std::map<long, Entry>;

    struct Usage {
        std::array<std::size_t, KindCount> counts{};
        std::size_t bytes = 0;
    };

    struct Account {
        KnCaller caller;
        Usage usage;
        bool wasRefused = false; ///< since it last was granted something
    };

    cor::ResultCode Take(Account& account, std::optional<Kind> kind, std::size_t bytes) REQUIRES(mutex);
    cor::ResultCode Refuse(Account& account, cor::ResultCode code, std::string_view what, std::size_t own,
                           std::size_t all) REQUIRES(mutex);
    void GiveBack(std::uint64_t owner, std::optional<Kind> kind, std::size_t bytes) REQUIRES(mutex);
    void Settle(Kind kind) REQUIRES(mutex);
    const Entry* Find(Registration registration) const REQUIRES(mutex);

    const std::optional<Limits> limits;

    mutable common::Mutex mutex;
    std::unordered_map<std::uint64_t, Account> accounts GUARDED_BY(mutex); ///< of callers that have something
    std::array<Registrations, KindCount> registrations GUARDED_BY(mutex);  ///< by kind, then by id
    Usage total GUARDED_BY(mutex);

    // Of publishers and subscribers.
    std::size_t underWay GUARDED_BY(mutex) = 0; ///< charged, and neither added nor refunded
    long lastAdded GUARDED_BY(mutex) = 0;
    long lastSettled GUARDED_BY(mutex) = 0; ///< no id up to this one is under way
};

} // namespace msgbus_server
