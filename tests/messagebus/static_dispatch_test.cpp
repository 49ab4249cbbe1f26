// Defends the cycle of a static worker: receive, dispatch, reply, with every way in which a step can fail, and the two
// conditions that end the loop. A fault here affects every client of the one channel.
#include "support/ipc_harness.h"

#include <algorithm>
#include <stdexcept>

namespace {

using bos_ipc::IpcServer;
using message_bus::ConnectionType;
using test_support::CtlIid;
using test_support::IpcTest;
using test_support::ProviderIid;
using test_support::Request;
using test_support::SubsIid;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
namespace fault_points = test_support::fault_points;

class StaticDispatchTest : public IpcTest {
protected:
    StaticDispatchTest() {
        platform.serviceLocatorRegister.Once(7);
        EXPECT_EQ(Init(server), 0);
        journal.Clear();
    }

    /// Serves one request. Returns: the reply.
    br_MessageBus_component_res Serve(const br_MessageBus_component_req& request) {
        const auto before = Replies().size();
        Receives(request);
        EXPECT_EQ(server.DispatchStatic(), 0);
        const auto given = Replies();
        EXPECT_EQ(given.size(), before + 1);
        return given.empty() ? br_MessageBus_component_res{} : given.back().record;
    }

    static bool IsZero(const br_MessageBus_component_res& response, std::size_t from) {
        return std::all_of(response.record + from, response.record + NkRecordSize, [](auto byte) { return byte == 0; });
    }

