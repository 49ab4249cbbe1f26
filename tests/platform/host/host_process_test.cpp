// Defends what the platform promises between real processes: one that dies, at whichever step, harms no other, and a
// thread that waits for it returns. And the names of the threads that serve.
#include "process.h"

#include <pthread.h>

#include <algorithm>
#include <random>

namespace platform_test {
namespace {

using ServerDeath = PlatformTest;
using ClientDeath = PlatformTest;
using Names = PlatformTest;
using Forks = PlatformTest;
using Limits = PlatformTest;
using Load = PlatformTest;
using ThreadNames = PlatformTest;

TEST_F(ServerDeath, EndsACallThatItHasReceived) {
    Process server({"register", "line", "receive", "wait"});
    EXPECT_EQ("register 1", server.Hear());
    const Handle client = ConnectStatic();
    Background call([&] { return CallWith(client.Get(), 1); });
    EXPECT_EQ("receive 0", server.Hear());
    server.Kill();
    EXPECT_EQ(KnStatusClosed, call.Get());
    EXPECT_EQ(KnStatusClosed, CallWith(client.Get(), 1));
    Reclaim();
}

TEST_F(ServerDeath, EndsACallThatItHasNotReceived) {
    Process server({"register", "line", "wait"});
    EXPECT_EQ("register 1", server.Hear());
    const Handle client = ConnectStatic();
    Background call([&] { return CallWith(client.Get(), 1); });
    call.AwaitBlocked();
    server.Kill();
    EXPECT_EQ(KnStatusClosed, call.Get());
    Reclaim();
}

TEST_F(ServerDeath, BetweenCalls_IsSeenByTheNext) {
    Process server({"register", "line", "serve", "wait"});
    EXPECT_EQ("register 1", server.Hear());
    const Handle client = ConnectStatic();
    EXPECT_EQ("serve 0", server.Hear());
    EXPECT_EQ(KnStatusOk, CallWith(client.Get(), 1));
    server.Kill();
    EXPECT_EQ(KnStatusClosed, CallWith(client.Get(), 1));
    Reclaim();
}

TEST_F(ServerDeath, IsSeen_EvenWhenAChildKeepsItsDescriptors) {
    Process server({"register", "line", "receive", "fork-and-stay", "wait"});
    EXPECT_EQ("register 1", server.Hear());
    const Handle client = ConnectStatic();
    Background call([&] { return CallWith(client.Get(), 1); });
    EXPECT_EQ("receive 0", server.Hear());
    server.HearOfChild();
    server.Kill();
    EXPECT_EQ(KnStatusClosed, call.Get());
    Reclaim();
}

TEST_F(ServerDeath, TellsThoseWhoWaitToBeAccepted) {
    Process server({"publish", "service", "listen", "wait"});
    EXPECT_EQ("publish 0", server.Hear());
    Asking asking("service");
    EXPECT_EQ("listen 0", server.Hear());
    server.Kill();
    EXPECT_EQ(KnStatusClosed, asking.status.Get());
    EXPECT_EQ(KnStatusOk, Publish("service"));
}

TEST_F(ServerDeath, TellsTheClientsOfItsServices) {
    Process server({"publish", "service", "listen", "accept", "receive", "wait"});
    EXPECT_EQ("publish 0", server.Hear());
    Asking asking("service");
    EXPECT_EQ("listen 0", server.Hear());
    EXPECT_EQ("accept 0", server.Hear());
    EXPECT_EQ(KnStatusOk, asking.status.Get());
    Background call([&] { return CallWith(asking.handle, 1); });
    EXPECT_EQ("receive 0", server.Hear());
    server.Kill();
    EXPECT_EQ(KnStatusClosed, call.Get());
    EXPECT_EQ(KnStatusOk, Publish("service"));
}

TEST_F(Names, OfADeadServer_AreFree) {
    Process server({"register", "line", "publish", "service", "wait"});
    EXPECT_EQ("register 1", server.Hear());
    EXPECT_EQ("publish 0", server.Hear());
    EXPECT_EQ(KnStatusOk, NsLookupService(NameServer(), "service"));
    std::uint32_t iid = 0;
    EXPECT_EQ(KnInvalidHandle, ServiceLocatorRegister("line", nullptr, 0, &iid));
    EXPECT_EQ(KnStatusAlreadyExists, Publish("service"));

    server.Kill();
    KnHandle handle = 0;
    EXPECT_EQ(KnStatusNotFound, NsLookupService(NameServer(), "service"));
    EXPECT_EQ(KnStatusNotFound, KnCmConnect("service", PatienceMs, &handle));
    EXPECT_EQ(KnStatusNotFound, ServiceLocatorConnect("line", PatienceMs, &handle));
    EXPECT_EQ(KnStatusOk, Publish("service"));
    const Handle replaced = RegisterStatic();
    const Handle client = ConnectStatic();
    const Echoers echoers(replaced.Get());
    EXPECT_EQ(KnStatusOk, CallWith(client.Get(), 1));
}

TEST_F(Names, OfADeadServer_AreFree_EvenWhenAChildKeepsItsDescriptors) {
    Process server({"register", "line", "fork-and-stay", "wait"});
    EXPECT_EQ("register 1", server.Hear());
    server.HearOfChild();
    server.Kill();
    Reclaim();
}

TEST_F(Names, OfAStoppedServer_AreNotStolen) {
    Process server({"register", "line", "wait"});
    EXPECT_EQ("register 1", server.Hear());
    server.Signal(SIGSTOP);
    server.AwaitState('T');
    std::uint32_t iid = 0;
    EXPECT_EQ(KnInvalidHandle, ServiceLocatorRegister("line", nullptr, 0, &iid));
    KnHandle handle = 0;
    EXPECT_EQ(KnStatusTimedOut, ServiceLocatorConnect("line", 10, &handle)) << "and its client does not wait for ever";
    server.Kill();
    Reclaim();
}

TEST_F(Names, AreNotGivenUpByAServerThatExits_ButReplaced) {
    Process server({"register", "line"});
    EXPECT_EQ("register 1", server.Hear());
    EXPECT_EQ(0, server.Wait());
    Reclaim();
}

TEST_F(Names, OfManyServersThatStartTogether_OneGetsWhatADeadOneLeft) {
    for (int round = 0; round < 5; ++round) {
        Process dead({"register", "line", "wait"});
        EXPECT_EQ("register 1", dead.Hear());
        dead.Kill();
        std::vector<std::unique_ptr<Process>> servers;
        for (int i = 0; i < 4; ++i) {
            servers.push_back(
                std::make_unique<Process>(std::vector<std::string>{"wait", "register", "line", "wait", "close-all"}));
        }
        for (const auto& server : servers) {
            server->GoOn();
        }
        int winners = 0;
        for (const auto& server : servers) {
            EXPECT_EQ("wait 0", server->Hear());
            winners += server->Hear() == "register 1";
        }
        EXPECT_EQ(1, winners);
        for (const auto& server : servers) {
            server->GoOn();
            EXPECT_EQ("wait 0", server->Hear());
            EXPECT_EQ("close-all 0", server->Hear());
            EXPECT_EQ(0, server->Wait());
        }
    }
}

TEST_F(ClientDeath, WhileItsRequestIsServed_LeavesPeerGoneToTheReply) {
    const Handle server = RegisterStatic();
    Process client({"connect", "line", "call", "1"});
    Record request;
    ASSERT_EQ(KnStatusOk, Receive(server.Get(), request));
    client.Kill();
    EXPECT_EQ(KnStatusPeerGone, Reply(server.Get(), request));
    const Handle next = ConnectStatic();
    const Echoers echoers(server.Get());
    EXPECT_EQ(KnStatusOk, CallWith(next.Get(), 1));
}

TEST_F(ClientDeath, WhileItsRequestIsServed_IsNoFaultOfAServicesChannel) {
    ASSERT_EQ(KnStatusOk, Publish("service"));
    Process client({"ask", "service", "call", "1"});
    const Request request = Listen();
    KnHandle channel = KnInvalidHandle;
    ASSERT_EQ(KnStatusOk, KnCmAccept(request.client.c_str(), request.service.c_str(), 0, KnInvalidHandle, &channel));
    Record record;
    ASSERT_EQ(KnStatusOk, Receive(channel, record));
    client.Kill();
    EXPECT_EQ(KnStatusOk, Reply(channel, record));
    const Joined next = Join("service", 0, channel);
    const Echoers echoers(channel);
    EXPECT_EQ(KnStatusOk, CallWith(next.client.Get(), 1));
}

TEST_F(ClientDeath, WithARequestThatNobodyTook_HarmsNobody) {
    const Handle server = RegisterStatic();
    const Handle other = ConnectStatic();
    Process client({"connect", "line", "call", "-7"});
    EXPECT_EQ("connect 0", client.Hear());
    client.AwaitState('S');
    client.Kill();
    const Echoers echoers(server.Get(), 2);
    EXPECT_EQ(KnStatusOk, CallWith(other.Get(), 1));
}

TEST_F(ClientDeath, ReleasesItsResources) {
    const Handle server = RegisterStatic();
    const Handle first = ConnectStatic();
    const Echoers echoers(server.Get());
    EXPECT_EQ(KnStatusOk, CallWith(first.Get(), 1));
    const std::size_t before = OpenDescriptors();
    {
        std::vector<std::unique_ptr<Process>> clients;
        for (int i = 0; i < 5; ++i) {
            clients.push_back(
                std::make_unique<Process>(std::vector<std::string>{"connect", "line", "call", "1", "wait"}));
            EXPECT_EQ("connect 0", clients.back()->Hear());
            EXPECT_EQ("call 0", clients.back()->Hear());
        }
        EXPECT_GT(OpenDescriptors(), before);
    }
    Await("the descriptors of the dead to close", [&] { return OpenDescriptors() <= before; });
    EXPECT_EQ(KnStatusOk, CallWith(first.Get(), 1));
}

TEST_F(ClientDeath, ReleasesItsResources_EvenWhenAChildKeepsItsDescriptors) {
    const Handle server = RegisterStatic();
    const Echoers echoers(server.Get());
    { ConnectStatic(); }
    const std::size_t before = OpenDescriptors();
    Process client({"connect", "line", "call", "1", "fork-and-stay", "wait"});
    EXPECT_EQ("connect 0", client.Hear());
    EXPECT_EQ("call 0", client.Hear());
    client.HearOfChild();
    client.Kill();
    constexpr std::size_t pipesToTheProcess = 2;
    Await("the descriptors of the dead to close", [&] { return OpenDescriptors() <= before + pipesToTheProcess; });
}

TEST_F(ClientDeath, WhileItAsks_IsNoRequestAnyMore) {
    ASSERT_EQ(KnStatusOk, Publish("service"));
    const std::size_t before = OpenDescriptors();
    Process client({"ask", "service"});
    Await("the request", [&] { return OpenDescriptors() > before + 2; });
    client.AwaitState('S');
    client.Kill();
    Await("the descriptors of the dead to close", [&] { return OpenDescriptors() <= before + 2; });
    EXPECT_EQ(KnStatusTimedOut, Listen(0).status);
}

TEST_F(ClientDeath, BeforeItsAcceptance_CostsOneFailedAccept) {
    ASSERT_EQ(KnStatusOk, Publish("service"));
    for (int round = 0; round < 5; ++round) {
        Process client({"ask", "service"});
        const Request request = Listen();
        ASSERT_EQ(KnStatusOk, request.status);
        client.Kill();
        KnHandle channel = KnInvalidHandle;
        EXPECT_EQ(KnStatusPeerGone,
                  KnCmAccept(request.client.c_str(), request.service.c_str(), 0, KnInvalidHandle, &channel));
    }
    const Joined next = Join("service");
    const Echoers echoers(next.channel);
    EXPECT_EQ(KnStatusOk, CallWith(next.client.Get(), 1));
}

TEST_F(ClientDeath, AfterItsAcceptanceUnread_HarmsNobody) {
    ASSERT_EQ(KnStatusOk, Publish("service"));
    Process client({"ask", "service"});
    const Request request = Listen();
    client.Signal(SIGSTOP);
    client.AwaitState('T');
    KnHandle channel = KnInvalidHandle;
    EXPECT_EQ(KnStatusOk, KnCmAccept(request.client.c_str(), request.service.c_str(), 0, KnInvalidHandle, &channel));
    client.Kill();
    const Joined next = Join("service", 0, channel);
    const Echoers echoers(channel);
    EXPECT_EQ(KnStatusOk, CallWith(next.client.Get(), 1));
}

TEST_F(ClientDeath, OfAStoppedClient_IsNotAssumed_AndNobodyWaitsForIt) {
    const Handle server = RegisterStatic();
    const Handle other = ConnectStatic();
    Process client({"connect", "line", "call", "1"});
    EXPECT_EQ("connect 0", client.Hear());
    Record request;
    ASSERT_EQ(KnStatusOk, Receive(server.Get(), request));
    client.Signal(SIGSTOP);
    client.AwaitState('T');
    EXPECT_EQ(KnStatusOk, Reply(server.Get(), request));
    {
        Background call([&] { return CallWith(other.Get(), 1); });
        ASSERT_EQ(KnStatusOk, Receive(server.Get(), request));
        EXPECT_EQ(KnStatusOk, Reply(server.Get(), request));
        EXPECT_EQ(KnStatusOk, call.Get());
    }
    client.Signal(SIGCONT);
    EXPECT_EQ("call 0", client.Hear()) << "its reply was kept for it";
    EXPECT_EQ(0, client.Wait());
}

TEST_F(Forks, AChildOfAClient_HasNoOpenHandle_ButMayConnect) {
    const Handle server = RegisterStatic();
    const Echoers echoers(server.Get());
    Process client({"connect", "line", "call", "1", "fork-and-call", "fork-and-connect", "line", "call", "2"});
    EXPECT_EQ("connect 0", client.Hear());
    EXPECT_EQ("call 0", client.Hear());
    EXPECT_EQ("fork-and-call -3", client.Hear());
    EXPECT_EQ("fork-and-connect 0", client.Hear());
    EXPECT_EQ("call 0", client.Hear()) << "the parent is still connected";
    EXPECT_EQ(0, client.Wait());
}

TEST_F(Forks, AChildOfAServer_ThatExits_TakesNothingAlong) {
    Process server(
        {"register", "line", "publish", "service", "receive", "fork", "reply", "receive", "reply", "close-all"});
    EXPECT_EQ("register 1", server.Hear());
    EXPECT_EQ("publish 0", server.Hear());
    const Handle client = ConnectStatic();
    Background call([&] { return CallWith(client.Get(), 1); });
    EXPECT_EQ("receive 0", server.Hear());
    EXPECT_EQ("fork 0", server.Hear());
    EXPECT_EQ("reply 0", server.Hear()) << "the parent still owes the reply";
    EXPECT_EQ(KnStatusOk, call.Get());
    EXPECT_EQ(KnStatusOk, NsLookupService(NameServer(), "service"));
    EXPECT_EQ(KnStatusOk, CallWith(ConnectStatic().Get(), 1));
    EXPECT_EQ(0, server.Wait());
}

TEST_F(Limits, WithoutDescriptors_TheServerTellsNewClients_AndServesTheOthers) {
    Process server(
        {"register", "line", "serve", "wait", "use-up-descriptors", "wait", "give-them-back", "wait", "close-all"});
    EXPECT_EQ("register 1", server.Hear());
    const Handle client = ConnectStatic();
    EXPECT_EQ("serve 0", server.Hear());
    EXPECT_EQ(KnStatusOk, CallWith(client.Get(), 1));
    server.GoOn();
    EXPECT_EQ("wait 0", server.Hear());
    EXPECT_EQ("use-up-descriptors 0", server.Hear());
    for (int i = 0; i < 10; ++i) {
        KnHandle handle = 0;
        EXPECT_EQ(KnStatusNoResources, ServiceLocatorConnect("line", PatienceMs, &handle));
        EXPECT_EQ(KnStatusOk, CallWith(client.Get(), i));
    }
    server.GoOn();
    EXPECT_EQ("wait 0", server.Hear());
    EXPECT_EQ("give-them-back 0", server.Hear());
    const Handle next = ConnectStatic();
    EXPECT_EQ(KnStatusOk, CallWith(next.Get(), 1));
    server.GoOn();
    EXPECT_EQ("wait 0", server.Hear());
    EXPECT_EQ("close-all 0", server.Hear());
    EXPECT_EQ(0, server.Wait());
}

TEST_F(Limits, AServerWithoutStandardStreams_SendsNoLogToItsClients) {
    Process server({"close-stdin-and-stderr", "register", "line", "log", "not for clients", "receive", "log",
                    "nor this", "reply", "close-all"});
    EXPECT_EQ("close-stdin-and-stderr 0", server.Hear());
    EXPECT_THAT(server.Hear(), ::testing::StartsWith("register 1"));
    EXPECT_EQ("log 0", server.Hear());
    const Handle client = ConnectStatic();
    Background call([&] { return CallWith(client.Get(), 1); });
    EXPECT_EQ("receive 0", server.Hear());
    EXPECT_EQ("log 0", server.Hear());
    EXPECT_EQ("reply 0", server.Hear());
    EXPECT_EQ(KnStatusOk, call.Get());
    EXPECT_EQ(0, server.Wait());
}

std::string OwnName() {
    std::array<char, 16> name{};
    EXPECT_EQ(0, ::pthread_getname_np(::pthread_self(), name.data(), name.size()));
    return name.data();
}

/// Serves one request. Returns: the name of the calling thread afterwards.
std::string NameAfterServing(KnHandle channel) {
    Record request;
    EXPECT_EQ(KnStatusOk, Receive(channel, request));
    EXPECT_EQ(KnStatusOk, Echo(channel, request));
    return OwnName();
}

/// Returns: the name of a new thread after it has served one request of `client`.
std::string NameOfAThreadThatServes(KnHandle channel, KnHandle client) {
    Background serving([channel] { return NameAfterServing(channel); });
    EXPECT_EQ(KnStatusOk, CallWith(client, 1));
    return serving.Get();
}

std::string NameOfAThreadThatServes(const char* service) {
    EXPECT_EQ(KnStatusOk, Publish(service));
    const Joined joined = Join(service);
    return NameOfAThreadThatServes(joined.channel, joined.client.Get());
}

TEST_F(ThreadNames, OfThreadsThatReceive_AreThoseOfTheirChannels) {
    const Handle server = RegisterStatic();
    const Handle client = ConnectStatic();
    EXPECT_EQ("serve-static", NameOfAThreadThatServes(server.Get(), client.Get()));
    EXPECT_EQ("serve-subs", NameOfAThreadThatServes("test.Component.subs"));
    EXPECT_EQ("serve-plain", NameOfAThreadThatServes("plain"));
    EXPECT_EQ("serve-muchtoolo", NameOfAThreadThatServes("test.muchtoolong")) << "a name has 15 bytes at most";
    EXPECT_EQ("serve-a_b____", NameOfAThreadThatServes("test.a b\n\x01\xC3\xA9"));
}

TEST_F(ThreadNames, OfThreadsThatListen_AreAccept) {
    EXPECT_EQ("accept", Background([] {
                            static_cast<void>(Listen(0));
                            return OwnName();
                        }).Get());
}

TEST_F(ThreadNames, OfAChannelOfTwoServices_ComeFromTheFirst) {
    ASSERT_EQ(KnStatusOk, Publish("test.first"));
    ASSERT_EQ(KnStatusOk, Publish("test.second"));
    const Joined first = Join("test.first");
    const Joined second = Join("test.second", 0, first.channel);
    EXPECT_EQ("serve-first", NameOfAThreadThatServes(first.channel, second.client.Get()));
}

TEST_F(ThreadNames, OfTheMainThread_StaysThatOfTheProcess) {
    Process server({"publish", "service", "listen", "accept", "receive", "reply", "thread-name", "close-all"});
    EXPECT_EQ("publish 0", server.Hear());
    Asking asking("service");
    EXPECT_EQ("listen 0", server.Hear());
    EXPECT_EQ("accept 0", server.Hear());
    EXPECT_EQ(KnStatusOk, asking.status.Get());
    EXPECT_EQ(KnStatusOk, CallWith(asking.handle, 1));
    EXPECT_EQ("receive 0", server.Hear());
    EXPECT_EQ("reply 0", server.Hear());
    EXPECT_EQ("thread-name platform_peer", server.Hear());
    EXPECT_EQ("close-all 0", server.Hear());
    EXPECT_EQ(0, server.Wait());
}

TEST_F(ThreadNames, ThatTheProgramGave_AreKept) {
    const Handle server = RegisterStatic();
    const Handle client = ConnectStatic();
    Background before([&] {
        ::pthread_setname_np(::pthread_self(), "its own");
        return NameAfterServing(server.Get());
    });
    EXPECT_EQ(KnStatusOk, CallWith(client.Get(), 1));
    EXPECT_EQ("its own", before.Get());

    Background afterwards([&] {
        EXPECT_EQ("serve-static", NameAfterServing(server.Get()));
        ::pthread_setname_np(::pthread_self(), "its own");
        return NameAfterServing(server.Get());
    });
    EXPECT_EQ(KnStatusOk, CallWith(client.Get(), 1));
    EXPECT_EQ(KnStatusOk, CallWith(client.Get(), 2));
    EXPECT_EQ("its own", afterwards.Get());
}

TEST_F(ThreadNames, ThatThreadsInherit_AreReplaced_UnlessTheProgramGaveThem) {
    const Handle server = RegisterStatic();
    const Handle client = ConnectStatic();
    ASSERT_EQ(KnStatusOk, Publish("test.subs"));
    const Joined joined = Join("test.subs");
    const auto serveOnAThreadOfItsOwn = [&] {
        Background inner([&] { return NameAfterServing(joined.channel); });
        return inner.Get();
    };
    Background worker([&] {
        EXPECT_EQ("serve-static", NameAfterServing(server.Get()));
        return serveOnAThreadOfItsOwn();
    });
    EXPECT_EQ(KnStatusOk, CallWith(client.Get(), 1));
    EXPECT_EQ(KnStatusOk, CallWith(joined.client.Get(), 1));
    EXPECT_EQ("serve-subs", worker.Get());

    Background listener([&] {
        static_cast<void>(Listen(0));
        EXPECT_EQ("accept", OwnName());
        return serveOnAThreadOfItsOwn();
    });
    EXPECT_EQ(KnStatusOk, CallWith(joined.client.Get(), 1));
    EXPECT_EQ("serve-subs", listener.Get());

    Background named([&] {
        ::pthread_setname_np(::pthread_self(), "pool");
        return serveOnAThreadOfItsOwn();
    });
    EXPECT_EQ(KnStatusOk, CallWith(joined.client.Get(), 1));
    EXPECT_EQ("pool", named.Get());
}

TEST_F(ThreadNames, ComeWithTheFirstReceive_AndStay) {
    const Handle server = RegisterStatic();
    const Handle client = ConnectStatic();
    ASSERT_EQ(KnStatusOk, Publish("test.subs"));
    const Joined joined = Join("test.subs");
    Background serving([&] {
        EXPECT_EQ("serve-static", NameAfterServing(server.Get()));
        return NameAfterServing(joined.channel);
    });
    EXPECT_EQ(KnStatusOk, CallWith(client.Get(), 1));
    EXPECT_EQ(KnStatusOk, CallWith(joined.client.Get(), 1));
    EXPECT_EQ("serve-static", serving.Get());
}

TEST_F(ThreadNames, AreLeftAlone_WhereTheEnvironmentSaysOff) {
    const std::vector<std::string> steps{"register", "line", "serve", "wait", "thread-name", "close-all"};
    for (const auto& [setting, name] : {std::pair("off", "platform_peer"), std::pair("", "serve-static")}) {
        ::setenv("BORVEN_THREAD_NAMES", setting, 1);
        Process server(steps);
        ::unsetenv("BORVEN_THREAD_NAMES");
        EXPECT_EQ("register 1", server.Hear());
        EXPECT_EQ("serve 0", server.Hear());
        EXPECT_EQ(KnStatusOk, CallWith(ConnectStatic().Get(), 1));
        server.GoOn();
        EXPECT_EQ("wait 0", server.Hear());
        EXPECT_EQ(std::string("thread-name ") + name, server.Hear());
        EXPECT_EQ("close-all 0", server.Hear());
        EXPECT_EQ(0, server.Wait());
    }
}

TEST_F(ThreadNames, OfThePlatformsOwnThread_IsThere_WhileThereAreServerEnds) {
    const auto isThere = [] {
        const std::filesystem::directory_iterator tasks("/proc/self/task");
        return std::any_of(begin(tasks), end(tasks), [](const auto& task) {
            std::ifstream file(task.path() / "comm");
            std::string name;
            std::getline(file, name);
            return name == "borven-house";
        });
    };
    Await("no such thread", [&] { return !isThere(); }); // a thread that was joined may stay in /proc for a moment
    Handle server = RegisterStatic();
    EXPECT_TRUE(isThere());
    EXPECT_EQ(KnStatusOk, server.Close());
    Await("no such thread", [&] { return !isThere(); });
}

TEST_F(Load, ProcessesThatDieAtAnyMoment_DisturbNoneOfTheOthers) {
    const Handle server = RegisterStatic();
    const Handle steady = ConnectStatic();
    const Echoers echoers(server.Get(), 3);
    EXPECT_EQ(KnStatusOk, CallWith(steady.Get(), 1));
    const std::size_t before = OpenDescriptors();
    constexpr unsigned seed = 20240611;
    std::mt19937 random(seed);
    {
        Process survivor({"connect", "line", "call-many", "400"});
        for (int round = 0; round < 20; ++round) {
            Process victim({"connect", "line", "call-many", "1000000"});
            if (round % 4 != 0) {
                EXPECT_EQ("connect 0", victim.Hear());
            }
            for (auto calls = random() % 20; calls > 0; --calls) {
                EXPECT_EQ(KnStatusOk, CallWith(steady.Get(), 1));
            }
            victim.Kill();
        }
        EXPECT_EQ("connect 0", survivor.Hear());
        EXPECT_EQ("call-many 0", survivor.Hear());
        EXPECT_EQ(0, survivor.Wait());
    }
    Await("the descriptors of the dead to close", [&] { return OpenDescriptors() <= before; });
}

TEST_F(Load, ManyProcesses_AreAllServed) {
    ASSERT_EQ(KnStatusOk, Publish("service"));
    const Joined first = Join("service");
    const Echoers echoers(first.channel, 3);
    std::vector<std::unique_ptr<Process>> clients;
    for (int i = 0; i < 8; ++i) {
        clients.push_back(std::make_unique<Process>(std::vector<std::string>{"ask", "service", "call-many", "200"}));
        const Request request = Listen();
        KnHandle handle = KnInvalidHandle;
        ASSERT_EQ(KnStatusOk, KnCmAccept(request.client.c_str(), request.service.c_str(), 0, first.channel, &handle));
    }
    for (const auto& client : clients) {
        EXPECT_EQ("ask 0", client->Hear());
        EXPECT_EQ("call-many 0", client->Hear());
        EXPECT_EQ(0, client->Wait());
    }
    EXPECT_EQ(8 * 200, echoers.Served());
}

} // namespace
} // namespace platform_test
