// Defends that however many clients come, and whatever they do, /healthz is answered and others are served.
#include "monitor/served_monitor.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <thread>
#include <vector>

namespace {

using namespace std::literals;

class ListenerTest : public ServedMonitor {
protected:
    ListenerTest() {
        options.limits.unixConnections = 8;
        options.limits.tcpConnections = 2;
        options.limits.eventStreams = 4;
        options.limits.leastWait = 1ms;
    }

    /// Requires: ServeOnTcp. Waits until what has been sent, and who has come, is known to the thread of the
    /// connections.
    void AwaitAccepted() const {
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(ConnectOverTcp().Get("/healthz", "Authorization: Bearer " + std::string(Token) + "\r\n").status,
                      200);
        }
    }

    static constexpr const char* Token = "0123456789abcdef";

    /// Connects as often as there may be connections, and twice more.
    std::vector<HttpClient> Crowd(std::string_view request) const {
        std::vector<HttpClient> crowd;
        for (int i = 0; i < 10; ++i) {
            crowd.push_back(Connect());
            crowd.back().Send(request);
        }
        return crowd;
    }
};

TEST_F(ListenerTest, SilentConnections_MakeRoom) {
    Serve();
    auto crowd = Crowd("");

    EXPECT_EQ(Connect().Get("/healthz").status, 200);
    EXPECT_EQ(Connect().Get("/v1/state").status, 200);
    EXPECT_TRUE(crowd.front().AwaitEnd());
}

TEST_F(ListenerTest, ConnectionsWithHalfARequest_MakeRoom) {
    Serve();
    auto crowd = Crowd("GET /healthz HTTP/1.1\r\nX: ");

    EXPECT_EQ(Connect().Get("/healthz").status, 200);
    EXPECT_TRUE(crowd.front().AwaitEnd());
}

TEST_F(ListenerTest, ConnectionsThatDoNotReadTheirAnswers_MakeRoom) {
    monitored.Change([](FakeMonitored& fake) { fake.snapshot.server.options.assign(4 << 20, 'x'); });
    options.limits.leastCacheTime = options.limits.mostCacheTime = 1h;
    Serve();
    const auto crowd = Crowd("GET /v1/state HTTP/1.1\r\nHost: x\r\n\r\n");

    EXPECT_EQ(Connect().Get("/healthz").status, 200);
}

TEST_F(ListenerTest, ConnectionsWithoutAnAnswer_MakeRoom) {
    monitored.isHeld = true;
    Serve();
    const auto crowd = Crowd("GET /v1/state HTTP/1.1\r\nHost: x\r\n\r\n");
    monitored.AwaitRead();

    EXPECT_EQ(Connect().Get("/healthz").status, 200);
}

TEST_F(ListenerTest, EventStreams_AreNotClosedToMakeRoom) {
    Serve();
    auto stream = Connect();
    stream.Send("GET /v1/events?after=6 HTTP/1.1\r\nHost: x\r\n\r\n");
    stream.ReceiveUntil("keep-alive\n\n");
    const auto crowd = Crowd("");
    ASSERT_EQ(Connect().Get("/healthz").status, 200);

    monitored.AddEvent(7);

    EXPECT_TRUE(stream.ReceiveUntil("id: 7\n"));
}

TEST_F(ListenerTest, WithEventStreamsOnly_ANewConnectionWaits) {
    options.limits.unixConnections = 2;
    options.limits.leastWait = 0ms;
    ServeOnTcp(Token);
    std::vector<HttpClient> streams;
    for (int i = 0; i < 2; ++i) {
        streams.push_back(Connect());
        streams.back().Send("GET /v1/events?after=6 HTTP/1.1\r\nHost: x\r\n\r\n");
        streams.back().ReceiveUntil("keep-alive\n\n");
    }
    const auto newcomer = Connect();
    AwaitAccepted();

    monitored.AddEvent(7);

    for (auto& stream : streams) {
        EXPECT_TRUE(stream.ReceiveUntil("id: 7\n"));
    }
}

TEST_F(ListenerTest, WhileAConnectionWaits_AnAnswerEndsItsOwn) {
    options.limits.unixConnections = 2;
    options.limits.leastWait = 1h;
    monitored.isHeld = true;
    ServeOnTcp(Token);
    std::vector<HttpClient> clients;
    for (int i = 0; i < 2; ++i) {
        clients.push_back(Connect());
        clients.back().Send("GET /v1/state HTTP/1.1\r\nHost: x\r\n\r\n");
    }
    monitored.AwaitRead();
    auto newcomer = Connect();
    AwaitAccepted();

    monitored.Change([](FakeMonitored& fake) { fake.isHeld = false; });

    int ended = 0;
    for (auto& client : clients) {
        const auto response = client.Receive();
        EXPECT_EQ(response.status, 200);
        ended += response.headers.contains("connection") ? 1 : 0;
    }
    EXPECT_GE(ended, 1);
    EXPECT_EQ(newcomer.Get("/healthz").status, 200);
}

TEST_F(ListenerTest, ProcessOfAnotherUser_IsNotAnswered) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "only root can become another user";
    }
    Serve();
    // Both keep other users out; this lets them in, to test that the server does not rely on that alone.
    ASSERT_EQ(::chmod(directory.c_str(), 0755), 0);
    ASSERT_EQ(::chmod(options.socketPath->c_str(), 0666), 0);
    const pid_t other = ::fork();
    if (other == 0) {
        const bool isOther = ::setresgid(65534, 65534, 65534) == 0 && ::setresuid(65534, 65534, 65534) == 0;
        std::_Exit(isOther ? Connect().Get("/healthz").status / 100 : 99);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(other, &status, 0), other);
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_EQ(Connect().Get("/healthz").status, 200);
}

TEST_F(ListenerTest, ConnectionsThatAskAgainAndAgain_MakeRoom) {
    options.limits.leastWait = 1h;
    Serve();
    std::atomic<bool> isOver{false};
    std::vector<std::thread> askers;
    for (int i = 0; i < 20; ++i) {
        askers.emplace_back([&] {
            while (!isOver) {
                auto client = Connect();
                while (!isOver && client.Get("/v1/topics").status == 200) { // until the server ends the connection
                }
            }
        });
    }

    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(Connect().Get("/healthz").status, 200);
    }
    isOver = true;
    for (auto& asker : askers) {
        asker.join();
    }
}

TEST_F(ListenerTest, ClientThatIsAboutToAsk_IsNotPushedOutByAFlood) {
    options.limits.leastWait = 1h;
    Serve();
    std::vector<HttpClient> first;
    for (int i = 0; i < 8; ++i) {
        first.push_back(Connect());
    }
    const auto crowd = Crowd("");

    for (auto& client : first) {
        EXPECT_EQ(client.Get("/healthz").status, 200);
    }
}

TEST_F(ListenerTest, ClientsOverTcp_TakeNoRoomOfThoseOnTheUnixSocket) {
    options.limits.leastWait = 1h;
    ServeOnTcp(Token);
    std::vector<HttpClient> strangers;
    for (int i = 0; i < 20; ++i) {
        strangers.push_back(ConnectOverTcp());
    }

    for (int i = 0; i < 8; ++i) {
        EXPECT_EQ(Connect().Get("/healthz").status, 200);
    }
}

TEST_F(ListenerTest, ConnectionsThatCloseAtOnce_DoNoHarm) {
    Serve();
    for (int i = 0; i < 500; ++i) {
        Connect().Send("GET /v1/state HTTP/1.1\r\n\r\n");
    }

    EXPECT_EQ(Connect().Get("/v1/state").status, 200);
}

} // namespace
