// Defends M7's rules: values carry the times of the schedule, the subscriber notices every loss, repetition and
// disorder, and the warm-up is not counted.
#include "open_loop.h"

#include "schedule.h"
#include "value.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <deque>
#include <iostream>
#include <sstream>
#include <vector>

namespace {

using bench::EndValue;
using bench::Schedule;
using testing::IsEmpty;
using testing::Not;

using Values = std::vector<std::int64_t>;

/// A bus without a bus: keeps what is published, delivers what the test lists.
class FakeDriver final : public bench::IDriver {
public:
    Values published;
    int refusals = 0;
    std::int64_t stallNs = 0; ///< how long the first publish takes
    std::deque<std::int64_t> delivered;

    std::unique_ptr<bench::IPublisher> MakePublisher(int) override { return std::make_unique<Publisher>(*this); }
    std::unique_ptr<bench::ISubscriber> MakeSubscriber(int) override { return std::make_unique<Subscriber>(*this); }

private:
    class Publisher final : public bench::IPublisher {
    public:
        explicit Publisher(FakeDriver& fakeDriver) : driver(fakeDriver) {}
        bool Publish(std::int64_t value) override {
            if (driver.refusals > 0) {
                --driver.refusals;
                return false;
            }
            std::this_thread::sleep_for(std::chrono::nanoseconds(std::exchange(driver.stallNs, 0)));
            driver.published.push_back(value);
            return true;
        }

    private:
        FakeDriver& driver;
    };
    class Subscriber final : public bench::ISubscriber {
    public:
        explicit Subscriber(FakeDriver& fakeDriver) : driver(fakeDriver) {}
        std::int64_t Next() override {
            if (driver.delivered.empty()) {
                throw bench::DriverError("read behind the end");
            }
            const auto value = driver.delivered.front();
            driver.delivered.pop_front();
            return value;
        }

    private:
        FakeDriver& driver;
    };
};

/// A verb's exit code and last line.
struct Outcome {
    int status;
    nlohmann::json report;
};

template <typename Verb>
Outcome RunVerb(Verb verb, FakeDriver& driver, std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {"program", "verb"});
    std::vector<char*> pointers;
    for (auto& argument : arguments) {
        pointers.push_back(argument.data());
    }
    const bench::Options options(static_cast<int>(pointers.size()), pointers.data());
    std::istringstream go("go\n");
    std::ostringstream printed;
    auto* const in = std::cin.rdbuf(go.rdbuf());
    auto* const out = std::cout.rdbuf(printed.rdbuf());
    const int status = verb(driver, options);
    std::cin.rdbuf(in);
    std::cin.clear();
    std::cout.rdbuf(out);
    const auto text = printed.str();
    return {status, nlohmann::json::parse(text.substr(text.rfind('\n', text.size() - 2) + 1))};
}

Outcome Subscribe(std::initializer_list<std::int64_t> values, std::vector<std::string> arguments = {"--rate", "1000"}) {
    FakeDriver driver;
    driver.delivered = values;
    return RunVerb(bench::SubscribeOnSchedule, driver, std::move(arguments));
}

constexpr std::int64_t StartNs = 5'000'000'000;

/// The value `index` at 1000 values/s.
constexpr std::int64_t Value(std::int64_t index) {
    return StartNs + index * 1'000'000;
}

