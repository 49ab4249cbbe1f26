#include "joining/callers.h"

#include "base/log.h"
#include "records/connection_limits.h"
#include "records/request_observer.h"

#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <string>

namespace borven_host {

using bos::logger::LogLevel;

namespace {

KnCaller Identify(const Peer& peer) {
    KnCaller caller;
    caller.startTime = peer.startTime;
    caller.pid = peer.pid;
    caller.uid = peer.uid;
    peer.program.copy(caller.program, sizeof caller.program - 1);
    return caller;
}

std::size_t MostOf(std::size_t clientCount) {
    const ConnectionLimits limits = ConnectionLimits::Current();
    const bool isNearlyFull =
        limits.perCaller < limits.perChannel && clientCount >= limits.perChannel - limits.perChannel / 16;
    return isNearlyFull ? std::min<std::size_t>(limits.perCaller, Callers::FewConnections) : limits.perCaller;
}

bool IsGuest(uid_t user) {
    return user != 0 && user != ::geteuid();
}

} // namespace

/// A caller that is not identified has a key of its own: no start time is 0, and no id is used twice.
Callers::Key Callers::KeyOf(const KnCaller& caller) noexcept {
    return caller.startTime != 0 ? Key(caller.pid, caller.startTime) : Key(caller.id, 0);
}

/// Returns: whether the caller's user has room for one connection more; that it has not is logged once.
bool Callers::HasRoomForGuest(const KnCaller& caller, const Channel& channel) {
    const auto place = guests.find(GuestKey(caller.uid, &channel));
    if (place == guests.end()) {
        return true;
    }
    Guest& guest = place->second;
    const ConnectionLimits limits = ConnectionLimits::Current();
    const std::size_t share = limits.perChannel - limits.perChannel / 2;
    if (!limits.Exist() || guest.connections < share) {
        guest.wasRefused = false;
        return true;
    }
    if (!std::exchange(guest.wasRefused, true)) {
        Log(LogLevel::Warning,
            {"process ", std::to_string(caller.pid), " (", caller.program,
             ") gets no more connections to one channel: those of user ", std::to_string(caller.uid), " have ",
             std::to_string(guest.connections), ", the share of a user is ", std::to_string(share)});
    }
    return false;
}

std::shared_ptr<const Caller> Callers::Enter(const Peer& peer, const Channel& channel, std::size_t clientCount) {
    KnCaller identity = Identify(peer);
    identity.id = lastId + 1;
    // A process may change its user between two connections; it counts as the one that it was first.
    if (const auto known = entries.find(KeyOf(identity)); known != entries.end()) {
        identity.uid = known->second.caller->identity.uid;
    }
    if (!HasRoomForGuest(identity, channel)) {
        return nullptr;
    }
    const auto [place, isNew] = entries.try_emplace(KeyOf(identity));
    Entry& entry = place->second;
    try {
        if (isNew) {
            entry.caller = std::make_shared<Caller>(identity);
            ++lastId;
        }
        Guest* const guest = IsGuest(identity.uid) ? &guests[GuestKey(identity.uid, &channel)] : nullptr;
        std::size_t& count = entry.connections[&channel];
        if (count >= MostOf(clientCount)) {
            if (!std::exchange(entry.wasRefused, true)) {
                Log(LogLevel::Warning, {"process ", std::to_string(peer.pid), " (", peer.program, ") has ",
                                        std::to_string(count), " connections to one channel and gets no more"});
            }
            return nullptr;
        }
        entry.wasRefused = false;
        ++count;
        if (guest != nullptr) {
            ++guest->connections;
        }
        return entry.caller;
    } catch (...) {
        if (isNew) {
            entries.erase(place);
        }
        throw;
    }
}

void Callers::Leave(const Caller& caller, const Channel& channel) noexcept {
    const auto place = entries.find(KeyOf(caller.identity));
    assert(place != entries.end());
    auto& connections = place->second.connections;
    const auto count = connections.find(&channel);
    assert(count != connections.end() && count->second != 0);
    if (--count->second == 0) {
        connections.erase(count);
    }
    const auto guest = guests.find(GuestKey(caller.identity.uid, &channel));
    if (guest != guests.end() && --guest->second.connections == 0) {
        guests.erase(guest);
    }
    if (!connections.empty()) {
        return;
    }
    const auto gone = std::move(place->second.caller);
    entries.erase(place);
    gone->isGone.store(true);
    if (auto* const observer = RequestObserver::Instance().Get()) {
        observer->OnCallerGone(gone->identity);
    }
}

} // namespace borven_host
