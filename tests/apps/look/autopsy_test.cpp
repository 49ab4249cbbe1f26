// What is said of a server that died: its fate, who was behind, what was lost and why, and which thread was stuck.
// Times are those of its end, not of the look.

#include "diagnosis/autopsy.h"

#include "hand_made.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using diagnosis::AutopsyText;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

/// A server that was killed an hour before it is looked at.
instruments::Snapshot Killed() {
    auto account = hand_made::Account();
    account.server.isAlive = false;
    account.server.gaugesAt = hand_made::Now;
    account.readAt = hand_made::Now + 3600 * hand_made::Second;
    return account;
}

TEST(AutopsyTest, Fate_TellsARunningAStoppedAndAKilledServerApart) {
    auto account = hand_made::Account();
    EXPECT_THAT(AutopsyText(account), HasSubstr("it runs, and is serving"));
    account.server.isPaused = true;
    EXPECT_THAT(AutopsyText(account), HasSubstr("it is paused by a signal or a debugger while serving"));
    account.server.state = instruments::ServerState::Stopped;
    EXPECT_THAT(AutopsyText(account), HasSubstr("it has stopped in order"));
    EXPECT_THAT(AutopsyText(Killed()), HasSubstr("it ended while it was serving, without a stop"));
}

TEST(AutopsyTest, EndOf_AServerThatIsGone_IsItsLastSign) {
    auto account = Killed();
    EXPECT_EQ(diagnosis::EndOf(account), hand_made::Now);
    account.events.push_back(hand_made::Event(1, hand_made::Now + 5, instruments::EventKind::Serving));
    EXPECT_EQ(diagnosis::EndOf(account), hand_made::Now + 5);
    account.publishers = {hand_made::Publisher(1, "a")};
    account.publishers[0].lastAt = hand_made::Now + 6;
    EXPECT_EQ(diagnosis::EndOf(account), hand_made::Now + 6);
    account.server.isAlive = true;
    EXPECT_EQ(diagnosis::EndOf(account), account.readAt);
}

TEST(AutopsyTest, Sums_SayWhetherTheyAddUp) {
    auto account = Killed();
    account.bus.accepted = 10;
    account.bus.fannedOut = 7;
    account.bus.inbound = 2;
    account.bus.withoutSubscriber = 1;
    EXPECT_THAT(AutopsyText(account),
                AllOf(HasSubstr("10 accepted = 7 fanned out + 2 inbound + 1 without a subscriber"),
                      HasSubstr("  the account adds up\n")));
    account.bus.inbound = 3;
    EXPECT_THAT(AutopsyText(account), HasSubstr("THE ACCOUNT DOES NOT ADD UP"));
}

TEST(AutopsyTest, Behind_ListsTheWorstFirst) {
    auto account = Killed();
    account.subscribers = {hand_made::Behind(1, "little", 1, 3), hand_made::Subscriber(2, "well", {"a"}),
                           hand_made::Behind(3, "much", 900, 20)};
    account.subscribers[2].isCut = true;
    EXPECT_THAT(AutopsyText(account), HasSubstr("behind: 2 subscribers had values unread\n"
                                                "  ID  PID  PROGRAM  STATE  QUEUED  OLDEST  NAME\n"
                                                "   3  400  display  cut       900     20s  much\n"
                                                "   1  400  display  away        1      3s  little\n"));
}

TEST(AutopsyTest, Lost_HasReasonsAndSubscribers) {
    auto account = Killed();
    EXPECT_THAT(AutopsyText(account), HasSubstr("lost: nothing\n"));
    account.bus.flows.dropped = {.oldest = 4, .unregistered = 3};
    account.subscribers = {hand_made::Subscriber(2, "losing", {"a"})};
    account.subscribers[0].flows.dropped.oldest = 4;
    EXPECT_THAT(AutopsyText(account),
                AllOf(HasSubstr("lost: 7 values\n"
                                "  4 the oldest of a subscriber at its limit (drop-oldest)\n"
                                "  3 unread when their subscriber unregistered, or its process ended\n"
                                "  4 of these: subscriber 'losing' (id 2), still registered\n"),
                      Not(HasSubstr("drop-newest"))));
}

TEST(AutopsyTest, Errors_HaveCountAndTimes) {
    auto account = Killed();
    account.errors.push_back(
        {true, "a.cpp:1", 12, hand_made::Now - 10 * hand_made::Second, hand_made::Now, "no\nmemory"});
    EXPECT_THAT(AutopsyText(account),
                AllOf(HasSubstr("errors: 1 different ones were logged\n"),
                      HasSubstr("  error     12  2023-11-14T22:29:50.000Z  2023-11-14T22:30:00.000Z  a.cpp:1  "
                                "no\\nmemory\n")));
}

TEST(AutopsyTest, Threads_ShowWhoIsAwayAtTheEnd) {
    auto account = Killed();
    account.threads = {{.name = "quiet", .longestAway = std::chrono::milliseconds(10), .longestAt = hand_made::Now},
                       {.name = "stuck",
                        .awaySince = hand_made::Now - 8 * hand_made::Second,
                        .longestAway = std::chrono::seconds(8),
                        .longestAt = hand_made::Now}};
    EXPECT_THAT(AutopsyText(account), HasSubstr("  AWAY  LONGEST  WHEN                      THREAD\n"
                                                "    8s       8s  2023-11-14T22:30:00.000Z  stuck\n"
                                                "     -     10ms  2023-11-14T22:30:00.000Z  quiet\n"));
}

TEST(AutopsyTest, Events_AreTheLastOnes) {
    auto account = Killed();
    for (std::uint64_t number = 1; number <= 30; ++number) {
        account.events.push_back(hand_made::Event(number, hand_made::Now, instruments::EventKind::SubscriberCut));
        account.events.back().id = static_cast<std::int64_t>(number);
    }
    EXPECT_THAT(AutopsyText(account), AllOf(HasSubstr("events: the last 20 of 30\n"), HasSubstr(" id=11\n"),
                                            HasSubstr(" id=30\n"), Not(HasSubstr(" id=10\n"))));
}

} // namespace
