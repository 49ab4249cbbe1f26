// Defends that msgbus stream knows which user connects, however many sockets and descriptors there are.
#include "stream/wire/peer_owner.h"

#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <gtest/gtest.h>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <memory>

namespace {

using namespace stream;
using boost::asio::ip::tcp;
using State = PeerOwner::State;

/// While it lives, this process cannot open anything.
class DescriptorsExhausted final {
public:
    DescriptorsExhausted() {
        ::getrlimit(RLIMIT_NOFILE, &before);
        const int next = ::dup(STDERR_FILENO);
        ::close(next);
        const rlimit none{static_cast<rlim_t>(next), before.rlim_max};
        ::setrlimit(RLIMIT_NOFILE, &none);
    }
    DescriptorsExhausted(const DescriptorsExhausted&) = delete;
    DescriptorsExhausted& operator=(const DescriptorsExhausted&) = delete;
    ~DescriptorsExhausted() { ::setrlimit(RLIMIT_NOFILE, &before); }

private:
    rlimit before{};
};

/// By the kernel's answers (false), and by its tables (true).
class PeerOwnerTest : public testing::TestWithParam<bool> {
protected:
    void SetUp() override {
        if (GetParam()) {
            // The sanitizers' check of an object's type, behind each member's name, opens a pipe.
            const auto make = [&listening = acceptor] {
                const DescriptorsExhausted exhausted;
                return std::make_unique<PeerOwners>(listening);
            };
            owners = make();
        } else {
            owners = std::make_unique<PeerOwners>(acceptor);
            if (owners->ReadsTables()) {
                GTEST_SKIP() << "this kernel has no answers";
            }
        }
        ASSERT_EQ(owners->ReadsTables(), GetParam());
    }

    boost::asio::io_context context;
    tcp::acceptor acceptor{context, {boost::asio::ip::address_v4::loopback(), 0}};
    tcp::socket client{context};
    std::unique_ptr<PeerOwners> owners;
};

INSTANTIATE_TEST_SUITE_P(BothWays, PeerOwnerTest, testing::Bool());

TEST_P(PeerOwnerTest, AConnectionOfThisProcess_IsOfThisUser) {
    client.connect(acceptor.local_endpoint());
    const PeerOwner owner = owners->Of(acceptor.accept());
    EXPECT_EQ(owner.state, State::Known);
    EXPECT_EQ(owner.user, ::geteuid());
}

TEST_P(PeerOwnerTest, AClientThatSeesItAsIpv6_IsFound) {
    boost::system::error_code error;
    client.connect({boost::asio::ip::make_address("::ffff:127.0.0.1"), acceptor.local_endpoint().port()}, error);
    if (error) {
        GTEST_SKIP() << "there is no IPv6";
    }
    const PeerOwner owner = owners->Of(acceptor.accept());
    EXPECT_EQ(owner.state, State::Known);
    EXPECT_EQ(owner.user, ::geteuid());
}

TEST_P(PeerOwnerTest, AClientThatHasClosed_IsOfNobody) {
    client.connect(acceptor.local_endpoint());
    const tcp::socket accepted = acceptor.accept();
    client.close();
    EXPECT_EQ(owners->Of(accepted).state, State::Left); // the kernel shows such a socket as root's
}

TEST_P(PeerOwnerTest, AClientThatOnlySendsNoMore_IsFound) {
    client.connect(acceptor.local_endpoint());
    const tcp::socket accepted = acceptor.accept();
    client.shutdown(tcp::socket::shutdown_send);
    EXPECT_EQ(owners->Of(accepted).state, State::Known);
}

TEST_P(PeerOwnerTest, AnotherUser_IsSeen) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root, to be another user";
    }
    constexpr uid_t nobody = 65534;
    const pid_t child = ::fork();
    if (child == 0) {
        boost::asio::io_context own;
        boost::system::error_code error;
        if (::setuid(nobody) == 0) {
            tcp::socket(own).connect(acceptor.local_endpoint(), error);
            tcp::socket other(own);
            other.connect(acceptor.local_endpoint(), error);
            ::pause();
        }
        ::_exit(1);
    }
    ASSERT_GT(child, 0);
    const tcp::socket first = acceptor.accept();
    const tcp::socket second = acceptor.accept();
    const PeerOwner owner = owners->Of(second);
    const PeerOwner left = owners->Of(first);
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
    EXPECT_EQ(owner.state, State::Known);
    EXPECT_EQ(owner.user, nobody);
    EXPECT_EQ(left.state, State::Left);
}

TEST(PeerOwnersTest, KernelsAnswer_NeedsNoTableAndNoDescriptor) {
    boost::asio::io_context context;
    tcp::acceptor acceptor(context, {boost::asio::ip::address_v4::loopback(), 0});
    PeerOwners owners(acceptor);
    if (owners.ReadsTables()) {
        GTEST_SKIP() << "this kernel has no answers";
    }
    tcp::socket client(context);
    client.connect(acceptor.local_endpoint());
    const tcp::socket accepted = acceptor.accept();
    const DescriptorsExhausted exhausted;
    EXPECT_EQ(owners.Of(accepted).state, State::Known);
}

} // namespace
