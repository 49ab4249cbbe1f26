#pragma once

#include "base/deadline.h"
#include "base/unique_fd.h"
#include "joining/poller.h"
#include "joining/visitors.h"
#include "names/named_socket.h"
#include "records/channel.h"

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>

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
    /// Visitors in the stage Greeting; one more replaces the oldest.
    static constexpr std::size_t MaxGreeting = 64;
    /// From connecting to the greeting.
    static constexpr std::chrono::seconds GreetingTime{10};
    /// Descriptors that clients cannot use up.
    static constexpr unsigned DescriptorReserve = 32;

    struct Listener {
        std::unique_ptr<NamedSocket> socket;
        std::shared_ptr<Channel> channel; ///< of a static connection; null for a service
        std::string service;
        std::string type;
    };

    using Listeners = std::unordered_map<std::uint64_t, Listener>;

    /// Lifetime: both outlive this object.
    Admission(Poller& watchedBy, Visitors& admitted) : poller(watchedBy), visitors(admitted) {}

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

    /// Accepts some of the clients that connected to the listener `id`.
    /// Returns: false when no listener has that id.
    bool Admit(std::uint64_t id);

    /// Greeting -> Joined or Asking, when the greeting has arrived; a wrong one is refused.
    void ReadGreeting(Visitors::Visitor& visitor);

    /// Returns: when Resume has something to do next.
    Deadline NextDeadline() const { return pausedUntil.value_or(Deadline::max()); }
    void Resume(Deadline now);

private:
    bool AcceptOne(std::uint64_t id, int listening);
    void AcceptWithSpare(int listening);
    void Welcome(std::uint64_t listenerId, UniqueFd socket);
    void Pause();
    void WatchListeners(std::uint32_t events) const;

    Poller& poller;
    Visitors& visitors;
    Listeners listeners;
    UniqueFd spare; ///< makes room for one socket in AcceptWithSpare
    std::optional<Deadline> pausedUntil;
    std::chrono::milliseconds lastPause{0};
};

} // namespace borven_host
