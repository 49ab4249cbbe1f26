#include "names/runtime_directory.h"

#include "base/log.h"
#include "kn/status.h"
#include "names/admitted_group.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>

namespace borven_host {

namespace {

using bos::logger::LogLevel;

struct Choice {
    std::string path;
    const char* reason; ///< for people
};

Choice ChoosePath() {
    if (const char* chosen = ::secure_getenv("BORVEN_RUNTIME_DIR"); chosen != nullptr && *chosen != '\0') {
        return {chosen, "BORVEN_RUNTIME_DIR"};
    }
    if (const char* session = ::secure_getenv("XDG_RUNTIME_DIR"); session != nullptr && *session != '\0') {
        return {std::string(session) + "/borven", "XDG_RUNTIME_DIR"};
    }
    return {"/tmp/borven-" + std::to_string(::geteuid()), "neither BORVEN_RUNTIME_DIR nor XDG_RUNTIME_DIR is set"};
}

std::int32_t Refuse(const std::string& path, std::string_view reason) {
    Log(LogLevel::Error, {"cannot use the runtime directory ", path, ": ", reason});
    return KnStatusDenied;
}

/// For errno. Returns: KnStatusNoResources, or that of Refuse.
std::int32_t FailOrRefuse(const std::string& path, std::string_view reason) {
    const int error = errno;
    switch (error) {
    case EMFILE:
    case ENFILE:
    case ENOMEM:
    case ENOSPC:
    case EDQUOT:
        return KnStatusNoResources;
    default:
        return Refuse(path, std::string(reason) + ErrnoText(error));
    }
}

std::string AnotherUser(const struct stat& found) {
    return "belongs to another user (uid " + std::to_string(found.st_uid) + ')';
}

/// Returns: why the runtime directory must not be in the directory `above`; empty: it may.
std::string FaultOfParent(const struct stat& above) {
    if (above.st_uid != 0 && above.st_uid != ::geteuid()) {
        return AnotherUser(above);
    }
    const bool isWritableByOthers = (above.st_mode & (S_IWGRP | S_IWOTH)) != 0;
    return isWritableByOthers && (above.st_mode & S_ISVTX) == 0 ? "is writable by others and not sticky" : "";
}

constexpr mode_t ForGroup = S_IRWXG;
constexpr mode_t ForOthers = S_IRWXO;

/// Returns: what is wrong with the directory's mode; empty: nothing.
std::string FaultOfMode(const struct stat& found, bool mayGroupEnter) {
    if ((found.st_mode & ForOthers) != 0 || (!mayGroupEnter && (found.st_mode & ForGroup) != 0)) {
        return "other users may enter it (it must have mode 0700)";
    }
    return (found.st_mode & (S_IRGRP | S_IWGRP)) == 0
               ? ""
               : "its group may do more than enter it (it must have mode 0710 or 0700)";
}

/// Returns: why a server must not use the directory; empty: it may.
std::string FaultForServer(const struct stat& found) {
    if (found.st_uid != ::geteuid()) {
        return "it " + AnotherUser(found);
    }
    const auto group = AdmittedGroup();
    return FaultOfMode(found, group && found.st_gid == *group);
}

/// Returns: why a client must not use the directory; empty: it may.
std::string FaultForClient(const struct stat& found) {
    const char* const chosen = ::secure_getenv("BORVEN_RUNTIME_DIR");
    const bool isNamed = chosen != nullptr && *chosen != '\0';
    if (found.st_uid != ::geteuid() && !(isNamed && (found.st_mode & S_IXGRP) != 0)) {
        return "it " + AnotherUser(found);
    }
    return FaultOfMode(found, true);
}

/// Returns: whether the process that put `entry` into the directory `above` can only have been root's or this user's.
bool IsPlacedByTrusted(const struct stat& above, const struct stat& entry) {
    const auto isTrusted = [](uid_t user) { return user == 0 || user == ::geteuid(); };
    const bool isShared = (above.st_mode & (S_IWGRP | S_IWOTH)) != 0;
    return isTrusted(above.st_uid) && (!isShared || ((above.st_mode & S_ISVTX) != 0 && isTrusted(entry.st_uid)));
}

/// Returns: why the directory of another user, which is open as `directory`, must not be used; empty: it may. A user
/// that is known here has made it, where no third one could have put it.
std::string FaultOfForeign(int directory, struct stat entry) {
    if (entry.st_uid == UnmappedUser()) {
        return "it belongs to a user that has no number here";
    }
    UniqueFd at(::openat(directory, "..", O_PATH | O_DIRECTORY | O_CLOEXEC));
    struct stat above {};
    while (at && ::fstat(at.Get(), &above) == 0 && (above.st_dev != entry.st_dev || above.st_ino != entry.st_ino)) {
        if (!IsPlacedByTrusted(above, entry)) {
            return "it belongs to another user, and a third one may have put it where it is";
        }
        entry = above;
        at = UniqueFd(::openat(at.Get(), "..", O_PATH | O_DIRECTORY | O_CLOEXEC));
    }
    return at ? "" : "what is above it cannot be entered";
}

bool IsRootDirectory(const struct stat& directory) {
    struct stat root {};
    return ::stat("/", &root) != 0 || (root.st_dev == directory.st_dev && root.st_ino == directory.st_ino);
}

} // namespace

std::string RuntimeDirectoryPath() {
    const std::string chosen = ChoosePath().path;
    std::error_code error; // the working directory may be gone
    std::string path = std::filesystem::absolute(chosen, error).string();
    if (error) {
        return chosen;
    }
    while (path.size() > 1 && path.back() == '/') {
        path.pop_back();
    }
    return path;
}

std::string DescribeRuntimeDirectory() {
    const std::string path = RuntimeDirectoryPath();
    const bool isMissing = ::access(path.c_str(), F_OK) != 0 && errno == ENOENT;
    return path + (isMissing ? ", which does not exist (" : " (") + ChoosePath().reason + ')';
}

std::int32_t OpenRuntimeDirectory(const std::string& path, Purpose purpose, Missing missing, UniqueFd& directory) {
    const std::size_t slash = path.rfind('/');
    const std::string abovePath = slash == 0 ? "/" : path.substr(0, slash);
    const std::string name = path.substr(slash + 1);
    if (slash == std::string::npos || name.empty() || name == "." || name == "..") {
        return Refuse(path, "the path must end in the directory's own name");
    }
    const UniqueFd above(::open(abovePath.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    struct stat found {};
    if (!above || ::fstat(above.Get(), &found) != 0) {
        return errno == ENOENT && missing == Missing::Fails
                   ? std::int32_t{KnStatusNotFound}
                   : FailOrRefuse(path, "the directory above it cannot be opened: ");
    }
    if (const std::string fault = FaultOfParent(found); !fault.empty()) {
        return Refuse(path, "the directory above it " + fault);
    }
    // A client may not be able to read it.
    const int flags = (purpose == Purpose::Connects ? O_PATH : O_RDONLY) | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    // Opened first and checked afterwards, so that it cannot be replaced in between.
    UniqueFd opened(::openat(above.Get(), name.c_str(), flags));
    if (!opened && errno == ENOENT) {
        if (missing == Missing::Fails) {
            return KnStatusNotFound;
        }
        if (IsRootDirectory(found)) {
            return Refuse(path, "it does not exist, and nothing is created in the root directory");
        }
        if (::mkdirat(above.Get(), name.c_str(), 0700) != 0 && errno != EEXIST) {
            return FailOrRefuse(path, "it cannot be created: ");
        }
        opened = UniqueFd(::openat(above.Get(), name.c_str(), flags));
    }
    if (!opened && errno == EACCES && ::fstatat(above.Get(), name.c_str(), &found, AT_SYMLINK_NOFOLLOW) == 0 &&
        found.st_uid != ::geteuid()) {
        return Refuse(path, "it " + AnotherUser(found));
    }
    if (!opened) {
        return errno == ENOTDIR || errno == ELOOP ? Refuse(path, "it is a symbolic link, or not a directory")
                                                  : FailOrRefuse(path, "");
    }
    if (::fstat(opened.Get(), &found) != 0) {
        return FailOrRefuse(path, "");
    }
    std::string fault = purpose == Purpose::Connects ? FaultForClient(found) : FaultForServer(found);
    if (fault.empty() && ::faccessat(opened.Get(), ".", X_OK, AT_EACCESS) != 0) {
        fault = "it is closed to this user";
    }
    if (fault.empty() && found.st_uid != ::geteuid()) {
        fault = FaultOfForeign(opened.Get(), found);
    }
    if (!fault.empty()) {
        return Refuse(path, fault);
    }
    if (purpose == Purpose::Serves && !GiveToGroup(opened.Get(), ".", GroupEntersOnly)) {
        return FailOrRefuse(path, "it cannot be given to the group: ");
    }
    directory = std::move(opened);
    return KnStatusOk;
}

bool GiveToGroup(int directory, const char* path, mode_t mode) {
    const auto group = AdmittedGroup();
    struct stat found {};
    if (!group) {
        return true;
    }
    if (::fstatat(directory, path, &found, AT_SYMLINK_NOFOLLOW) != 0) {
        return false;
    }
    constexpr auto sameUser = static_cast<uid_t>(-1);
    // Only this user can have put the entry there.
    return (found.st_gid == *group || ::fchownat(directory, path, sameUser, *group, AT_SYMLINK_NOFOLLOW) == 0) &&
           ((found.st_mode & ALLPERMS) == mode || ::fchmodat(directory, path, mode, 0) == 0);
}

std::int32_t LockRuntimeDirectory(int directory, std::chrono::milliseconds patience, UniqueFd& lock) {
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
        if (std::chrono::steady_clock::now() >= deadline) {
            if (patience.count() != 0) {
                Log(LogLevel::Error, {"the runtime directory stays locked: a stopped process may hold its lock"});
            }
            return KnStatusTimedOut;
        }
        std::this_thread::sleep_for(pause);
    }
    return KnStatusOk;
}

} // namespace borven_host
