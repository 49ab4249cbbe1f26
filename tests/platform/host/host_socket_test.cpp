// Defends the platform on Linux against peers that do not use the library: what they send, or do not send, reaches no
// server code and costs no other client anything.
#include "joining/admission.h"
#include "kn/policy.h"
#include "log_recorder.h"
#include "process.h"
#include "raw_slot.h"

#include <sys/resource.h>

namespace platform_test {
namespace {

using borven_host::Admission;
using borven_host::Channel;
using borven_host::Visitors;

using ::testing::HasSubstr;

using RudeClient = PlatformTest;
using RudeServer = PlatformTest;
using OtherUser = PlatformTest;

/// This process, as the log names it.
std::string Own() {
    return "process " + std::to_string(::getpid()) + " (platform_host_t) of user " + std::to_string(::geteuid());
}

TEST_F(RudeClient, ThatGreetsWrongly_IsRefused) {
    const Handle server = RegisterStatic();
    using borven_host::Greeting;
    constexpr Greeting good{borven_host::GreetingMagic, borven_host::LayoutVersion, NkRecordSize};
    Greeting otherMagic = good;
    otherMagic.magic ^= 1;
    Greeting otherRecords = good;
    otherRecords.recordSize = 1024;
    Greeting newerLayout = good;
    newerLayout.layoutVersion = borven_host::LayoutVersion + 1;
    Greeting olderLayout = good;
    olderLayout.layoutVersion = borven_host::OldestLayoutVersion - 1;
    const auto expectRefusal = [](const Greeting& greeting, std::int32_t status) {
        const RawSocket client;
        ASSERT_EQ(0, client.Connect("static/line"));
        ASSERT_TRUE(client.Send(&greeting, sizeof greeting));
        EXPECT_EQ(status, client.Answer());
        EXPECT_TRUE(client.HasEnded());
    };
    const LogRecorder log;
    expectRefusal(otherMagic, KnStatusDenied);
    expectRefusal(otherRecords, KnStatusDenied);
    expectRefusal(newerLayout, KnStatusOtherVersion);
    expectRefusal(olderLayout, KnStatusOtherVersion);
    for (const auto size : std::initializer_list<std::size_t>{1, 7, 9, 1056}) {
        const RawSocket client;
        ASSERT_EQ(0, client.Connect("static/line"));
        const std::vector<char> bytes(size, 'x');
        ASSERT_TRUE(client.Send(bytes.data(), size));
        EXPECT_EQ(KnStatusDenied, client.Answer()) << size;
    }
    EXPECT_THAT(log.Text(), HasSubstr("3 refused " + Own() + ": it sent no valid greeting"));
    EXPECT_THAT(log.Text(), HasSubstr("3 refused " + Own() + ": it speaks version 3 of the protocol"));
    const Echoers echoers(server.Get());
    EXPECT_EQ(KnStatusOk, CallWith(ConnectStatic().Get(), 1));
}

TEST_F(RudeClient, ThatLooksANameUp_LeavesNoLine) {
    const Handle server = RegisterStatic();
    const Echoers echoers(server.Get());
    const LogRecorder log;
    for (int i = 0; i < 20; ++i) {
        const RawSocket client;
        ASSERT_EQ(0, client.Connect("static/line"));
    }
    EXPECT_EQ(KnStatusOk, CallWith(ConnectStatic().Get(), 1)); // admitted behind them
    EXPECT_EQ("", log.Text());
}

TEST_F(RudeClient, ThatNeverGreets_MakesRoomForTheNext) {
    const Handle server = RegisterStatic();
    const Echoers echoers(server.Get());
    const LogRecorder log;
    std::vector<RawSocket> silent(Admission::MaxGreeting + 10);
    for (const RawSocket& client : silent) {
        ASSERT_EQ(0, client.Connect("static/line"));
    }
    EXPECT_EQ(KnStatusOk, CallWith(ConnectStatic().Get(), 1));
    EXPECT_EQ(KnStatusBusy, silent.front().Answer()) << "the one that connected first";
    EXPECT_THAT(log.Text(), HasSubstr("3 refused process " + std::to_string(::getpid())));
    EXPECT_THAT(log.Text(), HasSubstr("which has sent no greeting: a limit of the server is reached"));
    EXPECT_TRUE(silent.back().Greet());
    EXPECT_EQ(KnStatusOk, silent.back().Answer()) << "the youngest may still greet";
}

TEST_F(RudeClient, ThatNeverGreets_MakesRoomItselfAndKeepsOthersTheirs) {
    const Handle server = RegisterStatic();
    const Echoers echoers(server.Get());
    const RawSocket slow; // the oldest of all, and the only one of its process
    int connected[2];
    ASSERT_EQ(0, ::pipe2(connected, O_CLOEXEC));
    const pid_t other = ::fork();
    if (other == 0) {
        if (slow.Connect("static/line") != 0 || ::write(connected[1], "x", 1) != 1) {
            std::_Exit(1);
        }
        ::pause();
    }
    ::close(connected[1]);
    char byte = 0;
    ASSERT_EQ(1, ::read(connected[0], &byte, 1));
    ::close(connected[0]);
    const LogRecorder log;
    const std::vector<RawSocket> silent(Admission::MaxGreeting + 10);
    for (const RawSocket& client : silent) {
        ASSERT_EQ(0, client.Connect("static/line"));
    }
    EXPECT_EQ(KnStatusBusy, silent.front().Answer());
    EXPECT_TRUE(slow.Greet());
    EXPECT_EQ(KnStatusOk, slow.Answer());
    ::kill(other, SIGKILL);
    ::waitpid(other, nullptr, 0);
}

TEST_F(RudeClient, ThatAsksTooOften_IsBusy_AndOthersAreServed) {
    ASSERT_EQ(KnStatusOk, Publish("service"));
    const Joined joined = Join("service");
    const Echoers echoers(joined.channel);
    constexpr std::size_t tooMany = 20;
    const std::uint64_t refusedBefore = KnPolicyRefusedConnections();
    std::vector<RawSocket> asking(Visitors::MaxAskingPerProcess + tooMany);
    for (const RawSocket& client : asking) {
        ASSERT_EQ(0, client.Connect("services/service"));
        ASSERT_TRUE(client.Greet());
    }
    for (std::size_t i = Visitors::MaxAskingPerProcess; i < asking.size(); ++i) {
        EXPECT_EQ(KnStatusBusy, asking[i].Answer());
    }
    EXPECT_EQ(refusedBefore + tooMany, KnPolicyRefusedConnections());
    EXPECT_EQ(KnStatusOk, CallWith(joined.client.Get(), 1));
    Process other({"ask", "service", "call", "1"});
    std::size_t accepted = 0;
    for (; accepted <= Visitors::MaxAskingPerProcess; ++accepted) {
        const Request request = Listen();
        ASSERT_EQ(KnStatusOk, request.status);
        KnHandle channel = KnInvalidHandle;
        EXPECT_EQ(KnStatusOk, KnCmAccept(request.client.c_str(), request.service.c_str(), 0, joined.channel, &channel));
    }
    EXPECT_EQ("ask 0", other.Hear()) << "another process has room of its own";
    EXPECT_EQ("call 0", other.Hear());
}

TEST_F(RudeClient, PastTheMostThatAChannelTakes_IsBusy) {
    rlimit limit{};
    ASSERT_EQ(0, ::getrlimit(RLIMIT_NOFILE, &limit));
    const rlimit before = limit;
    constexpr rlim_t needed = 8 * Channel::MaxClients + 256;
    if (limit.rlim_cur < needed) {
        if (limit.rlim_max < needed) {
            GTEST_SKIP() << "this machine lets a process have too few descriptors";
        }
        limit.rlim_cur = needed;
        ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &limit));
    }
    const Handle server = RegisterStatic();
    const Echoers echoers(server.Get());
    std::vector<RawSlot> clients;
    for (std::size_t i = 0; i < Channel::MaxClients; ++i) {
        clients.emplace_back();
    }
    KnHandle handle = 0;
    EXPECT_EQ(KnStatusBusy, ServiceLocatorConnect("line", PatienceMs, &handle));
    EXPECT_EQ(KnStatusOk, clients.back().Call(RequestOf(1)));

