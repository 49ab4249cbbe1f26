// Defends kn/connection_manager.h: a client that asks is announced once, joins the channel that the server chose, may
// call that one interface only, and harms no other by giving up at any point.
#include "support.h"

#include <set>

namespace platform_test {
namespace {

using ConnectionManager = PlatformTest;

std::int32_t Accept(const Request& request, KnHandle* handle, KnHandle channel = KnInvalidHandle,
                    std::uint32_t iid = 0) {
    return KnCmAccept(request.client.c_str(), request.service.c_str(), iid, channel, handle);
}

TEST_F(ConnectionManager, AClientThatIsAccepted_ReachesANewChannel) {
    ASSERT_EQ(KnStatusOk, Publish("service"));
    Asking asking("service");
    const Request request = Listen();
    ASSERT_EQ(KnStatusOk, request.status);
    EXPECT_EQ("service", request.service);
    EXPECT_FALSE(request.client.empty());
    KnHandle channel = KnInvalidHandle;
    ASSERT_EQ(KnStatusOk, Accept(request, &channel));
    ASSERT_NE(KnInvalidHandle, channel);
    ASSERT_EQ(KnStatusOk, asking.status.Get());

    const Echoers echoers(channel);
    std::int64_t returned = 0;
    EXPECT_EQ(KnStatusOk, CallWith(asking.handle, 8, &returned));
    EXPECT_EQ(9, returned);
}

TEST_F(ConnectionManager, AClientThatIsAcceptedToAKnownHandle_JoinsThatChannel) {
    ASSERT_EQ(KnStatusOk, Publish("service"));
    const Joined first = Join("service");
    const Joined second = Join("service", 0, first.channel);
    EXPECT_EQ(first.channel, second.channel);
    const Echoers echoers(first.channel);
    EXPECT_EQ(KnStatusOk, CallWith(first.client.Get(), 1));
    EXPECT_EQ(KnStatusOk, CallWith(second.client.Get(), 2));
    EXPECT_EQ(2, echoers.Served());
}

TEST_F(ConnectionManager, AcceptingWithTheInvalidHandle_MakesAChannelEachTime) {
    ASSERT_EQ(KnStatusOk, Publish("service"));
    const Joined first = Join("service");
    const Joined second = Join("service");
    EXPECT_NE(first.channel, second.channel);
}

TEST_F(ConnectionManager, EachRequest_IsGivenToOneListener) {
    ASSERT_EQ(KnStatusOk, Publish("service"));
    std::vector<std::unique_ptr<Background<Request>>> listeners;
    std::vector<std::unique_ptr<Asking>> askers;
    for (int i = 0; i < 8; ++i) {
        listeners.push_back(std::make_unique<Background<Request>>([] { return Listen(); }));
        askers.push_back(std::make_unique<Asking>("service"));
    }
    std::set<std::string> names;
    for (const auto& listener : listeners) {
        const Request request = listener->Get();
        EXPECT_EQ(KnStatusOk, request.status);
        EXPECT_TRUE(names.insert(request.client).second) << request.client;
        KnHandle channel = KnInvalidHandle;
        EXPECT_EQ(KnStatusOk, Accept(request, &channel));
    }
    for (const auto& asker : askers) {
        EXPECT_EQ(KnStatusOk, asker->status.Get());
    }
}

TEST_F(ConnectionManager, RequestsForSeveralServices_AreToldApart) {
    ASSERT_EQ(KnStatusOk, Publish("one"));
    ASSERT_EQ(KnStatusOk, Publish("two"));
    const Joined two = Join("two", 2);
    const Joined one = Join("one", 1);
    const Echoers onOne(one.channel);
    const Echoers onTwo(two.channel);
    Record response;
    EXPECT_EQ(KnStatusOk, Call(one.client.Get(), RequestOf(1, 1), response));
    EXPECT_EQ(KnStatusOk, Call(two.client.Get(), RequestOf(2, 2), response));
    EXPECT_EQ(1, onOne.Served());
    EXPECT_EQ(1, onTwo.Served());
}

TEST_F(ConnectionManager, Listen_TellsWhenItsTimeIsOver) {
    ASSERT_EQ(KnStatusOk, Publish("service"));
    const auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(KnStatusTimedOut, Listen(20).status);
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(20));
}

TEST_F(ConnectionManager, Listen_AfterTheServerEndsClosed_IsAnsweredAtOnce) {
    ASSERT_EQ(KnStatusOk, Publish("service"));
    KnHandleCloseServerEnds();
    EXPECT_EQ(KnStatusClosed, Listen(0xFFFFFFFF).status);
    ASSERT_EQ(KnStatusOk, Publish("service"));
    EXPECT_EQ(KnStatusTimedOut, Listen(0).status);
}

TEST_F(ConnectionManager, AFilter_LetsOnlyClientsOfThatTaskPass) {
    ASSERT_EQ(KnStatusOk, Publish("service"));
    Asking asking("service");
    EXPECT_EQ(KnStatusTimedOut, Listen(50, "no such task").status);
    const Request request = Listen();
    ASSERT_EQ(KnStatusOk, request.status);
    KnHandle channel = KnInvalidHandle;
    EXPECT_EQ(KnStatusOk, Accept(request, &channel));
}

TEST_F(ConnectionManager, AClientThatNobodyAccepts_TimesOutByItself) {
    ASSERT_EQ(KnStatusOk, Publish("service"));
    KnHandle handle = 99;
    EXPECT_EQ(KnStatusTimedOut, KnCmConnect("service", 20, &handle));
    EXPECT_EQ(99u, handle);
}

TEST_F(ConnectionManager, AClientThatGaveUp_IsNoRequestAnyMore) {
    ASSERT_EQ(KnStatusOk, Publish("service"));
    KnHandle handle = 99;
    EXPECT_EQ(KnStatusTimedOut, KnCmConnect("service", 0, &handle));
    const Joined joined = Join("service");
    const Echoers echoers(joined.channel);
    EXPECT_EQ(KnStatusOk, CallWith(joined.client.Get(), 1)) << "the next one is served";
}

TEST_F(ConnectionManager, AClientThatGaveUpBeforeItsAcceptance_CostsOneFailedAccept) {
    ASSERT_EQ(KnStatusOk, Publish("service"));
    Request request;
    std::uint32_t timeoutMs = 25;
    do { // until it is announced before it gives up
        timeoutMs *= 2;
        Asking asking("service", timeoutMs);
        request = Listen(timeoutMs);
        ASSERT_EQ(KnStatusTimedOut, asking.status.Get());
    } while (request.status == KnStatusTimedOut);
    ASSERT_EQ(KnStatusOk, request.status);
    KnHandle channel = 99;
    EXPECT_EQ(KnStatusPeerGone, Accept(request, &channel));
    EXPECT_EQ(99u, channel);
    EXPECT_EQ(KnStatusNotFound, Accept(request, &channel)) << "the request is used up";

    const Joined joined = Join("service");
    const Echoers echoers(joined.channel);
    EXPECT_EQ(KnStatusOk, CallWith(joined.client.Get(), 1));
}

TEST_F(ConnectionManager, ARequestThatNobodyMade_IsNotFound) {
    ASSERT_EQ(KnStatusOk, Publish("service"));
    ASSERT_EQ(KnStatusOk, Publish("other"));
    KnHandle channel = 99;
    EXPECT_EQ(KnStatusNotFound, KnCmAccept("nobody", "service", 0, KnInvalidHandle, &channel));
    Asking asking("service");
    const Request request = Listen();
    EXPECT_EQ(KnStatusNotFound, KnCmAccept(request.client.c_str(), "other", 0, KnInvalidHandle, &channel));
    EXPECT_EQ(99u, channel);
    EXPECT_EQ(KnStatusOk, Accept(request, &channel)) << "the right names still find it";
    EXPECT_EQ(KnStatusNotFound, Accept(request, &channel)) << "once";
}

TEST_F(ConnectionManager, AcceptingToAChannelThatIsNotOpen_TellsBothSides) {
    ASSERT_EQ(KnStatusOk, Publish("service"));
    KnHandle closed = Join("service").channel;
    ASSERT_EQ(KnStatusOk, KnHandleClose(closed));
    for (const KnHandle channel : {closed, KnHandle{4000000000}}) {
        Asking asking("service");
        const Request request = Listen();
        KnHandle handle = 99;
        EXPECT_EQ(KnStatusClosed, Accept(request, &handle, channel));
        EXPECT_EQ(KnStatusClosed, asking.status.Get());
        EXPECT_EQ(99u, handle);
    }
}

TEST_F(ConnectionManager, ARequestForAnotherInterface_NeverReachesTheServer) {
    ASSERT_EQ(KnStatusOk, Publish("service"));
    const Joined joined = Join("service", 2);
    const Echoers echoers(joined.channel);
    Record response;
    for (const auto iid : std::initializer_list<std::uint16_t>{0, 1, 3, 0xFFFF}) {
        EXPECT_EQ(KnStatusDenied, Call(joined.client.Get(), RequestOf(1, iid), response)) << iid;
    }
    EXPECT_EQ(0, echoers.Served());
    EXPECT_EQ(KnStatusOk, Call(joined.client.Get(), RequestOf(1, 2), response));
    EXPECT_EQ(1, echoers.Served());
}

TEST_F(ConnectionManager, ClientsOfOneChannel_KeepTheInterfaceOfTheirOwnAcceptance) {
    ASSERT_EQ(KnStatusOk, Publish("service"));
    const Joined one = Join("service", 1);
    const Joined two = Join("service", 2, one.channel);
    const Echoers echoers(one.channel);
    Record response;
    EXPECT_EQ(KnStatusOk, Call(one.client.Get(), RequestOf(1, 1), response));
    EXPECT_EQ(KnStatusDenied, Call(one.client.Get(), RequestOf(1, 2), response));
    EXPECT_EQ(KnStatusOk, Call(two.client.Get(), RequestOf(1, 2), response));
    EXPECT_EQ(KnStatusDenied, Call(two.client.Get(), RequestOf(1, 1), response));
}

TEST_F(ConnectionManager, AReplyToAClientThatIsGone_IsNoFaultOfTheChannel) {
    ASSERT_EQ(KnStatusOk, Publish("service"));
    Joined leaving = Join("service");
    const Joined staying = Join("service", 0, leaving.channel);
    Background call([&, handle = leaving.client.Get()] { return CallWith(handle, 1); });
    Record request;
    ASSERT_EQ(KnStatusOk, Receive(leaving.channel, request));
    leaving.client.Close();
    EXPECT_EQ(KnStatusClosed, call.Get());
    EXPECT_EQ(KnStatusOk, Reply(leaving.channel, request));

    Background next([&] { return CallWith(staying.client.Get(), 2); });
    ASSERT_EQ(KnStatusOk, Receive(leaving.channel, request));
    EXPECT_EQ(2, request.Value());
    EXPECT_EQ(KnStatusOk, Reply(leaving.channel, request));
    EXPECT_EQ(KnStatusOk, next.Get());
}

TEST_F(ConnectionManager, AChannelWhoseClientsAllLeft_WaitsForTheNext) {
    ASSERT_EQ(KnStatusOk, Publish("service"));
    Joined first = Join("service");
    const Echoers echoers(first.channel);
    EXPECT_EQ(KnStatusOk, CallWith(first.client.Get(), 1));
    first.client.Close();
    const Joined second = Join("service", 0, first.channel);
    EXPECT_EQ(KnStatusOk, CallWith(second.client.Get(), 2));
}

TEST_F(ConnectionManager, ConnectingToNobody_IsAnsweredAtOnce) {
    KnHandle handle = 99;
    EXPECT_EQ(KnStatusNotFound, KnCmConnect("service", 0xFFFFFFFF, &handle));
    EXPECT_EQ(99u, handle);
}

TEST_F(ConnectionManager, ThoseWhoWaitToBeAccepted_HinderNobodyWhoIsConnected) {
    ASSERT_EQ(KnStatusOk, Publish("service"));
    const Joined joined = Join("service");
    const Echoers echoers(joined.channel);
    std::vector<std::unique_ptr<Asking>> askers;
    for (int i = 0; i < 32; ++i) {
        askers.push_back(std::make_unique<Asking>("service"));
    }
    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ(KnStatusOk, CallWith(joined.client.Get(), i));
    }
    KnHandleCloseServerEnds();
    for (const auto& asker : askers) {
        const auto status = asker->status.Get();
        EXPECT_TRUE(status == KnStatusClosed || status == KnStatusNotFound) << status;
    }
}

