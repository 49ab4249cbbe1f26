// Defends what is counted of the mistakes that get no answer of their own: for the process that makes them, while it is
// connected, and in the sums of the bus for good.
#include "instruments/read_account.h"
#include "support/bus_test.h"
#include "support/in_process_callers.h"
#include "support/served_bus.h"

#include <algorithm>
#include <thread>

namespace {

using instruments::Snapshot;
using message_bus::ConnectionType;
using test_support::ServedBus;

class ClientMistakesTest : public test_support::BusTest, public test_support::EitherMode {
protected:
    ClientMistakesTest() { platform.SetQuiet(true); }

    static Snapshot Read(const ServedBus& server) {
        return instruments::AccountReader(server.account->File().Memory()).Read();
    }

    static void RegisterInVain(test_support::Client& ctl, const std::string& topic) {
        std::int64_t id = 0;
        EXPECT_NE(br_MessageBusCtl_RegisterPublisher_call(ctl.Transport(), topic, id), 0);
    }

    test_support::ScriptedPlatform platform;
};

INSTANTIATE_TEST_SUITE_P(EitherWay, ClientMistakesTest,
                         testing::Values(ConnectionType::Static, ConnectionType::Dynamic), test_support::ModeName);

TEST_P(ClientMistakesTest, Mistakes_AreCountedForTheirProcessUntilItEnds) {
    ServedBus server({.connectionType = GetParam()});
    auto owner = Ctl();
    owner.RegisterPublisher("taken");
    {
        const test_support::ActingAs other(4711);
        auto ctl = Ctl();
        auto provider = Provider();
        auto subs = Subs();
        EXPECT_EQ(provider.Push(77, 1), 0);
        EXPECT_EQ(provider.Push(77, 2), 0);
        EXPECT_NE(std::get<0>(subs.Wait(78)), 0);
        RegisterInVain(ctl, "taken");

        const auto snapshot = Read(server);
        ASSERT_EQ(snapshot.clients.size(), 1U);
        EXPECT_EQ(snapshot.clients[0].process.pid, 4711);
        EXPECT_EQ(snapshot.clients[0].unknownPushes, 2U);
        EXPECT_EQ(snapshot.clients[0].unknownWaits, 1U);
        EXPECT_EQ(snapshot.clients[0].refusedRegistrations, 1U);
    }
    while (!Read(server).clients.empty()) { // until its end is noticed
        std::this_thread::yield();
    }
    const auto bus = Read(server).bus;
    EXPECT_EQ(bus.unknownPushes, 2U);
    EXPECT_EQ(bus.unknownWaits, 1U);
    EXPECT_EQ(bus.refusedRegistrations, 1U);
}

TEST_P(ClientMistakesTest, ManyRefusals_AreFewEvents) {
    ServedBus server({.connectionType = GetParam()});
    auto ctl = Ctl();
    ctl.RegisterPublisher("taken");
    constexpr std::uint64_t refusals = 20;
    for (std::uint64_t i = 0; i < refusals; ++i) {
        RegisterInVain(ctl, "taken");
    }

    const auto snapshot = Read(server);
    const auto events = std::count_if(snapshot.events.begin(), snapshot.events.end(),
                                      [](const auto& event) { return event.kind == instruments::EventKind::Refused; });
    EXPECT_EQ(snapshot.bus.refusedRegistrations, refusals);
    EXPECT_GE(events, 1);
    EXPECT_LT(events, 20) << "one a second";
}

} // namespace