    clients.pop_back();
    Await("room for a client", [&] { return ServiceLocatorConnect("line", PatienceMs, &handle) == KnStatusOk; });
    EXPECT_EQ(KnStatusOk, CallWith(handle, 1));
    EXPECT_EQ(KnStatusOk, KnHandleClose(handle));
    clients.clear();
    ::setrlimit(RLIMIT_NOFILE, &before);
}

TEST_F(RudeClient, ThatClosesHalfOfItsSocket_IsRemoved) {
    const Handle server = RegisterStatic();
    const Echoers echoers(server.Get());
    const RawSocket client = JoinRaw();
    ::shutdown(client.Get(), SHUT_WR);
    EXPECT_TRUE(client.Receive().empty());
    EXPECT_EQ(KnStatusOk, CallWith(ConnectStatic().Get(), 1));
}

TEST_F(RudeClient, ThatLeavesAtEachStep_HarmsNobody) {
    ASSERT_EQ(KnStatusOk, Publish("service"));
    const Handle server = RegisterStatic();
    const Echoers echoers(server.Get());
    const Handle steady = ConnectStatic();
    EXPECT_EQ(KnStatusOk, CallWith(steady.Get(), 1));
    const std::size_t before = OpenDescriptors();
    for (int i = 0; i < 50; ++i) {
        { // connected, nothing sent
            const RawSocket client;
            ASSERT_EQ(0, client.Connect(i % 2 == 0 ? "static/line" : "services/service"));
        }
        { // greeted, answer unread
            const RawSocket client;
            ASSERT_EQ(0, client.Connect(i % 2 == 0 ? "static/line" : "services/service"));
            ASSERT_TRUE(client.Greet());
        }
        { // request sent, reply unread
            RawSlot client;
            client.Send(RequestOf(1));
        }
    }
    EXPECT_EQ(KnStatusOk, CallWith(steady.Get(), 1));
    Await("the descriptors of clients that left to close", [&] { return OpenDescriptors() <= before; });
    Await("their requests to go", [] { return Listen(0).status == KnStatusTimedOut; });
}

