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

/// What each topic of a subscriber is charged beside its bytes: the bus keeps it in a block of this size, so that many
/// short ones take far more than their bytes.
inline constexpr std::size_t TopicOverhead = 80;

/// Which process has made which registration, and what it has of its limits.
///
/// A registration is charged before the bus makes it, so that two at once cannot exceed a limit, and then added with
/// its id or refunded. Publishers and subscribers share their ids, handshakes have ids of their own.
///
/// Of each total, the last sixteenth is for callers that have little: a few processes cannot keep all others away. All
/// processes of one user other than the server's, and root, have at most half of it.
/// The server's own process, which checks its health as a client, is not limited.
///
/// A process that is not identified (kn/caller.h) has several callers; so what one of those has registered, each of
/// them may use.
///
/// Threads: any.
class CallerAccounts final {
public:
    using Clock = std::chrono::steady_clock;

    /// Callers with less than this may use the last sixteenth of a total.
    static constexpr std::size_t FewRegistrations = 16;
    static constexpr std::size_t FewBytes = 64U << 10;

    struct Registration {
        Kind kind;
        long id;

        bool operator==(const Registration&) const = default;
    };

    /// `limits`: none: nothing is refused.
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

    /// Returns: whether `caller` may use the registration. Of those that no caller has made, publishers are the
    /// server's own, and the others do not exist; one that is being made is its maker's, whose reply has its id first.
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

    /// The processes of a user who is let in because of its group.
    struct Guest {
        Usage usage;
        bool wasRefused = false; ///< since one of them last was granted something
    };

    struct Account {
        KnCaller caller;
        Usage usage;
        Guest* guest = nullptr;  ///< null for the server's user, and root
        bool wasRefused = false; ///< since it last was granted something
    };

    using Ids = std::array<long, KindCount>;
    static constexpr Ids NoIds{-1, -1, -1};

    bool MayBeOnItsWay(Registration registration) const REQUIRES(mutex);
    cor::ResultCode Take(Account& account, std::optional<Kind> kind, std::size_t bytes) REQUIRES(mutex);
    cor::ResultCode Refuse(Account& account, cor::ResultCode code, std::string_view what, std::size_t own,
                           std::size_t all) REQUIRES(mutex);
    cor::ResultCode RefuseGuest(Account& account, cor::ResultCode code, std::string_view what, std::size_t ofUser,
                                std::size_t share) REQUIRES(mutex);
    /// Returns: where is counted what the account has; null for none.
    std::array<Usage*, 3> CountersOf(Account& account) REQUIRES(mutex);
    void ForgetIdleGuest(std::uint32_t user) REQUIRES(mutex);
    void GiveBack(std::uint64_t owner, std::optional<Kind> kind, std::size_t bytes) REQUIRES(mutex);
    const Entry* Find(Registration registration) const REQUIRES(mutex);

    const std::optional<Limits> limits;

    mutable common::Mutex mutex;
    std::unordered_map<std::uint64_t, Account> accounts GUARDED_BY(mutex); ///< of callers that have something
    std::array<Registrations, KindCount> registrations GUARDED_BY(mutex);  ///< by kind, then by id
    std::unordered_map<std::uint32_t, Guest> guests GUARDED_BY(mutex);     ///< by user, that have something
    Usage total GUARDED_BY(mutex);
    Ids highest GUARDED_BY(mutex) = NoIds; ///< ids that were added
    Ids settled GUARDED_BY(mutex) = NoIds; ///< `highest`, when the last registration began beside no other
};

} // namespace msgbus_server
