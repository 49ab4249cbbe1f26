// Defends that every warning and error of a server is counted under its place, whatever the log itself leaves out, and
// that no flood of places or long text takes more than its room.
#include "account/error_tally.h"

#include "diagnostics.h"
#include "support/bus_test.h"

#include <map>
#include <thread>

namespace {

using bos::logger::BOSLogger;
using bos::logger::LogLevel;
using instruments::ErrorAccount;
using msgbus_server::ErrorTally;
using testing::AllOf;
using testing::ElementsAre;
using testing::Field;
using testing::IsEmpty;
using testing::Pair;
using testing::SizeIs;

class Sink final : public msgbus_server::IErrorSink {
public:
    void Put(std::size_t index, const ErrorAccount& entry) noexcept override { entries[index] = entry; }

    std::map<std::size_t, ErrorAccount> entries;
};

auto IsEntry(bool isError, const std::string& place, std::uint64_t count, const std::string& text) {
    return AllOf(Field(&ErrorAccount::isError, isError), Field(&ErrorAccount::place, place),
                 Field(&ErrorAccount::count, count), Field(&ErrorAccount::text, text));
}

class ErrorTallyTest : public test_support::BusTest {
protected:
    static void Write(LogLevel level, const char* file, int line, std::string message) {
        BOSLogger::RootLogger().LogImpl(level, file, line, "F", message);
    }
    static void Warn(int line, const std::string& message = "text") {
        Write(LogLevel::Warning, "a.cpp", line, message);
    }

    Sink sink;
    ErrorTally tally{sink};
};

TEST_F(ErrorTallyTest, Records_AreCountedByPlace_WithTheLastText) {
    Write(LogLevel::Error, "a.cpp", 1, "first");
    Write(LogLevel::Warning, "a.cpp", 12, "another line");
    Write(LogLevel::Warning, "a.cpp2", 1, "a longer file");
    Write(LogLevel::Warning, "a", 1, "a shorter file");
    Write(LogLevel::Error, "a.cpp", 1, "second");
    EXPECT_THAT(sink.entries, ElementsAre(Pair(0, IsEntry(true, "a.cpp:1", 2, "second")),
                                          Pair(1, IsEntry(false, "a.cpp:12", 1, "another line")),
                                          Pair(2, IsEntry(false, "a.cpp2:1", 1, "a longer file")),
                                          Pair(3, IsEntry(false, "a:1", 1, "a shorter file"))));
}

TEST_F(ErrorTallyTest, EveryRecord_IsPassedOn_AndLowerLevelsAreNotCounted) {
    diagnostics::Log(LogLevel::Debug, "one");
    diagnostics::Log(LogLevel::Info, "two");
    diagnostics::Log(LogLevel::Warning, "three");
    EXPECT_THAT(journal.Logs(), ElementsAre("1 TestBody: one", "2 TestBody: two", "3 TestBody: three"));
    EXPECT_THAT(sink.entries, SizeIs(1));
}

TEST_F(ErrorTallyTest, LevelsThatAreNotWritten_AreCountedAllTheSame) {
    log.SetThreshold(5);
    diagnostics::Log(LogLevel::Warning, "three");
    diagnostics::Log(LogLevel::Error, "four");
    EXPECT_FALSE(BOSLogger::RootLogger().IsEnabled(LogLevel::Info));
    EXPECT_THAT(sink.entries, SizeIs(2));
    EXPECT_THAT(journal.Logs(), IsEmpty());
}

TEST_F(ErrorTallyTest, Times_AreThoseOfTheFirstAndTheLastRecord) {
    const auto now = [] { return std::chrono::steady_clock::now().time_since_epoch().count(); };
    const auto before = now();
    Warn(1);
    const auto between = now();
    const ErrorAccount first = sink.entries[0];
    while (now() == between) {
    }
    Warn(1);
    EXPECT_GE(first.firstAt, before);
    EXPECT_LE(first.firstAt, between);
    EXPECT_EQ(first.lastAt, first.firstAt);
    EXPECT_EQ(sink.entries[0].firstAt, first.firstAt);
    EXPECT_GT(sink.entries[0].lastAt, between);
    EXPECT_LE(sink.entries[0].lastAt, now());
}

TEST_F(ErrorTallyTest, FurtherPlaces_ShareOneEntry) {
    for (int line = 1; line <= static_cast<int>(ErrorTally::Places) + 2; ++line) {
        Warn(line, "at " + std::to_string(line));
    }
    Warn(1, "again");
    EXPECT_THAT(sink.entries, SizeIs(ErrorTally::Entries));
    EXPECT_THAT(sink.entries[ErrorTally::Places - 1], IsEntry(false, "a.cpp:64", 1, "at 64"));
    EXPECT_THAT(sink.entries[ErrorTally::Places], IsEntry(false, "other places", 2, "at 66"));
    EXPECT_THAT(sink.entries[0], IsEntry(false, "a.cpp:1", 2, "again"));
}

TEST_F(ErrorTallyTest, ALongText_IsCutWhereACharacterEnds) {
    const auto cut = [this](const std::string& text) {
        Warn(1, text);
        return sink.entries[0].text;
    };
    const std::string full(ErrorTally::MaxTextSize, 'x');
    EXPECT_EQ(cut(full), full);
    EXPECT_EQ(cut(full + "x"), full);
    const std::string room3 = full.substr(3);
    EXPECT_EQ(cut(room3 + "\xE2\x82\xAC"
                          "x"),
              room3 + "\xE2\x82\xAC");
    EXPECT_EQ(cut("x" + room3 + "\xE2\x82\xAC"), "x" + room3);
    EXPECT_EQ(cut(room3 + "\xF0\x9F\x98\x80"), room3);
    const std::string noText(300, '\x80');
    EXPECT_EQ(cut(noText).size(), ErrorTally::MaxTextSize - 3);
}

TEST_F(ErrorTallyTest, RecordsOfManyThreads_AreAllCounted) {
    constexpr int each = 500;
    {
        const auto logAll = [] {
            for (int i = 0; i < each; ++i) {
                Warn(1 + i % 2);
            }
        };
        std::jthread one(logAll);
        std::jthread two(logAll);
    }
    EXPECT_EQ(sink.entries[0].count, each);
    EXPECT_EQ(sink.entries[1].count, each);
}

TEST_F(ErrorTallyTest, Destruction_GivesTheBackEndBack) {
    Sink inner;
    { const ErrorTally second(inner); }
    Warn(1);
    EXPECT_THAT(inner.entries, IsEmpty());
    EXPECT_THAT(sink.entries, SizeIs(1));
}

} // namespace