TEST(ScheduleTest, IndexOf_IsTheInverseOfDue) {
    for (const std::int64_t rate : {1, 3, 7, 1000, 30'001, 500'000, 1'000'000'000}) {
        const Schedule schedule(StartNs, rate);
        EXPECT_EQ(schedule.Due(rate), StartNs + 1'000'000'000) << rate;
        for (std::int64_t index = 0; index < 5000; ++index) {
            ASSERT_EQ(schedule.IndexOf(schedule.Due(index)), index) << rate;
        }
    }
}

TEST(PublishOnScheduleTest, Values_AreTheTimesOfTheSchedule) {
    FakeDriver driver;
    driver.refusals = 2;
    const auto [status, report] =
        RunVerb(bench::PublishOnSchedule, driver, {"--rate", "30", "--seconds", "0.1", "--warm-up-seconds", "0.1"});
    EXPECT_EQ(status, 0);
    EXPECT_EQ(report["planned"], 6);
    EXPECT_EQ(report["refused"], 2);
    ASSERT_THAT(driver.published, Not(IsEmpty()));
    const auto end = driver.published.back();
    driver.published.pop_back();
    const auto count = static_cast<std::int64_t>(driver.published.size());
    EXPECT_EQ(end, EndValue(0, count));
    EXPECT_EQ(report["values"], count);
    const Schedule schedule(report["startNs"], 30);
    for (std::int64_t i = 0; i < count; ++i) {
        EXPECT_EQ(driver.published[static_cast<std::size_t>(i)], schedule.Due(i));
    }
}

TEST(PublishOnScheduleTest, AfterAStall_PublishesWhatIsDueWithoutASkip) {
    FakeDriver driver;
    driver.stallNs = 50'000'000; // half of the schedule
    const auto report = RunVerb(bench::PublishOnSchedule, driver, {"--rate", "1000", "--seconds", "0.1"}).report;
    const auto count = report["values"].get<std::size_t>();
    ASSERT_EQ(driver.published.size(), count + 1);
    const Schedule schedule(report["startNs"], 1000);
    for (std::size_t i = 0; i < count; ++i) {
        EXPECT_EQ(driver.published[i], schedule.Due(static_cast<std::int64_t>(i)));
    }
}

TEST(PublishOnScheduleTest, WhenTheRateIsOutOfReach_StopsAndReportsTheLag) {
    FakeDriver driver;
    driver.stallNs = 30'000'000; // three times the schedule
    const auto report = RunVerb(bench::PublishOnSchedule, driver, {"--rate", "1000", "--seconds", "0.01"}).report;
    EXPECT_EQ(report["planned"], 10);
    EXPECT_EQ(report["values"], 1);
    EXPECT_GE(report["endLagNs"], 29'000'000 - 1'000'000);
}

TEST(SubscribeOnScheduleTest, EveryValueInOrder_IsNoFault) {
    const auto [status, report] = Subscribe({Value(0), Value(1), Value(2), EndValue(0, 3)});
    EXPECT_EQ(status, 0);
    EXPECT_EQ(report["received"], 3);
    EXPECT_EQ(report["lost"], 0);
    EXPECT_EQ(report["repeated"], 0);
}

TEST(SubscribeOnScheduleTest, Gap_IsLoss) {
    const auto [status, report] = Subscribe({Value(0), Value(3), EndValue(0, 4)});
    EXPECT_EQ(status, 2);
    EXPECT_EQ(report["lost"], 2);
}

TEST(SubscribeOnScheduleTest, MissingEnd_IsLoss) {
    const auto [status, report] = Subscribe({Value(0), Value(1), EndValue(0, 4)});
    EXPECT_EQ(status, 2);
    EXPECT_EQ(report["lost"], 2);
}

TEST(SubscribeOnScheduleTest, Repetition_IsCounted) {
    const auto [status, report] = Subscribe({Value(0), Value(1), Value(1), Value(2), EndValue(0, 3)});
    EXPECT_EQ(status, 2);
    EXPECT_EQ(report["repeated"], 1);
    EXPECT_EQ(report["lost"], 0);
}

TEST(SubscribeOnScheduleTest, Disorder_IsCounted) {
    const auto [status, report] = Subscribe({Value(0), Value(2), Value(1), EndValue(0, 3)});
    EXPECT_EQ(status, 2);
    EXPECT_EQ(report["repeated"], 1);
}

TEST(SubscribeOnScheduleTest, ValueOutsideTheSchedule_IsCounted) {
    const auto [status, report] = Subscribe({Value(0), Value(1) + 1, EndValue(0, 2)});
    EXPECT_EQ(status, 2);
    EXPECT_EQ(report["repeated"], 1);
}

TEST(SubscribeOnScheduleTest, WarmUp_IsCheckedButNotInTheHistogram) {
    const auto [status, report] = Subscribe({Value(0), Value(1), Value(2), Value(3), Value(4), EndValue(0, 5)},
                                            {"--rate", "1000", "--warm-up-seconds", "0.003"});
    EXPECT_EQ(status, 0);
    EXPECT_EQ(report["received"], 5);
    std::int64_t counted = 0;
    for (const auto& bucket : report["histogram"]) {
        counted += bucket[1].get<std::int64_t>();
    }
    EXPECT_EQ(counted, 2);
}

} // namespace
