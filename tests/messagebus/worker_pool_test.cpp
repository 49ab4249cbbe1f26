// Defends the pool of workers: how a worker is found, retired, removed and joined, what its locks cover, and how the
// server goes down. A lost worker leaves a client without an answer, or a server that never ends.
#include "support/bus_harness.h"
#include "support/ipc_harness.h"

#include <pthread.h>

#include <stdexcept>
#include <system_error>

namespace {

using bos_ipc::IpcServer;
using bos_ipc::WorkerThread;
using message_bus::ConnectionType;
using test_support::Gate;
using test_support::IpcTest;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;
namespace fault_points = test_support::fault_points;

constexpr auto StartsThread = "boost thread, stack 1048576";

class WorkerPoolTest : public IpcTest {
protected:
    static void Throw() { throw std::runtime_error("out of paper"); }

    /// Removes a record whose thread has ended or never started.
    static void RemoveLeftOver(IpcServer& target) { IpcServer::RemoveThread(boost::thread::id(), &target); }

    std::unique_ptr<IpcServer> server = std::make_unique<IpcServer>(ConnectionType::Static);
};

using WorkerPoolDeathTest = WorkerPoolTest;

static_assert(std::is_same_v<decltype(WorkerThread::shutdownMarker), std::atomic<std::uint32_t>>);

// -------------------------------------------------------------------------------------------------------- life cycle

TEST_F(WorkerPoolTest, Worker_FindsItsCompleteRecordAsItsFirstAct) {
    RunAsWorker(*server, [&] {
        const auto self = server->GetCurrentIpcThread();
        ASSERT_TRUE(self);
        EXPECT_TRUE(pthread_equal(self->thread.native_handle(), pthread_self()));
        EXPECT_EQ(self->shutdownMarker, 0xFFFFFFFFU);
        EXPECT_EQ(self->handle, 0xFFFFFFFFU);
    });
}

TEST_F(WorkerPoolTest, CreateThread_HoldsThePoolsLockUntilTheStartedThreadIsStored) {
    Gate gate;
    std::promise<std::thread::id> id;
    bool found = false;
    bool first = true;
    fault_points::AfterBoostStart([&] {
        if (std::exchange(first, false)) {
            gate.Pass();
        }
    });
    std::thread creating([&] {
        server->CreateThread([&] {
            id.set_value(std::this_thread::get_id());
            found = server->GetCurrentIpcThread() != nullptr;
        });
    });
    gate.AwaitReached();
    EXPECT_TRUE(fault_points::AwaitBlockedOnMutex(id.get_future().get()));
    gate.Open();
    creating.join();
    server->WaitAllThreads();
    EXPECT_TRUE(found);
}

TEST_F(WorkerPoolTest, Worker_ThatReturns_IsJoinedAndErasedByARemoverWithTheSameStack) {
    std::weak_ptr<WorkerThread> record;
    RunAsWorker(*server, [&] { record = server->GetCurrentIpcThread(); });
    EXPECT_TRUE(record.expired());
    EXPECT_THAT(journal.Calls("boost thread"), ElementsAre(StartsThread, StartsThread));
    EXPECT_THAT(journal.Logs(), IsEmpty());
}

TEST_F(WorkerPoolTest, Workers_AreToldApartAndOutliveEachOther) {
    Gate gate;
    std::shared_ptr<WorkerThread> longLived;
    server->CreateThread([&] {
        longLived = server->GetCurrentIpcThread();
        gate.Pass();
    });
    gate.AwaitReached();
    std::promise<std::shared_ptr<WorkerThread>> shortLived;
    server->CreateThread([&] { shortLived.set_value(server->GetCurrentIpcThread()); });
    const auto other = shortLived.get_future().get();
    EXPECT_TRUE(other);
    EXPECT_NE(other, longLived);
    gate.Open();
    server->WaitAllThreads();
}

TEST_F(WorkerPoolTest, CreateThread_WithoutMemory_LogsItAndReturns) {
    const std::function<void()> body = [] {};
    auto copy = body;
    fault_points::FailAllocation(std::this_thread::get_id());
    server->CreateThread(std::move(copy));
    EXPECT_THAT(journal.Logs(), ElementsAre("4 CreateThread: Error during CreateThread"));
    server->WaitAllThreads(); // nothing was listed
}

TEST_F(WorkerPoolTest, CreateThread_WithoutAThread_LogsItWithItsLockReleasedAndLeavesARecord) {
    fault_points::boostThreadStart.Arm();
    bool lockWasFree = false;
    log.Before("4 CreateThread", [&] { lockWasFree = server->GetCurrentIpcThread() == nullptr; });
    server->CreateThread([] {});
    EXPECT_TRUE(lockWasFree);
    EXPECT_EQ(journal.Count("4 CreateThread: Error during CreateThread"), 1U);
    RemoveLeftOver(*server);
    server->WaitAllThreads();
}

TEST_F(WorkerPoolDeathTest, Worker_WhoseBodyThrows_EndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(RunAsWorker(*server, Throw), testing::KilledBySignal(SIGABRT), "");
}

TEST_F(WorkerPoolDeathTest, Worker_WithoutABody_EndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(RunAsWorker(*server, {}), testing::KilledBySignal(SIGABRT), "");
}

TEST_F(WorkerPoolDeathTest, Worker_WhoseRemoverCannotBeStarted_EndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            fault_points::boostThreadStart.Arm(1);
            RunAsWorker(*server, [] {});
        },
        testing::KilledBySignal(SIGABRT), "");
}

