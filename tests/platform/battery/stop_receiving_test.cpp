// Defends the first step of an orderly stop (kn/handle.h): no thread receives any more, every received request can
// still be answered, and closing does the rest.
#include "support.h"

namespace platform_test {
namespace {

using StopReceivingTest = PlatformTest;

TEST_F(StopReceivingTest, WithNothingOpen_DoesNothing) {
    KnHandleStopReceiving();
    KnHandleStopReceiving();
}

TEST_F(StopReceivingTest, EndsEveryReceive_AndEveryListen_NowAndLater) {
    ASSERT_EQ(KnStatusOk, Publish("service"));
    const Joined joined = Join("service");
    const Handle server = RegisterStatic();
    const auto receiveOn = [](KnHandle handle) {
        Record none;
        return Receive(handle, none);
    };
    Background receive([&] { return receiveOn(server.Get()); });
    Background second([&] { return receiveOn(server.Get()); });
    Background dynamicReceive([&] { return receiveOn(joined.channel); });
    Background listen([] { return Listen(0xFFFFFFFF).status; });
    receive.AwaitBlocked();
    second.AwaitBlocked();
    dynamicReceive.AwaitBlocked();
    listen.AwaitBlocked();

    KnHandleStopReceiving();
    EXPECT_EQ(KnStatusClosed, receive.Get());
    EXPECT_EQ(KnStatusClosed, second.Get());
    EXPECT_EQ(KnStatusClosed, dynamicReceive.Get());
    EXPECT_EQ(KnStatusClosed, listen.Get());
    EXPECT_EQ(KnStatusClosed, receiveOn(server.Get()));
    EXPECT_EQ(KnStatusClosed, receiveOn(joined.channel));
    EXPECT_EQ(KnStatusClosed, Listen(0xFFFFFFFF).status);
}

TEST_F(StopReceivingTest, RefusesAClientThatWasAnnounced) {
    ASSERT_EQ(KnStatusOk, Publish("service"));
    Asking asking("service");
    const Request request = Listen();
    ASSERT_EQ(KnStatusOk, request.status);
    KnHandleStopReceiving();
    KnHandle handle = KnInvalidHandle;
    EXPECT_EQ(KnStatusClosed, KnCmAccept(request.client.c_str(), request.service.c_str(), 0, KnInvalidHandle, &handle));
    EXPECT_EQ(KnStatusClosed, asking.status.Get());
}

TEST_F(StopReceivingTest, LeavesReceivedRequestsToBeAnswered) {
    const Handle server = RegisterStatic();
    const Handle client = ConnectStatic();
    std::int64_t returned = 0;
    Background call([&] { return CallWith(client.Get(), 41, &returned); });
    Record request;
    ASSERT_EQ(KnStatusOk, Receive(server.Get(), request));
    KnHandleStopReceiving();
    EXPECT_EQ(KnStatusOk, Echo(server.Get(), request));
    EXPECT_EQ(KnStatusOk, call.Get());
    EXPECT_EQ(42, returned);
}

TEST_F(StopReceivingTest, LeavesACallBlocked_UntilTheServerEndsClose) {
    const Handle server = RegisterStatic();
    const Handle client = ConnectStatic();
    KnHandleStopReceiving();
    Background call([&] { return CallWith(client.Get(), 1); });
    call.AwaitBlocked();
    Record none;
    EXPECT_EQ(KnStatusClosed, Receive(server.Get(), none)) << "a visible request changes nothing";
    KnHandleCloseServerEnds();
    EXPECT_EQ(KnStatusClosed, call.Get());
}

TEST_F(StopReceivingTest, UnderLoad_LosesNoReply) {
    for (int round = 0; round < 20; ++round) {
        std::atomic<int> answered{0};
        const Handle server = RegisterStatic();
        const std::array<Handle, 3> connections{ConnectStatic(), ConnectStatic(), ConnectStatic()};
        int served = 0;
        {
            std::vector<std::unique_ptr<Background<void>>> clients;
            Background serving([&] {
                Record request;
                int count = 0;
                while (Receive(server.Get(), request) == KnStatusOk) {
                    EXPECT_EQ(KnStatusOk, Echo(server.Get(), request));
                    ++count;
                }
                return count;
            });
            for (std::size_t i = 0; i < connections.size(); ++i) {
                clients.push_back(std::make_unique<Background<void>>([&answered, client = connections[i].Get()] {
                    while (CallWith(client, 1) == KnStatusOk) {
                        ++answered;
                    }
                }));
            }
            Await("the clients should be served", [&] { return answered > 20; });
            KnHandleStopReceiving();
            served = serving.Get();
            KnHandleCloseServerEnds();
        }
        EXPECT_EQ(served, answered) << "each request that was received was answered, and its client has the reply";
    }
}

TEST_F(StopReceivingTest, TheTaskMayOfferAnewAfterClosing) {
    {
        const Handle server = RegisterStatic();
        KnHandleStopReceiving();
        KnHandleCloseServerEnds();
    }
    const Handle server = RegisterStatic();
    const Handle client = ConnectStatic();
    const Echoers echoers(server.Get());
    EXPECT_EQ(KnStatusOk, CallWith(client.Get(), 1));
}

} // namespace
} // namespace platform_test
