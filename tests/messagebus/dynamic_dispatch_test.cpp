// Defends the dynamic side of the IPC server: which thread serves an accepted client, how a worker hands serving over,
// and that a failing pass does not end the service of other clients.
#include "support/bus_harness.h"
#include "support/ipc_harness.h"

#include <latch>
#include <stdexcept>

namespace {

using bos_ipc::IpcServer;
using message_bus::ConnectionType;
using test_support::CtlIid;
using test_support::Gate;
using test_support::IpcTest;
using test_support::ProviderIid;
using test_support::Request;
using test_support::SubsIid;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
namespace fault_points = test_support::fault_points;

constexpr auto Provider = "br.MessageBusComponent.provider";
constexpr auto Subs = "br.MessageBusComponent.subs";
constexpr auto Ctl = "br.MessageBusComponent.ctl";
constexpr auto StartsThread = "boost thread, stack 1048576";
constexpr auto MapsArena = "mmap(null, 8, 3, 0x22, -1, 0)";

class DynamicDispatchTest : public IpcTest {
protected:
    DynamicDispatchTest() {
        EXPECT_EQ(Init(*server), 0);
        journal.Clear();
    }

    /// A client asks for `service` and is accepted to `handle`.
    void Asks(const std::string& service, KnHandle handle) {
        platform.cmListen.Once([=](const char*, std::uint32_t, char* clientName, char* serviceName) {
            std::strcpy(clientName, "client");
            std::memcpy(serviceName, service.data(), service.size());
            return KnStatusOk;
        });
        platform.cmAccept.Once([=](const char*, const char*, std::uint32_t, KnHandle, KnHandle* given) {
            *given = handle;
            return KnStatusOk;
        });
    }
    std::string Creating(unsigned handle, const std::string& service) {
        return "1 DispatchDynamic: MSB_CONNECT: Creating dispatch thread for new handle [" + std::to_string(handle) +
               "], service [" + service + "]";
    }
    std::string Binding(unsigned handle) {
        return "NkBosTransport_Init(&transport, " + std::to_string(handle) + ", null, 0)";
    }

