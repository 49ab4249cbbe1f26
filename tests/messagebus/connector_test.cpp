// Defends the connector: what Init builds and logs, how results of the server become results of the bus, and that a
// worker that is about to block always leaves, with or without a replacement.
#include "bos_connector.h"
#include "message_bus.h"
#include "subscribe_helper.h"
#include "support/bus_harness.h"
#include "support/ipc_harness.h"

#include <cstdlib>
#include <stdexcept>

namespace {

using bos_ipc::IpcServer;
using cor::ResultCode;
using message_bus::BosConnector;
using message_bus::ConnectionType;
using message_bus::IConnector;
using message_bus::MessageBus;
using test_support::IpcTest;
using test_support::Request;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
namespace fault_points = test_support::fault_points;

class FakeWorker final : public message_bus::IWorker {
public:
    ResultCode Wait(long subscriberId, std::string& topic, long& message) override {
        test_support::Journal::Instance().AddCall("IWorker::Wait(" + std::to_string(subscriberId) + ")");
        if (action) {
            action();
        }
        topic = "heat";
        message = 5;
        return ResultCode::Conflict;
    }

    std::function<void()> action;
};

class ConnectorTest : public IpcTest {
protected:
    bool InitWithBus(BosConnector& target) { return target.Init(bus, bus, bus); }

