#pragma once

#include "base/unique_fd.h"
#include "joining/poller.h"
#include "names/named_socket.h"

#include <cstdint>

namespace borven_host {

/// Notices that names may have been removed: the kernel reports when the socket of a name, its folder or the runtime
/// directory is removed or renamed. Nothing is polled. Directories above the runtime directory are not watched.
///
/// Without BORVEN_NAME_WATCH=off in the environment of the process, which switches it off.
///
/// Threads: the housekeeper's mutex guards every call.
class NameWatch final {
public:
    /// Lifetime: `watchedBy` outlives this object.
    explicit NameWatch(Poller& watchedBy) : poller(watchedBy) {}

    /// Opens the watch. Where the kernel has no room for it, a line in the log says so, and nothing is noticed.
    void Start();
    void Stop() noexcept;

    /// In a forked child: closes it, and does not touch the poller, which the parent still uses.
    void Abandon() noexcept { events.Reset(); }

    /// From now on what happens to the name of `socket` is noticed.
    void Add(const NamedSocket& socket) const noexcept;

    /// Returns: whether the poller's event `id` is that of this watch: then names may have been removed.
    bool Notice(std::uint64_t id) const noexcept;

private:
    Poller& poller;
    UniqueFd events; ///< empty when nothing is watched
    std::uint64_t pollId = 0;
};

} // namespace borven_host
