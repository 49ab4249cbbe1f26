#include "names/runtime_directory.h"

#include "base/log.h"
#include "kn/status.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>

namespace borven_host {

namespace {

using bos::logger::LogLevel;

std::string RuntimeDirectoryPath() {
    if (const char* chosen = ::secure_getenv("BORVEN_RUNTIME_DIR"); chosen != nullptr && *chosen != '\0') {
        return chosen;
    }
    if (const char* session = ::secure_getenv("XDG_RUNTIME_DIR"); session != nullptr && *session != '\0') {
        return std::string(session) + "/borven";
    }
    return "/tmp/borven-" + std::to_string(::geteuid());
}

std::int32_t Refuse(const std::string& path, std::string_view reason) {
    Log(LogLevel::Error, {"cannot use the runtime directory ", path, ": ", reason});
    return KnStatusDenied;
}

} // namespace

std::int32_t OpenRuntimeDirectory(Missing missing, UniqueFd& directory) {
    const std::string path = RuntimeDirectoryPath();
    if (missing == Missing::IsCreated && ::mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) {
        return Refuse(path, ErrnoText());
    }
    // Opened first and checked afterwards, so that it cannot be replaced in between.
    UniqueFd opened(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!opened) {
        switch (errno) {
        case ENOENT:
            return KnStatusNotFound;
        case EMFILE:
        case ENFILE:
        case ENOMEM:
            return KnStatusNoResources;
        case ENOTDIR:
        case ELOOP:
            return Refuse(path, "it is a symbolic link, or not a directory");
        default:
            return Refuse(path, ErrnoText());
        }
    }
    struct stat found {};
    if (::fstat(opened.Get(), &found) != 0) {
        return Refuse(path, ErrnoText());
    }
    if (found.st_uid != ::geteuid()) {
        return Refuse(path, "it belongs to another user");
    }
    if ((found.st_mode & 077) != 0) {
        return Refuse(path, "other users may enter it (it must have mode 0700)");
    }
    directory = std::move(opened);
    return KnStatusOk;
}

std::int32_t LockRuntimeDirectory(int directory, UniqueFd& lock) {
    constexpr std::chrono::seconds patience{2};
    constexpr std::chrono::milliseconds pause{1};
    // A description of its own, because two locks of one description do not exclude each other.
    lock = UniqueFd(::openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!lock) {
        return KnStatusNoResources;
    }
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (::flock(lock.Get(), LOCK_EX | LOCK_NB) != 0) { // flock has no time-out
        if (errno != EWOULDBLOCK && errno != EINTR) {
            return KnStatusNoResources;
        }
        if (std::chrono::steady_clock::now() > deadline) {
            Log(LogLevel::Error, {"the runtime directory stays locked: a stopped process may hold its lock"});
            return KnStatusTimedOut;
        }
        std::this_thread::sleep_for(pause);
    }
    return KnStatusOk;
}

} // namespace borven_host
