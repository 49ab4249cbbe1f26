#pragma once

#include "base/unique_fd.h"

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <string>

namespace borven_host {

enum class Missing { Fails, IsCreated };
enum class Purpose { Connects, Serves };

/// Returns: the absolute path of the directory that holds the names of this user's channels: $BORVEN_RUNTIME_DIR, else
/// $XDG_RUNTIME_DIR/borven, else /tmp/borven-<uid>.
std::string RuntimeDirectoryPath();

/// Returns: that path, whether something is there, and in brackets what has chosen it.
std::string DescribeRuntimeDirectory();

/// Opens the runtime directory at `path`. It must be a directory and no symbolic link, and belong to this user. It must
/// be closed to all others, but its group may enter it where this process connects, or admits that group
/// (AdmittedGroup); then this gives the directory to the group. Where this process connects, and the user has named the
/// directory ($BORVEN_RUNTIME_DIR), it may belong to another user and be open to its group: that user is trusted
/// then, if only root or this user can have put the directory where it is. The directory above it must belong to this
/// user or root, and others may write to it only if it is sticky: a process that may rename the runtime directory could
/// keep the server and its clients apart.
///
/// A missing one is created with mode 0700, but nothing above it, and not in the root directory, where a wrong setting
/// would otherwise leave its trace.
///
/// Returns: 0 and `directory`; KnStatusNotFound when it is missing and not to be created; KnStatusDenied, with the
/// reason in the log; KnStatusNoResources.
std::int32_t OpenRuntimeDirectory(const std::string& path, Purpose purpose, Missing missing, UniqueFd& directory);

/// The mode of directories that a group may enter. Who could read one could also lock it (LockRuntimeDirectory), and so
/// keep servers from starting.
inline constexpr mode_t GroupEntersOnly = 0710;

/// Gives the entry `path` of `directory` to the admitted group, with `mode`; does nothing when there is no such group.
/// What the entry has already is not set again: a sandbox may forbid the call, as that of a system's unit does.
/// Returns: false with errno.
bool GiveToGroup(int directory, const char* path, mode_t mode);

inline constexpr std::chrono::milliseconds LockPatience{2000};

/// Locks the runtime directory `directory` against other processes and other threads, until `lock` closes. It is held
/// for a few system calls only, unless the process that holds it is stopped in between.
///
/// Returns: 0 and `lock`; KnStatusTimedOut, with a line in the log if there was `patience`; KnStatusNoResources.
/// Blocks: for at most `patience`.
std::int32_t LockRuntimeDirectory(int directory, std::chrono::milliseconds patience, UniqueFd& lock);

} // namespace borven_host
