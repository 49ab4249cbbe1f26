#include "joining/name_watch.h"

#include "base/log.h"

#include <sys/inotify.h>

#include <array>
#include <cstdlib>
#include <string>
#include <string_view>

namespace borven_host {

namespace {

bool IsSwitchedOff() {
    const char* const setting = ::secure_getenv("BORVEN_NAME_WATCH");
    return setting != nullptr && std::string_view(setting) == "off";
}

} // namespace

void NameWatch::Start() {
    if (IsSwitchedOff()) {
        return;
    }
    UniqueFd opened(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    const std::uint64_t id = poller.NewId();
    if (!opened || !poller.WatchSocket(opened.Get(), EPOLLIN, id)) {
        Log(bos::logger::LogLevel::Warning,
            {"the runtime directory is not watched, and a socket that is removed stays away: ", ErrnoText()});
        return;
    }
    events = std::move(opened);
    pollId = id;
}

void NameWatch::Stop() noexcept {
    if (events) {
        poller.Unwatch(events.Get());
        events.Reset();
    }
}

void NameWatch::Add(const NamedSocket& socket) const noexcept {
    if (!events) {
        return;
    }
    // A bound socket lives on when its entry is removed, so that it loses a link (IN_ATTRIB) and is not yet deleted.
    constexpr std::uint32_t removed = IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF;
    const std::string directory = "/proc/self/fd/" + std::to_string(socket.Directory());
    ::inotify_add_watch(events.Get(), directory.c_str(), removed);
    ::inotify_add_watch(events.Get(), (directory + '/' + socket.Folder()).c_str(), removed);
    ::inotify_add_watch(events.Get(), (directory + '/' + socket.Entry()).c_str(), removed | IN_DONT_FOLLOW);
}

bool NameWatch::Notice(std::uint64_t id) const noexcept {
    if (!events || id != pollId) {
        return false;
    }
    std::array<char, 4096> taken;
    while (::read(events.Get(), taken.data(), taken.size()) > 0) {
    }
    return true;
}

} // namespace borven_host
