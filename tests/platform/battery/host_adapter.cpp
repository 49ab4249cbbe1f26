#include "adapter.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

namespace platform_test {

namespace {

std::filesystem::path runtimeDirectory;

/// A name that belongs to another server.
struct Taken {
    int socket;
    std::filesystem::path path;
};
std::vector<Taken> taken;

} // namespace

void BeginTest() {
    std::string pattern = (std::filesystem::temp_directory_path() / "borven-platform-XXXXXX").string();
    ASSERT_NE(nullptr, ::mkdtemp(pattern.data()));
    runtimeDirectory = pattern;
    ::setenv("BORVEN_RUNTIME_DIR", pattern.c_str(), 1);
}

void RemoveName(const char* name) {
    ASSERT_TRUE(std::filesystem::remove(runtimeDirectory / "static" / name));
}

void TakeName(const char* name) {
    const int socket = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string other = runtimeDirectory / "other";
    other.copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(0, ::bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address));
    ASSERT_EQ(0, ::listen(socket, 16));
    std::filesystem::rename(other, runtimeDirectory / "static" / name);
    taken.push_back({socket, runtimeDirectory / "static" / name});
}

void EndTest() {
    for (const Taken& name : taken) {
        ::close(name.socket);
        std::filesystem::remove(name.path);
    }
    if (!taken.empty()) {
        std::filesystem::remove(runtimeDirectory / "static");
    }
    taken.clear();
    for (const auto& entry : std::filesystem::recursive_directory_iterator(runtimeDirectory)) {
        ADD_FAILURE() << "left behind: " << entry.path();
    }
    std::filesystem::remove_all(runtimeDirectory);
    ::unsetenv("BORVEN_RUNTIME_DIR");
}

} // namespace platform_test
