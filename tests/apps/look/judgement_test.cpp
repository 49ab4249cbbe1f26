// `msgbus check`: a verdict that is too good hides an outage, one that is too bad wakes people, and the texts have the
// forms that monitoring systems read.

#include "diagnosis/judgement.h"

#include "hand_made.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>

namespace {

using diagnosis::Judge;
using diagnosis::Rules;
using diagnosis::Verdict;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

/// A subscriber has a lag of 50 values, of which the oldest is 4 seconds old.
instruments::Snapshot Lagging() {
    auto account = hand_made::Account();
    account.subscribers = {hand_made::Behind(1, "x", 50, 1), hand_made::Behind(2, "y|z", 10, 4)};
    return account;
}

double ValueOf(const diagnosis::Judgement& judgement, std::string_view name) {
    return std::find_if(judgement.measures.begin(), judgement.measures.end(),
                        [&](const auto& measure) { return measure.name == name; })
        ->value;
}

TEST(JudgementTest, AServerAtWork_IsOk) {
    const auto judgement = Judge(Lagging(), {});
    EXPECT_EQ(judgement.verdict, Verdict::Ok);
    EXPECT_THAT(judgement.reasons, IsEmpty());
    EXPECT_EQ(ValueOf(judgement, "lag"), 50);
    EXPECT_EQ(ValueOf(judgement, "age"), 4);
    EXPECT_EQ(ValueOf(judgement, "subscribers"), 2);
}

TEST(JudgementTest, AServerThatHasEnded_IsCritical) {
    auto account = hand_made::Account();
    account.server.isAlive = false;
    EXPECT_EQ(Judge(account, {}).verdict, Verdict::Critical);
    account.server.state = instruments::ServerState::Stopped;
    EXPECT_EQ(Judge(account, {}).verdict, Verdict::Critical);
}

TEST(JudgementTest, APausedServer_IsCritical) {
    auto account = hand_made::Account();
    account.server.isPaused = true;
    EXPECT_EQ(Judge(account, {}).verdict, Verdict::Critical);
}

TEST(JudgementTest, AServerBeforeAndAfterItServes_IsAWarning) {
    using enum instruments::ServerState;
    for (const auto state : {Starting, Draining, Stopping}) {
        auto account = hand_made::Account();
        account.server.state = state;
        EXPECT_EQ(Judge(account, {}).verdict, Verdict::Warning);
    }
}

TEST(JudgementTest, AnAccountThatDoesNotAddUp_IsCritical) {
    auto account = hand_made::Account();
    account.bus.discrepancies = 1;
    EXPECT_EQ(Judge(account, {}).verdict, Verdict::Critical);
    account.bus.discrepancies = 0;
    account.bus.accepted = 1;
    EXPECT_EQ(Judge(account, {}).verdict, Verdict::Critical);
}

TEST(JudgementTest, ALimit_IsExceededBeyondIt) {
    Rules rules;
    rules.lag = {50, 100};
    EXPECT_EQ(Judge(Lagging(), rules).verdict, Verdict::Ok);
    rules.lag = {49, 50};
    EXPECT_THAT(Judge(Lagging(), rules).reasons,
                ElementsAre("subscriber 'x' (id 1) has 50 values unread, more than 49"));
    EXPECT_EQ(Judge(Lagging(), rules).verdict, Verdict::Warning);
    rules.lag = {{}, 49};
    EXPECT_EQ(Judge(Lagging(), rules).verdict, Verdict::Critical);
}

TEST(JudgementTest, EachMeasure_HasItsLimit) {
    auto account = Lagging();
    account.bus.flows.dropped.cut = 3;
    account.bus.flows.due = 3;
    account.bus.inbound = 7;
    account.bus.accepted = 7;
    account.threads.push_back({.name = "clean-up", .awaySince = 0}); // it is in its loop
    account.threads.push_back({.name = "events", .awaySince = hand_made::Now - 9 * hand_made::Second});
    const auto verdictWith = [&](diagnosis::Thresholds Rules::*limits, double warning) {
        Rules rules;
        (rules.*limits).warning = warning;
        return Judge(account, rules).verdict;
    };
    EXPECT_EQ(verdictWith(&Rules::age, 4), Verdict::Ok);
    EXPECT_EQ(verdictWith(&Rules::age, 3.9), Verdict::Warning);
    EXPECT_EQ(verdictWith(&Rules::drops, 3), Verdict::Ok);
    EXPECT_EQ(verdictWith(&Rules::drops, 2), Verdict::Warning);
    EXPECT_EQ(verdictWith(&Rules::inbound, 7), Verdict::Ok);
    EXPECT_EQ(verdictWith(&Rules::inbound, 6), Verdict::Warning);
    EXPECT_EQ(verdictWith(&Rules::away, 9), Verdict::Ok);
    EXPECT_EQ(verdictWith(&Rules::away, 8), Verdict::Warning);
}

TEST(JudgementTest, TheGravestReason_ComesFirst) {
    Rules rules;
    rules.lag = {1, {}};
    rules.age = {1, 2};
    const auto judgement = Judge(Lagging(), rules);
    EXPECT_EQ(judgement.verdict, Verdict::Critical);
    EXPECT_THAT(judgement.reasons,
                ElementsAre("the oldest unread value of subscriber 'y|z' (id 2) has waited 4 s, more than 2 s",
                            "subscriber 'x' (id 1) has 50 values unread, more than 1"));
}

TEST(JudgementTest, PluginText_IsOneLineWithPerformanceData) {
    Rules rules;
    rules.lag = {100, 200};
    rules.age = {1.5, {}};
    EXPECT_EQ(
        diagnosis::PluginText(Judge(Lagging(), rules)),
        "MSGBUS WARNING - the oldest unread value of subscriber 'y\\x7cz' (id 2) has waited 4 s, more than 1.5 s | "
        "lag=50;100;200;0 age=4s;1.5;;0 drops=0c;;;0 inbound=0;;;0 away=0s;;;0 topics=1;;;0 subscribers=2;;;0 "
        "accepted=0c;;;0 taken=0c;;;0\n");
}

TEST(JudgementTest, PluginText_WithoutAnAccount_IsASentence) {
    EXPECT_EQ(diagnosis::PluginText({Verdict::Unknown, {"there is no account"}, {}}),
              "MSGBUS UNKNOWN - there is no account\n");
}

TEST(JudgementTest, JsonText_HasStatusAndLimits) {
    Rules rules;
    rules.lag = {{}, 20};
    const auto json = nlohmann::json::parse(diagnosis::JsonText(Judge(Lagging(), rules)));
    EXPECT_EQ(json["status"], "critical");
    EXPECT_EQ(json["code"], 2);
    EXPECT_EQ(json["reasons"].size(), 1u);
    EXPECT_EQ(json["measures"][0]["name"], "lag");
    EXPECT_EQ(json["measures"][0]["value"], 50);
    EXPECT_EQ(json["measures"][0]["warning"], nullptr);
    EXPECT_EQ(json["measures"][0]["critical"], 20);
}

TEST(JudgementTest, MetricsText_HasAMetricForEachMeasure) {
    auto account = Lagging();
    account.server.isPaused = true;
    const auto text = diagnosis::MetricsText(Judge(account, {}));
    EXPECT_THAT(text, HasSubstr("# TYPE msgbus_check_status gauge\nmsgbus_check_status 2\n# the server (process 200)"));
    EXPECT_THAT(text, HasSubstr("\n# TYPE msgbus_check_age_seconds gauge\nmsgbus_check_age_seconds 4\n"));
    EXPECT_THAT(text, HasSubstr("\n# TYPE msgbus_check_drops_total counter\nmsgbus_check_drops_total 0\n"));
}

} // namespace
