#pragma once

#include "base/deadline.h"
#include "base/unique_fd.h"

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <sys/types.h>

namespace borven_host {

/// Which names: those of static connections, or those of published services.
enum class NameKind { Static, Service };

/// 1 to 255 bytes without '/', and neither "." nor "..".
bool IsName(std::string_view name) noexcept;

/// A listening socket under a name in the runtime directory.
///
/// A name is alive while somebody listens behind it; what answers nobody was left behind by a crash and is replaced.
/// Every change of a name happens under an flock of the runtime directory itself, so that two servers that start
/// together cannot both find a name free, and nothing but the socket is ever left in the directory.
class NamedSocket final {
public:
    /// Returns: 0 and `socket`; KnStatusAlreadyExists; KnStatusDenied; KnStatusTimedOut when somebody keeps the
    /// directory locked; KnStatusNoResources.
    static std::int32_t Create(NameKind kind, std::string_view name, std::unique_ptr<NamedSocket>& socket);

    /// Gives the name up before the socket closes, unless somebody else has it by now. Where that cannot be found out
    /// in time, the name is left to be replaced. A forked child closes only.
    ~NamedSocket();

    NamedSocket(const NamedSocket&) = delete;
    NamedSocket& operator=(const NamedSocket&) = delete;

    int Get() const noexcept { return listening.Get(); }

private:
    NamedSocket(NameKind which, std::string_view called) : kind(which), name(called), owner(::getpid()) {}

    const NameKind kind;
    const std::string name;
    const pid_t owner;
    UniqueFd directory;
    UniqueFd listening;
    dev_t device = 0;
    ino_t inode = 0;
};

/// Client: connects to a name, checks who listens there and greets it.
///
/// Returns: 0 and `socket`; KnStatusNotFound; KnStatusDenied; KnStatusTimedOut; KnStatusNoResources.
/// Blocks: until `deadline`, while the server has more connections waiting than it takes.
std::int32_t ConnectToName(NameKind kind, std::string_view name, Deadline deadline, UniqueFd& socket);

/// Returns: 0 when a live server holds the name; KnStatusNotFound, KnStatusDenied, KnStatusNoResources.
std::int32_t LookUpName(NameKind kind, std::string_view name);

} // namespace borven_host
