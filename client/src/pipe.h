#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <system_error>

namespace msgbus {

/// A pipe that exec closes.
class Pipe final {
public:
    /// `flags` of both ends: 0 or O_NONBLOCK. Throws: std::system_error.
    explicit Pipe(int flags = 0) : Pipe(Open()) {
        for (const int fd : ends.fd) {
            if (::fcntl(fd, F_SETFD, FD_CLOEXEC) == -1 || ::fcntl(fd, F_SETFL, flags) == -1) {
                Fail();
            }
        }
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;
    ~Pipe() {
        for (const int fd : ends.fd) {
            ::close(fd);
        }
    }

    int ReadEnd() const noexcept { return ends.fd[0]; }
    int WriteEnd() const noexcept { return ends.fd[1]; }

private:
    struct Ends {
        std::array<int, 2> fd;
    };

    /// Complete when it returns, so that the destructor runs if setting it up fails.
    explicit Pipe(const Ends& opened) noexcept : ends(opened) {}

    static Ends Open() {
        Ends opened{};
        if (::pipe(opened.fd.data()) == -1) {
            Fail();
        }
        return opened;
    }

    [[noreturn]] static void Fail() { throw std::system_error(errno, std::generic_category(), "cannot make a pipe"); }

    const Ends ends;
};

} // namespace msgbus