// ----------------------------------------------------------------------------------------------- GetCurrentIpcThread

TEST_F(WorkerPoolTest, GetCurrentIpcThread_OutsideThePool_IsEmpty) {
    EXPECT_EQ(server->GetCurrentIpcThread(), nullptr);
    EXPECT_THAT(journal.Logs(), IsEmpty());
}

TEST_F(WorkerPoolTest, GetCurrentIpcThread_OfAnotherServersWorker_IsEmpty) {
    IpcServer other(ConnectionType::Static);
    RunAsWorker(other, [&] { EXPECT_EQ(server->GetCurrentIpcThread(), nullptr); });
}

TEST_F(WorkerPoolTest, GetCurrentIpcThread_WithoutItsLock_LogsItAndIsEmpty) {
    RunAsWorker(*server, [&] {
        fault_points::FailMutexLockOnThisThread();
        EXPECT_EQ(server->GetCurrentIpcThread(), nullptr);
    });
    EXPECT_THAT(journal.Logs(), ElementsAre("4 GetCurrentIpcThread: Error during GetCurrentIpcThread"));
}

// ------------------------------------------------------------------------------------------------- ShutdownIpcServer

TEST_F(WorkerPoolTest, ShutdownIpcServer_OnAWorker_SetsItsMarkerToZeroAndReturnsZero) {
    RunAsWorker(*server, [&] {
        EXPECT_EQ(server->ShutdownIpcServer(), 0);
        EXPECT_EQ(server->GetCurrentIpcThread()->shutdownMarker, 0U);
    });
    EXPECT_THAT(journal.Logs(), IsEmpty());
    EXPECT_FALSE(server->ShouldBeStopped());
}

TEST_F(WorkerPoolTest, ShutdownIpcServer_OutsideThePool_LogsItAndReturnsTen) {
    EXPECT_EQ(server->ShutdownIpcServer(), 10);
    EXPECT_THAT(journal.Logs(), ElementsAre("4 ShutdownIpcServer: ShutdownIpcServer: Unable to find current worker "
                                            "thread. It seems that it is internal error."));
}

TEST_F(WorkerPoolTest, ShutdownIpcServer_WhoseLineThrows_LogsAnotherOneAndReturnsTen) {
    log.Before("4 ShutdownIpcServer: ShutdownIpcServer", Throw);
    EXPECT_EQ(server->ShutdownIpcServer(), 10);
    EXPECT_THAT(journal.Logs(), ElementsAre("4 ShutdownIpcServer: Cannot shutdown current ipcServer!"));
}

// ----------------------------------------------------------------------------------------------------------- RunLoop

TEST_F(WorkerPoolTest, RunLoop_TestsTheStopSignalBeforeEachCall) {
    int calls = 0;
    server->RunLoop([&] {
        if (++calls == 3) {
            server->SetStopSignal();
        }
    });
    EXPECT_EQ(calls, 3);
    server->RunLoop([&] { ++calls; });
    EXPECT_EQ(calls, 3);
}

TEST_F(WorkerPoolTest, RunLoop_TestsTheMarkerAfterEachCall) {
    int calls = 0;
    RunAsWorker(*server, [&] {
        EXPECT_EQ(server->ShutdownIpcServer(), 0); // before the loop: it still makes one call
        server->RunLoop([&] { ++calls; });
    });
    EXPECT_EQ(calls, 1);
}

