// Defends what the server says about its health: well while it serves, and otherwise the reason.
#include "health.h"

#include "instruments/snapshot.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>

namespace {

using instruments::AccountFile;
using instruments::ServerState;
using msgbus_server::Health;
using testing::HasSubstr;
using testing::Optional;

namespace layout = instruments::layout;

constexpr std::int64_t Second = 1'000'000'000;
constexpr std::int64_t Now = 1000 * Second;

class HealthTest : public testing::Test {
protected:
    HealthTest() { SetState(ServerState::Serving); }

    void SetState(ServerState state) { file.Head().state = static_cast<std::uint64_t>(state); }

    layout::Thread& NamedThread(std::uint64_t slot) {
        auto& thread = file.At<layout::Thread>(file.Regions().threads, slot);
        std::uint64_t word = 0;
        std::memcpy(&word, "events", 6);
        thread.name[0] = word;
        return thread;
    }

    void SetInbound(std::uint64_t entered, std::uint64_t left) {
        file.Head().bus.pushes.Write({entered, entered, 0});
        file.Head().bus.fanOut.Write({left, left, left});
    }

    AccountFile file{std::nullopt, {16, 16, 16, 4096, 16}};
    Health health{file};
};

TEST_F(HealthTest, AServerThatServes_IsWell) {
    EXPECT_EQ(health.WhyIll(Now), std::nullopt);
}

TEST_F(HealthTest, AServerThatDoesNotServe_IsNot) {
    for (const auto& [state, part] : {std::pair{ServerState::Starting, "yet"},
                                      {ServerState::Draining, "drains"},
                                      {ServerState::Stopping, "stops"},
                                      {ServerState::Stopped, "stops"}}) {
        SetState(state);
        EXPECT_THAT(health.WhyIll(Now), Optional(HasSubstr(part)));
    }
}

TEST_F(HealthTest, AThreadThatIsAwayForLong_IsNamed) {
    auto& thread = NamedThread(layout::ThreadCapacity - 1);
    thread.awaySince = Now - 10 * Second;
    EXPECT_EQ(health.WhyIll(Now), std::nullopt);

    EXPECT_THAT(health.WhyIll(Now + Second), Optional(std::string("The thread 'events' has been away from its loop for "
                                                                  "11 s.")));
    thread.awaySince = 0;
    EXPECT_EQ(health.WhyIll(Now + 2 * Second), std::nullopt);
}

TEST_F(HealthTest, ValuesThatStayInbound_AreReportedAfterSomeTime) {
    SetInbound(9, 5);
    EXPECT_EQ(health.WhyIll(Now), std::nullopt);
    EXPECT_EQ(health.WhyIll(Now + 10 * Second), std::nullopt);

    EXPECT_THAT(health.WhyIll(Now + 11 * Second), Optional(HasSubstr("for 11 s, and 4 are in it")));

    SetInbound(9, 6);
    EXPECT_EQ(health.WhyIll(Now + 12 * Second), std::nullopt);
}

TEST_F(HealthTest, AnEmptyInboundQueue_MayStaySo) {
    SetInbound(5, 5);
    EXPECT_EQ(health.WhyIll(Now), std::nullopt);
    EXPECT_EQ(health.WhyIll(Now + 100 * Second), std::nullopt);

    SetInbound(6, 5);
    EXPECT_EQ(health.WhyIll(Now + 200 * Second), std::nullopt) << "it came a moment ago";
    EXPECT_EQ(health.WhyIll(Now + 205 * Second), std::nullopt);
    EXPECT_THAT(health.WhyIll(Now + 211 * Second), Optional(HasSubstr("for 11 s, and 1 are in it")));
}

TEST_F(HealthTest, AValueAfterOneThatWasTakenBack_HasItsOwnTime) {
    SetInbound(6, 5);
    EXPECT_EQ(health.WhyIll(Now), std::nullopt);
    SetInbound(5, 5);
    EXPECT_EQ(health.WhyIll(Now + 5 * Second), std::nullopt);

    SetInbound(6, 5);
    EXPECT_EQ(health.WhyIll(Now + 20 * Second), std::nullopt);
}

} // namespace
