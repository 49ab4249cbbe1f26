// Defends the dynamic connection server by itself: publishing, accepting one client, and the dispatcher thread of a
// channel with every way in which it ends. A client that is accepted wrongly is served wrongly until it leaves.
#include "bos_dynamic_ipc_server.h"
#include "support/bus_harness.h"
#include "support/ipc_harness.h"

#include <stdexcept>
#include <unordered_map>

namespace {

using bos_ipc::DynamicServer;
using test_support::CtlIid;
using test_support::Gate;
using test_support::IpcTest;
using test_support::ProviderIid;
using test_support::Request;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::SizeIs;
namespace fault_points = test_support::fault_points;

using Accepted = std::unordered_map<std::string, unsigned>;

constexpr auto Service = "br.MessageBusComponent.ctl";
constexpr auto MapsArena = "mmap(null, 8, 3, 0x22, -1, 0)";

class DynamicServerTest : public IpcTest {
protected:
    DynamicServerTest() { platform.nsPublishService.Always(KnStatusOk); }

    /// Publishes one service.
    void Publish(const std::string& service = Service, std::uint32_t iid = 1) {
        server->Init("server", {{"br.MessageBusCtl", service, iid}});
        journal.Clear();
    }
    /// A client asks for `service`.
    void Asks(const std::string& client, const std::string& service) {
        platform.cmListen.Once([=](const char*, std::uint32_t, char* clientName, char* serviceName) {
            std::memcpy(clientName, client.data(), client.size());
            std::memcpy(serviceName, service.data(), service.size());
            return KnStatusOk;
        });
    }
    void Accepts(KnHandle given) {
        platform.cmAccept.Once([given](const char*, const char*, std::uint32_t, KnHandle, KnHandle* handle) {
            *handle = given;
            return KnStatusOk;
        });
    }
    void AddThread(unsigned handle) {
        server->AddIpcThread<br_MessageBus_component_req, 0, br_MessageBus_component_res, 0>(
            &entity, &br_MessageBus_entity_dispatch, handle);
    }
    /// Waits until the dispatcher thread has logged its end.
    [[nodiscard]] bool AwaitEnd() { return journal.AwaitPrefix("4 operator(): operator(): "); }

    std::vector<std::string> LogsAfterEnd() {
        EXPECT_TRUE(AwaitEnd());
        server.reset();
        return journal.Logs();
    }

