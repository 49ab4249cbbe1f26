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
#include <filesystem>
#include <string>
#include <system_error>

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

/// Returns: the path of the directory that is open as `descriptor`.
std::string PathOfDirectory(int descriptor) {
    std::error_code error;
    return std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(descriptor), error).string();
}

int RefuseFile(int directory, const std::string& path, std::string_view reason) {
    Log(LogLevel::Error, {"the file ", PathOfDirectory(directory), "/", path, " ", reason, "; remove it"});
    return EPROTOTYPE;
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
    struct stat owner {};
    struct stat found {};
    if (::fstat(directory, &owner) != 0) {
        return errno;
    }
    const std::string folder = path.substr(0, path.find('/'));
    const UniqueFd opened(::openat(directory, folder.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    if (!opened || ::fstat(opened.Get(), &found) != 0) {
        return errno;
    }
    if (!S_ISDIR(found.st_mode) || found.st_uid != owner.st_uid || (found.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        return RefuseFile(directory, folder, "is not a directory that only its owner may write to");
    }
    const UniqueFd entry(::openat(opened.Get(), path.c_str() + folder.size() + 1, O_PATH | O_NOFOLLOW | O_CLOEXEC));
    if (!entry || ::fstat(entry.Get(), &found) != 0) {
        return errno;
    }
    if (!S_ISSOCK(found.st_mode) || found.st_uid != owner.st_uid) {
        return RefuseFile(directory, path, "is not a socket of the directory's owner");
    }
    const sockaddr_un address = AddressOf(entry.Get());
    while (::connect(socket, Raw(address), sizeof address) != 0) {
        if (errno == EPROTOTYPE) {
            return RefuseFile(directory, path, "is a socket of another program");
        }
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
    default:
        return StatusOfErrno(error);
    }
}

std::int32_t LookUpName(NameKind kind, std::string_view name) {
    UniqueFd directory;
    if (const auto status = OpenRuntimeDirectory(RuntimeDirectoryPath(), Purpose::Connects, Missing::Fails, directory);
        status != KnStatusOk) {
        return status;
    }
    const auto status = CheckFree(directory.Get(), PathOf(kind, name));
    return status == KnStatusOk ? KnStatusNotFound : status == KnStatusAlreadyExists ? KnStatusOk : status;
}

} // namespace borven_host
