#pragma once

#include "base/deadline.h"
#include "base/unique_fd.h"
#include "joining/name_watch.h"
#include "joining/poller.h"
#include "joining/visitors.h"
#include "names/named_socket.h"
#include "records/channel.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace borven_host {

/// The names under which this process listens, and the visitors' way from connect to greeting.
///
/// A reserve of descriptors is left to the server: a client whose socket would come out of it gets KnStatusNoResources.
/// When not a single descriptor is left, not even to accept with, the spare one is closed for the moment that it takes
/// to accept one client, answer it and hang up. If that fails too, admission pauses.
///
/// Threads: the housekeeper's mutex guards every call.
class Admission final {
public:
    /// Visitors in the stage Greeting; one more replaces one of the process that has most.
    static constexpr std::size_t MaxGreeting = 64;
    /// From connecting to the greeting.
    static constexpr std::chrono::seconds GreetingTime{10};
    /// How long another server may hold a name that this process had. One that starts at the wrong moment claims a name
    /// or two, finds the others taken, and ends.
    static constexpr std::chrono::seconds NameTime{1};
    /// Between two attempts to claim a name again.
    static constexpr std::chrono::milliseconds NamePause{50};
    /// Descriptors that clients cannot use up.
    static constexpr unsigned DescriptorReserve = 32;

    struct Listener {
        std::unique_ptr<NamedSocket> socket;
        std::shared_ptr<Channel> channel; ///< of a static connection; null for a service
        std::string service;
        std::string type;
        std::optional<Deadline> missingSince; ///< the name is not in place, and is to be claimed again
        bool isNameLost = false;              ///< for good
    };

    using Listeners = std::unordered_map<std::uint64_t, Listener>;

    /// Lifetime: both outlive this object.
    Admission(Poller& watchedBy, Visitors& admitted) : poller(watchedBy), visitors(admitted), nameWatch(watchedBy) {}

    bool IsEmpty() const noexcept { return listeners.empty(); }

    /// Before the first listener: opens the spare descriptor, and forgets earlier pauses.
    void Start();
    /// After the last listener.
    void Stop() noexcept;

    /// Throws std::system_error.
    void Add(Listener listener);

    /// Ends the listener of a static connection, and refuses its visitors.
    /// Returns: the listener, whose name is still claimed; empty when `channel` has none.
    std::optional<Listener> Remove(const Channel& channel);
    /// Ends all listeners. Returns: them, whose names are still claimed.
    Listeners RemoveAll();

    /// In a forked child: closes everything, and does not touch the poller, which the parent still uses.
    void Abandon() noexcept;

    /// Accepts some of the clients that connected to the listener `id`, or notes that names may have been removed.
    /// Returns: false when neither a listener nor the watch on names has that id.
    bool Admit(std::uint64_t id);

    /// Greeting -> Joined or Asking, when the greeting has arrived; a wrong one is refused.
    void ReadGreeting(Visitors::Visitor& visitor);

    /// Returns: when Resume has something to do next.
    Deadline NextDeadline() const { return std::min(pausedUntil.value_or(Deadline::max()), namesDue); }
    void Resume(Deadline now);

    /// Claims the names that were removed again; the clients that had connected under the old socket are admitted
    /// first. Returns: the names that are lost for good, each once. Blocks: never.
    std::vector<std::string> RestoreNames(Deadline now);

private:
    bool AcceptOne(std::uint64_t id, int listening);
    void AcceptWithSpare(int listening);
    void Welcome(std::uint64_t listenerId, UniqueFd socket);
    void Pause();
    void WatchListeners(std::uint32_t events) const;
    void WatchName(Listener& listener);
    bool RestoreName(std::uint64_t id, Listener& listener, Deadline now);
    void Replace(std::uint64_t id, Listener& listener, std::unique_ptr<NamedSocket> next);

    Poller& poller;
    Visitors& visitors;
    NameWatch nameWatch;
    Listeners listeners;
    UniqueFd spare; ///< makes room for one socket in AcceptWithSpare
    std::optional<Deadline> pausedUntil;
    std::chrono::milliseconds lastPause{0};
    Deadline namesDue = Deadline::max(); ///< when RestoreNames has something to do next
};

} // namespace borven_host