    std::unique_ptr<IpcServer> server = std::make_unique<IpcServer>(ConnectionType::Dynamic);
};

using DynamicDispatchDeathTest = DynamicDispatchTest;

// --------------------------------------------------------------------------------------------------- DispatchDynamic

TEST_F(DynamicDispatchTest, DispatchDynamic_WhoseListenTimesOut_EndsTheCycleSilently) {
    platform.cmListen.Once(KnStatusTimedOut);
    EXPECT_EQ(server->DispatchDynamic(), 0);
    EXPECT_THAT(journal.All(), ElementsAre("KnCmListen(null, 5000)"));
}

TEST_F(DynamicDispatchTest, DispatchDynamic_OfTheFirstSubscriberClient_StartsAPoolWorkerThatKnowsItsHandle) {
    Asks(Subs, 9);
    unsigned handle = 0;
    fake.onWait = [&](auto...) {
        const auto self = server->GetCurrentIpcThread();
        handle = self ? self->handle : 0;
        server->SetStopSignal();
        return 0;
    };
    Receives(Request(SubsIid, 0));
    EXPECT_EQ(server->DispatchDynamic(), 0);
    server->WaitAllThreads();
    EXPECT_EQ(handle, 9U);
    EXPECT_EQ(journal.Count(Creating(9, Subs)), 1U);
    EXPECT_EQ(journal.Count("KnCmAccept(\"client\", \"br.MessageBusComponent.subs\", 2, 4294967295)"), 1U);
}

TEST_F(DynamicDispatchTest, DispatchDynamic_OfTheFirstClientOfAnotherService_StartsAThreadOutsideThePool) {
    for (const auto& [service, iid, handle] : {std::tuple(Provider, "0", 9U), std::tuple(Ctl, "1", 10U)}) {
        Asks(service, handle);
        bool isWorker = true;
        const auto serve = [&](auto...) {
            isWorker = server->GetCurrentIpcThread() != nullptr;
            return 0;
        };
        fake.onPush = serve;
        fake.onCtl = serve;
        Receives(Request(*iid == '0' ? ProviderIid : CtlIid, 0));
        platform.receive.Once(KnStatusClosed);
        EXPECT_EQ(server->DispatchDynamic(), 0);
        ASSERT_TRUE(journal.AwaitPrefix("4 operator()", handle - 8));
        EXPECT_FALSE(isWorker);
        EXPECT_EQ(journal.Count(Creating(handle, service)), 1U);
        EXPECT_EQ(journal.Count("KnCmAccept(\"client\", \"" + std::string(service) + "\", " + iid + ", 4294967295)"),
                  1U);
    }
    EXPECT_THAT(journal.Calls("boost thread"), ElementsAre(StartsThread, StartsThread)); // no removers
}

TEST_F(DynamicDispatchTest, DispatchDynamic_OfAFurtherClient_JoinsTheChannelWithoutANewDispatcher) {
    platform.receive.Always(KnStatusClosed);
    Asks(Ctl, 9);
    EXPECT_EQ(server->DispatchDynamic(), 0);
    Asks(Ctl, 77);
    EXPECT_EQ(server->DispatchDynamic(), 0);
    Asks(Ctl, 78);
    EXPECT_EQ(server->DispatchDynamic(), 0);
    EXPECT_EQ(journal.Count("KnCmAccept(\"client\", \"br.MessageBusComponent.ctl\", 1, 9)"), 2U);
    EXPECT_THAT(journal.Calls("boost thread"), SizeIs(1));
    EXPECT_EQ(journal.Count(Creating(9, Ctl)), 1U);
}

TEST_F(DynamicDispatchTest, DispatchDynamic_OfALaterClient_UpdatesTheStoredHandleOnly) {
    Asks(Ctl, 0xFFFFFFFF); // accepted without a channel
    EXPECT_EQ(server->DispatchDynamic(), 0);
    ASSERT_TRUE(journal.AwaitPrefix("4 operator(): operator(): "));
    Asks(Ctl, 9);
    EXPECT_EQ(server->DispatchDynamic(), 0);
    Asks(Ctl, 10);
    EXPECT_EQ(server->DispatchDynamic(), 0);
    EXPECT_EQ(journal.Count("KnCmAccept(\"client\", \"br.MessageBusComponent.ctl\", 1, 4294967295)"), 2U);
    EXPECT_EQ(journal.Count("KnCmAccept(\"client\", \"br.MessageBusComponent.ctl\", 1, 9)"), 1U);
    EXPECT_THAT(journal.Calls("boost thread"), SizeIs(1));
}

TEST_F(DynamicDispatchTest, DispatchDynamic_WhoseAcceptFails_StartsAndRemembersNothing) {
    platform.cmAccept.Once(KnStatusPeerGone);
    Asks(Subs, 9);
    EXPECT_EQ(server->DispatchDynamic(), 0);
    EXPECT_THAT(journal.Calls("boost thread"), IsEmpty());
    RunAsWorker(*server, [&] { EXPECT_EQ(server->DispatchIpcServer(), 5); });
}

TEST_F(DynamicDispatchTest, DispatchDynamic_CallsThePlatformWithoutItsLock) {
    int within = 0;
    platform.cmListen.Once([&](auto...) {
        within = server->DispatchIpcServer(); // looks the connections up
        return KnStatusTimedOut;
    });
    RunAsWorker(*server, [&] { server->DispatchDynamic(); });
    EXPECT_EQ(within, 5);
}

TEST_F(DynamicDispatchTest, DispatchDynamic_RacingForTheFirstClientsOfAService_MayStartTwoDispatchers) {
    platform.receive.Always(KnStatusClosed);
    Gate listening;
    platform.cmListen.Once([&](const char*, std::uint32_t, char*, char* serviceName) {
        listening.Pass();
        std::strcpy(serviceName, Ctl);
        return KnStatusOk;
    });
    std::thread other([&] { server->DispatchDynamic(); });
    listening.AwaitReached(); // the snapshot is taken
    Asks(Ctl, 9);
    EXPECT_EQ(server->DispatchDynamic(), 0);
    platform.cmAccept.Once([](const char*, const char*, std::uint32_t, KnHandle, KnHandle* given) {
        *given = 10;
        return KnStatusOk;
    });
    listening.Open();
    other.join();
    EXPECT_EQ(journal.Count(Creating(9, Ctl)), 1U);
    EXPECT_EQ(journal.Count(Creating(10, Ctl)), 1U);
    Asks(Ctl, 11);
    EXPECT_EQ(server->DispatchDynamic(), 0);
    EXPECT_EQ(journal.Count("KnCmAccept(\"client\", \"br.MessageBusComponent.ctl\", 1, 10)"),
              1U); // the later handle stays
}

// --------------------------------------------------------------------------------------------------- RunDynamicLoop

TEST_F(DynamicDispatchTest, RunDynamicLoop_TestsTheStopSignalBeforeEachCycle) {
    platform.cmListen.Once(KnStatusTimedOut);
    platform.cmListen.Once([&](auto...) {
        server->SetStopSignal();
        return KnStatusTimedOut;
    });
    server->RunDynamicLoop();
    server->RunDynamicLoop();
    EXPECT_THAT(journal.All(), ElementsAre("KnCmListen(null, 5000)", "KnCmListen(null, 5000)"));
}

TEST_F(DynamicDispatchTest, RunDynamicLoop_TestsTheMarkerAfterEachCycle) {
    platform.cmListen.Always(KnStatusTimedOut);
    RunAsWorker(*server, [&] {
        EXPECT_EQ(server->ShutdownIpcServer(), 0);
        server->RunDynamicLoop();
    });
    EXPECT_THAT(journal.Calls("KnCmListen"), SizeIs(1));
}

TEST_F(DynamicDispatchTest, RunDynamicLoop_WithAClientOfAnUnknownService_LogsItAndEnds) {
    Asks("nobody's", 9);
    EXPECT_NO_THROW(server->RunDynamicLoop());
    EXPECT_THAT(journal.Logs(2), ElementsAre("4 RunDynamicLoop: Error during RunDynamicLoop"));
    EXPECT_THAT(journal.Calls("KnCmAccept"), IsEmpty());
}

// ------------------------------------------------------------------------------------------------- RunIpcDispatcher

TEST_F(DynamicDispatchTest, RunIpcDispatcher_BuildsEverythingAnewForEachPass) {
    Receives(Request(SubsIid, 0));
    Receives(Request(ProviderIid, 0), [&] { server->SetStopSignal(); });
    server->RunIpcDispatcher(9);
    EXPECT_THAT(journal.All(), ElementsAre(Binding(9), MapsArena, MapsArena, "Receive(9, room 1056)", "Wait",
                                           "Reply(9)", "munmap(8)", "munmap(8)", Binding(9), MapsArena, MapsArena,
                                           "Receive(9, room 1056)", "Push", "Reply(9)", "munmap(8)", "munmap(8)"));
}

TEST_F(DynamicDispatchTest, RunIpcDispatcher_WithTheStopSignalSet_MakesNoPassButStoresItsHandle) {
    server->SetStopSignal();
    RunAsWorker(*server, [&] {
        server->RunIpcDispatcher(9);
        EXPECT_EQ(server->GetCurrentIpcThread()->handle, 9U);
    });
    EXPECT_THAT(journal.Calls("NkBosTransport_Init"), IsEmpty());
}

TEST_F(DynamicDispatchTest, RunIpcDispatcher_WhosePassFails_LogsItUnmapsAndGoesOn) {
    platform.receive.Once(KnStatusInvalidArgument);
    Receives(Request(7, 0)); // the dispatch fails
    Receives(Request(ProviderIid, 0));
    platform.reply.Once(KnStatusInvalidArgument);
    Receives(Request(ProviderIid, 0), [&] { server->SetStopSignal(); });
    server->RunIpcDispatcher(9);
    EXPECT_THAT(journal.Calls("Receive"), SizeIs(4));
    EXPECT_THAT(journal.Calls("Reply"), SizeIs(2));
    EXPECT_THAT(journal.Calls("munmap"), SizeIs(8));
    EXPECT_THAT(journal.Logs(), SizeIs(3));
    EXPECT_THAT(journal.Logs(), testing::Each(testing::MatchesRegex(
                                    "4 RunIpcDispatcher: RunIpcDispatcher: [^-]*\\. At messagebus/.*\\([0-9]+\\) ")));
}

TEST_F(DynamicDispatchTest, RunIpcDispatcher_WhoseDispatchAnswersMinus42_FailsThatPassAsAfterAnyOtherFailure) {
    fake.onPush = [](auto...) { return -42; };
    Receives(Request(ProviderIid, 0));
    Receives(Request(SubsIid, 0), [&] { server->SetStopSignal(); });
    server->RunIpcDispatcher(9);
    EXPECT_THAT(journal.Logs(), ElementsAre(testing::MatchesRegex(
                                    "4 RunIpcDispatcher: RunIpcDispatcher: [^-]*\\. At messagebus/.*\\([0-9]+\\) ")));
    EXPECT_THAT(Replies(), SizeIs(1)); // to the second request
}

TEST_F(DynamicDispatchTest, RunIpcDispatcher_WhosePassFailsWithLevelFourDisabled_AllocatesNothingForALine) {
    log.SetThreshold(5);
    journal.Ignore("munmap"); // an entry of the journal could allocate
    platform.receive.Once([&](auto...) {
        server->SetStopSignal();
        fault_points::FailAllocation(std::this_thread::get_id());
        return KnStatusClosed;
    });
    EXPECT_NO_THROW(server->RunIpcDispatcher(9));
    fault_points::DisarmAllocation();
}

TEST_F(DynamicDispatchTest, RunIpcDispatcher_OfTheInvalidHandle_FailsItsCheckInEveryPass) {
    int passes = 0;
    log.Before("4 RunIpcDispatcher", [&] {
        if (++passes == 3) {
            server->SetStopSignal();
        }
    });
    server->RunIpcDispatcher(0xFFFFFFFF);
    EXPECT_THAT(journal.All(), SizeIs(3));
    EXPECT_THAT(journal.Logs(), testing::Each(testing::HasSubstr(" - invalid handle. At ")));
}

TEST_F(DynamicDispatchTest, RunIpcDispatcher_WithoutMemoryForItsArenas_FailsItsChecksAndGoesOn) {
    fault_points::mapMemory.Arm(0);
    log.Before("4 RunIpcDispatcher", [&] {
        if (!journal.Logs().empty()) {
            server->SetStopSignal();
        } else {
            fault_points::mapMemory.Arm(1);
        }
    });
    server->RunIpcDispatcher(9);
    EXPECT_THAT(journal.Logs(), ElementsAre(testing::HasSubstr(" - reqBuffer is null. At "),
                                            testing::HasSubstr(" - resBuffer is null. At ")));
    EXPECT_THAT(journal.Calls("munmap"), ElementsAre("munmap(8)"));
}

TEST_F(DynamicDispatchTest, RunIpcDispatcher_WhoseHandlerThrows_LogsItAndGoesOn) {
    fake.onPush = [](auto...) -> std::int32_t { throw std::runtime_error("broken"); };
    fake.onCtl = [](auto...) -> std::int32_t { throw 42; };
    Receives(Request(ProviderIid, 0));
    Receives(Request(CtlIid, 0));
    Receives(Request(SubsIid, 0), [&] { server->SetStopSignal(); });
    server->RunIpcDispatcher(9);
    EXPECT_THAT(journal.Logs(), ElementsAre("4 RunIpcDispatcher: RunIpcDispatcher: broken",
                                            "4 RunIpcDispatcher: RunIpcDispatcher: Unknown exception"));
    EXPECT_THAT(Replies(), SizeIs(1));
    EXPECT_THAT(journal.Calls("munmap"), SizeIs(6));
}

TEST_F(DynamicDispatchTest, RunIpcDispatcher_OfARetiredWorker_RepliesAndEnds) {
    fake.onWait = [&](auto...) { return server->ShutdownIpcServer(); };
    Receives(Request(SubsIid, 0));
    RunAsWorker(*server, [&] { server->RunIpcDispatcher(9); });
    EXPECT_THAT(Replies(), SizeIs(1));
    EXPECT_FALSE(server->ShouldBeStopped());
}

TEST_F(DynamicDispatchTest, RunIpcDispatcher_OfAWorkerRetiredInAFailingPass_Ends) {
    fake.onWait = [&](auto...) -> std::int32_t {
        server->ShutdownIpcServer();
        throw std::runtime_error("broken");
    };
    Receives(Request(SubsIid, 0));
    RunAsWorker(*server, [&] { server->RunIpcDispatcher(9); });
    EXPECT_THAT(journal.Calls("Receive"), SizeIs(1));
}

TEST_F(DynamicDispatchTest, CreateIpcDispatcher_RunsTheDispatcherOnAPoolWorker) {
    Receives(Request(SubsIid, 0), [&] { server->SetStopSignal(); });
    server->CreateIpcDispatcher(9);
    server->WaitAllThreads();
    EXPECT_THAT(journal.Calls("boost thread"), SizeIs(2));
    EXPECT_EQ(journal.Count(Binding(9)), 1U);
}

// ------------------------------------------------------------------------------------------------- DispatchIpcServer

TEST_F(DynamicDispatchTest, DispatchIpcServer_InDynamicMode_ServesTheCallingWorkersConnection) {
    fake.onWait = [&](auto...) {
        EXPECT_EQ(server->DispatchIpcServer(), 0);
        return server->ShutdownIpcServer();
    };
    Receives(Request(SubsIid, 0));
    Receives(Request(ProviderIid, 0), [&] { server->SetStopSignal(); });
    server->CreateIpcDispatcher(9);
    server->WaitAllThreads();
    EXPECT_EQ(journal.Count(Binding(9)), 2U);
    EXPECT_THAT(Replies(), SizeIs(2));
}

TEST_F(DynamicDispatchTest, DispatchIpcServer_WithoutAConnectionOfItsOwn_TakesThatOfTheSubscriberService) {
    Asks(Subs, 9);
    std::latch both(2); // the dispatcher of the accepted client, and the replacement of the accepting worker
    for (int i = 0; i < 2; ++i) {
        Receives(Request(SubsIid, 0), [&] {
            both.arrive_and_wait();
            server->SetStopSignal();
        });
    }
    RunAsWorker(*server, [&] {
        server->DispatchDynamic();
        EXPECT_EQ(server->GetCurrentIpcThread()->handle, 0xFFFFFFFFU);
        EXPECT_EQ(server->DispatchIpcServer(), 0);
    });
    EXPECT_EQ(journal.Count(Binding(9)), 2U);
    EXPECT_THAT(journal.Logs(4), IsEmpty());
}

TEST_F(DynamicDispatchTest, DispatchIpcServer_WithoutAnyConnection_LogsTheInterfacesNameAndReturnsFive) {
    RunAsWorker(*server, [&] { EXPECT_EQ(server->DispatchIpcServer(), 5); });
    EXPECT_THAT(journal.Logs(), ElementsAre("4 DispatchIpcServer: Cannot find handle for br.MessageBusSubs"));
}

TEST_F(DynamicDispatchTest, DispatchIpcServer_WhoseLineThrows_ReleasesItsLock) {
    log.Before("4 DispatchIpcServer: Cannot", [] { throw std::runtime_error("out of paper"); });
    RunAsWorker(*server, [&] { EXPECT_EQ(server->DispatchIpcServer(), 10); });
    EXPECT_THAT(journal.Logs(), ElementsAre("4 DispatchIpcServer: Error during DispatchIpcServer"));
    platform.cmListen.Once(KnStatusTimedOut);
    EXPECT_EQ(server->DispatchDynamic(), 0);
}

TEST_F(DynamicDispatchTest, DispatchIpcServer_InStaticMode_StartsAWorkerOfTheStaticCycle) {
    IpcServer statically(ConnectionType::Static);
    platform.serviceLocatorRegister.Once(7);
    EXPECT_EQ(Init(statically), 0);
    Receives(Request(ProviderIid, 0));
    fake.onWait = [&](auto...) { return statically.ShutdownIpcServer(); };
    Receives(Request(SubsIid, 0));
    EXPECT_EQ(statically.DispatchIpcServer(), 0);
    statically.WaitAllThreads();
    EXPECT_THAT(Replies(), SizeIs(2));
    EXPECT_THAT(journal.Calls("Receive(7"), SizeIs(2));
}

TEST_F(DynamicDispatchTest, DispatchIpcServer_InStaticModeWithTheStopSignalSet_StartsAWorkerThatServesNothing) {
    IpcServer statically(ConnectionType::Static);
    statically.SetStopSignal();
    EXPECT_EQ(statically.DispatchIpcServer(), 0);
    statically.WaitAllThreads();
    EXPECT_THAT(journal.Calls(), ElementsAre(StartsThread, StartsThread));
}

TEST_F(DynamicDispatchDeathTest, DispatchIpcServer_InStaticModeWhoseHandlerThrows_EndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            IpcServer statically(ConnectionType::Static);
            Init(statically);
            fake.onPush = [](auto...) -> std::int32_t { throw std::runtime_error("broken"); };
            Receives(Request(ProviderIid, 0));
            statically.DispatchIpcServer();
            statically.WaitAllThreads();
        },
        testing::KilledBySignal(SIGABRT), "");
}

