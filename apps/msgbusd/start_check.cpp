#include "msgbusd/start_check.h"

#include "bos/logger.h"
#include "br_MessageBus.h"
#include "common/escape.h"
#include "kn/name_owner.h"
#include "kn/runtime_directory.h"
#include "kn/status.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <string>
#include <string_view>

namespace msgbusd {

namespace {

using bos::logger::BOSLogger;
using bos::logger::LogLevel;
using message_bus::ConnectionType;

/// With fewer, no client could connect: an idle server has 40, and the platform keeps 32 for its own needs.
constexpr rlim_t LeastDescriptors = 80;

/// Keeps the errors that are logged while it exists, for a sentence of which they are the reason.
class Reasons final : public bos::logger::ILogBackEnd {
public:
    Reasons() : next(BOSLogger::RootLogger().SetBackEnd(*this)) {}
    Reasons(const Reasons&) = delete;
    Reasons& operator=(const Reasons&) = delete;
    ~Reasons() override { BOSLogger::RootLogger().SetBackEnd(next); }

    bool IsEnabled(LogLevel level) const override { return level == LogLevel::Error; }
    void Write(LogLevel, const char*, int, const char*, const std::string& message) override {
        if (text.empty()) {
            text = message;
        }
    }

    /// Returns: the first one; empty: there was none.
    const std::string& First() const noexcept { return text; }

private:
    std::string text;
    bos::logger::ILogBackEnd& next;
};

/// Returns: "/run/user/1000/borven (XDG_RUNTIME_DIR)".
std::string DescribePlace() {
    std::array<char, PATH_MAX + 256> text{};
    KnDescribeRuntimeDirectory(text.data(), text.size());
    return text.data();
}

/// Returns: what has chosen the runtime directory.
std::string Chooser() {
    const std::string place = DescribePlace();
    const auto open = place.rfind(" (");
    return open == std::string::npos ? "" : place.substr(open + 2, place.size() - open - 3);
}

/// Returns: the path of the runtime directory.
std::string PathIn(const std::string& place) {
    const std::string path = place.substr(0, place.rfind(" ("));
    constexpr std::string_view missing = ", which does not exist";
    return path.ends_with(missing) ? path.substr(0, path.size() - missing.size()) : path;
}

std::string NameOfUser(uid_t uid) {
    std::array<char, 1024> buffer{};
    passwd entry{};
    passwd* found = nullptr;
    ::getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &found);
    const std::string number = "uid " + std::to_string(uid);
    return found == nullptr ? number : std::string(found->pw_name) + " (" + number + ')';
}

/// Returns: whose the directory is and which mode it has; of the nearest directory above it if it is not there.
std::string DescribeOwner(std::string path) {
    struct stat found {};
    while (::lstat(path.c_str(), &found) != 0) {
        const auto slash = path.rfind('/');
        if (slash == std::string::npos || path == "/") {
            return {};
        }
        path = slash == 0 ? "/" : path.substr(0, slash);
    }
    constexpr mode_t modeBits = 07777;
    std::array<char, 16> mode{};
    std::snprintf(mode.data(), mode.size(), "%04o", found.st_mode & modeBits);
    const std::string self = found.st_uid == ::geteuid() ? "" : "; this server runs as " + NameOfUser(::geteuid());
    return "; " + path + " belongs to " + NameOfUser(found.st_uid) + " and has mode " + mode.data() + self;
}

std::string Above(const std::string& path) {
    const auto slash = path.rfind('/');
    return slash == std::string::npos || slash == 0 ? "/" : path.substr(0, slash);
}

/// The reason is a sentence of the platform, or one like it.
[[noreturn]] void RefuseDirectory(const std::string& path, const std::string& reason) {
    const bool isAbove = reason.find("the directory above it") != std::string::npos;
    const std::string chooser = Chooser();
    throw StartError(reason + DescribeOwner(isAbove ? Above(path) : path) +
                     (chooser.starts_with("neither") ? "; " + chooser : "; " + chooser + " chose it"));
}

void CheckDescriptors() {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < LeastDescriptors) {
        throw StartError("a server needs at least " + std::to_string(LeastDescriptors) +
                         " descriptors, and this one may have " + std::to_string(limit.rlim_cur) +
                         "; raise 'ulimit -n', or LimitNOFILE= of its unit");
    }
}

/// Returns: the runtime directory, which exists now.
std::string CheckDirectory() {
    const Reasons reasons;
    std::array<char, PATH_MAX> path{};
    const auto status = KnRuntimeDirectory(KnMissingDirectory::IsCreated, path.data(), path.size());
    if (status == KnStatusOk) {
        return path.data();
    }
    const std::string chosen = PathIn(DescribePlace());
    RefuseDirectory(chosen, !reasons.First().empty()
                                ? reasons.First()
                                : "cannot use the runtime directory " + chosen + ": " + KnStatusText(status));
}

/// Makes as many files without names as the server makes with names: a directory may look writable and not be.
void CheckWritable(const std::string& path) {
    constexpr std::size_t needed =
        8; // three services and their folder, the account, the monitor with its token, one spare
    std::array<int, needed> files{};
    int error = 0;
    for (int& file : files) {
        file = ::open(path.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
        error = file < 0 ? errno : error;
    }
    for (const int file : files) {
        ::close(file); // -1 does no harm
    }
    const bool isUnsupported = error == EOPNOTSUPP || error == EISDIR || error == ENOENT; // by the file system
    if (error != 0 && !isUnsupported) {
        RefuseDirectory(path, "cannot use the runtime directory " + path +
                                  ": it cannot be written to: " + std::strerror(error));
    }
}

void CheckName(KnNameKind kind, const char* name, std::string_view mode, const std::string& path) {
    const Reasons reasons;
    KnCaller other;
    const auto status = KnOwnerOfName(kind, name, &other);
    if (status == KnStatusNotFound) {
        return;
    }
    if (status != KnStatusOk) {
        throw StartError("cannot offer the bus: " +
                         (reasons.First().empty() ? std::string(KnStatusText(status)) : reasons.First()));
    }
    const std::string process =
        other.pid == 0 ? "" : ": process " + std::to_string(other.pid) + " (" + other.program + ')';
    throw StartError("another msgbusd is already serving in " + std::string(mode) + " mode in " + path + process +
                     "; BORVEN_RUNTIME_DIR chooses another directory");
}

} // namespace

void CheckStart(ConnectionType type) {
    CheckDescriptors();
    const std::string path = CheckDirectory();
    CheckWritable(path);
    if (type == ConnectionType::Static) {
        CheckName(KnNameKind::Connection, br_MessageBus_connection, "static", path);
        return;
    }
    for (const auto& interface : br_MessageBus_interfaces) {
        CheckName(KnNameKind::Service, interface.service, "dynamic", path);
    }
}

} // namespace msgbusd
