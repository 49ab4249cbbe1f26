#include "names/runtime_directory.h"

#include "base/log.h"
#include "kn/status.h"

#include <cerrno>
#include <cstdlib>
#include <string>
#include <sys/stat.h>

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
    Log(LogLevel::Error, {"the runtime directory ", path, " cannot be used: ", reason});
    return KnStatusDenied;
}

} // namespace

std::int32_t OpenRuntimeDirectory(Missing missing, UniqueFd& directory) {
    const std::string path = RuntimeDirectoryPath();
    if (missing == Missing::IsCreated && ::mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) {
        return Refuse(path, ErrnoText());
    }
    // Opened first and looked at afterwards, so that nobody can put another one there in between.
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
            return Refuse(path, "it is not a directory, or a symbolic link");
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

} // namespace borven_host
