#pragma once

#include <string_view>

/// Which part of a program a log record comes from, found by the path of its source. The compiler may have that path
/// absolute, relative to the folder in which it ran, or mapped to another place; this header's own path shows which.
namespace common {

enum class LogOrigin {
    Bus,    ///< the library of the bus
    Server, ///< everything else: the program, what it adds to the bus, the platform
};

namespace log_origin_detail {

inline constexpr std::string_view OwnFile = __FILE__;
inline constexpr std::string_view OwnPlace = "platform/common/include/common/log_origin.h";
static_assert(OwnFile.ends_with(OwnPlace), "the origin of log records could not be found");

/// What the compiler puts before each path of the source tree.
inline constexpr std::string_view Root = OwnFile.substr(0, OwnFile.size() - OwnPlace.size());

constexpr std::string_view WithoutSteps(std::string_view path) noexcept {
    constexpr std::string_view up = "../";
    while (path.starts_with(up)) {
        path.remove_prefix(up.size());
    }
    return path;
}

} // namespace log_origin_detail

/// Returns: `file`, as the compiler has it, as a path in the source tree; unchanged if it is not there.
constexpr std::string_view PathInTree(std::string_view file) noexcept {
    using namespace log_origin_detail;
    if (!Root.empty() && WithoutSteps(Root).empty()) {
        return WithoutSteps(file); // a compiler that runs in another folder needs another number of steps
    }
    return file.starts_with(Root) ? file.substr(Root.size()) : file;
}

constexpr LogOrigin OriginOf(std::string_view file) noexcept {
    return PathInTree(file).starts_with("messagebus/") ? LogOrigin::Bus : LogOrigin::Server;
}

/// Returns: the name of an origin in options and records.
constexpr const char* NameOf(LogOrigin origin) noexcept {
    return origin == LogOrigin::Bus ? "bus" : "server";
}

} // namespace common