TEST_F(DynamicDispatchTest, DispatchIpcServer_InAnUnknownMode_ReturnsZeroAndDoesNothing) {
    IpcServer other(static_cast<ConnectionType>(2));
    EXPECT_EQ(other.DispatchIpcServer(), 0);
    EXPECT_THAT(journal.All(), IsEmpty());
}

TEST_F(DynamicDispatchTest, DispatchIpcServer_WhoseWorkerCannotBeStarted_ReturnsZeroWithCreateThreadsLine) {
    IpcServer statically(ConnectionType::Static);
    fault_points::boostThreadStart.Arm();
    EXPECT_EQ(statically.DispatchIpcServer(), 0);
    EXPECT_THAT(journal.Logs(), ElementsAre("4 CreateThread: Error during CreateThread"));
    IpcServer::RemoveThread(boost::thread::id(), &statically); // the record that the failure left behind
}

TEST_F(DynamicDispatchTest, DispatchIpcServer_OutOfWhoseStartAnExceptionComes_LogsItAndReturnsTen) {
    IpcServer statically(ConnectionType::Static);
    fault_points::boostThreadStart.Arm();
    log.Before("4 CreateThread", [] { throw std::runtime_error("out of paper"); });
    EXPECT_EQ(statically.DispatchIpcServer(), 10);
    EXPECT_THAT(journal.Logs(), ElementsAre("4 DispatchIpcServer: Error during DispatchIpcServer"));
    IpcServer::RemoveThread(boost::thread::id(), &statically);
}

// -------------------------------------------------------------------------------------------------------- destructor

TEST_F(DynamicDispatchTest, Destructor_WaitsForTheListenInProgressAndJoinsTheDispatchers) {
    Asks(Ctl, 9);
    platform.receive.Always(KnStatusClosed);
    journal.Ignore("join std thread"); // the test's own joins
    Gate listening;
    platform.cmListen.Once([&](auto...) {
        listening.Pass();
        journal.AddCall("listen over");
        return KnStatusTimedOut;
    });
    EXPECT_EQ(server->Run(), 0);
    listening.AwaitReached();
    ASSERT_TRUE(journal.AwaitPrefix("4 operator()")); // the dispatcher has ended by itself
    std::thread destroying([&] {
        server.reset();
        journal.AddCall("destroyed");
    });
    EXPECT_TRUE(fault_points::AwaitSleepingOnAtomic(destroying.get_id())); // it waits for the pool
    listening.Open();
    destroying.join();
    EXPECT_THAT(journal.Calls("listen over"), SizeIs(1));
    EXPECT_EQ(journal.Calls().back(), "destroyed");
    EXPECT_THAT(journal.Logs(4), SizeIs(1));
}

} // namespace
