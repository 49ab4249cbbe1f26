// Defends the assembly of the server: it serves until it is asked to stop, and its stop answers every blocked wait,
// loses no reply, leaves nothing running and says what it did.
#include "bus_server.h"

#include "support/bus_test.h"
#include "support/served_bus.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <string>
#include <thread>
#include <vector>

namespace {

using message_bus::ConnectionType;
using msgbus_server::BusServer;
using test_support::ServedBus;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr std::int32_t NotRegistered = -49152;

std::vector<std::string> Errors() {
    std::vector<std::string> lines = test_support::Journal::Instance().Logs();
    std::erase_if(lines, [](const std::string& line) { return !line.starts_with("4 "); });
    return lines;
}

std::vector<std::string> ThreadNames() {
    std::vector<std::string> names;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::getline(std::ifstream(task.path() / "comm"), names.emplace_back());
    }
    return names;
}

class BusServerTest : public test_support::BusTest, public test_support::EitherMode {
protected:
    test_support::ScriptedPlatform platform;
};

class BusServerStartTest : public test_support::BusTest {
protected:
    test_support::ScriptedPlatform platform;
};

INSTANTIATE_TEST_SUITE_P(EitherWay, BusServerTest, testing::Values(ConnectionType::Static, ConnectionType::Dynamic),
                         test_support::ModeName);

TEST_P(BusServerTest, Run_ServesUntilItIsAskedToStop) {
    ServedBus server({.connectionType = GetParam()});
    auto ctl = Ctl();
    auto provider = Provider();
    auto subs = Subs();
    const long subscriber = ctl.Subscribe("reader", {"heat"});
    EXPECT_EQ(provider.Push(ctl.RegisterPublisher("heat"), 21), 0);
    EXPECT_EQ(subs.Wait(subscriber), std::tuple(0, "heat", 21));
    server.ShutDown();
}

TEST_P(BusServerTest, Run_AfterARequestToStop_ServesNothingAndReturnsTrue) {
    BusServer server({.connectionType = GetParam()});
    server.RequestStop();
    EXPECT_TRUE(server.Run([] { ADD_FAILURE() << "serving"; }));
}

TEST_P(BusServerTest, Waits_HoldNoThreadOfTheServer) {
    constexpr std::size_t count = 10;
    ServedBus server({.connectionType = GetParam()});
    auto ctl = Ctl();
    auto first = Subs();
    EXPECT_EQ(std::get<0>(first.Wait(-1)), -81920); // every kind of worker that a wait needs has served
    const std::size_t before = ThreadNames().size();
    std::vector<std::future<std::int32_t>> waits;
    for (std::size_t i = 0; i < count; ++i) {
        waits.push_back(std::async(std::launch::async,
                                   [id = ctl.Subscribe("reader", {"heat"})] { return std::get<0>(Subs().Wait(id)); }));
    }
    ASSERT_TRUE(journal.Await("1 Wait: BosConnector: finished", count + 1));
    EXPECT_EQ(ThreadNames().size(), before + count) << "those of the clients";
    server.ShutDown();
    for (auto& wait : waits) {
        EXPECT_EQ(wait.get(), NotRegistered);
    }
}

TEST_P(BusServerTest, AStop_AnswersEveryBlockedWaitWithOneAndReportsHowMany) {
    ServedBus server({.connectionType = GetParam()});
    auto ctl = Ctl();
    std::vector<std::future<std::int32_t>> waits;
    for (int i = 0; i < 3; ++i) {
        waits.push_back(std::async(std::launch::async,
                                   [id = ctl.Subscribe("reader", {"heat"})] { return std::get<0>(Subs().Wait(id)); }));
    }
    ASSERT_TRUE(journal.Await("1 Wait: BosConnector: started", 3));
    server.ShutDown();
    for (auto& wait : waits) {
        EXPECT_EQ(wait.get(), NotRegistered);
    }
    EXPECT_EQ(journal.Count("2 Stop: Released subscribers: 3"), 1U);
}

TEST_P(BusServerTest, ALostName_EndsTheServerWithAnError) {
    const std::string name =
        GetParam() == ConnectionType::Static ? br_MessageBus_connection : br_MessageBusComponent_ctl_service;
    BusServer server({.connectionType = GetParam()});
    EXPECT_FALSE(server.Run([&] { platform.InProcess().LoseName(name); }));
    EXPECT_THAT(Errors(),
                ElementsAre("4 OnLost: Clients no longer find the bus: the name " + name + " is lost; stopping"));
    EXPECT_EQ(journal.Count("1 Stop: Stopped"), 1U);
}

