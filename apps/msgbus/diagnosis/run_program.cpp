#include "run_program.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>

namespace diagnosis {

namespace {

/// What the program has on its standard streams.
class Streams final {
public:
    explicit Streams(int output) {
        ::posix_spawn_file_actions_init(&actions);
        ::posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        ::posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
        ::posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    }
    Streams(const Streams&) = delete;
    Streams& operator=(const Streams&) = delete;
    ~Streams() { ::posix_spawn_file_actions_destroy(&actions); }

    const posix_spawn_file_actions_t* Get() const noexcept { return &actions; }

private:
    posix_spawn_file_actions_t actions{};
};

std::string ReadAll(int descriptor) {
    std::string text;
    std::array<char, 65536> buffer;
    while (true) {
        const ssize_t count = ::read(descriptor, buffer.data(), buffer.size());
        if (count > 0) {
            text.append(buffer.data(), static_cast<std::size_t>(count));
        } else if (count == 0 || errno != EINTR) {
            return text;
        }
    }
}

} // namespace

std::optional<std::string> OutputOf(std::vector<std::string> words) {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
        return std::nullopt;
    }
    std::vector<char*> arguments;
    for (auto& word : words) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    pid_t pid = 0;
    const int error =
        ::posix_spawnp(&pid, arguments.front(), Streams(ends[1]).Get(), nullptr, arguments.data(), ::environ);
    ::close(ends[1]);
    std::string text = error == 0 ? ReadAll(ends[0]) : "";
    ::close(ends[0]);
    if (error != 0) {
        return std::nullopt;
    }
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? std::optional(std::move(text)) : std::nullopt;
}

} // namespace diagnosis
