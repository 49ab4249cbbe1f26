// Defends what requests are answered: each resource with its text, one account for many requests, and errors in
// sentences.
#include "answers.h"

#include "monitor/fake_monitored.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <chrono>
#include <thread>

namespace {

using msgbus_monitor::Answer;
using msgbus_monitor::Answers;
using msgbus_monitor::DescribeOutcome;
using msgbus_monitor::Resource;
using testing::HasSubstr;
using namespace std::literals;

/// `time`: for which an account is shown.
msgbus_monitor::MonitorLimits Limits(std::chrono::milliseconds time, std::size_t bytes = 1 << 30) {
    msgbus_monitor::MonitorLimits limits;
    limits.leastCacheTime = limits.mostCacheTime = time;
    limits.answerBytes = bytes;
    return limits;
}

nlohmann::json Json(const Answer& answer) {
    return nlohmann::json::parse(*answer.body);
}

class AnswersTest : public testing::Test {
protected:
    FakeMonitored monitored;
    const msgbus_monitor::MonitorLimits atOnce = Limits(0s);
    const msgbus_monitor::MonitorLimits late = Limits(1h);
    const msgbus_monitor::MonitorLimits littleSpace = Limits(0s, 1000);
    Answers fresh{monitored, atOnce};
    Answers cached{monitored, late};
};

TEST_F(AnswersTest, Resources_HaveTheirTexts) {
    EXPECT_EQ(Json(fresh.Get({Resource::State}))["server"]["pid"], 4711);
    EXPECT_EQ(Json(fresh.Get({Resource::Topics}))["topics"].size(), 2U);
    EXPECT_EQ(Json(fresh.Get({Resource::Subscribers}))["subscribers"][0]["id"], 18);
    EXPECT_EQ(Json(fresh.Get({Resource::Topic, "temperature"}))["last_value"], -21);
    EXPECT_EQ(fresh.Get({Resource::State}).type, "application/json");
    EXPECT_THAT(*fresh.Get({Resource::Metrics}).body, HasSubstr("\nmsgbus_values_accepted_total 1000\n"));
    EXPECT_THAT(std::string(fresh.Get({Resource::Metrics}).type), HasSubstr("application/openmetrics-text"));
}

TEST_F(AnswersTest, UnknownTopic_IsNotFound) {
    const Answer answer = fresh.Get({Resource::Topic, "humidity"});

    EXPECT_EQ(answer.status, 404U);
    EXPECT_THAT(Json(answer)["error"].get<std::string>(), HasSubstr("not known"));
}

TEST_F(AnswersTest, ManyRequests_ReadTheAccountOnceAndShareOneText) {
    const Answer first = cached.Get({Resource::State});
    const Answer second = cached.Get({Resource::State});
    cached.Get({Resource::Metrics});

    EXPECT_EQ(first.body, second.body);
    EXPECT_EQ(monitored.Reads(), 1);
}

TEST_F(AnswersTest, AfterTheTimeOfTheCache_TheAccountIsReadAgain) {
    fresh.Get({Resource::State});
    monitored.Change([](FakeMonitored& fake) { fake.snapshot.server.pid = 1; });

    EXPECT_EQ(Json(fresh.Get({Resource::State}))["server"]["pid"], 1);
}

TEST_F(AnswersTest, AccountThatTookLong_IsShownForLong) {
    auto limits = Limits(1h);
    limits.leastCacheTime = 0s;
    Answers answers(monitored, limits);
    monitored.Change([](FakeMonitored& fake) { fake.isHeld = true; });
    std::thread waker([this] {
        monitored.AwaitRead();
        const auto begin = std::chrono::steady_clock::now();
        while (std::chrono::steady_clock::now() - begin < 100ms) { // takes that long, or longer
            std::this_thread::yield();
        }
        monitored.Change([](FakeMonitored& fake) { fake.isHeld = false; });
    });
    answers.Get({Resource::State});
    waker.join();
    const auto read = std::chrono::steady_clock::now();
    answers.Get({Resource::State});

    EXPECT_TRUE(monitored.Reads() == 1 ||
                std::chrono::steady_clock::now() - read > 800ms); // or this machine was too slow
}

TEST_F(AnswersTest, AccountThatCannotBeRead_IsUnavailable) {
    monitored.Change([](FakeMonitored& fake) { fake.failure = "it is damaged"; });

    const Answer answer = cached.Get({Resource::State});

    EXPECT_EQ(answer.status, 503U);
    EXPECT_EQ(Json(answer)["error"], "it is damaged");

    monitored.Change([](FakeMonitored& fake) { fake.failure.clear(); });
    EXPECT_EQ(cached.Get({Resource::State}).status, 200U);
}

TEST_F(AnswersTest, WithoutMemory_IsUnavailable) {
    monitored.Change([](FakeMonitored& fake) { fake.isWithoutMemory = true; });

    const Answer answer = cached.Get({Resource::State});

    EXPECT_EQ(answer.status, 503U);
    EXPECT_EQ(Json(answer)["error"], "There is no memory for the answer.");

    monitored.Change([](FakeMonitored& fake) { fake.isWithoutMemory = false; });
    EXPECT_EQ(cached.Get({Resource::State}).status, 200U);
}

TEST_F(AnswersTest, ABusWithTooManyTopics_IsNotListed) {
    msgbus_monitor::MonitorLimits limits = Limits(0s);
    limits.listedTopics = 2; // there is a publisher of one, and a subscriber of two
    Answers few(monitored, limits);
    for (const auto resource : {Resource::State, Resource::Topics, Resource::Subscribers}) {
        EXPECT_EQ(few.Get({resource}).status, 503U);
    }
    EXPECT_EQ(few.Get({Resource::Topic, "temperature"}).status, 200U);
    EXPECT_EQ(few.Get({Resource::Metrics}).status, 200U);
    limits.listedTopics = 3;
    EXPECT_EQ(few.Get({Resource::State}).status, 200U);
}

TEST_F(AnswersTest, WhileTooMuchIsStillBeingRead_NothingNewIsMade) {
    Answers little(monitored, littleSpace);
    const Answer kept = little.Get({Resource::State});
    ASSERT_GT(kept.body->size(), 1000U);

    EXPECT_EQ(little.Get({Resource::State}).status, 503U);
    EXPECT_EQ(little.Get({Resource::Topic, "temperature"}).status, 503U);
}

TEST_F(AnswersTest, WhatWasRead_CountsNoMore) {
    Answers little(monitored, littleSpace);
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(little.Get({Resource::State}).status, 200U);
        EXPECT_EQ(little.Get({Resource::Topic, "temperature"}).status, 200U);
    }
}

