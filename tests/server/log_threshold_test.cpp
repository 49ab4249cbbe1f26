// Defends the server's --log-level: what is below is not even formatted, and the back end beneath is given back.
#include "log_threshold.h"

#include "diagnostics.h"
#include "support/bus_test.h"

namespace {

using bos::logger::LogLevel;
using diagnostics::Log;
using msgbus_server::LogThreshold;
using testing::ElementsAre;
using testing::IsEmpty;

class LogThresholdTest : public test_support::BusTest {
protected:
    static void LogAll() {
        Log(LogLevel::Debug, "one");
        Log(LogLevel::Info, "two");
        Log(LogLevel::Warning, "three");
        Log(LogLevel::Error, "four");
    }
};

TEST_F(LogThresholdTest, Records_BelowTheThreshold_AreNotWritten) {
    LogThreshold threshold(3);
    LogAll();
    EXPECT_THAT(journal.Logs(), ElementsAre("3 LogAll: three", "4 LogAll: four"));
}

TEST_F(LogThresholdTest, Records_OfABackEndThatWantsLess_FollowTheThreshold) {
    log.SetThreshold(4);
    LogThreshold threshold(1);
    LogAll();
    EXPECT_EQ(journal.Logs().size(), 4U);
}

TEST_F(LogThresholdTest, Off_WritesNothing) {
    LogThreshold threshold(1);
    threshold.Set(LogThreshold::Off);
    LogAll();
    EXPECT_THAT(journal.Logs(), IsEmpty());
}

TEST_F(LogThresholdTest, Destruction_GivesTheBackEndBack) {
    { const LogThreshold threshold(LogThreshold::Off); }
    LogAll();
    EXPECT_EQ(journal.Logs().size(), 4U);
}

} // namespace
