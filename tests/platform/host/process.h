#pragma once

#include "support.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <cerrno>
#include <csignal>

namespace platform_test {

/// A running platform_peer.
class Process final {
public:
    explicit Process(std::vector<std::string> steps) {
        steps.insert(steps.begin(), PLATFORM_PEER);
        std::vector<char*> arguments;
        for (std::string& step : steps) {
            arguments.push_back(step.data());
        }
        arguments.push_back(nullptr);
        int in[2];
        int out[2];
        EXPECT_EQ(0, ::pipe2(in, O_CLOEXEC));
        EXPECT_EQ(0, ::pipe2(out, O_CLOEXEC));
        posix_spawn_file_actions_t actions;
        ::posix_spawn_file_actions_init(&actions);
        ::posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
        ::posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
        ::prctl(PR_SET_CHILD_SUBREAPER, 1);
        EXPECT_EQ(0, ::posix_spawn(&pid, PLATFORM_PEER, &actions, nullptr, arguments.data(), environ));
        ::posix_spawn_file_actions_destroy(&actions);
        ::close(in[0]);
        ::close(out[1]);
        input = in[1];
        output = out[0];
    }
    Process(Process&&) = delete;
    ~Process() {
        if (pid > 0) {
            Signal(SIGKILL);
            Wait();
        }
        CloseInput();
        ::close(output);
        if (child > 0) {
            ::waitpid(child, nullptr, 0);
        }
    }

    /// Reads the output of the step "fork-and-stay". This process becomes the child's parent when the peer has died.
    void HearOfChild() {
        const std::string line = Hear();
        const std::string step = "fork-and-stay ";
        ASSERT_THAT(line, ::testing::StartsWith(step));
        child = std::stoi(line.substr(step.size()));
    }

    /// Returns: the next line of its output; "(gone)" when it has exited.
    std::string Hear() {
        while (heard.find('\n') == std::string::npos) {
            pollfd waited{output, POLLIN, 0};
            if (::poll(&waited, 1, static_cast<int>(PatienceMs)) == 0) {
                GiveUp("no output from another process");
            }
            std::array<char, 256> buffer{};
            const ssize_t length = ::read(output, buffer.data(), buffer.size());
            if (length <= 0 && !(length < 0 && errno == EINTR)) {
                return "(gone)";
            }
            heard.append(buffer.data(), static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
        }
        const auto end = heard.find('\n');
        const std::string line = heard.substr(0, end);
        heard.erase(0, end + 1);
        return line;
    }

    void GoOn() { EXPECT_EQ(1, ::write(input, "\n", 1)); }

    void CloseInput() {
        if (input >= 0) {
            ::close(std::exchange(input, -1));
        }
    }

    void Signal(int number) const { EXPECT_EQ(0, ::kill(pid, number)); }

    void Kill() {
        Signal(SIGKILL);
        EXPECT_EQ(128 + SIGKILL, Wait());
    }

    /// Returns: its exit status, or 128 and the signal that ended it.
    int Wait() {
        int status = 0;
        while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
        pid = 0;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

    /// Waits until its main thread sleeps in the kernel (or is stopped).
    void AwaitState(char state) const {
        Await("another process should block", [&] {
            std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
            std::string line;
            std::getline(file, line);
            const auto behindName = line.rfind(") ");
            return behindName != std::string::npos && line[behindName + 2] == state;
        });
    }

private:
    pid_t pid = 0;
    pid_t child = 0;
    int input = -1;
    int output = -1;
    std::string heard;
};

/// Claims the name that a killed process left behind, and releases it properly.
inline void Reclaim(const char* name = "line") {
    Handle server = RegisterStatic(name);
    EXPECT_EQ(KnStatusOk, server.Close());
}

} // namespace platform_test