TEST_F(RudeServer, ThatSaysNothing_CostsTheClientItsTime) {
    const RawSocket server;
    server.ListenAs("static/line");
    KnHandle handle = 99;
    EXPECT_EQ(KnStatusTimedOut, ServiceLocatorConnect("line", 20, &handle));
    EXPECT_EQ(99u, handle);
    server.Forget();
}

TEST_F(RudeServer, ThatAnswersWrongly_IsRefused) {
    const RawSocket server;
    server.ListenAs("static/line");
    using borven_host::Answer;
    constexpr Answer good{borven_host::AnswerMagic, borven_host::AnswerVersion, NkRecordSize, KnStatusOk, 0};
    Answer otherMagic = good;
    otherMagic.magic ^= 1;
    Answer otherVersion = good;
    ++otherVersion.version;
    for (const Answer& answer : {otherMagic, otherVersion}) {
        KnHandle handle = 99;
        Background connecting([&] { return ServiceLocatorConnect("line", PatienceMs, &handle); });
        const RawSocket client = server.Accept();
        ASSERT_TRUE(client.Send(&answer, sizeof answer));
        EXPECT_EQ(KnStatusDenied, connecting.Get());
    }
    for (const auto size : std::initializer_list<std::size_t>{1, 15, 17, 1056}) {
        KnHandle handle = 99;
        Background connecting([&] { return ServiceLocatorConnect("line", PatienceMs, &handle); });
        const RawSocket client = server.Accept();
        const std::vector<char> bytes(size, 'x');
        ASSERT_TRUE(client.Send(bytes.data(), size));
        EXPECT_EQ(KnStatusDenied, connecting.Get()) << size;
    }
    server.Forget();
}

