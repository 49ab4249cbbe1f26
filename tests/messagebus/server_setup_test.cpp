// Defends how the IPC server is built, registered or published, and started: every platform call with its arguments and
// in its order. No client finds a service that is published under another name.
#include "support/ipc_harness.h"

#include <pthread.h>

#include <stdexcept>
#include <type_traits>

namespace {

using bos_ipc::IpcServer;
using message_bus::ConnectionType;
using test_support::IpcTest;
using test_support::Request;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
namespace fault_points = test_support::fault_points;

constexpr auto Other = static_cast<ConnectionType>(2);
constexpr auto StartsThread = "boost thread, stack 1048576";

class ServerSetupTest : public IpcTest {
protected:
    static void Throw() { throw std::runtime_error("out of paper"); }

    /// Removes the record that a failed thread start leaves behind, so that the server can be destroyed.
    static void RemoveLeftOver(IpcServer& server) { IpcServer::RemoveThread(boost::thread::id(), &server); }

    /// Starts a worker that ends, and waits until it is removed.
    static void RunAsWorkerBeside(IpcServer& server) {
        std::promise<void> joining; // under the pool's lock
        fault_points::BeforeBoostJoin([&] { joining.set_value(); });
        server.CreateThread([] {});
        joining.get_future().wait();
        EXPECT_EQ(server.GetCurrentIpcThread(), nullptr); // takes that lock
        fault_points::BeforeBoostJoin(nullptr);
    }
};

static_assert(std::is_nothrow_constructible_v<IpcServer, ConnectionType>);
static_assert(!std::is_polymorphic_v<IpcServer>);
static_assert(sizeof(ConnectionType) == 4 && static_cast<int>(ConnectionType::Static) == 0 &&
              static_cast<int>(ConnectionType::Dynamic) == 1);

// ------------------------------------------------------------------------------------------------------ construction

TEST_F(ServerSetupTest, Constructor_CallsNothingOfThePlatformAndIsNotStopped) {
    IpcServer server(ConnectionType::Static);
    EXPECT_FALSE(server.ShouldBeStopped());
    EXPECT_THAT(journal.All(), IsEmpty());
}

TEST_F(ServerSetupTest, Workers_HaveAStackOfExactlyOneMebibyte) {
    IpcServer server(ConnectionType::Static);
    std::size_t stackSize = 0;
    RunAsWorker(server, [&] {
        pthread_attr_t attributes;
        pthread_getattr_np(pthread_self(), &attributes);
        pthread_attr_getstacksize(&attributes, &stackSize);
        pthread_attr_destroy(&attributes);
    });
    EXPECT_EQ(stackSize, 1048576U);
}

TEST_F(ServerSetupTest, Workers_HaveAStackRoundedUpToWholePages) {
    fault_points::SetPageSize(3 * 4096);
    IpcServer server(ConnectionType::Static);
    RunAsWorker(server, [] {});
    EXPECT_THAT(journal.Calls(), ElementsAre("boost thread, stack 1056768", "boost thread, stack 1056768"));
    EXPECT_EQ(bos_ipc::DispatcherStackSize(), 1056768U); // Boost would round it too
}

// ------------------------------------------------------------------------------------------------------- static mode

TEST_F(ServerSetupTest, InitStatic_RegistersAnEmptyListUnderItsNameThenBindsTheTransportWithoutAnArena) {
    platform.serviceLocatorRegister.Once(7);
    IpcServer server(ConnectionType::Static);
    EXPECT_EQ(Init(server), 0);
    EXPECT_THAT(journal.All(), ElementsAre("ServiceLocatorRegister(\"msgbus_connection_id\", 0, &iid)",
                                           "NkBosTransport_Init(&transport, 7, null, 0)"));
}

TEST_F(ServerSetupTest, InitStatic_WithTheInvalidHandle_ReturnsSixLogsItAndLeavesTheTransportZeroed) {
    platform.serviceLocatorRegister.Once(KnInvalidHandle);
    IpcServer server(ConnectionType::Static);
    EXPECT_EQ(Init(server), 6);
    EXPECT_THAT(journal.Logs(), ElementsAre("4 InitStatic: InitStatic: ServiceLocatorRegister failed: Invalid handle"));
    EXPECT_THAT(journal.Calls("NkBosTransport_Init"), IsEmpty());
    EXPECT_EQ(server.DispatchStatic(), 0); // Run does not check Init: a worker serves the zeroed transport
    EXPECT_THAT(journal.Calls("Receive"), ElementsAre("Receive(0, room 1056)"));
    EXPECT_THAT(journal.Logs(), SizeIs(2));
}

TEST_F(ServerSetupTest, Init_TakesTheRecordsEvenWhenItFails) {
    platform.serviceLocatorRegister.Once(KnInvalidHandle);
    IpcServer server(ConnectionType::Static);
    EXPECT_EQ(Init(server), 6);
    Receives(Request(test_support::ProviderIid, 0));
    EXPECT_EQ(server.DispatchStatic(), 0);
    EXPECT_EQ(journal.Count("Push"), 1U);
}

TEST_F(ServerSetupTest, Init_ASecondTimeInStaticMode_RegistersAndBindsAgainAndTakesTheNewRecords) {
    IpcServer server(ConnectionType::Static);
    platform.serviceLocatorRegister.Once(7);
    platform.serviceLocatorRegister.Once(8);
    EXPECT_EQ(Init(server), 0);
    test_support::FakeEntity second;
    int served = 0;
    second.onPush = [&](auto...) { return ++served, 0; };
    EXPECT_EQ(server.Init(second.Entity(), second.Component()), 0);
    EXPECT_THAT(journal.Calls("NkBosTransport_Init"), ElementsAre("NkBosTransport_Init(&transport, 7, null, 0)",
                                                                  "NkBosTransport_Init(&transport, 8, null, 0)"));
    Receives(Request(test_support::ProviderIid, 0));
    EXPECT_EQ(server.DispatchStatic(), 0);
    EXPECT_EQ(served, 1);
}

TEST_F(ServerSetupTest, Init_WhoseFailureLineThrows_ReturnsSixWithALineOfItsOwn) {
    platform.serviceLocatorRegister.Once(KnInvalidHandle);
    log.Before("4 InitStatic", Throw);
    IpcServer server(ConnectionType::Static);
    EXPECT_EQ(Init(server), 6);
    EXPECT_THAT(journal.Logs(), ElementsAre("4 Init: Cannot init ipc server"));
}

// ------------------------------------------------------------------------------------------------------ dynamic mode

TEST_F(ServerSetupTest, InitDynamic_PublishesProviderSubsAndCtlInThisOrderUnderTheTasksName) {
    IpcServer server(ConnectionType::Dynamic);
    EXPECT_EQ(Init(server), 0);
    EXPECT_THAT(
        journal.All(),
        ElementsAre("KnTaskGetName(&buffer, 1024)", "NsCreate(null, 4294967295, &handle)", "1 Init: Error code 0",
                    "2 Init: Publishing service br.MessageBusComponent.provider, type br.MessageBusProvider",
                    "NsPublishService(1, \"br.MessageBusProvider\", \"scripted\", \"br.MessageBusComponent.provider\")",
                    "2 Init: Publishing service br.MessageBusComponent.subs, type br.MessageBusSubs",
                    "NsPublishService(1, \"br.MessageBusSubs\", \"scripted\", \"br.MessageBusComponent.subs\")",
                    "2 Init: Publishing service br.MessageBusComponent.ctl, type br.MessageBusCtl",
                    "NsPublishService(1, \"br.MessageBusCtl\", \"scripted\", \"br.MessageBusComponent.ctl\")"));
}

TEST_F(ServerSetupTest, Init_WithoutATaskName_ReturnsTenLogsItAndPublishesNothing) {
    platform.taskGetName.Once(KnStatusInvalidArgument);
    IpcServer server(ConnectionType::Dynamic);
    EXPECT_EQ(Init(server), 10);
    EXPECT_THAT(journal.All(), ElementsAre("KnTaskGetName(&buffer, 1024)", "4 Init: Cannot get task name"));
}

TEST_F(ServerSetupTest, Init_WithATaskNameThatFillsTheBuffer_UsesAllOfIt) {
    platform.taskGetName.Once([](char* buffer, std::size_t sizeBytes) {
        std::memset(buffer, 'n', sizeBytes);
        return KnStatusOk;
    });
    platform.nsPublishService.Always(KnStatusOk);
    IpcServer server(ConnectionType::Dynamic);
    EXPECT_EQ(Init(server), 0);
    EXPECT_THAT(journal.Calls("NsPublishService(1, \"br.MessageBusCtl\", \"" + std::string(1024, 'n') + "\", "),
                SizeIs(1));
}

TEST_F(ServerSetupTest, Init_WithAnEmptyTaskName_ReturnsSixAndPublishesNothing) {
    platform.taskGetName.Once([](char* buffer, std::size_t) {
        *buffer = '\0';
        return KnStatusOk;
    });
    IpcServer server(ConnectionType::Dynamic);
    EXPECT_EQ(Init(server), 6);
    EXPECT_THAT(journal.All(), ElementsAre("KnTaskGetName(&buffer, 1024)", "4 InitDynamic: Error during InitDynamic"));
}

TEST_F(ServerSetupTest, Init_WithoutTheNameServer_LogsItsStatusAndReturnsSix) {
    platform.nsCreate.Once(KnStatusNoResources);
    IpcServer server(ConnectionType::Dynamic);
    EXPECT_EQ(Init(server), 6);
    EXPECT_THAT(journal.All(), ElementsAre("KnTaskGetName(&buffer, 1024)", "NsCreate(null, 4294967295, &handle)",
                                           "1 Init: Error code -9", "4 InitDynamic: Error during InitDynamic"));
}

TEST_F(ServerSetupTest, Init_WhoseSecondServiceIsRefused_ReturnsSixWithTheFirstPublishedAndTheThirdNotTried) {
    platform.nsPublishService.Once(KnStatusOk);
    platform.nsPublishService.Once(KnStatusAlreadyExists);
    IpcServer server(ConnectionType::Dynamic);
    EXPECT_EQ(Init(server), 6);
    EXPECT_THAT(journal.Calls("NsPublishService"), SizeIs(2));
    EXPECT_THAT(journal.Logs(4), ElementsAre("4 InitDynamic: Error during InitDynamic"));
}

TEST_F(ServerSetupTest, InitDynamic_CatchesWhateverIsThrown) {
    log.Before("2 Init", [] { throw 42; });
    IpcServer server(ConnectionType::Dynamic);
    EXPECT_EQ(Init(server), 6);
    EXPECT_THAT(journal.Logs(2), ElementsAre("4 InitDynamic: Error during InitDynamic"));
}

TEST_F(ServerSetupTest, InitDynamic_WithoutServices_ReturnsSix) {
    IpcServer server(ConnectionType::Dynamic);
    EXPECT_EQ(server.InitDynamic("server", {}), 6);
    EXPECT_THAT(journal.All(), ElementsAre("4 InitDynamic: Error during InitDynamic"));
}

TEST_F(ServerSetupTest, Init_WithoutMemoryForTheServices_ReturnsSixWithALineOfItsOwn) {
    IpcServer server(ConnectionType::Dynamic);
    fault_points::FailAllocation(std::this_thread::get_id());
    EXPECT_EQ(Init(server), 6);
    EXPECT_THAT(journal.All(), ElementsAre("4 Init: Cannot init ipc server"));
}

TEST_F(ServerSetupTest, Init_ASecondTimeInDynamicMode_PublishesAgain) {
    platform.nsPublishService.Always(KnStatusOk);
    IpcServer server(ConnectionType::Dynamic);
    EXPECT_EQ(Init(server), 0);
    EXPECT_EQ(Init(server), 0);
    EXPECT_THAT(journal.Calls("NsPublishService"), SizeIs(6));
}

TEST_F(ServerSetupTest, Init_OfAnUnknownMode_IsThatOfTheDynamicOneWhileRunStartsNothing) {
    IpcServer server(Other);
    EXPECT_EQ(Init(server), 0);
    EXPECT_THAT(journal.Calls("NsPublishService"), SizeIs(3));
    EXPECT_EQ(server.Run(), 0);
    EXPECT_THAT(journal.Calls("boost thread"), IsEmpty());
}

// --------------------------------------------------------------------------------------------------------------- Run

TEST_F(ServerSetupTest, Run_InStaticMode_StartsExactlyOneWorkerThatServesTheChannel) {
    IpcServer server(ConnectionType::Static);
    EXPECT_EQ(Init(server), 0);
    Receives(Request(test_support::ProviderIid, 0), [&] { server.SetStopSignal(); });
    EXPECT_EQ(server.Run(), 0);
    server.WaitAllThreads();
    EXPECT_THAT(journal.Calls("boost thread"), ElementsAre(StartsThread, StartsThread)); // the worker and its remover
    EXPECT_THAT(Replies(), SizeIs(1));
}

TEST_F(ServerSetupTest, Run_InDynamicMode_StartsExactlyOneWorkerThatListens) {
    IpcServer server(ConnectionType::Dynamic);
    EXPECT_EQ(Init(server), 0);
    platform.cmListen.Once([&](auto...) {
        server.SetStopSignal();
        return KnStatusTimedOut;
    });
    EXPECT_EQ(server.Run(), 0);
    server.WaitAllThreads();
    EXPECT_THAT(journal.Calls("boost thread"), ElementsAre(StartsThread, StartsThread));
    EXPECT_THAT(journal.Calls("KnCmListen"), ElementsAre("KnCmListen(null, 5000)"));
}

TEST_F(ServerSetupTest, Run_AfterAFailedInit_ServesTheZeroedTransport) {
    platform.serviceLocatorRegister.Once(KnInvalidHandle);
    IpcServer server(ConnectionType::Static);
    EXPECT_EQ(Init(server), 6);
    Receives(Request(test_support::ProviderIid, 0), [&] { server.SetStopSignal(); });
    EXPECT_EQ(server.Run(), 0);
    server.WaitAllThreads();
    EXPECT_THAT(journal.Calls("Receive"), ElementsAre("Receive(0, room 1056)"));
    EXPECT_THAT(Replies(), SizeIs(1));
}

TEST_F(ServerSetupTest, Run_WithoutAThread_ReturnsZeroAllTheSameAndLeavesARecordThatWaitAllThreadsWaitsFor) {
    IpcServer server(ConnectionType::Static);
    fault_points::boostThreadStart.Arm();
    EXPECT_EQ(server.Run(), 0);
    EXPECT_THAT(journal.Logs(), ElementsAre("4 CreateThread: Error during CreateThread"));
    std::thread waiting([&] {
        server.WaitAllThreads();
        journal.AddCall("all gone");
    });
    EXPECT_TRUE(fault_points::AwaitSleepingOnAtomic(waiting.get_id()));
    RunAsWorkerBeside(server); // its removal wakes the thread that waits
    journal.AddCall("removing");
    RemoveLeftOver(server);
    waiting.join();
    EXPECT_THAT(journal.Calls("all gone"), SizeIs(1));
    const auto all = journal.All();
    EXPECT_LT(std::find(all.begin(), all.end(), "removing"), std::find(all.begin(), all.end(), "all gone"));
}

TEST_F(ServerSetupTest, Run_WhoseFailureLineThrows_ReturnsTenWithALineOfItsOwn) {
    IpcServer server(ConnectionType::Static);
    fault_points::boostThreadStart.Arm();
    log.Before("4 CreateThread", Throw);
    EXPECT_EQ(server.Run(), 10);
    EXPECT_THAT(journal.Logs(), ElementsAre("4 Run: Error during Run"));
    RemoveLeftOver(server);
}

} // namespace