    IpcServer server{ConnectionType::Static};
};

TEST_F(StaticDispatchTest, DispatchStatic_ReceivesIntoAZeroedRecordOf1056BytesWithEmptyArenas) {
    bool isZero = false;
    bool arenaIsEmpty = false;
    platform.receive.Once([&](NkBosTransport*, nk_message* request, nk_arena* arena) {
        const auto* bytes = reinterpret_cast<const unsigned char*>(request);
        isZero = request->size == 1056 && bytes[0] == 0 && bytes[1] == 0 && bytes[2] == 0 && bytes[3] == 0 &&
                 std::all_of(bytes + 8, bytes + 1056, [](auto byte) { return byte == 0; });
        arenaIsEmpty = arena->start != nullptr && arena->start == arena->current && arena->current == arena->end;
        return KnStatusClosed;
    });
    EXPECT_EQ(server.DispatchStatic(), 0);
    EXPECT_TRUE(isZero);
    EXPECT_TRUE(arenaIsEmpty);
}

TEST_F(StaticDispatchTest, DispatchStatic_HandsTheHandlerAndTheReplyEmptyArenas) {
    bool handlersArenas = false;
    fake.onPush = [&](const void*, const nk_arena* requestArena, void*, nk_arena* responseArena) {
        handlersArenas = requestArena->start == requestArena->end && responseArena->start == responseArena->end;
        return 0;
    };
    Serve(Request(ProviderIid, 0));
    EXPECT_TRUE(handlersArenas);
    EXPECT_TRUE(Replies().front().arenaIsEmpty);
}

TEST_F(StaticDispatchTest, DispatchStatic_ReceivesDispatchesAndRepliesInThisOrderSilently) {
    Serve(Request(ProviderIid, 0));
    EXPECT_THAT(journal.All(), ElementsAre("Receive(7, room 1056)", "Push", "Reply(7)"));
}

TEST_F(StaticDispatchTest, DispatchStatic_WhoseReceiveFails_LogsTheStatusAndNeitherDispatchesNorReplies) {
    platform.receive.Once(KnStatusClosed);
    EXPECT_EQ(server.DispatchStatic(), 0);
    EXPECT_THAT(journal.All(), ElementsAre("Receive(7, room 1056)",
                                           "4 DispatchStatic: DispatchStatic: NK transport received the error -3"));
}

TEST_F(StaticDispatchTest, DispatchStatic_OfMinus42_NeitherLogsNorReplies) {
    fake.onPush = [](auto...) { return -42; };
    Receives(Request(ProviderIid, 0));
    EXPECT_EQ(server.DispatchStatic(), 0);
    EXPECT_THAT(journal.All(), ElementsAre("Receive(7, room 1056)", "Push"));
}

TEST_F(StaticDispatchTest, DispatchStatic_OfAnUnknownInterface_LogsMinus2AndRepliesTheUntouchedZeroedRecord) {
    const auto response = Serve(Request(3, 0));
    EXPECT_EQ(response.header.size, 1056U);
    EXPECT_EQ(response.header.iid, 0U);
    EXPECT_EQ(response.header.mid, 0U);
    EXPECT_TRUE(IsZero(response, 8));
    EXPECT_THAT(journal.All(),
                ElementsAre("Receive(7, room 1056)",
                            "4 DispatchStatic: DispatchStatic: br_MessageBus_entity_dispatch has error -2",
                            "Reply(7)"));
}

TEST_F(StaticDispatchTest, DispatchStatic_OfAnUnknownMethod_LogsMinus2AndRepliesBothIndexes) {
    const auto response = Serve(Request(CtlIid, 6));
    EXPECT_EQ(response.header.iid, CtlIid);
    EXPECT_EQ(response.header.mid, 6U);
    EXPECT_EQ(journal.Count("4 DispatchStatic: DispatchStatic: br_MessageBus_entity_dispatch has error -2"), 1U);
}

TEST_F(StaticDispatchTest, DispatchStatic_WhoseHandlerFailsForItself_LogsTheResultAndReplies) {
    fake.onPush = [](auto...) { return -5; };
    const auto response = Serve(Request(ProviderIid, 0));
    EXPECT_FALSE(NkIsError(response.header));
    EXPECT_EQ(journal.Count("4 DispatchStatic: DispatchStatic: br_MessageBus_entity_dispatch has error -5"), 1U);
}

TEST_F(StaticDispatchTest, DispatchStatic_WhoseHandlerFailsForTheClient_RepliesTheErrorAndLogsNothing) {
    fake.onCtl = [](auto...) { return -278528; };
    const auto response = Serve(Request(CtlIid, 3));
    std::uint16_t value = 0;
    std::memcpy(&value, response.record + 24, sizeof value);
    EXPECT_EQ(response.header.size, 0x80000020U);
    EXPECT_EQ(response.header.iid, CtlIid);
    EXPECT_EQ(response.header.mid, 3U);
    EXPECT_EQ(value, 8U);
    EXPECT_THAT(journal.Logs(), IsEmpty());
}

TEST_F(StaticDispatchTest, DispatchStatic_RepliesWithTheSizeOfTheMethod) {
    EXPECT_EQ(Serve(Request(ProviderIid, 0)).header.size, 24U);
    EXPECT_EQ(Serve(Request(SubsIid, 0)).header.size, 1056U);
    const std::vector<std::uint32_t> ctlSizes{32, 32, 24, 32, 24, 24};
    for (std::uint16_t mid = 0; mid < ctlSizes.size(); ++mid) {
        EXPECT_EQ(Serve(Request(CtlIid, mid)).header.size, ctlSizes[mid]) << mid;
    }
}

TEST_F(StaticDispatchTest, DispatchStatic_WhoseReplyFails_LogsTheStatus) {
    platform.reply.Once(KnStatusPeerGone);
    Receives(Request(ProviderIid, 0));
    EXPECT_EQ(server.DispatchStatic(), 0);
    EXPECT_THAT(journal.Logs(), ElementsAre("4 DispatchStatic: DispatchStatic: NK transport reply error -4"));
}

TEST_F(StaticDispatchTest, DispatchStatic_BuildsItsRecordsAnewForEveryCycle) {
    fake.onWait = [](const void*, const nk_arena*, void* response, nk_arena*) {
        std::memset(static_cast<char*>(response) + 24, 0x55, 1024);
        return 0;
    };
    Serve(Request(SubsIid, 0));
    EXPECT_TRUE(IsZero(Serve(Request(9, 9)), 8));
}

TEST_F(StaticDispatchTest, DispatchStatic_LetsAHandlersExceptionPass) {
    fake.onPush = [](auto...) -> std::int32_t { throw std::runtime_error("broken"); };
    Receives(Request(ProviderIid, 0));
    EXPECT_THROW(server.DispatchStatic(), std::runtime_error);
    EXPECT_THAT(journal.All(), ElementsAre("Receive(7, room 1056)", "Push"));
}

TEST_F(StaticDispatchTest, DispatchStatic_AllocatesNothing) {
    static constexpr auto receive = [](NkBosTransport*, nk_message*, nk_arena*) -> std::int32_t { return KnStatusOk; };
    static constexpr auto reply = [](NkBosTransport*, const nk_message*, const nk_arena*) -> std::int32_t {
        return KnStatusOk;
    };
    platform.SetQuiet(true);
    platform.receive.Always(receive); // leaves the zeroed request: interface 0, method 0
    platform.reply.Always(reply);
    // Not the fake entity, whose handlers record their calls.
    static const br_MessageBusProvider_ops ops{[](auto...) -> std::int32_t { return 0; }};
    br_MessageBusProvider provider{&ops};
    br_MessageBusComponent_component component{&provider, nullptr, nullptr};
    EXPECT_EQ(server.Init({&component}, br_MessageBusComponent_component(component)), 0);
    fault_points::FailAllocation(std::this_thread::get_id());
    EXPECT_NO_THROW(server.DispatchStatic());
    fault_points::DisarmAllocation();
}

// ----------------------------------------------------------------------------------------------------- RunStaticLoop

TEST_F(StaticDispatchTest, RunStaticLoop_WithTheStopSignalSet_ServesNothing) {
    server.SetStopSignal();
    server.RunStaticLoop();
    EXPECT_THAT(journal.All(), IsEmpty());
}

TEST_F(StaticDispatchTest, RunStaticLoop_CompletesTheCycleInWhichTheStopSignalIsSet) {
    Receives(Request(ProviderIid, 0));
    Receives(Request(ProviderIid, 0), [&] { server.SetStopSignal(); });
    server.RunStaticLoop();
    EXPECT_THAT(Replies(), SizeIs(2));
    EXPECT_THAT(journal.Logs(), IsEmpty());
}

TEST_F(StaticDispatchTest, RunStaticLoop_OfARetiredWorker_RepliesToTheRequestInProgressAndEnds) {
    fake.onWait = [&](auto...) { return server.ShutdownIpcServer(); };
    Receives(Request(ProviderIid, 0));
    Receives(Request(SubsIid, 0));
    RunAsWorker(server, [&] { server.RunStaticLoop(); });
    EXPECT_THAT(journal.Calls("Receive"), SizeIs(2));
    EXPECT_THAT(Replies(), SizeIs(2));
    EXPECT_FALSE(server.ShouldBeStopped());
}

TEST_F(StaticDispatchTest, RunStaticLoop_WithItsMarkerSetBeforehand_StillMakesOneCycle) {
    Receives(Request(ProviderIid, 0));
    RunAsWorker(server, [&] {
        EXPECT_EQ(server.ShutdownIpcServer(), 0);
        server.RunStaticLoop();
    });
    EXPECT_THAT(Replies(), SizeIs(1));
}

TEST_F(StaticDispatchTest, RunStaticLoop_GoesOnAfterAFailedReceive) {
    platform.receive.Once(KnStatusInvalidArgument);
    Receives(Request(ProviderIid, 0), [&] { server.SetStopSignal(); });
    server.RunStaticLoop();
    EXPECT_THAT(Replies(), SizeIs(1));
}

TEST_F(StaticDispatchTest, RunStaticLoop_WhoseHandlerThrows_LogsItAndEnds) {
    fake.onPush = [](auto...) -> std::int32_t { throw 42; };
    Receives(Request(ProviderIid, 0));
    EXPECT_NO_THROW(server.RunStaticLoop());
    EXPECT_THAT(journal.Logs(), ElementsAre("4 RunStaticLoop: Error during RunStaticLoop"));
    EXPECT_THAT(journal.Calls("Receive"), SizeIs(1));
}

TEST_F(StaticDispatchTest, RunStaticLoop_WhoseHandlerThrowsWithLevelFourDisabled_EndsWithoutALine) {
    log.SetThreshold(5);
    fake.onPush = [](auto...) -> std::int32_t { throw 42; };
    Receives(Request(ProviderIid, 0));
    EXPECT_NO_THROW(server.RunStaticLoop());
    EXPECT_THAT(journal.Logs(), IsEmpty());
    EXPECT_THAT(journal.Calls("Receive"), SizeIs(1));
}

TEST_F(StaticDispatchTest, RunStaticLoop_ReleasesTheWorkersRecordWhenItEnds) {
    fake.onPush = [](auto...) -> std::int32_t { throw 42; };
    Receives(Request(ProviderIid, 0));
    RunAsWorker(server, [&] {
        const auto self = server.GetCurrentIpcThread();
        server.RunStaticLoop();
        EXPECT_EQ(self.use_count(), 2); // the pool's reference and this one
    });
}

TEST_F(StaticDispatchTest, Workers_ShareTheOneTransportWithRecordsOfTheirOwn) {
    // Two workers run their handlers at the same time.
    std::promise<void> firstIsIn;
    std::promise<void> secondIsIn;
    fake.onPush = [&](auto...) {
        firstIsIn.set_value();
        secondIsIn.get_future().wait();
        return 0;
    };
    fake.onCtl = [&](auto...) {
        firstIsIn.get_future().wait();
        secondIsIn.set_value();
        return 0;
    };
    Receives(Request(ProviderIid, 0));
    Receives(Request(CtlIid, 2));
    std::thread other([&] { server.DispatchStatic(); });
    server.DispatchStatic();
    other.join();
    EXPECT_THAT(Replies(), SizeIs(2));
    EXPECT_THAT(journal.Calls("Receive(7"), SizeIs(2));
}

} // namespace
