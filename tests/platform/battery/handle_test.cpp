// Defends kn/handle.h, kn/status.h and kn/task.h: closing an end frees every thread that waits on it and no other, and
// a handle never means something else later.
#include "kn/task.h"
#include "support.h"

#include <set>

namespace platform_test {
namespace {

using HandleClose = PlatformTest;
using CloseServerEnds = PlatformTest;

TEST_F(HandleClose, ANumberThatIsNoOpenHandle_IsRefused) {
    Handle server = RegisterStatic();
    const KnHandle handle = server.Get();
    EXPECT_EQ(KnStatusOk, KnHandleClose(handle));
    EXPECT_EQ(KnStatusInvalidArgument, KnHandleClose(handle));
    EXPECT_EQ(KnStatusInvalidArgument, KnHandleClose(KnInvalidHandle));
    EXPECT_EQ(KnStatusInvalidArgument, KnHandleClose(0));
}

TEST_F(HandleClose, OfAClientEnd_EndsACallThatIsBlockedOnIt) {
    const Handle server = RegisterStatic();
    Handle client = ConnectStatic();
    const KnHandle handle = client.Get();
    Background call([&] { return CallWith(handle, 1); });
    Record request;
    ASSERT_EQ(KnStatusOk, Receive(server.Get(), request));
    EXPECT_EQ(KnStatusOk, client.Close());
    EXPECT_EQ(KnStatusClosed, call.Get());
    EXPECT_EQ(KnStatusClosed, CallWith(handle, 1));
}

TEST_F(HandleClose, OfAClientEnd_FreesEveryCallThatWaitsForItsTurn) {
    const Handle server = RegisterStatic();
    Handle client = ConnectStatic();
    const KnHandle handle = client.Get();
    Background first([&] { return CallWith(handle, 1); });
    Background second([&] { return CallWith(handle, 2); });
    Record request;
    ASSERT_EQ(KnStatusOk, Receive(server.Get(), request));
    EXPECT_EQ(KnStatusOk, client.Close());
    EXPECT_EQ(KnStatusClosed, first.Get());
    EXPECT_EQ(KnStatusClosed, second.Get());
}

TEST_F(HandleClose, OfAClientEnd_CostsTheServerThatConnectionOnly) {
    const Handle server = RegisterStatic();
    Handle leaving = ConnectStatic();
    const Handle staying = ConnectStatic();
    const Echoers echoers(server.Get());
    EXPECT_EQ(KnStatusOk, CallWith(leaving.Get(), 1));
    EXPECT_EQ(KnStatusOk, leaving.Close());
    EXPECT_EQ(KnStatusOk, CallWith(staying.Get(), 2));
}

TEST_F(HandleClose, AClosedHandle_IsNotGivenOutAgain) {
    const Handle server = RegisterStatic();
    std::set<KnHandle> seen;
    for (int i = 0; i < 100; ++i) {
        const Handle client = ConnectStatic();
        EXPECT_TRUE(seen.insert(client.Get()).second) << client.Get();
    }
}

TEST_F(HandleClose, ByManyThreadsAtOnce_SucceedsOnce) {
    for (int round = 0; round < 20; ++round) {
        Handle server = RegisterStatic();
        const KnHandle handle = server.Get();
        Background one([&] { return KnHandleClose(handle); });
        Background two([&] { return KnHandleClose(handle); });
        const auto first = one.Get();
        const auto second = two.Get();
        EXPECT_EQ(KnStatusInvalidArgument, std::min(first, second) == KnStatusOk ? 0 : std::min(first, second));
        EXPECT_EQ(KnStatusOk, std::max(first, second));
    }
}

TEST_F(CloseServerEnds, WithNothingOpen_DoesNothing) {
    KnHandleCloseServerEnds();
    KnHandleCloseServerEnds();
}

TEST_F(CloseServerEnds, EndsEveryReceive_AndEveryListen_AndEveryCall) {
    ASSERT_EQ(KnStatusOk, Publish("service"));
    const Joined joined = Join("service");
    Handle server = RegisterStatic();
    const Handle client = ConnectStatic();
    Background call([&] { return CallWith(client.Get(), 1); });
    Record request;
    ASSERT_EQ(KnStatusOk, Receive(server.Get(), request));
    Background receive([&] {
        Record none;
        return Receive(server.Get(), none);
    });
    Background dynamicReceive([&] {
        Record none;
        return Receive(joined.channel, none);
    });
    Background listen([] { return Listen(0xFFFFFFFF).status; });
    receive.AwaitBlocked();
    dynamicReceive.AwaitBlocked();
    listen.AwaitBlocked();

    KnHandleCloseServerEnds();
    EXPECT_EQ(KnStatusClosed, receive.Get());
    EXPECT_EQ(KnStatusClosed, dynamicReceive.Get());
    EXPECT_EQ(KnStatusClosed, listen.Get());
    EXPECT_EQ(KnStatusClosed, call.Get());
    EXPECT_EQ(KnStatusClosed, CallWith(joined.client.Get(), 1));
    EXPECT_EQ(KnStatusInvalidArgument, server.Close()) << "it is closed already";
}

TEST_F(CloseServerEnds, LeavesClientEndsOpen_AndTellsThoseWhoAsk) {
    ASSERT_EQ(KnStatusOk, Publish("service"));
    Asking asking("service");
    ASSERT_EQ(KnStatusOk, Listen().status);
    KnHandleCloseServerEnds();
    EXPECT_EQ(KnStatusClosed, asking.status.Get());
}

TEST_F(CloseServerEnds, FreesTheNames_AndTheTaskMayPublishAnew) {
    for (int round = 0; round < 3; ++round) {
        const Handle server = RegisterStatic();
        ASSERT_EQ(KnStatusOk, Publish("service"));
        const Joined joined = Join("service");
        const Echoers echoers(joined.channel);
        EXPECT_EQ(KnStatusOk, CallWith(joined.client.Get(), 1));
        KnHandleCloseServerEnds();
        EXPECT_EQ(KnStatusNotFound, NsLookupService(NameServer(), "service"));
    }
}

TEST(Status, EveryStatusHasASentenceOfItsOwn) {
    std::set<std::string> sentences;
    for (const std::int32_t status : {0, -1, -2, -3, -4, -5, -6, -7, -8, -9, -10, -11, -12, -13, -42, -1000}) {
        ASSERT_NE(nullptr, KnStatusText(status));
        EXPECT_TRUE(sentences.insert(KnStatusText(status)).second) << status;
    }
    EXPECT_STREQ(KnStatusText(-1000), KnStatusText(17)) << "what is no status";
}

TEST(Task, TheNameIsWritten_AndCutToTheBuffer) {
    std::array<char, 1024> name{};
    ASSERT_EQ(KnStatusOk, KnTaskGetName(name.data(), name.size()));
    const std::string whole = name.data();
    ASSERT_GT(whole.size(), 3u);

    std::array<char, 4> little{'x', 'x', 'x', 'x'};
    ASSERT_EQ(KnStatusOk, KnTaskGetName(little.data(), 3));
    EXPECT_EQ(whole.substr(0, 2), little.data());
    EXPECT_EQ('x', little[3]);
    ASSERT_EQ(KnStatusOk, KnTaskGetName(little.data(), 1));
    EXPECT_STREQ("", little.data());
}

TEST(Task, WithoutABuffer_TheNameIsRefused) {
    char buffer = 'x';
    EXPECT_EQ(KnStatusInvalidArgument, KnTaskGetName(nullptr, 10));
    EXPECT_EQ(KnStatusInvalidArgument, KnTaskGetName(&buffer, 0));
    EXPECT_EQ('x', buffer);
}

} // namespace
} // namespace platform_test
