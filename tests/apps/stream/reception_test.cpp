// Defends that connections that are nothing yet, and users who may not connect, keep nobody out of msgbus stream.
#include "stream/reception.h"

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/write.hpp>
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <list>
#include <optional>
#include <string>
#include <string_view>

namespace {

using namespace stream;
using boost::asio::ip::tcp;
using namespace std::chrono_literals;

constexpr std::string_view Handshake =
    "GET / HTTP/1.1\r\nHost: localhost\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
    "Sec-WebSocket-Key: AAAAAAAAAAAAAAAAAAAAAA==\r\nSec-WebSocket-Version: 13\r\n"
    "Sec-WebSocket-Protocol: foxglove.sdk.v1\r\n\r\n";

class StreamReceptionTest : public testing::Test {
protected:
    StreamReceptionTest() { boost::asio::co_spawn(context, reception.Serve(acceptor), boost::asio::detached); }

    tcp::socket Connect() {
        tcp::socket socket(context);
        socket.connect(acceptor.local_endpoint());
        socket.non_blocking(true);
        return socket;
    }

    /// Runs the server until `socket` has something to read. Returns: it; empty when the connection has ended.
    std::string Read(tcp::socket& socket) {
        std::array<char, 4096> bytes{};
        std::optional<std::size_t> count;
        socket.async_read_some(boost::asio::buffer(bytes),
                               [&count](const boost::system::error_code&, std::size_t size) { count = size; });
        const auto deadline = Clock::now() + 60s;
        while (!count && context.run_one_until(deadline) != 0) {
        }
        EXPECT_TRUE(count) << "nothing came in time";
        return {bytes.data(), count.value_or(0)};
    }

    /// Returns: whether nothing has come, and the connection has not ended.
    static bool IsSilent(tcp::socket& socket) {
        char byte = 0;
        boost::system::error_code error;
        socket.read_some(boost::asio::buffer(&byte, 1), error);
        return error == boost::asio::error::would_block;
    }

    void BecomeClient(tcp::socket& socket) {
        boost::asio::write(socket, boost::asio::buffer(Handshake));
        EXPECT_TRUE(Read(socket).starts_with("HTTP/1.1 101 "));
    }

    Broadcast broadcast{{"t"}, AdmissionRules({}), false, true};
    Reception reception{broadcast};
    boost::asio::io_context context;
    tcp::acceptor acceptor{context, {boost::asio::ip::address_v4::loopback(), 0}};
};

TEST_F(StreamReceptionTest, OneConnectionTooMany_TakesThePlaceOfTheOldest) {
    std::list<tcp::socket> silent;
    for (std::size_t count = 0; count < Reception::MostConnections; ++count) {
        silent.push_back(Connect());
    }
    tcp::socket last = Connect();
    EXPECT_EQ(Read(silent.front()), "");
    silent.pop_front();
    BecomeClient(last);
    for (auto& socket : silent) {
        EXPECT_TRUE(IsSilent(socket));
    }
}

TEST_F(StreamReceptionTest, AClient_KeepsItsPlace) {
    tcp::socket client = Connect();
    BecomeClient(client);
    std::list<tcp::socket> silent;
    for (std::size_t count = 0; count < Reception::MostConnections; ++count) {
        silent.push_back(Connect());
    }
    EXPECT_EQ(Read(silent.front()), "");
    EXPECT_EQ(broadcast.Clients().size(), 1U);
}

TEST_F(StreamReceptionTest, AConnectionThatHasEnded_LeavesItsPlace) {
    tcp::socket first = Connect();
    for (std::size_t count = 0; count < 2 * Reception::MostConnections; ++count) {
        tcp::socket refused = Connect();
        boost::asio::write(refused, boost::asio::buffer(std::string_view("GET / HTTP/1.1\r\nHost: localhost\r\n\r\n")));
        EXPECT_TRUE(Read(refused).starts_with("HTTP/1.1 426 "));
        EXPECT_EQ(Read(refused), "");
    }
    BecomeClient(first);
}

TEST_F(StreamReceptionTest, AnotherUser_IsAnsweredAtOnceAndTakesNoPlace) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root, to be another user";
    }
    tcp::socket first = Connect();
    const pid_t child = ::fork();
    if (child == 0) {
        boost::asio::io_context own; // the other one waits for events that the parent shares
        std::list<tcp::socket> sockets;
        bool isRight = ::setuid(65534) == 0;
        for (std::size_t count = 0; isRight && count < 2 * Reception::MostConnections; ++count) {
            std::array<char, 4096> bytes{};
            boost::system::error_code error;
            sockets.emplace_back(own).connect(acceptor.local_endpoint(), error);
            const auto size = sockets.back().read_some(boost::asio::buffer(bytes), error);
            isRight = std::string_view(bytes.data(), size).starts_with("HTTP/1.1 403 ");
        }
        ::_exit(isRight ? 0 : 1);
    }
    ASSERT_GT(child, 0);
    int status = 0;
    const auto deadline = Clock::now() + 60s;
    while (::waitpid(child, &status, WNOHANG) == 0) {
        ASSERT_LT(Clock::now(), deadline);
        context.run_one_for(10ms);
    }
    EXPECT_EQ(status, 0);
    BecomeClient(first);
}

} // namespace