TEST_P(BusServerTest, AStop_IsReportedFromBeginningToEndWithoutAnError) {
    ServedBus server({.connectionType = GetParam()});
    auto ctl = Ctl();
    auto provider = Provider();
    auto subs = Subs();
    const long subscriber = ctl.Subscribe("reader", {"heat"});
    EXPECT_EQ(provider.Push(ctl.RegisterPublisher("heat"), 1), 0);
    EXPECT_EQ(std::get<0>(subs.Wait(subscriber)), 0); // every kind of worker has served, and blocks in receive
    journal.Clear();
    server.ShutDown();
    EXPECT_THAT(Errors(), IsEmpty());
    std::vector<std::string> lines = journal.Logs();
    std::erase_if(lines, [](const std::string& line) { return line.find(" Stop: ") != 1; });
    EXPECT_THAT(lines, ElementsAre("1 Stop: Stopping", "2 Stop: Released subscribers: 1", "1 Stop: Stopped"));
}

TEST_P(BusServerTest, AStop_LeavesNoThreadAndNoName) {
    const std::size_t before = ThreadNames().size();
    for (int round = 0; round < 3; ++round) {
        ServedBus server({.connectionType = GetParam()});
        auto ctl = Ctl();
        EXPECT_NE(ctl.RegisterPublisher("heat"), -1);
        server.ShutDown();
    }
    // A detached remover may end a moment after the record that it erased.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (ThreadNames().size() != before && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::yield();
    }
    EXPECT_EQ(ThreadNames().size(), before);
}

TEST_P(BusServerTest, Run_NamesTheEventsThreadAndKeepsItsOwnName) {
    std::vector<std::string> names;
    BusServer server({.connectionType = GetParam()});
    auto outcome = std::async(std::launch::async, [&] {
        ::pthread_setname_np(::pthread_self(), "host");
        return server.Run([&] {
            names = ThreadNames();
            server.RequestStop();
        });
    });
    EXPECT_TRUE(outcome.get());
    EXPECT_EQ(std::ranges::count(names, "bus-events"), 1);
    EXPECT_GE(std::ranges::count(names, "host"), 1) << "workers of the scripted platform inherit it";
}

TEST_P(BusServerTest, Run_ReportsServingWhenEveryThreadThatServingNeedsExists) {
    ServedBus server({.connectionType = GetParam()});
    // This platform answers the server's own first calls before a thread receives them.
    ASSERT_TRUE(journal.AwaitPrefix("Receive(", GetParam() == ConnectionType::Static ? 1 : 3));
    const std::size_t before = ThreadNames().size();
    auto ctl = Ctl();
    auto provider = Provider();
    auto subs = Subs();
    EXPECT_EQ(provider.Push(ctl.RegisterPublisher("heat"), 1), 0);
    EXPECT_NE(ctl.Subscribe("reader", {"heat"}), -1);
    EXPECT_EQ(ThreadNames().size(), before);
}

TEST_P(BusServerTest, Run_HoldsAPlaceForEachThreadThatRemovesAWorkerUntilTheStop) {
    ServedBus server({.connectionType = GetParam()});
    EXPECT_EQ(std::ranges::count(ThreadNames(), "reserved"), GetParam() == ConnectionType::Static ? 1 : 2);
    server.ShutDown();
    EXPECT_EQ(std::ranges::count(ThreadNames(), "reserved"), 0);
}

TEST_P(BusServerTest, ABareServer_RegistersNothingOfItsOwn) {
    ServedBus served(GetParam());
    auto ctl = Ctl();
    EXPECT_EQ(ctl.RegisterPublisher("heat"), 1);
}

TEST_F(BusServerStartTest, Run_WithoutAWorkerThatAccepts_ThrowsAnErrorForTheOperator) {
    platform.cmListen.Always([](auto...) {
        KnHandleCloseServerEnds(); // as the deadline does, but at once
        return KnStatusClosed;
    });
    BusServer server({.connectionType = ConnectionType::Dynamic});
    try {
        server.Run([] { ADD_FAILURE() << "serving"; });
        FAIL() << "it serves";
    } catch (const msgbus_server::OfferError& error) {
        EXPECT_THAT(error.what(), HasSubstr("cannot serve: no thread receives on br.MessageBusComponent.provider"));
    }
    EXPECT_EQ(journal.Count("1 Stop: Stopped"), 1U);
}

TEST(BusServerOfferTest, Run_WhoseNameIsRefused_ThrowsAnErrorForTheOperator) {
    test_support::ScriptedPlatform platform;
    platform.serviceLocatorRegister.Once(KnInvalidHandle);
    BusServer server({.connectionType = ConnectionType::Static});
    try {
        server.Run();
        FAIL() << "it serves";
    } catch (const msgbus_server::OfferError& error) {
        EXPECT_THAT(error.what(), HasSubstr("cannot offer the bus"));
    }
}

} // namespace
