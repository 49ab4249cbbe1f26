#pragma once

#include "names/peer.h"
#include "records/caller.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <utility>

namespace borven_host {

class Channel;

/// The processes that have connections to this one, and how many each has (kn/caller.h, kn/policy.h).
///
/// Threads: the housekeeper's mutex guards every call.
class Callers final {
public:
    /// A channel takes only callers with fewer connections to it than this, once fewer than a sixteenth of its places
    /// are free: a few processes cannot keep all others away. The processes of one user other than this process's, and
    /// root, have half of its places.
    static constexpr std::size_t FewConnections = 16;

    /// One connection more, to a channel that has `clientCount` of them.
    /// Returns: its caller; null when that has as many as it may have, which is logged once.
    std::shared_ptr<const Caller> Enter(const Peer& peer, const Channel& channel, std::size_t clientCount);

    /// One connection fewer; the observer learns when it was the last one.
    void Leave(const Caller& caller, const Channel& channel) noexcept;

private:
    using Key = std::pair<std::uint64_t, std::uint64_t>;

    struct Entry {
        std::shared_ptr<Caller> caller;
        std::map<const Channel*, std::size_t> connections; ///< never 0
        bool wasRefused = false;                           ///< since it last had room
    };

    /// The processes of a user who is let in because of its group.
    struct Guest {
        std::size_t connections = 0; ///< to one channel
        bool wasRefused = false;     ///< since it last had room
    };
    using GuestKey = std::pair<std::uint32_t, const Channel*>;

    static Key KeyOf(const KnCaller& caller) noexcept;
    bool HasRoomForGuest(const KnCaller& caller, const Channel& channel);

    std::map<Key, Entry> entries;
    std::map<GuestKey, Guest> guests;
    std::uint64_t lastId = 0;
};

} // namespace borven_host