TEST_F(WorkerPoolTest, RunLoop_EndsWhenTheMarkerIsAnythingButUntouched) {
    int calls = 0;
    RunAsWorker(*server, [&] {
        server->RunLoop([&] {
            if (++calls == 2) {
                server->GetCurrentIpcThread()->shutdownMarker = 1;
            }
        });
    });
    EXPECT_EQ(calls, 2);
}

TEST_F(WorkerPoolTest, RunLoop_WhoseBodyThrows_LogsItAndEnds) {
    EXPECT_NO_THROW(server->RunLoop([] { throw 42; }));
    EXPECT_NO_THROW(server->RunLoop({}));
    EXPECT_THAT(journal.Logs(), ElementsAre("4 RunLoop: Error during RunLoop", "4 RunLoop: Error during RunLoop"));
}

// ------------------------------------------------------------------------------------------------------- stop signal

TEST_F(WorkerPoolTest, ShouldBeStopped_IsFalseAtFirstAndTrueForEverAfterSetStopSignal) {
    EXPECT_FALSE(server->ShouldBeStopped());
    server->SetStopSignal();
    EXPECT_TRUE(server->ShouldBeStopped());
    server->SetStopSignal();
    EXPECT_TRUE(server->ShouldBeStopped());
}

// ------------------------------------------------------------------------------------------------------ RemoveThread

TEST_F(WorkerPoolTest, RemoveThread_OfAnIdThatIsNotListed_DoesNothing) {
    Gate gate;
    server->CreateThread([&] { gate.Pass(); });
    gate.AwaitReached();
    IpcServer::RemoveThread(boost::this_thread::get_id(), server.get());
    EXPECT_THAT(journal.Logs(), IsEmpty());
    gate.Open();
    server->WaitAllThreads();
}

TEST_F(WorkerPoolTest, RemoveThread_OfTheCallingWorker_LogsTheRefusalKeepsTheRecordAndReleasesTheLock) {
    RunAsWorker(*server, [&] {
        IpcServer::RemoveThread(boost::this_thread::get_id(), server.get());
        EXPECT_TRUE(server->GetCurrentIpcThread());
    });
    EXPECT_THAT(journal.Logs(),
                ElementsAre(StartsWith("4 RemoveThread: Error during remove thread: boost thread: trying "
                                       "joining itself")));
}

TEST_F(WorkerPoolTest, RemoveThread_WhoseJoinFails_LogsItAndKeepsTheRecord) {
    fault_points::boostThreadJoin.Arm();
    std::weak_ptr<WorkerThread> record;
    server->CreateThread([&] { record = server->GetCurrentIpcThread(); });
    ASSERT_TRUE(journal.AwaitPrefix("4 RemoveThread: Error during remove thread: scripted join failure"));
    EXPECT_FALSE(record.expired());
    RemoveLeftOver(*server);
    EXPECT_TRUE(record.expired());
}

TEST_F(WorkerPoolTest, RemoveThread_LetsAnythingButAStandardExceptionOfTheJoinPassAndReleasesTheLock) {
    Gate gate;
    boost::thread::id worker;
    server->CreateThread([&] {
        worker = boost::this_thread::get_id();
        gate.Pass();
    });
    gate.AwaitReached();
    fault_points::BeforeBoostJoin([] { throw 42; });
    EXPECT_THROW(IpcServer::RemoveThread(worker, server.get()), int);
    fault_points::BeforeBoostJoin(nullptr);
    fault_points::FailMutexLockOnThisThread(); // the lock fails, not the join
    EXPECT_THROW(IpcServer::RemoveThread(worker, server.get()), std::system_error);
    EXPECT_THAT(journal.Logs(), IsEmpty());
    gate.Open();
    server->WaitAllThreads(); // the remover finds lock and record
}

TEST_F(WorkerPoolDeathTest, Worker_WhoseRemoverFailsWithAnythingElse_EndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            fault_points::BeforeBoostJoin([] { throw 42; });
            RunAsWorker(*server, [] {});
        },
        testing::KilledBySignal(SIGABRT), "");
}

TEST_F(WorkerPoolTest, RemoveThread_HoldsTheOneLockOfTheProcessWhileItJoins) {
    IpcServer other(ConnectionType::Static);
    Gate gate;
    fault_points::BeforeBoostJoin([&] { gate.Pass(); });
    server->CreateThread([] {});
    gate.AwaitReached();
    std::thread looking([&] { EXPECT_EQ(other.GetCurrentIpcThread(), nullptr); });
    EXPECT_TRUE(fault_points::AwaitBlockedOnMutex(looking.get_id()));
    gate.Open();
    looking.join();
    server->WaitAllThreads();
}

