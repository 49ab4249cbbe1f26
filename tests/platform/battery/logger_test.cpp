// Defends bos/logger.h: what a log site passes reaches the back end unchanged, from any number of threads.
#include "bos/logger.h"

#include "support.h"

#include <map>
#include <mutex>

namespace platform_test {
namespace {

using bos::logger::BOSLogger;
using bos::logger::LogLevel;

class Recorder final : public bos::logger::ILogBackEnd {
public:
    Recorder() : before(BOSLogger::RootLogger().SetBackEnd(*this)) {}
    ~Recorder() override { BOSLogger::RootLogger().SetBackEnd(before); }

    bool IsEnabled(LogLevel level) const override { return level != LogLevel::Info; }
    void Write(LogLevel level, const char* file, int line, const char* function, const std::string& message) override {
        const std::lock_guard lock(mutex);
        records.push_back(std::to_string(static_cast<int>(level)) + ' ' + file + ' ' + std::to_string(line) + ' ' +
                          function + ' ' + message);
    }

    std::mutex mutex;
    std::vector<std::string> records;

private:
    bos::logger::ILogBackEnd& before;
};

TEST(Logger, LogImpl_HandsEverythingToTheBackEnd) {
    Recorder recorder;
    std::string message = "text\n";
    BOSLogger::RootLogger().LogImpl(LogLevel::Error, "file.cpp", 12, "Function", message);
    EXPECT_THAT(recorder.records, ::testing::ElementsAre("4 file.cpp 12 Function text\n"));
}

TEST(Logger, LogImpl_WritesWhateverTheLevel) {
    Recorder recorder;
    std::string message = "text";
    BOSLogger::RootLogger().LogImpl(LogLevel::Info, "f", 1, "F", message);
    EXPECT_EQ(1u, recorder.records.size());
}

TEST(Logger, IsEnabled_AsksTheBackEnd) {
    const Recorder recorder;
    EXPECT_TRUE(BOSLogger::RootLogger().IsEnabled(LogLevel::Debug));
    EXPECT_FALSE(BOSLogger::RootLogger().IsEnabled(LogLevel::Info));
}

TEST(Logger, TheThresholdOfThePlatformsBackEnd_IsInfoUntilItIsSet) {
    auto& logger = BOSLogger::RootLogger();
    EXPECT_FALSE(logger.IsEnabled(LogLevel::Debug));
    EXPECT_TRUE(logger.IsEnabled(LogLevel::Info));
    BOSLogger::SetThreshold(LogLevel::Error);
    EXPECT_FALSE(logger.IsEnabled(LogLevel::Warning));
    EXPECT_TRUE(logger.IsEnabled(LogLevel::Error));
    BOSLogger::SetThreshold(LogLevel::Debug);
    EXPECT_TRUE(logger.IsEnabled(LogLevel::Debug));
    BOSLogger::SetThreshold(LogLevel::Info);
}

TEST(Logger, TheRootLogger_IsOne) {
    EXPECT_EQ(&BOSLogger::RootLogger(), &BOSLogger::RootLogger());
}

TEST(Logger, RecordsOfManyThreads_AllArrive) {
    Recorder recorder;
    {
        std::vector<std::unique_ptr<Background<void>>> writers;
        for (int i = 0; i < 4; ++i) {
            writers.push_back(std::make_unique<Background<void>>([i] {
                for (int count = 0; count < 100; ++count) {
                    std::string message = "text";
                    BOSLogger::RootLogger().LogImpl(LogLevel::Debug, "f", i, "F", message);
                }
            }));
        }
    }
    std::map<std::string, int> counts;
    for (const auto& record : recorder.records) {
        ++counts[record];
    }
    EXPECT_THAT(counts, ::testing::ElementsAre(std::pair("1 f 0 F text", 100), std::pair("1 f 1 F text", 100),
                                               std::pair("1 f 2 F text", 100), std::pair("1 f 3 F text", 100)));
}

} // namespace
} // namespace platform_test
