// Defends the request with which a description is declared: it is whole for every topic, and where it cannot be sent
// nothing happens, and nothing is waited for.
#include "declaration.h"

#include "common/monitor_socket.h"
#include "kn/status.h"
#include "support/scripted_platform.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <filesystem>
#include <string>

namespace {

using msgbus::DeclareDescription;
using testing::HasSubstr;
using testing::StartsWith;

class DeclarationTest : public testing::Test {
protected:
    DeclarationTest() {
        std::string name = std::filesystem::temp_directory_path() / "declaration-XXXXXX";
        EXPECT_NE(nullptr, ::mkdtemp(name.data()));
        directory = name;
        platform.runtimeDirectory.Always([this](char* path, std::size_t size) -> std::int32_t {
            if (directory.size() >= size) {
                return KnStatusInvalidArgument;
            }
            std::strcpy(path, directory.c_str());
            return KnStatusOk;
        });
    }
    ~DeclarationTest() override {
        if (listener != -1) {
            ::close(listener);
        }
        std::filesystem::remove_all(directory);
    }

    void Listen(int backlog = 1) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strcpy(address.sun_path, (directory + '/' + common::MonitorSocketName).c_str());
        listener = ::socket(AF_UNIX, SOCK_STREAM, 0);
        ASSERT_EQ(0, ::bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address));
        ASSERT_EQ(0, ::listen(listener, backlog));
    }

    /// Returns: what the next connection has brought until its end.
    std::string Received() const {
        const int connection = ::accept(listener, nullptr, nullptr);
        std::string text;
        std::array<char, 4096> piece;
        while (const ssize_t size = ::read(connection, piece.data(), piece.size())) {
            if (size < 0) {
                break;
            }
            text.append(piece.data(), static_cast<std::size_t>(size));
        }
        ::close(connection);
        return text;
    }

    test_support::ScriptedPlatform platform;
    std::string directory;
    int listener = -1;
};

TEST_F(DeclarationTest, TheRequest_NamesTheTopicByteByByte) {
    Listen();

    DeclareDescription("a/\n\xFF", "bool");

    const std::string request = Received();
    EXPECT_THAT(request, StartsWith("PUT /v1/topics/%61%2F%0A%FF/description HTTP/1.1\r\nHost: localhost\r\n"));
    EXPECT_THAT(request, HasSubstr("\r\nContent-Length: 4\r\n\r\nbool"));
}

TEST_F(DeclarationTest, TheLongestDescription_IsSentWhole) {
    constexpr std::size_t length = 60000;
    Listen();

    DeclareDescription(std::string(1023, 't'), std::string(length, 'd'));

    EXPECT_THAT(Received(), testing::EndsWith("\r\n\r\n" + std::string(length, 'd')));
}

TEST_F(DeclarationTest, WithoutAPlaceOrAListener_NothingHappens) {
    DeclareDescription("topic", "bool"); // there is no socket
    directory += std::string(100, 'x');
    DeclareDescription("topic", "bool"); // no path of a socket is that long
    platform.runtimeDirectory.Always(KnStatusDenied);
    DeclareDescription("topic", "bool");
    directory.resize(directory.size() - 100);
}

TEST_F(DeclarationTest, AListenerThatTakesNothing_IsNotWaitedFor) {
    constexpr int many = 20;
    Listen(0);

    for (int i = 0; i < many; ++i) { // more than wait to be accepted
        DeclareDescription("topic", "bool");
    }

    EXPECT_THAT(Received(), StartsWith("PUT "));
}

} // namespace