TEST_F(ConnectionManager, ManyClientsThatComeAndGo_AreAllServed) {
    ASSERT_EQ(KnStatusOk, Publish("service"));
    const Joined first = Join("service");
    const Echoers echoers(first.channel, 2);
    std::atomic<bool> isOver{false};
    Background accepting([&] {
        while (!isOver) {
            const Request request = Listen(10);
            if (request.status == KnStatusOk) {
                KnHandle handle = KnInvalidHandle;
                EXPECT_EQ(KnStatusOk, Accept(request, &handle, first.channel));
                EXPECT_EQ(first.channel, handle);
            }
        }
    });
    std::vector<std::unique_ptr<Background<int>>> clients;
    for (int i = 0; i < 6; ++i) {
        clients.push_back(std::make_unique<Background<int>>([i] {
            int wrong = 0;
            for (int visit = 0; visit < 10; ++visit) {
                KnHandle number = KnInvalidHandle;
                wrong += KnCmConnect("service", PatienceMs, &number) != KnStatusOk;
                const Handle client(number);
                std::int64_t returned = 0;
                wrong += CallWith(number, i * 100 + visit, &returned) != KnStatusOk || returned != i * 100 + visit + 1;
            }
            return wrong;
        }));
    }
    for (const auto& client : clients) {
        EXPECT_EQ(0, client->Get());
    }
    isOver = true;
    accepting.Get();
    EXPECT_EQ(60, echoers.Served());
}

