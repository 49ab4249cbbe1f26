// Defends the way from the server's memory to the monitor: the account is the server's own, and what only the server
// knows is asked of it.
#include "monitored_account.h"

#include "instruments/account_file.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>

namespace {

using instruments::AccountFile;
using msgbus_monitor::DescribeOutcome;
using msgbus_monitor::MonitoredAccount;
using msgbus_monitor::Peer;

MonitoredAccount::TraceFunctions NoTraces() {
    return {[](auto, auto) { return false; }, [] {}, [] { return instruments::TraceRecord(); }};
}

TEST(MonitoredAccountTest, AccountAndEvents_AreThoseInMemory) {
    AccountFile file(std::nullopt, {});
    file.Head().pid = 4711;
    file.Head().clockOffset = 17;
    instruments::layout::Event event;
    event.number = 1;
    event.id = 18;
    file.Commit(file.Regions().events, 1);
    file.At<instruments::Twin<instruments::layout::Event>>(file.Regions().events, 0).Write(event);
    file.Head().bus.lastEvent = 1;
    file.Publish();

    MonitoredAccount account(
        file.Memory(), [] { return std::nullopt; }, [](const auto&...) { return DescribeOutcome::Done; }, NoTraces());

    EXPECT_EQ(account.Read().server.pid, 4711);
    EXPECT_EQ(account.ClockOffset(), 17);
    file.Head().clockOffset = 18; // the clock was set
    EXPECT_EQ(account.ClockOffset(), 18);
    ASSERT_EQ(account.EventsAfter(0).size(), 1U);
    EXPECT_EQ(account.EventsAfter(0)[0].id, 18);
    EXPECT_TRUE(account.EventsAfter(1).empty());
}

TEST(MonitoredAccountTest, HealthAndDescriptions_AreTheServersBusiness) {
    AccountFile file(std::nullopt, {});
    file.Publish();
    std::string described;
    MonitoredAccount account(
        file.Memory(), [] { return std::optional<std::string>("The bus does not deliver."); },
        [&](const Peer& peer, std::string_view topic, std::string_view text) {
            described = std::to_string(peer.pid) + " " + std::string(topic) + " " + std::string(text);
            return DescribeOutcome::NotOwner;
        },
        NoTraces());

    EXPECT_EQ(account.WhyUnhealthy(), "The bus does not deliver.");
    EXPECT_EQ(account.Describe({17, 0}, "topic", "bool"), DescribeOutcome::NotOwner);
    EXPECT_EQ(described, "17 topic bool");
}

TEST(MonitoredAccountTest, Traces_AreTheServersBusiness) {
    AccountFile file(std::nullopt, {});
    file.Publish();
    std::string asked;
    MonitoredAccount account(
        file.Memory(), [] { return std::nullopt; }, [](const auto&...) { return DescribeOutcome::Done; },
        {[&](std::string_view topic, std::size_t values) {
             asked = std::string(topic) + ' ' + std::to_string(values);
             return true;
         },
         [&] { asked = "stop"; },
         [] {
             instruments::TraceRecord record;
             record.topic = "t";
             return record;
         }});

    EXPECT_TRUE(account.StartTrace("t", 3));
    EXPECT_EQ(asked, "t 3");
    EXPECT_EQ(account.ReadTrace().topic, "t");
    account.StopTrace();
    EXPECT_EQ(asked, "stop");
}

} // namespace
