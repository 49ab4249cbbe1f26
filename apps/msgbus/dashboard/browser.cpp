#include "dashboard/browser.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <unistd.h>

#include <array>
#include <system_error>

namespace dashboard {

namespace {

/// The settings of posix_spawn: the program is silent, and has the usual signals.
class SpawnSettings final {
public:
    SpawnSettings() {
        ::posix_spawn_file_actions_init(&actions);
        for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
            ::posix_spawn_file_actions_addopen(&actions, stream, "/dev/null", O_RDWR, 0);
        }
        ::posix_spawnattr_init(&attributes);
        sigset_t signals;
        ::sigemptyset(&signals);
        ::sigaddset(&signals, SIGPIPE);
        ::sigaddset(&signals, SIGCHLD);
        ::posix_spawnattr_setsigdefault(&attributes, &signals);
        ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
    }
    SpawnSettings(const SpawnSettings&) = delete;
    SpawnSettings& operator=(const SpawnSettings&) = delete;
    ~SpawnSettings() {
        ::posix_spawnattr_destroy(&attributes);
        ::posix_spawn_file_actions_destroy(&actions);
    }

    posix_spawn_file_actions_t actions{};
    posix_spawnattr_t attributes{};
};

} // namespace

void OpenBrowser(const std::string& address) {
    ::signal(SIGCHLD, SIG_IGN); // it is not waited for
    const SpawnSettings settings;
    std::string program("xdg-open");
    std::string argument(address);
    std::array<char*, 3> arguments{program.data(), argument.data(), nullptr};
    pid_t child = 0;
    const int error =
        ::posix_spawnp(&child, program.c_str(), &settings.actions, &settings.attributes, arguments.data(), environ);
    if (error != 0) {
        throw std::system_error(error, std::generic_category(), "cannot run xdg-open");
    }
}

} // namespace dashboard