TEST_F(WorkerPoolTest, RemoveThread_KeepsTheOrderOfTheOthers) {
    Gate leaving;
    Gate second;
    Gate third;
    const auto waitForThePool = [&](Gate& gate, const std::string& name) {
        gate.Pass();
        // Throws at once on the first worker; any other worker waits until it is the first.
        EXPECT_THROW(server->WaitAllThreads(), boost::thread_resource_error);
        journal.AddCall(name + " is the first");
    };
    server->CreateThread([&] { leaving.Pass(); });
    server->CreateThread([&] { waitForThePool(second, "second"); });
    server->CreateThread([&] { waitForThePool(third, "third"); });
    for (Gate* gate : {&leaving, &second, &third}) {
        gate->AwaitReached();
    }
    std::promise<void> joining; // under the pool's lock
    bool isFirst = true;
    fault_points::BeforeBoostJoin([&] {
        if (std::exchange(isFirst, false)) {
            joining.set_value();
        }
    });
    leaving.Open();
    joining.get_future().wait();
    EXPECT_EQ(server->GetCurrentIpcThread(), nullptr); // takes that lock: the first worker is removed
    third.Open();
    second.Open();
    server->WaitAllThreads();
    EXPECT_THAT(journal.Calls("second"), SizeIs(1));
    const auto all = journal.All();
    EXPECT_LT(std::find(all.begin(), all.end(), "second is the first"),
              std::find(all.begin(), all.end(), "third is the first"));
}

// ---------------------------------------------------------------------------------------------------- WaitAllThreads

TEST_F(WorkerPoolTest, WaitAllThreads_OfAnEmptyPool_ReturnsAtOnce) {
    server->WaitAllThreads();
    EXPECT_THAT(journal.All(), IsEmpty());
}

TEST_F(WorkerPoolTest, WaitAllThreads_ReturnsWhenEveryWorkerHasEndedAndIsErased) {
    std::vector<std::weak_ptr<WorkerThread>> records(8);
    std::atomic<int> ran{0};
    for (auto& record : records) {
        server->CreateThread([&] {
            record = server->GetCurrentIpcThread();
            ++ran;
        });
    }
    server->WaitAllThreads();
    EXPECT_EQ(ran, 8);
    for (const auto& record : records) {
        EXPECT_TRUE(record.expired());
    }
}

TEST_F(WorkerPoolTest, WaitAllThreads_OnTheFirstWorker_ThrowsTheLibrarysRefusal) {
    std::string refusal;
    RunAsWorker(*server, [&] {
        try {
            server->WaitAllThreads();
        } catch (const boost::thread_resource_error& error) {
            refusal = error.what();
        }
    });
    EXPECT_THAT(refusal, StartsWith("boost thread: trying joining itself"));
}

// -------------------------------------------------------------------------------------------------------- destructor

TEST_F(WorkerPoolTest, Destructor_SetsTheStopSignalAndWaitsUntilEveryWorkerHasLeft) {
    Gate gate;
    IpcServer* const target = server.get();
    server->CreateThread([&, target] {
        gate.Pass();
        target->RunLoop([] { std::this_thread::yield(); }); // until the stop signal
        journal.AddCall("worker left");
    });
    gate.AwaitReached();
    gate.Open();
    server.reset();
    EXPECT_EQ(journal.Count("worker left"), 1U);
}

TEST_F(WorkerPoolTest, Destructor_WaitsForAStaticWorkerUntilItsNextRequestIsServed) {
    journal.Ignore("join std thread"); // the test's own joins
    EXPECT_EQ(Init(*server), 0);
    Gate receiving;
    Receives(test_support::Request(test_support::ProviderIid, 0), [&] { receiving.Pass(); });
    EXPECT_EQ(server->Run(), 0);
    receiving.AwaitReached();
    std::thread destroying([&] {
        server.reset();
        journal.AddCall("destroyed");
    });
    EXPECT_TRUE(fault_points::AwaitSleepingOnAtomic(destroying.get_id())); // it waits for the pool
    receiving.Open();
    destroying.join();
    EXPECT_THAT(Replies(), SizeIs(1));
    EXPECT_THAT(journal.Calls("Receive"), SizeIs(1));
    EXPECT_EQ(journal.Calls().back(), "destroyed");
}

TEST_F(WorkerPoolDeathTest, Destructor_OnTheFirstWorker_EndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(RunAsWorker(*server, [&] { server.reset(); }), testing::KilledBySignal(SIGABRT), "");
}

} // namespace
