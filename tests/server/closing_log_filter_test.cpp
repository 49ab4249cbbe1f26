// Defends that a closing server leaves out the receive errors that it causes itself, and no other line.
#include "closing_log_filter.h"

#include "support/bus_test.h"

namespace {

using bos::logger::BOSLogger;
using bos::logger::LogLevel;
using msgbus_server::ClosingLogFilter;
using testing::ElementsAre;
using testing::IsEmpty;

void Write(LogLevel level, const char* function, std::string message) {
    BOSLogger::RootLogger().LogImpl(level, "file", 1, function, message);
}

void WriteReceiveErrors() {
    Write(LogLevel::Error, "DispatchStatic", "DispatchStatic: NK transport received the error -3");
    Write(LogLevel::Error, "RunIpcDispatcher", "RunIpcDispatcher: Check failed. At messagebus/src/ipc_server.cpp(7) ");
    Write(LogLevel::Error, "operator()", "operator(): Check failed. At messagebus/include/server.h(7) ");
    Write(LogLevel::Error, "operator()",
          "operator(): Check failed - shutdown is true. At messagebus/include/server.h(8) ");
}

class ClosingLogFilterTest : public test_support::BusTest {
protected:
    ClosingLogFilter filter;
};

TEST_F(ClosingLogFilterTest, ReceiveErrors_WhileClosing_AreLeftOut) {
    filter.SetClosing(true);
    WriteReceiveErrors();
    EXPECT_THAT(journal.Logs(), IsEmpty());
}

TEST_F(ClosingLogFilterTest, ReceiveErrors_AtAnyOtherTime_AreWritten) {
    WriteReceiveErrors();
    EXPECT_EQ(journal.Logs().size(), 4U);
    filter.SetClosing(true);
    filter.SetClosing(false);
    WriteReceiveErrors();
    EXPECT_EQ(journal.Logs().size(), 8U);
}

TEST_F(ClosingLogFilterTest, OtherLines_WhileClosing_AreWritten) {
    filter.SetClosing(true);
    Write(LogLevel::Error, "DispatchStatic", "DispatchStatic: NK transport received the error -9");
    Write(LogLevel::Error, "DispatchStatic", "DispatchStatic: NK transport reply error -3");
    Write(LogLevel::Error, "RunIpcDispatcher", "RunIpcDispatcher: Unknown exception");
    Write(LogLevel::Error, "operator()", "operator(): Check failed - invalid handle. At f(1) ");
    Write(LogLevel::Error, "Push", "operator(): Check failed. At f(1) ");
    Write(LogLevel::Info, "Stop", "Stopped");
    EXPECT_THAT(journal.Logs(), ElementsAre("4 DispatchStatic: DispatchStatic: NK transport received the error -9",
                                            "4 DispatchStatic: DispatchStatic: NK transport reply error -3",
                                            "4 RunIpcDispatcher: RunIpcDispatcher: Unknown exception",
                                            "4 operator(): operator(): Check failed - invalid handle. At f(1) ",
                                            "4 Push: operator(): Check failed. At f(1) ", "2 Stop: Stopped"));
}

TEST_F(ClosingLogFilterTest, Levels_AreThoseOfTheBackEndBehindIt) {
    log.SetThreshold(3);
    EXPECT_FALSE(BOSLogger::RootLogger().IsEnabled(LogLevel::Info));
    EXPECT_TRUE(BOSLogger::RootLogger().IsEnabled(LogLevel::Warning));
}

TEST_F(ClosingLogFilterTest, AReplyToAClientThatIsGone_IsNoError) {
    Write(LogLevel::Error, "DispatchStatic", "DispatchStatic: NK transport reply error -4");
    EXPECT_THAT(journal.Logs(), ElementsAre("1 DispatchStatic: DispatchStatic: NK transport reply error -4"));
    journal.Clear();
    log.SetThreshold(2);
    Write(LogLevel::Error, "DispatchStatic", "DispatchStatic: NK transport reply error -4");
    Write(LogLevel::Error, "DispatchStatic", "DispatchStatic: NK transport reply error -9");
    EXPECT_THAT(journal.Logs(), ElementsAre("4 DispatchStatic: DispatchStatic: NK transport reply error -9"));
}

} // namespace