    std::shared_ptr<IpcServer> server = std::make_shared<IpcServer>(ConnectionType::Static);
    std::shared_ptr<MessageBus> bus = std::make_shared<MessageBus>();
    std::unique_ptr<BosConnector> connector = std::make_unique<BosConnector>(server);
};

using ConnectorDeathTest = ConnectorTest;

TEST_F(ConnectorTest, Init_LogsItsStartAndItsEndAroundTheServersInit) {
    platform.serviceLocatorRegister.Once(7);
    EXPECT_TRUE(InitWithBus(*connector));
    EXPECT_THAT(journal.All(),
                ElementsAre("1 Init: BosConnector: started",
                            "ServiceLocatorRegister(\"msgbus_connection_id\", 0, &iid)",
                            "NkBosTransport_Init(&transport, 7, null, 0)", "1 Init: BosConnector: done"));
}

TEST_F(ConnectorTest, Init_WhoseServerFails_ReturnsFalseAndIsStillDone) {
    platform.serviceLocatorRegister.Once(KnInvalidHandle);
    EXPECT_FALSE(InitWithBus(*connector));
    EXPECT_EQ(journal.Count("1 Init: BosConnector: done"), 1U);
}

TEST_F(ConnectorTest, Init_ServesProviderCtlAndSubsUnderTheirInterfaceIndexes) {
    EXPECT_TRUE(InitWithBus(*connector));
    log.SetThreshold(1);
    for (std::uint16_t iid = 0; iid < 3; ++iid) {
        Receives(Request(iid, 0));
        EXPECT_EQ(server->DispatchStatic(), 0);
    }
    EXPECT_THAT(Replies(), SizeIs(3));
    // The push of an unknown publisher logs nothing; the second request has an empty topic, the third the id 0.
    EXPECT_EQ(journal.Count("1 RegisterPublisher: [MessageBus]: RegisterPublisher id -1 topic "), 1U);
    EXPECT_EQ(journal.Count("1 Wait: Wait is called by subscriber (0)"), 1U);
    EXPECT_EQ(Replies()[0].record.header.size, 24U);
}

TEST_F(ConnectorDeathTest, Init_BuildsTheTableOfResultCodes) {
    GTEST_FLAG_SET(death_test_style, "threadsafe"); // the child process has not used the table before
    EXPECT_EXIT(
        {
            InitWithBus(*connector);
            fault_points::FailAllocation(std::this_thread::get_id());
            connector->ToIpcResultCode(ResultCode::Conflict);
            std::_Exit(0);
        },
        testing::ExitedWithCode(0), "");
}

TEST_F(ConnectorTest, Init_ASecondTime_DropsWhatWasPendingAndBeginsItsIdsAgain) {
    EXPECT_TRUE(InitWithBus(*connector));
    long id = -5;
    EXPECT_EQ(connector->GetSubscribeHelper()->StartSubscribing("reader", id), ResultCode::Success);
    EXPECT_EQ(connector->GetSubscribeHelper()->StartSubscribing("reader", id), ResultCode::Success);
    EXPECT_EQ(id, 1);
    platform.serviceLocatorRegister.Once(8);
    EXPECT_TRUE(InitWithBus(*connector));
    long subscriber = 0;
    EXPECT_EQ(connector->GetSubscribeHelper()->FinishSubscribing(0, true, subscriber), ResultCode::Conflict);
    EXPECT_EQ(connector->GetSubscribeHelper()->StartSubscribing("reader", id), ResultCode::Success);
    EXPECT_EQ(id, 0);
}

TEST_F(ConnectorTest, Init_ASecondTime_ReleasesTheInterfacesOfTheFirst) {
    EXPECT_TRUE(InitWithBus(*connector));
    const std::weak_ptr<MessageBus> former = bus;
    bus = std::make_shared<MessageBus>();
    EXPECT_FALSE(former.expired());
    platform.serviceLocatorRegister.Once(8);
    EXPECT_TRUE(InitWithBus(*connector));
    EXPECT_TRUE(former.expired());
}

TEST_F(ConnectorTest, Destructor_ReleasesTheBusAndTheServer) {
    EXPECT_TRUE(InitWithBus(*connector));
    connector.reset();
    EXPECT_EQ(bus.use_count(), 1);
    EXPECT_EQ(server.use_count(), 1);
}

// -------------------------------------------------------------------------------------------------------- RunServer

TEST_F(ConnectorTest, RunServer_ReturnsZeroWhenTheServerRuns) {
    server->SetStopSignal();
    EXPECT_EQ(connector->RunServer(), ResultCode::Success);
    server->WaitAllThreads();
    EXPECT_THAT(journal.Calls("boost thread"), SizeIs(2));
}

TEST_F(ConnectorTest, RunServer_TurnsAFailureOfTheServerIntoSix) {
    fault_points::boostThreadStart.Arm();
    log.Before("4 CreateThread", [] { throw std::runtime_error("out of paper"); });
    EXPECT_EQ(connector->RunServer(), ResultCode::InitFailed); // the server returned 10
    IpcServer::RemoveThread(boost::thread::id(), server.get());
}

TEST_F(ConnectorTest, ShouldBeStopped_IsThatOfTheServer) {
    EXPECT_FALSE(connector->ShouldBeStopped());
    server->SetStopSignal();
    EXPECT_TRUE(connector->ShouldBeStopped());
}

// -------------------------------------------------------------------------------------------- SwitchActiveIpcServer

TEST_F(ConnectorTest, SwitchActiveIpcServer_StartsAWorkerAndRetiresTheCallingOne) {
    EXPECT_TRUE(InitWithBus(*connector));
    std::promise<void> served;
    platform.receive.Once([&](auto...) {
        served.set_value();
        server->SetStopSignal();
        return KnStatusClosed;
    });
    RunAsWorker(*server, [&] {
        EXPECT_EQ(connector->SwitchActiveIpcServer(), ResultCode::Success);
        served.get_future().wait(); // by the replacement
        EXPECT_EQ(server->GetCurrentIpcThread()->shutdownMarker, 0U);
    });
    EXPECT_THAT(journal.Calls("Receive"), SizeIs(1));
}

TEST_F(ConnectorTest, SwitchActiveIpcServer_OnAStoppedConnector_StartsNobodyButRetiresTheCallingWorker) {
    server->SetStopSignal();
    RunAsWorker(*server, [&] {
        EXPECT_EQ(connector->SwitchActiveIpcServer(), ResultCode::Success);
        EXPECT_EQ(server->GetCurrentIpcThread()->shutdownMarker, 0U);
    });
    EXPECT_THAT(journal.Calls("boost thread"), SizeIs(2)); // the worker and its remover
}

TEST_F(ConnectorTest, SwitchActiveIpcServer_AsksWhetherToStopOfWhateverDerivesFromTheConnector) {
    class StoppedConnector final : public BosConnector {
    public:
        using BosConnector::BosConnector;
        bool ShouldBeStopped() override { return true; }
    };
    StoppedConnector stopped(server);
    platform.receive.Always([&](auto...) { // called by a replacement, if there is one
        server->SetStopSignal();
        return KnStatusClosed;
    });
    RunAsWorker(*server, [&] {
        EXPECT_EQ(stopped.SwitchActiveIpcServer(), ResultCode::Success);
        EXPECT_EQ(server->GetCurrentIpcThread()->shutdownMarker, 0U);
    });
    EXPECT_THAT(journal.Calls("boost thread"), SizeIs(2)); // the worker and its remover
}

TEST_F(ConnectorTest, SwitchActiveIpcServer_WithoutAReplacement_LogsTheCodeAndRetiresTheCallingWorkerAllTheSame) {
    const auto dynamicServer = std::make_shared<IpcServer>(ConnectionType::Dynamic);
    BosConnector dynamically(dynamicServer);
    RunAsWorker(*dynamicServer, [&] {
        EXPECT_EQ(dynamically.SwitchActiveIpcServer(), ResultCode::Success);
        EXPECT_EQ(dynamicServer->GetCurrentIpcThread()->shutdownMarker, 0U);
    });
    EXPECT_THAT(journal.Logs(), ElementsAre("4 DispatchIpcServer: Cannot find handle for br.MessageBusSubs",
                                            "4 SwitchActiveIpcServer: BosConnector: DispatchIpcServer error: rc=[5]"));
}

TEST_F(ConnectorTest, SwitchActiveIpcServer_OutsideThePool_ReturnsZeroWithTheServersLine) {
    server->SetStopSignal();
    EXPECT_EQ(connector->SwitchActiveIpcServer(), ResultCode::Success);
    EXPECT_THAT(journal.Logs(), ElementsAre("4 ShutdownIpcServer: ShutdownIpcServer: Unable to find current worker "
                                            "thread. It seems that it is internal error."));
}

// -------------------------------------------------------------------------------------------------------------- Wait

TEST_F(ConnectorTest, Wait_PutsTwoLinesAroundTheBussWaitAndPassesItsResultOn) {
    const auto worker = std::make_shared<FakeWorker>();
    EXPECT_TRUE(connector->Init(bus, bus, worker));
    journal.Clear();
    std::string topic;
    long message = 0;
    EXPECT_EQ(connector->Wait(12, topic, message), ResultCode::Conflict);
    EXPECT_EQ(topic, "heat");
    EXPECT_EQ(message, 5);
    EXPECT_THAT(journal.All(),
                ElementsAre("1 Wait: BosConnector: started", "IWorker::Wait(12)", "1 Wait: BosConnector: finished"));
}

TEST_F(ConnectorTest, Wait_LetsAnExceptionPassWithoutItsLastLine) {
    const auto worker = std::make_shared<FakeWorker>();
    worker->action = [] { throw std::runtime_error("broken"); };
    EXPECT_TRUE(connector->Init(bus, bus, worker));
    std::string topic;
    long message = 0;
    EXPECT_THROW(static_cast<void>(connector->Wait(12, topic, message)), std::runtime_error);
    EXPECT_EQ(journal.Count("1 Wait: BosConnector: finished"), 0U);
}

// ----------------------------------------------------------------------------------------------- order of operations

/// Index of a virtual member function in its table.
template <typename Method>
std::size_t Slot(Method method) {
    std::size_t offset = 0; // the C++ ABI: offset in the table plus one, for a virtual function
    std::memcpy(&offset, &method, sizeof offset);
    return (offset - 1) / sizeof(void*);
}

TEST_F(ConnectorTest, Interfaces_KeepTheOrderOfTheirOperationsBehindTheDestructor) {
    // A virtual destructor takes two entries.
    EXPECT_EQ(Slot(&message_bus::IProvider::Push), 2U);
    EXPECT_EQ(Slot(&message_bus::IProviderControl::RegisterPublisher), 2U);
    EXPECT_EQ(Slot(&message_bus::IProviderControl::RegisterSubscriber), 3U);
    EXPECT_EQ(Slot(&message_bus::IProviderControl::UnregisterPublisher), 4U);
    EXPECT_EQ(Slot(&message_bus::IProviderControl::UnregisterSubscriber), 5U);
    EXPECT_EQ(Slot(&message_bus::IWorker::Wait), 2U);
    EXPECT_EQ(Slot(&IConnector::RunServer), 2U);
    EXPECT_EQ(Slot(&IConnector::SwitchActiveIpcServer), 3U);
    EXPECT_EQ(Slot(&IConnector::ShouldBeStopped), 4U);
    static_assert(std::is_abstract_v<message_bus::IProvider> && std::is_abstract_v<IConnector>);
}

TEST_F(ConnectorTest, MessageBus_DerivesFromItsInterfacesInTheirOrder) {
    const auto at = [](auto* interface) { return reinterpret_cast<const char*>(interface); };
    EXPECT_LT(at(static_cast<message_bus::IProvider*>(bus.get())),
              at(static_cast<message_bus::IProviderControl*>(bus.get())));
    EXPECT_LT(at(static_cast<message_bus::IProviderControl*>(bus.get())),
              at(static_cast<message_bus::IWorker*>(bus.get())));
}

} // namespace