TEST_F(AnswersTest, Description_IsPassedOnWithItsWriter) {
    const Answer answer = fresh.Put({17, 1000}, "a\xff", "bool");

    EXPECT_EQ(answer.status, 204U);
    EXPECT_EQ(*answer.body, "");
    ASSERT_EQ(monitored.described.size(), 1U);
    EXPECT_EQ(monitored.described[0].peer.pid, 17);
    EXPECT_EQ(monitored.described[0].peer.uid, 1000U);
    EXPECT_EQ(monitored.described[0].topic, "a\xff");
    EXPECT_EQ(monitored.described[0].text, "bool");
}

TEST_F(AnswersTest, DescriptionThatIsNotValid_IsNotPassedOn) {
    for (const auto* const text : {"", "bool\n", "no type", "int8;colour=red", "fixed;step=2/4", "\xff"}) {
        const Answer answer = fresh.Put({17, 1000}, "a", text);

        EXPECT_EQ(answer.status, 400U) << text;
        EXPECT_THAT(Json(answer)["error"].get<std::string>(), HasSubstr("not valid"));
    }
    EXPECT_TRUE(monitored.described.empty());
}

TEST_F(AnswersTest, OutcomesOfADescription_HaveTheirStatus) {
    const auto statusOf = [this](DescribeOutcome outcome) {
        monitored.outcome = outcome;
        return fresh.Put({17, 1000}, "a", "bool").status;
    };

    EXPECT_EQ(statusOf(DescribeOutcome::UnknownTopic), 404U);
    EXPECT_EQ(statusOf(DescribeOutcome::NotOwner), 403U);
    EXPECT_EQ(statusOf(DescribeOutcome::NoRoom), 503U);
}

TEST_F(AnswersTest, WriterOfADescription_ReadsItAtOnce) {
    cached.Get({Resource::State});

    cached.Put({17, 1000}, "a", "bool");
    cached.Get({Resource::State});

    EXPECT_EQ(monitored.Reads(), 2);
}

TEST_F(AnswersTest, DescriptionThatIsRefused_LeavesTheAccountThatWasRead) {
    monitored.outcome = DescribeOutcome::UnknownTopic;
    cached.Get({Resource::State});

    cached.Put({17, 1000}, "a", "bool");
    cached.Get({Resource::State});

    EXPECT_EQ(monitored.Reads(), 1);
}

TEST_F(AnswersTest, Trace_IsStartedReadAndStopped) {
    msgbus_monitor::Route start{Resource::Trace, "t"};
    start.change = msgbus_monitor::Route::Change::Start;
    start.values = 3;
    msgbus_monitor::Route stop{Resource::Trace};
    stop.change = msgbus_monitor::Route::Change::Stop;
    EXPECT_EQ(fresh.Trace({Resource::Trace}).status, 404U);
    EXPECT_EQ(fresh.Trace(start).status, 204U);
    const auto answer = fresh.Trace({Resource::Trace});
    EXPECT_EQ(answer.status, 200U);
    EXPECT_EQ(*answer.body, "{\"version\":1,\"topic\":\"t\",\"wanted\":3,\"lost_steps\":0,\"values\":[]}\n");
    EXPECT_EQ(fresh.Trace(stop).status, 204U);
    EXPECT_EQ(fresh.Trace({Resource::Trace}).status, 404U);
}

TEST_F(AnswersTest, TraceBesideAnother_IsAConflict) {
    msgbus_monitor::Route start{Resource::Trace, "t"};
    start.change = msgbus_monitor::Route::Change::Start;
    monitored.Change([](auto& server) { server.isTraceBusy = true; });
    EXPECT_EQ(fresh.Trace(start).status, 409U);
    monitored.Change([](auto& server) { server.isWithoutMemory = true; });
    EXPECT_EQ(fresh.Trace(start).status, 503U);
}

} // namespace
