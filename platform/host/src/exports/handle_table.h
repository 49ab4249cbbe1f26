#pragma once

#include "kn/handle.h"
#include "records/channel.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace borven_host {

/// One end of a channel that a handle names: exactly one of the two is set. The end itself knows whether it is closed.
struct End final {
    End(std::shared_ptr<Channel> serverEnd, std::string name)
        : channel(std::move(serverEnd)), servingThreadName(std::move(name)) {}
    explicit End(std::shared_ptr<Connection> clientEnd) : connection(std::move(clientEnd)) {}

    const std::shared_ptr<Channel> channel;
    const std::shared_ptr<Connection> connection;
    const std::string servingThreadName;  ///< of the threads that receive on `channel`
    std::atomic<bool> isInherited{false}; ///< by this process, from the one that forked it
};

/// The handles of this process. A handle is the next number of a counter; a closed one is reused only after all 2^32
/// others.
///
/// A child made by fork has no open handle: the threads that serve them stayed with the parent.
class HandleTable final {
public:
    /// Never destroyed: threads may use their handles until the process has exited.
    static HandleTable& Instance();

    KnHandle Add(std::shared_ptr<End> end);

    /// Returns: 0 and `end`, valid until the thread's next look-up, though another thread may close it; KnStatusClosed
    /// for a handle that is no longer open; KnStatusInvalidArgument for a number that never was a handle.
    std::int32_t Find(KnHandle handle, End*& end) noexcept;

    /// Returns: the end that the handle named, or null when it was not open.
    std::shared_ptr<End> Remove(KnHandle handle) noexcept;

    /// Returns: the channels of the open server ends.
    std::vector<std::shared_ptr<Channel>> ServerEnds() const;

    /// Removes the open server ends. Returns: their channels.
    std::vector<std::shared_ptr<Channel>> RemoveServerEnds();

private:
    struct Entries;

    HandleTable();

    const std::unique_ptr<Entries> entries;
};

} // namespace borven_host
