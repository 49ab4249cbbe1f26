#include "names/name.h"

#include "base/log.h"
#include "kn/status.h"
#include "names/runtime_directory.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cerrno>
#include <cstdio>

namespace borven_host {

using bos::logger::LogLevel;

namespace {

/// The address of the file `descriptor`, or of `entry` below it. A socket address holds 107 characters, and a path or a
/// name may be longer; the link in /proc to a descriptor is always short enough.
sockaddr_un AddressOf(int descriptor, const char* entry = nullptr) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof address.sun_path, entry ? "/proc/self/fd/%d/%s" : "/proc/self/fd/%d",
                  descriptor, entry);
    return address;
}

const sockaddr* Raw(const sockaddr_un& address) {
    return reinterpret_cast<const sockaddr*>(&address);
}

} // namespace

bool IsName(std::string_view name) noexcept {
    return !name.empty() && name.size() <= 255 && name.find('/') == std::string_view::npos && name != "." &&
           name != "..";
}

const char* FolderOf(NameKind kind) noexcept {
    return kind == NameKind::Static ? "static" : "services";
}

std::string PathOf(NameKind kind, std::string_view name) {
    return std::string(FolderOf(kind)) + '/' + std::string(name);
}

UniqueFd OpenSocket(int flags) {
    return UniqueFd(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | flags, 0));
}

bool BindToEntry(int directory, const char* path, int socket) {
    const sockaddr_un address = AddressOf(directory, path);
    return ::bind(socket, Raw(address), sizeof address) == 0;
}

int ConnectToEntry(int directory, const std::string& path, int socket) {
    const UniqueFd entry(::openat(directory, path.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    if (!entry) {
        return errno;
    }
    struct stat found {};
    if (::fstat(entry.Get(), &found) == 0 && !S_ISSOCK(found.st_mode)) {
        return EPROTOTYPE;
    }
    const sockaddr_un address = AddressOf(entry.Get());
    while (::connect(socket, Raw(address), sizeof address) != 0) {
        if (errno != EINTR) {
            return errno;
        }
    }
    return 0;
}

std::int32_t StatusOfErrno(int error) noexcept {
    switch (error) {
    case ENOENT:
    case ECONNREFUSED:
        return KnStatusNotFound;
    case EACCES:
    case EPERM:
    case ELOOP:
    case EPROTOTYPE:
        return KnStatusDenied;
    case EAGAIN:
        return KnStatusTimedOut;
    default:
        return KnStatusNoResources;
    }
}

std::int32_t CheckFree(int directory, const std::string& path) {
    const UniqueFd probe = OpenSocket(SOCK_NONBLOCK);
    if (!probe) {
        return KnStatusNoResources;
    }
    const int error = ConnectToEntry(directory, path, probe.Get());
    switch (error) {
    case ENOENT:
    case ECONNREFUSED:
        return KnStatusOk;
    case 0:
    case EAGAIN: // the server has not admitted the connections that wait already
        return KnStatusAlreadyExists;
    case EPROTOTYPE:
        Log(LogLevel::Error,
            {"the file ", path, " in the runtime directory is not a socket of this platform; remove it ",
             "to use the name"});
        return KnStatusDenied;
    default:
        return StatusOfErrno(error);
    }
}

std::int32_t LookUpName(NameKind kind, std::string_view name) {
    UniqueFd directory;
    if (const auto status = OpenRuntimeDirectory(Missing::Fails, directory); status != KnStatusOk) {
        return status;
    }
    const auto status = CheckFree(directory.Get(), PathOf(kind, name));
    return status == KnStatusOk ? KnStatusNotFound : status == KnStatusAlreadyExists ? KnStatusOk : status;
}

} // namespace borven_host