TEST_F(RudeServer, ThatHangsUpAtOnce_HasClosed) {
    const RawSocket server;
    server.ListenAs("services/service");
    KnHandle handle = 99;
    Background connecting([&] { return KnCmConnect("service", PatienceMs, &handle); });
    { const RawSocket client = server.Accept(); }
    EXPECT_EQ(KnStatusClosed, connecting.Get());
    server.Forget();
}

TEST_F(OtherUser, AsAClient_IsRefused) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "only root can become another user";
    }
    const Handle server = RegisterStatic();
    const LogRecorder log;
    // The directory keeps other users out; this opens it, to test that the server does not rely on that alone.
    ASSERT_EQ(0, ::chmod(RuntimePath("").c_str(), 0755));
    ASSERT_EQ(0, ::chmod(RuntimePath("static").c_str(), 0755));
    ASSERT_EQ(0, ::chmod(RuntimePath("static/line").c_str(), 0666));
    const pid_t other = ::fork();
    if (other == 0) {
        const bool isOther = ::setresgid(65534, 65534, 65534) == 0 && ::setresuid(65534, 65534, 65534) == 0;
        const RawSocket client;
        const bool isConnected = isOther && client.Connect("static/line") == 0;
        client.Greet();
        std::_Exit(isConnected ? -client.Answer() : 100);
    }
    int status = 0;
    ASSERT_EQ(other, ::waitpid(other, &status, 0));
    EXPECT_EQ(-KnStatusDenied, WEXITSTATUS(status));
    EXPECT_THAT(log.Text(), HasSubstr("3 refused process " + std::to_string(other)));
    EXPECT_THAT(log.Text(), HasSubstr(" of user 65534: "));
    ASSERT_EQ(0, ::chmod(RuntimePath("").c_str(), 0700));
    const Echoers echoers(server.Get());
    EXPECT_EQ(KnStatusOk, CallWith(ConnectStatic().Get(), 1));
}

TEST_F(OtherUser, AsAServer_IsRefused) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "only root can become another user";
    }
    ASSERT_TRUE(std::filesystem::create_directory(RuntimePath("static")));
    ASSERT_EQ(0, ::chmod(RuntimePath("").c_str(), 0777));
    ASSERT_EQ(0, ::chmod(RuntimePath("static").c_str(), 0777));
    int ready[2];
    ASSERT_EQ(0, ::pipe2(ready, O_CLOEXEC));
    const pid_t other = ::fork();
    if (other == 0) {
        const bool isOther = ::setresgid(65534, 65534, 65534) == 0 && ::setresuid(65534, 65534, 65534) == 0;
        const RawSocket server;
        server.ListenAs("static/line");
        if (!isOther || ::write(ready[1], "x", 1) != 1) {
            std::_Exit(1);
        }
        ::pause();
    }
    char byte = 0;
    ASSERT_EQ(1, ::read(ready[0], &byte, 1));
    ::close(ready[0]);
    ::close(ready[1]);
    // As if this user had made the socket: what is left is who listens on it.
    ASSERT_EQ(0, ::chmod(RuntimePath("").c_str(), 0700));
    ASSERT_EQ(0, ::chmod(RuntimePath("static").c_str(), 0700));
    ASSERT_EQ(0, ::chown(RuntimePath("static/line").c_str(), ::geteuid(), ::getegid()));
    const LogRecorder log;
    KnHandle handle = 99;
    EXPECT_EQ(KnStatusDenied, ServiceLocatorConnect("line", PatienceMs, &handle));
    EXPECT_EQ(99u, handle);
    EXPECT_THAT(log.Text(), HasSubstr("the server at the name line belongs to another user"));
    ::kill(other, SIGKILL);
    ::waitpid(other, nullptr, 0);
    std::filesystem::remove_all(RuntimePath("static"));
}

} // namespace
} // namespace platform_test
