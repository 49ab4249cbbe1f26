#pragma once

#include "base/unique_fd.h"
#include "names/name.h"

#include <sys/types.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace borven_host {

/// Server: a listening socket under a name.
///
/// A name is claimed and released under an flock of the runtime directory itself, so that two servers that start
/// together cannot both find it free, and no file but the socket is ever left in the directory.
class NamedSocket final {
public:
    /// Claims a name that no live server holds, and replaces a socket that a crash left behind.
    ///
    /// Returns: 0 and `socket`; KnStatusAlreadyExists; KnStatusDenied; KnStatusTimedOut when the directory stays
    /// locked; KnStatusNoResources.
    static std::int32_t Create(NameKind kind, std::string_view name, std::unique_ptr<NamedSocket>& socket);

    /// Claims the name again in the same place, without waiting for a locked directory. Returns: as Create.
    std::int32_t ClaimAgain(std::unique_ptr<NamedSocket>& socket) const;

    /// Returns: whether clients still find this socket under its name.
    bool IsInPlace() const;

    /// Removes the entry, unless another server holds the name by now: the destructor without waiting for a locked
    /// directory.
    void Release() { ReleaseWithin(std::chrono::milliseconds(0)); }

    /// Releases the name before the socket closes, unless another server holds it by now. While the directory stays
    /// locked that cannot be found out, and the entry is left for the next server to replace. In a forked child the
    /// socket is closed and nothing else.
    ~NamedSocket();

    NamedSocket(const NamedSocket&) = delete;
    NamedSocket& operator=(const NamedSocket&) = delete;

    int Get() const noexcept { return listening.Get(); }
    const std::string& Name() const noexcept { return name; }

    /// The runtime directory, and the paths in it.
    int Directory() const noexcept { return directory.Get(); }
    const char* Folder() const noexcept { return FolderOf(kind); }
    std::string Entry() const { return PathOf(kind, name); }

private:
    NamedSocket(NameKind which, std::string_view called, const std::string& path)
        : kind(which), name(called), directoryPath(path), owner(::getpid()) {}

    static std::int32_t Claim(NameKind kind, std::string_view name, const std::string& path,
                              std::chrono::milliseconds patience, std::unique_ptr<NamedSocket>& socket);
    void ReleaseWithin(std::chrono::milliseconds patience);

    const char* ListenUnderName(int directoryFd, const std::string& path);

    const NameKind kind;
    const std::string name;
    const std::string directoryPath;
    const pid_t owner;
    UniqueFd directory;
    UniqueFd listening;
    dev_t device = 0;
    ino_t inode = 0; ///< of the entry; 0 until the name is claimed
};

} // namespace borven_host
