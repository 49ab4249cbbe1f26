#include "caller_accounts.h"

#include "diagnostics.h"

#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <utility>

namespace msgbus_server {

using cor::ResultCode;
using diagnostics::Log;
using diagnostics::LogLevel;

namespace {

constexpr std::size_t Index(Kind kind) {
    return static_cast<std::size_t>(kind);
}

constexpr std::string_view BytesName = "bytes of names and topics";

struct Bounds {
    std::size_t Limits::*perProcess;
    std::size_t Limits::*total;
    ResultCode code;
};

/// By kind.
constexpr std::array<Bounds, KindCount> BoundsOf{{
    {&Limits::publishersPerProcess, &Limits::publishers, ResultCode::TooManyRegistrations},
    {&Limits::subscribersPerProcess, &Limits::subscribers, ResultCode::TooManyRegistrations},
    {&Limits::handshakesPerProcess, &Limits::handshakes, ResultCode::TooManyHandshakes},
}};

/// Returns: what of a total is left to callers that have `own`, of which less than `few` is little.
std::size_t ShareOf(std::size_t total, std::size_t own, std::size_t few) {
    return own < few ? total : total - total / 16;
}

/// Returns: what of a total the processes of one guest may have.
std::size_t GuestShareOf(std::size_t total) {
    return total - total / 2;
}

/// Returns: whether the caller's user is let in because of its group.
bool IsGuest(const KnCaller& caller) {
    return caller.uid != 0 && caller.uid != ::geteuid();
}

bool IsIdentified(const KnCaller& caller) {
    return caller.startTime != 0;
}

/// Returns: whether the server is its own client, which shows that it delivers (HealthBeat): when other processes have
/// all that the limits grant, it must not look like a server that does not.
bool IsThisProcess(const KnCaller& caller) {
    return caller.pid == ::getpid();
}

} // namespace

std::string_view NameOf(Kind kind) {
    constexpr std::array<std::string_view, KindCount> names{"publisher", "subscriber", "unfinished registration"};
    return names[Index(kind)];
}

CallerAccounts::CallerAccounts(const std::optional<Limits>& chosen) : limits(chosen) {}

ResultCode CallerAccounts::Charge(const KnCaller& caller, Kind kind, std::size_t bytes) {
    const common::MutexLock lock(mutex);
    const auto [place, isNew] = accounts.try_emplace(caller.id);
    place->second.caller = caller;
    place->second.guest = IsGuest(caller) ? &guests[caller.uid] : nullptr;
    const ResultCode result = Take(place->second, kind, bytes);
    if (isNew && result != ResultCode::Success) {
        accounts.erase(place);
        ForgetIdleGuest(caller.uid);
    }
    return result;
}

/// Takes one of `kind`, if that is given, and `bytes`.
ResultCode CallerAccounts::Take(Account& account, std::optional<Kind> kind, std::size_t bytes) {
    if (limits && !IsThisProcess(account.caller)) {
        if (kind) {
            const Bounds& bounds = BoundsOf[Index(*kind)];
            const std::size_t own = account.usage.counts[Index(*kind)];
            const std::size_t all = total.counts[Index(*kind)];
            if (own >= (*limits).*bounds.perProcess || all >= ShareOf((*limits).*bounds.total, own, FewRegistrations)) {
                return Refuse(account, bounds.code, std::string(NameOf(*kind)) + "s", own, all);
            }
            const std::size_t ofUser = account.guest == nullptr ? 0 : account.guest->usage.counts[Index(*kind)];
            const std::size_t share = GuestShareOf((*limits).*bounds.total);
            if (account.guest != nullptr && ofUser >= share) {
                return RefuseGuest(account, bounds.code, std::string(NameOf(*kind)) + "s", ofUser, share);
            }
        }
        const std::size_t own = account.usage.bytes;
        if (own + bytes > limits->nameBytesPerProcess ||
            total.bytes + bytes > ShareOf(limits->nameBytes, own + bytes, FewBytes)) {
            return Refuse(account, ResultCode::TooManyBytes, BytesName, own, total.bytes);
        }
        const std::size_t ofUser = account.guest == nullptr ? 0 : account.guest->usage.bytes;
        const std::size_t share = GuestShareOf(limits->nameBytes);
        if (account.guest != nullptr && ofUser + bytes > share) {
            return RefuseGuest(account, ResultCode::TooManyBytes, BytesName, ofUser, share);
        }
    }
    account.wasRefused = false;
    if (account.guest != nullptr) {
        account.guest->wasRefused = false;
    }
    if (kind && total.counts[Index(*kind)] == registrations[Index(*kind)].size()) {
        settled[Index(*kind)] = highest[Index(*kind)];
    }
    for (Usage* const usage : CountersOf(account)) {
        if (usage != nullptr) {
            usage->bytes += bytes;
            if (kind) {
                ++usage->counts[Index(*kind)];
            }
        }
    }
    return ResultCode::Success;
}

ResultCode CallerAccounts::Refuse(Account& account, ResultCode code, std::string_view what, std::size_t own,
                                  std::size_t all) {
    if (!std::exchange(account.wasRefused, true)) {
        Log(LogLevel::Warning, "process {} ({}) is refused more {}: it has {}, all processes together {}",
            account.caller.pid, static_cast<const char*>(account.caller.program), what, own, all);
    }
    return code;
}

ResultCode CallerAccounts::RefuseGuest(Account& account, ResultCode code, std::string_view what, std::size_t ofUser,
                                       std::size_t share) {
    if (!std::exchange(account.guest->wasRefused, true)) {
        Log(LogLevel::Warning,
            "process {} ({}) is refused more {}: those of user {} have {}, the share of a user is {}",
            account.caller.pid, static_cast<const char*>(account.caller.program), what, account.caller.uid, ofUser,
            share);
    }
    return code;
}

std::array<CallerAccounts::Usage*, 3> CallerAccounts::CountersOf(Account& account) {
    return {&account.usage, account.guest == nullptr ? nullptr : &account.guest->usage, &total};
}

void CallerAccounts::ForgetIdleGuest(std::uint32_t user) {
    const auto guest = guests.find(user);
    if (guest != guests.end() && guest->second.usage.counts == decltype(Usage::counts){}) {
        guests.erase(guest); // no account is left that refers to it
    }
}

void CallerAccounts::Refund(const KnCaller& caller, Kind kind, std::size_t bytes) {
    const common::MutexLock lock(mutex);
    GiveBack(caller.id, kind, bytes);
}

void CallerAccounts::GiveBack(std::uint64_t owner, std::optional<Kind> kind, std::size_t bytes) {
    const auto account = accounts.find(owner);
    assert(account != accounts.end());
    Usage& own = account->second.usage;
    for (Usage* const usage : CountersOf(account->second)) {
        if (usage != nullptr) {
            assert(usage->bytes >= bytes);
            usage->bytes -= bytes;
            if (kind) {
                assert(usage->counts[Index(*kind)] != 0);
                --usage->counts[Index(*kind)];
            }
        }
    }
    if (own.counts == decltype(own.counts){}) {
        assert(own.bytes == 0);
        const std::uint32_t user = account->second.caller.uid;
        accounts.erase(account);
        ForgetIdleGuest(user);
    }
}

void CallerAccounts::Add(const KnCaller& caller, Registration made, std::size_t bytes) {
    const auto seconds = std::chrono::seconds(limits ? limits->handshakeSeconds : 0);
    const auto expires = made.kind == Kind::Handshake && limits ? Clock::now() + seconds : Clock::time_point::max();
    const common::MutexLock lock(mutex);
    assert(accounts.contains(caller.id));
    [[maybe_unused]] const bool isNew =
        registrations[Index(made.kind)].try_emplace(made.id, Entry{caller.id, bytes, expires}).second;
    assert(isNew); // no id is given twice
    highest[Index(made.kind)] = std::max(highest[Index(made.kind)], made.id);
}

ResultCode CallerAccounts::ChargeTopic(long handshake, std::size_t bytes) {
    const common::MutexLock lock(mutex);
    auto& open = registrations[Index(Kind::Handshake)];
    const auto found = open.find(handshake);
    if (found == open.end()) {
        return ResultCode::Success; // the bus says that it is unknown
    }
    const ResultCode result = Take(accounts.at(found->second.owner), std::nullopt, bytes);
    found->second.bytes += result == ResultCode::Success ? bytes : 0;
    return result;
}

void CallerAccounts::RefundTopic(long handshake, std::size_t bytes) {
    const common::MutexLock lock(mutex);
    auto& open = registrations[Index(Kind::Handshake)];
    if (const auto found = open.find(handshake); found != open.end()) {
        found->second.bytes -= bytes;
        GiveBack(found->second.owner, std::nullopt, bytes);
    }
}

void CallerAccounts::Remove(Registration ended) {
    const common::MutexLock lock(mutex);
    auto& table = registrations[Index(ended.kind)];
    if (const auto found = table.find(ended.id); found != table.end()) {
        const Entry entry = found->second;
        table.erase(found);
        GiveBack(entry.owner, ended.kind, entry.bytes);
    }
}

const CallerAccounts::Entry* CallerAccounts::Find(Registration registration) const {
    const auto& table = registrations[Index(registration.kind)];
    const auto found = table.find(registration.id);
    return found == table.end() ? nullptr : &found->second;
}

/// Returns: whether an id that is unknown may be that of a registration that was charged and is not added yet. The bus
/// counts up, so its id is higher than any that was added before the charge.
bool CallerAccounts::MayBeOnItsWay(Registration registration) const {
    const std::size_t kind = Index(registration.kind);
    return total.counts[kind] != registrations[kind].size() && registration.id > settled[kind];
}

bool CallerAccounts::MayUse(const KnCaller& caller, Registration used) const {
    const common::MutexLock lock(mutex);
    const Entry* const entry = Find(used);
    if (entry == nullptr) {
        return used.kind != Kind::Publisher && !MayBeOnItsWay(used); // a publisher is one of the server's own
    }
    return entry->owner == caller.id || (!IsIdentified(caller) && !IsIdentified(accounts.at(entry->owner).caller));
}

KnCaller CallerAccounts::OwnerOf(Registration made) const {
    const common::MutexLock lock(mutex);
    const Entry* const entry = Find(made);
    return entry == nullptr ? KnCaller{} : accounts.at(entry->owner).caller;
}

std::vector<CallerAccounts::Registration> CallerAccounts::AllOf(std::uint64_t caller) const {
    std::vector<Registration> all;
    const common::MutexLock lock(mutex);
    for (const Kind kind : {Kind::Publisher, Kind::Subscriber, Kind::Handshake}) {
        if (kind == Kind::Handshake) {
            std::sort(all.begin(), all.end(), [](const auto& a, const auto& b) { return a.id < b.id; });
        }
        for (const auto& [id, entry] : registrations[Index(kind)]) {
            if (entry.owner == caller) {
                all.push_back({kind, id});
            }
        }
    }
    return all;
}

std::optional<CallerAccounts::Clock::time_point> CallerAccounts::NextExpiry() const {
    const common::MutexLock lock(mutex);
    const auto& open = registrations[Index(Kind::Handshake)];
    // All live equally long, so the first one expires first.
    return open.empty() || !limits ? std::nullopt : std::optional(open.begin()->second.expires);
}

std::vector<CallerAccounts::Registration> CallerAccounts::Expired(Clock::time_point now) const {
    std::vector<Registration> expired;
    const common::MutexLock lock(mutex);
    for (const auto& [id, entry] : registrations[Index(Kind::Handshake)]) {
        if (entry.expires > now) {
            break;
        }
        expired.push_back({Kind::Handshake, id});
    }
    return expired;
}

} // namespace msgbus_server
