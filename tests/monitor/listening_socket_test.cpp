// Defends where the monitor listens: a stale socket file makes way, one that is in use and anything else does not.
#include "listening_socket.h"

#include "monitor/http_client.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <system_error>

namespace {

using msgbus_monitor::ListeningSocket;
using msgbus_monitor::LoopbackAddress;
using msgbus_monitor::PeerOf;
using msgbus_monitor::PortOf;

class ListeningSocketTest : public testing::Test {
protected:
    ListeningSocketTest() {
        std::string name = (std::filesystem::temp_directory_path() / "borven-listening-XXXXXX").string();
        directory = ::mkdtemp(name.data());
        path = directory + "/monitor.sock";
    }
    ~ListeningSocketTest() override { std::filesystem::remove_all(directory); }

    std::string directory;
    std::string path;
};

TEST_F(ListeningSocketTest, SocketFile_IsItsOwnersAndGoesWithTheSocket) {
    {
        const auto socket = ListeningSocket::OnPath(path);
        struct stat status {};
        ASSERT_EQ(::stat(path.c_str(), &status), 0);
        EXPECT_TRUE(S_ISSOCK(status.st_mode));
        EXPECT_EQ(status.st_mode & 0777U, 0600U);
        EXPECT_NO_THROW(HttpClient{path});
    }
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(ListeningSocketTest, StaleFile_IsReplaced) {
    {
        auto dead = ListeningSocket::OnPath(path);
        ::close(dead.Release());
        std::filesystem::rename(path, path + ".kept");
    }
    std::filesystem::rename(path + ".kept", path);

    const auto socket = ListeningSocket::OnPath(path);

    EXPECT_NO_THROW(HttpClient{path});
}

TEST_F(ListeningSocketTest, FileInUse_IsLeftAlone) {
    const auto first = ListeningSocket::OnPath(path);

    EXPECT_THROW(ListeningSocket::OnPath(path), std::system_error);

    EXPECT_NO_THROW(HttpClient{path});
}

TEST_F(ListeningSocketTest, WhatIsNoSocket_IsLeftAlone) {
    std::ofstream(path) << "something";
    EXPECT_THROW(ListeningSocket::OnPath(path), std::system_error);
    EXPECT_EQ(std::filesystem::file_size(path), 9U);

    std::filesystem::create_symlink(directory + "/elsewhere", directory + "/link");
    EXPECT_THROW(ListeningSocket::OnPath(directory + "/link"), std::system_error);
    EXPECT_TRUE(std::filesystem::is_symlink(directory + "/link"));
}

TEST_F(ListeningSocketTest, FileOfANewerServer_IsNotRemoved) {
    auto old = std::make_optional(ListeningSocket::OnPath(path));
    std::filesystem::remove(path);
    const auto newer = ListeningSocket::OnPath(path);

    old.reset();

    EXPECT_NO_THROW(HttpClient{path});
}

TEST_F(ListeningSocketTest, PathThatIsTooLong_IsAnError) {
    EXPECT_THROW(ListeningSocket::OnPath(directory + "/" + std::string(108, 'x')), std::system_error);
    EXPECT_THROW(ListeningSocket::OnPath(directory + "/missing/monitor.sock"), std::system_error);
}

TEST_F(ListeningSocketTest, Address_GetsAPortOfTheSystemAndIsTakenOnce) {
    const auto socket = ListeningSocket::OnAddress(LoopbackAddress::Parse("127.0.0.1:0"));
    const auto port = PortOf(socket.Descriptor());

    EXPECT_NE(port, 0);
    EXPECT_NO_THROW(HttpClient{port});
    EXPECT_THROW(ListeningSocket::OnAddress(LoopbackAddress::Parse("127.0.0.1:" + std::to_string(port))),
                 std::system_error);
}

TEST_F(ListeningSocketTest, Peer_IsTheProcessAtTheOtherEndOfAUnixSocket) {
    const auto socket = ListeningSocket::OnPath(path);
    const HttpClient client(path);
    const int accepted = ::accept(socket.Descriptor(), nullptr, nullptr);

    const auto peer = PeerOf(accepted);

    ASSERT_TRUE(peer);
    EXPECT_EQ(peer->pid, ::getpid());
    EXPECT_EQ(peer->uid, ::geteuid());
    ::close(accepted);
    EXPECT_FALSE(PeerOf(ListeningSocket::OnAddress(LoopbackAddress::Parse("127.0.0.1:0")).Descriptor()));
}

} // namespace