    br_MessageBus_component entity = fake.Entity();
    std::unique_ptr<DynamicServer> server = std::make_unique<DynamicServer>();
};

// -------------------------------------------------------------------------------------------------------------- Init

TEST_F(DynamicServerTest, Init_WithoutANameOrWithoutServices_ThrowsBeforeAnyCall) {
    EXPECT_THROW(server->Init("", {{"type", "service", 1}}), tua::CheckFailedException);
    EXPECT_THROW(server->Init("server", {}), tua::CheckFailedException);
    EXPECT_THAT(journal.All(), IsEmpty());
}

TEST_F(DynamicServerTest, Init_LogsTheStatusOfTheNameServerAndEachServiceBeforeItIsPublished) {
    server->Init("server", {{"type a", "a", 4}, {"type b", "b", 3}});
    EXPECT_THAT(journal.All(), ElementsAre("NsCreate(null, 4294967295, &handle)", "1 Init: Error code 0",
                                           "2 Init: Publishing service a, type type a",
                                           "NsPublishService(1, \"type a\", \"server\", \"a\")",
                                           "2 Init: Publishing service b, type type b",
                                           "NsPublishService(1, \"type b\", \"server\", \"b\")"));
}

TEST_F(DynamicServerTest, Init_UsesTheHandleOfTheNameServer) {
    platform.nsCreate.Once([](const char*, std::uint32_t, NsHandle* handle) {
        *handle = 17;
        return KnStatusOk;
    });
    server->Init("server", {{"type", "a", 4}});
    EXPECT_THAT(journal.Calls("NsPublishService(17, "), SizeIs(1));
}

TEST_F(DynamicServerTest, Init_WithoutTheNameServer_LogsTheStatusAndThrows) {
    platform.nsCreate.Once(-7);
    EXPECT_THROW(server->Init("server", {{"type", "a", 4}}), tua::CheckFailedException);
    EXPECT_THAT(journal.All(), ElementsAre("NsCreate(null, 4294967295, &handle)", "1 Init: Error code -7"));
}

TEST_F(DynamicServerTest, Init_WhoseServiceIsRefused_ThrowsAndDoesNotKnowTheService) {
    platform.nsPublishService.Once(KnStatusAlreadyExists);
    EXPECT_THROW(server->Init("server", {{"type", Service, 4}, {"type", "b", 5}}), tua::CheckFailedException);
    EXPECT_THAT(journal.Calls("NsPublishService"), SizeIs(1));
    Asks("client", Service);
    EXPECT_THROW(server->StartListenerThread({}), tua::CheckFailedException);
}

TEST_F(DynamicServerTest, Init_OfAServiceTwice_KeepsItsFirstInterface) {
    server->Init("server", {{"type", Service, 4}, {"type", Service, 5}});
    Asks("client", Service);
    Accepts(9);
    server->StartListenerThread({});
    EXPECT_EQ(journal.Count("KnCmAccept(\"client\", \"br.MessageBusComponent.ctl\", 4, 4294967295)"), 1U);
}

// ------------------------------------------------------------------------------------------------------- accept step

TEST_F(DynamicServerTest, Accept_OfANewService_ListensAndAcceptsToANewChannelWithALinePerStep) {
    Publish();
    Asks("client-1", Service);
    Accepts(9);
    const auto connection = server->StartListenerThread({});
    ASSERT_TRUE(connection);
    EXPECT_EQ(*connection, std::pair(std::string(Service), 9U));
    EXPECT_THAT(journal.All(),
                ElementsAre("KnCmListen(null, 5000)",
                            "1 StartListenerThread: dyn ipc: client client-1, service br.MessageBusComponent.ctl",
                            "1 StartListenerThread: dyn ipc: iid = 1",
                            "KnCmAccept(\"client-1\", \"br.MessageBusComponent.ctl\", 1, 4294967295)",
                            "2 StartListenerThread: Accept finished. Handle = 9"));
}

TEST_F(DynamicServerTest, Accept_ListensWithZeroedBuffersOf1024Bytes) {
    bool isZero = false;
    platform.cmListen.Once([&](const char*, std::uint32_t, char* clientName, char* serviceName) {
        isZero = std::all_of(clientName, clientName + 1024, [](char c) { return c == 0; }) &&
                 std::all_of(serviceName, serviceName + 1024, [](char c) { return c == 0; });
        return KnStatusTimedOut;
    });
    EXPECT_FALSE(server->StartListenerThread({}));
    EXPECT_TRUE(isZero);
}

TEST_F(DynamicServerTest, Accept_WhoseListenTimesOutOrFails_YieldsNothingWithoutALine) {
    Publish();
    for (const std::int32_t status : {std::int32_t{KnStatusTimedOut}, std::int32_t{KnStatusClosed}, 1}) {
        platform.cmListen.Once(status);
        EXPECT_FALSE(server->StartListenerThread({}));
    }
    EXPECT_THAT(journal.Logs(), IsEmpty());
    EXPECT_THAT(journal.Calls("KnCmAccept"), IsEmpty());
}

TEST_F(DynamicServerTest, Accept_OfAServiceThatIsNotPublished_ThrowsAfterItsFirstLine) {
    Publish();
    Asks("client", "other");
    try {
        server->StartListenerThread({});
        FAIL() << "no exception";
    } catch (const tua::CheckFailedException& error) {
        EXPECT_TRUE(error.Message().empty());
    }
    EXPECT_THAT(journal.All(),
                ElementsAre("KnCmListen(null, 5000)", "1 StartListenerThread: dyn ipc: client client, service other"));
}

TEST_F(DynamicServerTest, Accept_OfAnAcceptedService_JoinsItsChannelWhateverThePlatformAnswers) {
    Publish();
    Asks("client", Service);
    Accepts(33);
    const auto connection = server->StartListenerThread(Accepted{{Service, 9}});
    ASSERT_TRUE(connection);
    EXPECT_EQ(connection->second, 9U);
    EXPECT_EQ(journal.Count("KnCmAccept(\"client\", \"br.MessageBusComponent.ctl\", 1, 9)"), 1U);
    EXPECT_EQ(journal.Count("2 StartListenerThread: Accept finished. Handle = 9"), 1U);
}

TEST_F(DynamicServerTest, Accept_OfAServiceKnownWithTheInvalidHandle_TakesThePlatformsHandle) {
    Publish();
    Asks("client", Service);
    Accepts(33);
    const auto connection = server->StartListenerThread(Accepted{{Service, 0xFFFFFFFF}});
    ASSERT_TRUE(connection);
    EXPECT_EQ(connection->second, 33U);
    EXPECT_EQ(journal.Count("KnCmAccept(\"client\", \"br.MessageBusComponent.ctl\", 1, 4294967295)"), 1U);
}

TEST_F(DynamicServerTest, Accept_ThatFails_LogsTheDroppedClientAndYieldsNothing) {
    Publish();
    for (const auto& snapshot : {Accepted{}, Accepted{{Service, 9}}}) {
        Asks("client", Service);
        platform.cmAccept.Once(KnStatusPeerGone);
        EXPECT_FALSE(server->StartListenerThread(snapshot));
    }
    EXPECT_EQ(journal.Count("3 StartListenerThread: bos_ipc: accept failed, drop client = client ; service = "
                            "br.MessageBusComponent.ctl"),
              2U);
    EXPECT_THAT(journal.Logs(2), SizeIs(2));
}

TEST_F(DynamicServerTest, Accept_WithNamesThatFillTheirBuffers_UsesAllOfThem) {
    const std::string client(1024, 'c');
    const std::string service(1024, 's');
    Publish(service);
    Asks(client, service);
    Accepts(9);
    const auto connection = server->StartListenerThread({});
    ASSERT_TRUE(connection);
    EXPECT_EQ(connection->first, service);
    EXPECT_EQ(journal.Count("1 StartListenerThread: dyn ipc: client " + client + ", service " + service), 1U);
    EXPECT_EQ(journal.Count("KnCmAccept(\"" + client + "\", \"" + service + "\", 1, 4294967295)"), 1U);
}

// ------------------------------------------------------------------------------------------------- dispatcher thread

TEST_F(DynamicServerTest, Dispatcher_BindsMapsServesAndUnmapsInThisOrder) {
    Receives(Request(ProviderIid, 0));
    platform.receive.Once(KnStatusClosed);
    AddThread(9);
    ASSERT_TRUE(AwaitEnd());
    server.reset();
    EXPECT_THAT(journal.Calls(),
                ElementsAre("boost thread, stack 1048576", "NkBosTransport_Init(&transport, 9, null, 0)", MapsArena,
                            MapsArena, "Receive(9, room 1056)", "Push", "Reply(9)", "Receive(9, room 1056)",
                            "munmap(8)", "munmap(8)"));
}

TEST_F(DynamicServerTest, Dispatcher_OffersEmptyArenasJustBehindTheirStoredLength) {
    const auto isRight = [](const nk_arena* arena) {
        std::uint64_t length = 0;
        std::memcpy(&length, static_cast<const char*>(arena->start) - 8, sizeof length);
        return length == 8 && arena->start == arena->current && arena->current == arena->end;
    };
    bool received = false;
    bool dispatched = false;
    platform.receive.Once([&](NkBosTransport*, nk_message* request, nk_arena* arena) {
        received = isRight(arena);
        *request = Request(ProviderIid, 0).header;
        return KnStatusOk;
    });
    fake.onPush = [&](const void*, const nk_arena* requestArena, void*, nk_arena* responseArena) {
        dispatched = isRight(requestArena) && isRight(responseArena) && requestArena->start != responseArena->start;
        return 0;
    };
    platform.receive.Once(KnStatusClosed);
    AddThread(9);
    LogsAfterEnd();
    EXPECT_TRUE(received);
    EXPECT_TRUE(dispatched);
    EXPECT_TRUE(Replies().front().arenaIsEmpty);
}

TEST_F(DynamicServerTest, Dispatcher_ResetsSizeWordAndArenasBeforeEveryReceive) {
    std::vector<bool> requestIsReset;
    std::vector<bool> responseIsReset;
    const auto receive = [&](NkBosTransport*, nk_message* request, nk_arena* arena) {
        requestIsReset.push_back(request->size == 1056 && arena->current == arena->start);
        request->size = 24; // as a receive may leave it
        arena->current = nullptr;
        return KnStatusOk;
    };
    fake.onPush = [&](const void*, const nk_arena*, void*, nk_arena* arena) {
        responseIsReset.push_back(arena->current == arena->start);
        arena->current = nullptr; // as a handler may leave it
        return 0;
    };
    platform.receive.Once(receive);
    platform.receive.Once(receive);
    platform.receive.Once(KnStatusClosed);
    AddThread(9);
    LogsAfterEnd();
    EXPECT_THAT(requestIsReset, ElementsAre(true, true));
    EXPECT_THAT(responseIsReset, ElementsAre(true, true));
}

TEST_F(DynamicServerTest, Dispatcher_OfTheInvalidHandle_EndsWithItsCheckBeforeAnyCall) {
    AddThread(0xFFFFFFFF);
    EXPECT_THAT(LogsAfterEnd(),
                ElementsAre(MatchesRegex("4 operator\\(\\): operator\\(\\): .* - invalid handle\\. At "
                                         "messagebus/include/bos_dynamic_ipc_server\\.h\\([0-9]+\\) ")));
    EXPECT_THAT(journal.Calls(), ElementsAre("boost thread, stack 1048576"));
}

TEST_F(DynamicServerTest, Dispatcher_WithoutAnEntity_EndsWithItsCheck) {
    server->AddIpcThread<br_MessageBus_component_req, 0, br_MessageBus_component_res, 0>(
        static_cast<br_MessageBus_component*>(nullptr), &br_MessageBus_entity_dispatch, 9);
    EXPECT_THAT(LogsAfterEnd(), ElementsAre(testing::HasSubstr(" - nullptr entity. At ")));
    EXPECT_THAT(journal.Calls("NkBosTransport_Init"), IsEmpty());
}

TEST_F(DynamicServerTest, Dispatcher_ChecksTheHandleBeforeTheEntity) {
    server->AddIpcThread<br_MessageBus_component_req, 0, br_MessageBus_component_res, 0>(
        static_cast<br_MessageBus_component*>(nullptr), &br_MessageBus_entity_dispatch, 0xFFFFFFFF);
    EXPECT_THAT(LogsAfterEnd(), ElementsAre(testing::HasSubstr(" - invalid handle. At ")));
}

TEST_F(DynamicServerTest, Dispatcher_StartedWhileItsServerGoesDown_ChecksThatBehindTheHandleAndBeforeTheEntity) {
    platform.receive.Always(KnStatusClosed);
    AddThread(9);
    ASSERT_TRUE(AwaitEnd());
    DynamicServer* const goingDown = server.get();
    const auto start = [&](br_MessageBus_component* served, unsigned handle) {
        const auto lines = journal.Logs().size();
        goingDown->AddIpcThread<br_MessageBus_component_req, 0, br_MessageBus_component_res, 0>(
            served, &br_MessageBus_entity_dispatch, handle);
        EXPECT_TRUE(journal.AwaitPrefix("4 operator()", lines + 1));
    };
    bool isFirst = true;
    fault_points::BeforeBoostJoin([&] { // within the destructor, which joins the first thread
        if (std::exchange(isFirst, false)) {
            start(&entity, 10);
            start(nullptr, 11);
            start(nullptr, 0xFFFFFFFF);
        }
    });
    journal.Clear();
    server.reset();
    EXPECT_THAT(journal.Logs(), ElementsAre(testing::HasSubstr(" - shutdown is true. At "),
                                            testing::HasSubstr(" - shutdown is true. At "),
                                            testing::HasSubstr(" - invalid handle. At ")));
    EXPECT_THAT(journal.Calls("NkBosTransport_Init"), IsEmpty());
}

TEST_F(DynamicServerTest, Dispatcher_WithoutMemoryForItsArenas_EndsWithItsCheckAndUnmapsWhatItHas) {
    fault_points::mapMemory.Arm(0);
    AddThread(9);
    ASSERT_TRUE(journal.AwaitPrefix("4 operator()", 1));
    fault_points::mapMemory.Arm(1);
    AddThread(10);
    ASSERT_TRUE(journal.AwaitPrefix("4 operator()", 2));
    server.reset();
    EXPECT_THAT(journal.Logs(), ElementsAre(testing::HasSubstr(" - reqBuffer is null. At "),
                                            testing::HasSubstr(" - resBuffer is null. At ")));
    EXPECT_THAT(journal.Calls("munmap"), ElementsAre("munmap(8)"));
    EXPECT_THAT(journal.Calls("Receive"), IsEmpty());
}

TEST_F(DynamicServerTest, Dispatcher_WhoseReceiveFails_EndsWithACheckWithoutAMessage) {
    platform.receive.Once(KnStatusClosed);
    AddThread(9);
    EXPECT_THAT(LogsAfterEnd(), ElementsAre(MatchesRegex("4 operator\\(\\): operator\\(\\): [^-]*\\. At .*")));
    EXPECT_THAT(journal.Calls("munmap"), SizeIs(2));
}

TEST_F(DynamicServerTest, Dispatcher_WhoseReceiveFailsWithLevelFourDisabled_AllocatesNothingForALine) {
    log.SetThreshold(5);
    journal.Ignore("munmap"); // an entry of the journal could allocate
    platform.receive.Once([&](auto...) {
        journal.AddCall("failing");
        fault_points::FailAllocation(std::this_thread::get_id());
        return KnStatusClosed;
    });
    AddThread(9);
    ASSERT_TRUE(journal.Await("failing"));
    server.reset(); // an exception that leaves the thread would have ended the process
    EXPECT_THAT(journal.Logs(), IsEmpty());
}

TEST_F(DynamicServerTest, Dispatcher_WhoseDispatchFails_EndsWithoutAReply) {
    Receives(Request(5, 0));
    AddThread(9);
    EXPECT_THAT(LogsAfterEnd(), ElementsAre(MatchesRegex("4 operator\\(\\): operator\\(\\): [^-]*\\. At .*")));
    EXPECT_THAT(Replies(), IsEmpty());
    EXPECT_THAT(journal.Calls("munmap"), SizeIs(2));
}

TEST_F(DynamicServerTest, Dispatcher_WhoseDispatchAnswersMinus42_EndsAsAfterAnyOtherFailure) {
    fake.onPush = [](auto...) { return -42; };
    Receives(Request(ProviderIid, 0));
    AddThread(9);
    EXPECT_THAT(LogsAfterEnd(), ElementsAre(MatchesRegex("4 operator\\(\\): operator\\(\\): [^-]*\\. At .*")));
    EXPECT_THAT(Replies(), IsEmpty());
    EXPECT_THAT(journal.Calls("Receive"), SizeIs(1));
}

TEST_F(DynamicServerTest, Dispatcher_WhoseReplyFails_Ends) {
    Receives(Request(ProviderIid, 0));
    platform.reply.Once(KnStatusClosed);
    AddThread(9);
    EXPECT_THAT(LogsAfterEnd(), ElementsAre(MatchesRegex("4 operator\\(\\): operator\\(\\): [^-]*\\. At .*")));
    EXPECT_THAT(journal.Calls("Receive"), SizeIs(1));
}

TEST_F(DynamicServerTest, Dispatcher_WhoseHandlerThrowsAStandardException_EndsWithItsText) {
    fake.onPush = [](auto...) -> std::int32_t { throw std::runtime_error("broken"); };
    Receives(Request(ProviderIid, 0));
    AddThread(9);
    EXPECT_THAT(LogsAfterEnd(), ElementsAre("4 operator(): operator(): broken"));
    EXPECT_THAT(journal.Calls("munmap"), SizeIs(2));
}

TEST_F(DynamicServerTest, Dispatcher_WhoseHandlerThrowsAnythingElse_EndsAsUnknown) {
    fake.onPush = [](auto...) -> std::int32_t { throw 42; };
    Receives(Request(ProviderIid, 0));
    AddThread(9);
    EXPECT_THAT(LogsAfterEnd(), ElementsAre("4 operator(): operator(): Unknown exception"));
    EXPECT_THAT(journal.Calls("munmap"), SizeIs(2));
}

TEST_F(DynamicServerTest, AddIpcThread_OfAHandleThatHasAThread_DoesNothingEvenWhenThatHasEnded) {
    platform.receive.Always(KnStatusClosed);
    AddThread(9);
    ASSERT_TRUE(AwaitEnd());
    AddThread(9);
    server.reset();
    EXPECT_THAT(journal.Calls("boost thread"), SizeIs(1));
}

TEST_F(DynamicServerTest, AddIpcThread_RoundsTheStackUpToWholePages) {
    fault_points::SetPageSize(3 * 4096);
    platform.receive.Always(KnStatusClosed);
    AddThread(9);
    LogsAfterEnd();
    EXPECT_THAT(journal.Calls("boost thread"), ElementsAre("boost thread, stack 1056768"));
}

TEST_F(DynamicServerTest, AddIpcThread_WithoutAThread_Throws) {
    fault_points::boostThreadStart.Arm();
    EXPECT_THROW(AddThread(9), boost::thread_resource_error);
}

// -------------------------------------------------------------------------------------------------------- destructor

TEST_F(DynamicServerTest, Destructor_EndsADispatcherAfterTheReplyThatFindsTheShutdown) {
    Gate receiving;
    Gate joining;
    Receives(Request(ProviderIid, 0));
    Receives(Request(ProviderIid, 0), [&] { receiving.Pass(); });
    fault_points::BeforeBoostJoin([&] { joining.Pass(); }); // the shutdown flag is set before
    AddThread(9);
    receiving.AwaitReached();
    EXPECT_THAT(Replies(), SizeIs(1));
    std::thread destroying([&] { server.reset(); });
    joining.AwaitReached();
    joining.Open();
    receiving.Open();
    destroying.join();
    EXPECT_THAT(Replies(), SizeIs(2));
    EXPECT_THAT(journal.Calls("Receive"), SizeIs(2));
    EXPECT_THAT(journal.Calls("munmap"), SizeIs(2));
    EXPECT_THAT(journal.Logs(), IsEmpty());
}

TEST_F(DynamicServerTest, Destructor_WhoseJoinFails_LogsItAndJoinsTheOthers) {
    platform.receive.Always(KnStatusClosed);
    AddThread(9);
    AddThread(10);
    ASSERT_TRUE(journal.AwaitPrefix("4 operator()", 2));
    int joins = 0;
    fault_points::BeforeBoostJoin([&] { ++joins; });
    fault_points::boostThreadJoin.Arm();
    server.reset();
    EXPECT_EQ(joins, 2);
    EXPECT_THAT(journal.Logs(),
                testing::Contains(testing::StartsWith("4 ~DynamicServer: Cannot join thread: scripted join failure")));
    EXPECT_THAT(journal.Logs(), SizeIs(3));
}

TEST_F(DynamicServerTest, Destructor_OfAnEmptyServer_DoesNothing) {
    server.reset();
    EXPECT_THAT(journal.All(), IsEmpty());
}

} // namespace
