// Defends the server's --log-level: what is below is not written, nor even formatted where no origin wants it, each
// origin has its own threshold, and the back end beneath is given back.
#include "log_threshold.h"

#include "diagnostics.h"
#include "message_bus.h"
#include "support/bus_test.h"

namespace {

using bos::logger::LogLevel;
using diagnostics::Log;
using msgbus_server::LogThreshold;
using msgbus_server::LogThresholds;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class LogThresholdTest : public test_support::BusTest {
protected:
    static void LogAll() {
        Log(LogLevel::Debug, "one");
        Log(LogLevel::Info, "two");
        Log(LogLevel::Warning, "three");
        Log(LogLevel::Error, "four");
    }

    /// Makes the library log at Debug and, for an id that it has not given, at Error.
    static void LogInTheBus() {
        message_bus::MessageBus bus;
        long id = 0;
        bus.RegisterPublisher("topic", id);
        bus.UnregisterPublisher(id);
        bus.UnregisterPublisher(id);
    }
};

TEST_F(LogThresholdTest, Records_BelowTheThreshold_AreNotWritten) {
    LogThreshold threshold({.bus = 1, .server = 3});
    LogAll();
    EXPECT_THAT(journal.Logs(), ElementsAre("3 LogAll: three", "4 LogAll: four"));
}

TEST_F(LogThresholdTest, Records_OfABackEndThatWantsLess_FollowTheThreshold) {
    log.SetThreshold(4);
    LogThreshold threshold({.bus = 1, .server = 1});
    LogAll();
    EXPECT_EQ(journal.Logs().size(), 4U);
}

TEST_F(LogThresholdTest, Records_OfTheBus_HaveAThresholdOfTheirOwn) {
    LogThreshold threshold({.bus = 4, .server = LogThreshold::Off});
    LogAll();
    LogInTheBus();
    EXPECT_THAT(journal.Logs(), ElementsAre(HasSubstr("4 UnregisterPublisher")));
    threshold.Set({.bus = LogThreshold::Off, .server = 4});
    LogInTheBus();
    LogAll();
    EXPECT_THAT(journal.Logs(), ElementsAre(HasSubstr("4 UnregisterPublisher"), "4 LogAll: four"));
}

TEST_F(LogThresholdTest, IsEnabled_AsksForTheLowerThreshold) {
    LogThreshold threshold({.bus = 3, .server = 2});
    EXPECT_FALSE(threshold.IsEnabled(LogLevel::Debug));
    EXPECT_TRUE(threshold.IsEnabled(LogLevel::Info));
    threshold.Set({.bus = 3, .server = 4});
    EXPECT_FALSE(threshold.IsEnabled(LogLevel::Info));
    EXPECT_TRUE(threshold.IsEnabled(LogLevel::Warning));
}

TEST_F(LogThresholdTest, Off_WritesNothing) {
    LogThreshold threshold({.bus = 1, .server = 1});
    threshold.Set({.bus = LogThreshold::Off, .server = LogThreshold::Off});
    LogAll();
    LogInTheBus();
    EXPECT_THAT(journal.Logs(), IsEmpty());
}

TEST_F(LogThresholdTest, Destruction_GivesTheBackEndBack) {
    { const LogThreshold threshold({.bus = LogThreshold::Off, .server = LogThreshold::Off}); }
    LogAll();
    EXPECT_EQ(journal.Logs().size(), 4U);
}

TEST(LogThresholds, ByDefault_ShowTheServersInfoAndTheBussWarnings) {
    EXPECT_EQ(LogThresholds{}, (LogThresholds{.bus = 3, .server = 2}));
}

TEST(LogThresholds, Set_TakesOneLevelForBothOrOneForEach) {
    struct Row {
        std::string_view text;
        LogThresholds result;
    };
    for (const auto& [text, result] :
         {Row{"debug", {.bus = 1, .server = 1}}, Row{"INFO", {.bus = 2, .server = 2}},
          Row{"off", {.bus = 5, .server = 5}}, Row{"4", {.bus = 4, .server = 4}},
          Row{"bus=debug", {.bus = 1, .server = 2}}, Row{"server=error", {.bus = 3, .server = 4}},
          Row{"bus=debug,server=off", {.bus = 1, .server = 5}}, Row{"debug,bus=error", {.bus = 4, .server = 1}}}) {
        LogThresholds thresholds;
        EXPECT_EQ(thresholds.Set(text), "") << text;
        EXPECT_EQ(thresholds, result) << text;
        LogThresholds again{.bus = 2, .server = 3};
        EXPECT_EQ(again.Set(thresholds.ToText()), "") << thresholds.ToText();
        EXPECT_EQ(again, thresholds) << thresholds.ToText();
    }
}

TEST(LogThresholds, Set_RefusesEverythingElseAndChangesNothing) {
    for (const std::string_view text : {"", "loud", "5", "bus=", "bus", "=info", "kernel=info", "bus=info,",
                                        "info;debug", "bus=debug,server=loud", "bus = info"}) {
        LogThresholds thresholds;
        EXPECT_THAT(thresholds.Set(text), HasSubstr(" is not a")) << text;
        EXPECT_EQ(thresholds, LogThresholds{}) << text;
    }
}

} // namespace
