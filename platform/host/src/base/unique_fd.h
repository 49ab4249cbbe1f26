#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <utility>

namespace borven_host {

/// Owns a file descriptor. One that the kernel numbered 0 to 2 is moved up: in a program that was started without
/// standard streams, what another part of it prints must not go to one of these sockets.
class UniqueFd final {
public:
    UniqueFd() = default;
    explicit UniqueFd(int owned) : number(AboveStandardStreams(owned)) {}
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    UniqueFd(UniqueFd&& other) noexcept : number(std::exchange(other.number, -1)) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        std::swap(number, other.number);
        return *this;
    }
    ~UniqueFd() {
        if (number >= 0) {
            ::close(number);
        }
    }

    int Get() const noexcept { return number; }
    explicit operator bool() const noexcept { return number >= 0; }
    void Reset() noexcept { UniqueFd discarded(std::move(*this)); }

private:
    static int AboveStandardStreams(int fd) {
        if (fd < 0 || fd > 2) {
            return fd;
        }
        const int moved = ::fcntl(fd, F_DUPFD_CLOEXEC, 3);
        ::close(fd);
        return moved;
    }

    int number = -1;
};

} // namespace borven_host