TEST_F(ConnectionManager, InvalidArguments_AreRefused) {
    std::array<char, KnCmNameSize> buffer{};
    KnHandle handle = 99;
    EXPECT_EQ(KnStatusInvalidArgument, KnCmListen(nullptr, 0, nullptr, buffer.data()));
    EXPECT_EQ(KnStatusInvalidArgument, KnCmListen(nullptr, 0, buffer.data(), nullptr));
    EXPECT_EQ(KnStatusInvalidArgument, KnCmAccept(nullptr, "service", 0, KnInvalidHandle, &handle));
    EXPECT_EQ(KnStatusInvalidArgument, KnCmAccept("client", nullptr, 0, KnInvalidHandle, &handle));
    EXPECT_EQ(KnStatusInvalidArgument, KnCmAccept("client", "service", 0, KnInvalidHandle, nullptr));
    EXPECT_EQ(KnStatusInvalidArgument, KnCmConnect(nullptr, 0, &handle));
    EXPECT_EQ(KnStatusInvalidArgument, KnCmConnect("", 0, &handle));
    EXPECT_EQ(KnStatusInvalidArgument, KnCmConnect("a/b", 0, &handle));
    EXPECT_EQ(KnStatusInvalidArgument, KnCmConnect("service", 0, nullptr));
    EXPECT_EQ(99u, handle);
}

} // namespace
} // namespace platform_test
