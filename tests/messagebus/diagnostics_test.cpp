// Defends how a log line is made, what a check throws, and how a line describes an exception. Operators search the logs
// for these texts and levels.
#include "diagnostics.h"

#include "support/bus_test.h"
#include "support/fault_points.h"

#include <stdexcept>

namespace {

using bos::logger::LogLevel;
using diagnostics::Check;
using diagnostics::Describe;
using diagnostics::Described;
using diagnostics::Log;
using testing::ElementsAre;
using testing::IsEmpty;

/// An argument that counts how often it is formatted.
struct Probe {
    static inline int formatted = 0;
};

} // namespace

template <>
struct fmt::formatter<Probe> : fmt::formatter<int> {
    auto format(const Probe&, fmt::format_context& context) const {
        return fmt::formatter<int>::format(++Probe::formatted, context);
    }
};

namespace {

class DiagnosticsTest : public test_support::BusTest {};

TEST_F(DiagnosticsTest, Log_OfADisabledLevel_CostsOneLevelTestAndFormatsNothing) {
    log.SetThreshold(4);
    Probe::formatted = 0;
    Log(LogLevel::Warning, "{}", Probe{});
    EXPECT_EQ(log.LevelTests(), 1U);
    EXPECT_EQ(Probe::formatted, 0);
    EXPECT_THAT(journal.Logs(), IsEmpty());
}

TEST_F(DiagnosticsTest, Log_OfAnEnabledLevel_FormatsOnceAndPassesLevelFileLineAndFunction) {
    Probe::formatted = 0;
    const int line = __LINE__ + 1;
    Log(LogLevel::Warning, "{}: probe {}", "tag", Probe{});
    ASSERT_EQ(journal.Records().size(), 1U);
    const auto record = journal.Records().front();
    EXPECT_EQ(record.level, 3);
    EXPECT_EQ(record.file, __FILE__);
    EXPECT_EQ(record.line, line);
    EXPECT_EQ(record.function, "TestBody");
    EXPECT_EQ(record.text, "tag: probe 1");
    EXPECT_EQ(record.thread, std::this_thread::get_id());
}

TEST_F(DiagnosticsTest, Log_NamesALambdaAndADestructorPlainly) {
    struct Loud {
        ~Loud() { Log(LogLevel::Debug, "gone"); }
    };
    { const Loud loud; }
    [] { Log(LogLevel::Debug, "called"); }();
    EXPECT_THAT(journal.Logs(), ElementsAre("1 ~Loud: gone", "1 operator(): called"));
}

TEST_F(DiagnosticsTest, Log_WritesIntegersInDecimalStatusCodesSignedAndHandlesUnsigned) {
    const std::int32_t status = -2;
    const std::uint32_t handle = 0xFFFFFFFF;
    const long id = -9223372036854775807L;
    Log(LogLevel::Debug, "{} {} {} {}", status, handle, id, std::string("name"));
    EXPECT_THAT(journal.Logs(), ElementsAre("1 TestBody: -2 4294967295 -9223372036854775807 name"));
}

TEST_F(DiagnosticsTest, Log_TakesBracesInArgumentsAsText) {
    Log(LogLevel::Debug, "{}", std::string("{} {0}"));
    EXPECT_THAT(journal.Logs(), ElementsAre("1 TestBody: {} {0}"));
}

TEST_F(DiagnosticsTest, Log_LetsAFailureOfTheLoggerOut) {
    log.Before("4 ", [] { throw std::runtime_error("out of paper"); });
    EXPECT_THROW(Log(LogLevel::Error, "text"), std::runtime_error);
}

TEST_F(DiagnosticsTest, LogLevels_AreOneToFour) {
    Log(LogLevel::Debug, "a");
    Log(LogLevel::Info, "b");
    Log(LogLevel::Warning, "c");
    Log(LogLevel::Error, "d");
    EXPECT_THAT(journal.Logs(), ElementsAre("1 TestBody: a", "2 TestBody: b", "3 TestBody: c", "4 TestBody: d"));
}

TEST_F(DiagnosticsTest, Check_ThatHolds_DoesNothing) {
    EXPECT_NO_THROW(Check(true));
    EXPECT_NO_THROW(Check(true, "fine"));
}

TEST_F(DiagnosticsTest, Check_ThatFails_ThrowsFileLineAndMessageAndLogsNothing) {
    const int line = __LINE__ + 2;
    try {
        Check(false, "nullptr entity");
        FAIL() << "no exception";
    } catch (const tua::CheckFailedException& error) {
        EXPECT_STREQ(error.File(), __FILE__);
        EXPECT_EQ(error.Line(), line);
        EXPECT_EQ(error.Message(), u"nullptr entity");
    }
    EXPECT_THAT(journal.Logs(), IsEmpty());
}

TEST_F(DiagnosticsTest, Check_WithoutAMessage_ThrowsAnEmptyOne) {
    try {
        Check(false);
        FAIL() << "no exception";
    } catch (const tua::Exception& error) {
        EXPECT_TRUE(error.Message().empty());
    }
}

TEST_F(DiagnosticsTest, Describe_GivesWhatMessageAndPlace) {
    const tua::CheckFailedException error("src/file.cpp", 42, u"invalid handle");
    EXPECT_EQ(Describe(error), std::string(error.what()) + " - invalid handle. At src/file.cpp(42) ");
}

TEST_F(DiagnosticsTest, Log_OfAnException_DescribesItOnlyWhenItsLevelIsEnabled) {
    const test_support::fault_points::Disarmer disarmer;
    const tua::CheckFailedException error("src/file.cpp", 42, u"invalid handle");
    Log(LogLevel::Error, "{}: {}", "tag", Described{error});
    EXPECT_THAT(journal.Logs(), ElementsAre("4 TestBody: tag: " + Describe(error)));
    log.SetThreshold(5);
    test_support::fault_points::FailAllocation(std::this_thread::get_id());
    EXPECT_NO_THROW(Log(LogLevel::Error, "{}: {}", "tag", Described{error}));
    test_support::fault_points::DisarmAllocation();
}

TEST_F(DiagnosticsTest, Describe_WithoutAMessage_HasNoDash) {
    const tua::CheckFailedException error("src/file.cpp", 42, u"");
    EXPECT_EQ(Describe(error), std::string(error.what()) + ". At src/file.cpp(42) ");
}

TEST_F(DiagnosticsTest, Describe_WithoutAPlace_HasNone) {
    const tua::Exception error(nullptr, 0, u"sad");
    EXPECT_EQ(Describe(error), std::string(error.what()) + " - sad");
}

TEST_F(DiagnosticsTest, Describe_ConvertsTheMessageToUtf8) {
    const tua::Exception error(nullptr, 0, u"Grüße \U0001F600");
    EXPECT_EQ(Describe(error), std::string(error.what()) + " - Gr\xC3\xBC\xC3\x9F"
                                                           "e \xF0\x9F\x98\x80");
}

} // namespace
