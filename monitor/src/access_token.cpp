#include "access_token.h"

#include "common/escape.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>

namespace msgbus_monitor {

namespace {

constexpr std::size_t ShortestToken = 16;
constexpr std::size_t LongestToken = 1024;

[[noreturn]] void Fail(const std::string& path, const std::string& reason) {
    throw TokenError("the token file '" + common::Escaped(path) + "' " + reason);
}

[[noreturn]] void FailBySystem(const std::string& path, const char* what) {
    Fail(path, std::string(what) + ": " + std::strerror(errno));
}

class File final {
public:
    File(const std::string& path, int flags, mode_t mode = 0) : descriptor(::open(path.c_str(), flags, mode)) {}
    File(const File&) = delete;
    File& operator=(const File&) = delete;
    ~File() {
        if (descriptor >= 0) {
            ::close(descriptor);
        }
    }
    int Get() const noexcept { return descriptor; }

private:
    const int descriptor;
};

/// Whether the character may stand in a bearer token: RFC 6750.
bool IsTokenCharacter(char c) noexcept {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           std::string_view("-._~+/=").find(c) != std::string_view::npos;
}

} // namespace

std::string ReadToken(const std::string& path) {
    const File file(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    struct stat status {};
    if (file.Get() < 0 || ::fstat(file.Get(), &status) != 0) {
        FailBySystem(path, "cannot be read");
    }
    if (!S_ISREG(status.st_mode)) {
        Fail(path, "is not a file");
    }
    if ((status.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
        Fail(path, "is open to other users; its mode must be 0600 or less");
    }
    std::array<char, LongestToken + 2> bytes{};
    const ssize_t size = ::read(file.Get(), bytes.data(), bytes.size());
    if (size < 0) {
        FailBySystem(path, "cannot be read");
    }
    std::string token(bytes.data(), static_cast<std::size_t>(size));
    if (token.ends_with('\n')) {
        token.pop_back();
    }
    if (token.size() < ShortestToken || token.size() > LongestToken ||
        !std::all_of(token.begin(), token.end(), IsTokenCharacter)) {
        Fail(path, "must have one line of 16 to 1024 letters, digits and characters of '-._~+/='");
    }
    return token;
}

void WriteToken(const std::string& path, const std::string& token) {
    if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
        FailBySystem(path, "cannot be replaced");
    }
    const File file(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR);
    const std::string line = token + "\n";
    if (file.Get() < 0 || ::write(file.Get(), line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
        FailBySystem(path, "cannot be written");
    }
}

} // namespace msgbus_monitor
