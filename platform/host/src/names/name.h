#pragma once

#include "base/unique_fd.h"

#include <cstdint>
#include <string>
#include <string_view>

// A name is an entry of the runtime directory: a socket in the folder of its kind. It is alive while a server listens
// on the socket, also when that server is stopped; a socket on which no server listens was left behind by a crash.

namespace borven_host {

/// The names of static connections and those of published services are apart.
enum class NameKind { Static, Service };

/// Returns: whether `name` has 1 to 255 bytes without '/', and is neither "." nor "..".
bool IsName(std::string_view name) noexcept;

/// The folder of a kind, and the entry of a name, below the runtime directory.
const char* FolderOf(NameKind kind) noexcept;
std::string PathOf(NameKind kind, std::string_view name);

/// A socket for a name, not yet bound or connected. `flags` as in socket(). Returns: empty with errno.
UniqueFd OpenSocket(int flags);

/// Binds `socket` to a new entry `path` of `directory`. Returns: false with errno.
bool BindToEntry(int directory, const char* path, int socket);

/// Connects `socket` to the entry `path` of `directory`, which must be a socket of the directory's owner in a folder
/// that only the owner may write to. Returns: 0 or errno; EPROTOTYPE, with the reason in the log, for an entry that is
/// something else.
int ConnectToEntry(int directory, const std::string& path, int socket);

/// The status that a failed connection to a name, or a failed change of one, means to a caller.
std::int32_t StatusOfErrno(int error) noexcept;

/// Returns: 0 when no server listens at the entry `path` of `directory`, KnStatusAlreadyExists when one does;
/// KnStatusDenied, KnStatusNoResources.
std::int32_t CheckFree(int directory, const std::string& path);

/// Returns: 0 when a live server holds the name; KnStatusNotFound, KnStatusDenied, KnStatusNoResources.
std::int32_t LookUpName(NameKind kind, std::string_view name);

} // namespace borven_host
