#pragma once

#include "base/deadline.h"
#include "base/unique_fd.h"
#include "common/mutex.h"
#include "joining/callers.h"
#include "joining/poller.h"
#include "names/peer.h"
#include "records/channel.h"

#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

// The visitors of this process: clients that have connected to one of its listeners. Each is in one stage:
//
//     Greeting -> Joined                          at a static connection
//     Greeting -> Asking -> Announced -> Joined   at a service
//                           Announced -> Left
//
//     from, to               thread                  when
//     (new), Greeting        the housekeeper's       the client connected, and belongs to this user
//     Greeting, Joined       the housekeeper's       it greeted a static connection, and the channel has room
//     Greeting, Asking       the housekeeper's       it greeted a service, and the limits below permit it
//     Asking, Announced      one in KnCmListen       of the visitors that it listens for this one asked first
//     Announced, Joined      one in KnCmAccept       the channel has room
//     Announced, Left        the housekeeper's       the client died
//
// From every stage a visit may also end, and the visitor is forgotten. A visitor that is refused gets a status before:
// its greeting is wrong or late, a limit is reached, or the server end closes.
//
// When the client dies, its socket or its process becomes readable, and the housekeeper's thread forgets the visitor; a
// Joined one is removed from its channel as well. Only an Announced one becomes Left for a while, because a thread of
// the server knows its name: KnCmAccept then returns KnStatusPeerGone, once. A client that stops waiting to be accepted
// disconnects, which looks the same.
// When the server dies, the kernel closes the sockets, which is what its clients watch.
//
// The visitor owns the socket, until its channel does (Joined) or it is closed (Left). The poller watches the socket by
// its number until the visit ends, or becomes Left; a channel keeps the socket open for at least that long.

namespace borven_host {

/// Threads: the housekeeper's mutex guards every call.
class Visitors final {
public:
    /// Clients of one service that wait to be accepted.
    static constexpr std::size_t MaxAskingPerService = 256;
    /// So that one process cannot use up the share of a service.
    static constexpr std::size_t MaxAskingPerProcess = 64;
    /// How long a Left visitor is kept for KnCmAccept.
    static constexpr std::chrono::seconds LeftTime{30};

    enum class Stage { Greeting, Asking, Announced, Left, Joined };

    struct Visitor {
        std::uint64_t id = 0;
        Stage stage = Stage::Greeting;
        std::uint64_t listenerId = 0;
        Peer peer;
        UniqueFd socket;  ///< empty when Joined (the channel has it) and when Left
        int watched = -1; ///< the number of the socket
        Deadline deadline = Deadline::max();
        std::uint32_t layoutVersion = 0;  ///< what it speaks, once it has greeted
        std::string service;              ///< this and the next two: from Asking on
        std::string type;                 ///< of the service
        std::string name;                 ///< unique in this process
        std::shared_ptr<Channel> channel; ///< when Joined, as the next two
        std::uint64_t clientId = 0;       ///< in that channel
        std::shared_ptr<const Caller> caller;
    };

    using Map = std::unordered_map<std::uint64_t, Visitor>;

    /// `asked` is notified when a visitor enters the stage Asking. Lifetime: both outlive this object.
    Visitors(Poller& watchedBy, common::ConditionVariable& asked) : poller(watchedBy), hasAsked(asked) {}

    bool IsEmpty() const noexcept { return visitors.empty(); }

    /// Returns: null when the visit has ended.
    Visitor* Find(std::uint64_t id) noexcept;

    /// A new visitor in the stage Greeting, refused at `deadline`.
    /// Returns: null when it was refused at once, because it cannot be watched.
    Visitor* Add(std::uint64_t listenerId, UniqueFd socket, Peer peer, Deadline deadline);

    std::size_t GreetingCount() const noexcept { return greeting.size(); }
    /// Makes room: refuses the oldest visitor in the stage Greeting of the process that has most of them.
    /// Requires: there is one.
    void RefuseOneGreeting(std::int32_t status);

    /// Greeting -> Asking, or refuses the visitor.
    void Ask(Visitor& visitor, const std::string& service, const std::string& type);

    /// Asking -> Announced, for the visitor that asked first.
    /// Returns: the visitor; null when none asks, or none whose process is called `task`.
    const Visitor* Announce(std::optional<std::string_view> task);

    /// Returns: the visitor that KnCmListen announced under these names, which may have left; null when there is none.
    Visitor* FindAnnounced(std::string_view name, std::string_view service);

    /// Returns: whether the client has died, also when the housekeeper's thread has not noticed yet.
    static bool HasLeft(const Visitor& visitor);

    /// Greeting or Announced -> Joined, or refuses the visitor.
    /// Returns: 0 or the status that the client was refused with.
    std::int32_t Join(Visitor& visitor, const std::shared_ptr<Channel>& channel, const RequestFilter& filter);

    /// The client's socket or process has ended.
    void Leave(Visitor& visitor);

    /// Ends the visit; `status` goes to the client, unless it has joined or left.
    void Refuse(Visitor& visitor, std::int32_t status);
    void RefuseAllOf(std::uint64_t listenerId, std::int32_t status);
    void RefuseAll(std::int32_t status);

    /// Ends the visit; nothing goes to the client.
    void Forget(Visitor& visitor);
    void ForgetAllOf(const Channel& channel);

    /// Returns: when Expire has something to do next.
    Deadline NextDeadline() const;
    void Expire(Deadline now);

    /// Empties the registry. Returns: the visitors, still watched.
    Map Release() noexcept;

private:
    void RefuseGreeting(Visitor& visitor, std::int32_t status);
    bool IsAskingTooMuch(const Visitor& visitor) const;
    void Unwatch(const Visitor& visitor) const noexcept;

    Poller& poller;
    common::ConditionVariable& hasAsked;
    Callers callers;
    Map visitors;
    std::deque<std::uint64_t> greeting; ///< ids of those in this stage, oldest first
    std::deque<std::uint64_t> asking;   ///< ids of those Asking, Announced or Left, in the order in which they asked
};

} // namespace borven_host
