#pragma once

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

namespace test_support {

/// A `msgbusd` process with a runtime directory of its own, which the test program's clients use.
class ServerProcess final {
public:
    explicit ServerProcess(std::vector<std::string> options = {}) : arguments(std::move(options)) {
        std::string name = std::filesystem::temp_directory_path() / "msgbus-live-XXXXXX";
        EXPECT_NE(nullptr, ::mkdtemp(name.data()));
        directory = name;
        ::setenv("BORVEN_RUNTIME_DIR", directory.c_str(), 1);
        ::unsetenv("BORVEN_BUS");
        Start();
    }
    ServerProcess(const ServerProcess&) = delete;
    ServerProcess& operator=(const ServerProcess&) = delete;
    ~ServerProcess() {
        if (pid > 0) {
            Kill();
        }
        std::error_code ignored;
        std::filesystem::remove_all(directory, ignored);
    }

    /// Returns when it serves.
    void Start() {
        std::array<int, 2> ready{};
        ASSERT_EQ(0, ::pipe2(ready.data(), O_CLOEXEC));
        posix_spawn_file_actions_t actions;
        ::posix_spawn_file_actions_init(&actions);
        constexpr int readyInServer = 9;
        ::posix_spawn_file_actions_adddup2(&actions, ready[1], readyInServer);
        std::vector<std::string> all{MSGBUSD, "--log-level", "off", "--ready-fd", std::to_string(readyInServer)};
        all.insert(all.end(), arguments.begin(), arguments.end());
        std::vector<char*> pointers;
        for (auto& argument : all) {
            pointers.push_back(argument.data());
        }
        pointers.push_back(nullptr);
        ASSERT_EQ(0, ::posix_spawn(&pid, MSGBUSD, &actions, nullptr, pointers.data(), environ));
        ::posix_spawn_file_actions_destroy(&actions);
        ::close(ready[1]);
        char byte = 0;
        EXPECT_EQ(1, ::read(ready[0], &byte, 1)) << "the server did not start";
        ::close(ready[0]);
    }

    void Signal(int signal) const { EXPECT_EQ(0, ::kill(pid, signal)); }
    /// Returns when it is stopped: a signal alone takes effect later.
    void Stop() const {
        Signal(SIGSTOP);
        int status = 0;
        EXPECT_EQ(pid, ::waitpid(pid, &status, WUNTRACED));
        EXPECT_TRUE(WIFSTOPPED(status));
    }
    void Continue() const { Signal(SIGCONT); }
    void Kill() {
        Signal(SIGKILL);
        EXPECT_EQ(pid, ::waitpid(pid, nullptr, 0));
        pid = -1;
    }
    void Restart() {
        Kill();
        Start();
    }
    pid_t Pid() const { return pid; }

private:
    std::vector<std::string> arguments;
    std::string directory;
    pid_t pid = -1;
};

/// A test with a server. The server comes first, so that it outlives the clients.
class LiveTest : public ::testing::Test {
protected:
    ServerProcess server;
};

/// Returns: whether `descriptor` is readable, or becomes so within `timeoutMs`.
inline bool IsReadable(int descriptor, int timeoutMs = 0) {
    pollfd polled{descriptor, POLLIN, 0};
    return ::poll(&polled, 1, timeoutMs) == 1;
}

inline std::size_t OpenDescriptors() {
    return static_cast<std::size_t>(
        std::distance(std::filesystem::directory_iterator("/proc/self/fd"), std::filesystem::directory_iterator()));
}

inline std::size_t Threads() {
    return static_cast<std::size_t>(
        std::distance(std::filesystem::directory_iterator("/proc/self/task"), std::filesystem::directory_iterator()));
}

/// A time that no test is meant to reach.
constexpr int PatienceMs = 60000;

} // namespace test_support
