// The tables of `msgbus list`: scripts take them apart at spaces, so each column but the last is one word; and no name
// controls the terminal.

#include "look/list.h"

#include "hand_made.h"

#include <gtest/gtest.h>

namespace {

using look::ListKind;
using look::ListText;

TEST(ListTest, Topics_ShowValueAndSumsOverSubscribers) {
    auto account = hand_made::Account();
    account.publishers = {hand_made::Publisher(1, "a"), hand_made::Publisher(2, "b c")};
    account.publishers[0].lastValue = -5;
    account.publishers[0].lastAt = hand_made::Now - 2 * hand_made::Second;
    account.publishers[0].rates.last10 = 12.34;
    account.subscribers = {hand_made::Behind(3, "x", 10, 1), hand_made::Behind(4, "y", 5, 1)};
    account.subscribers[1].flows.dropped.cut = 7;
    EXPECT_EQ(ListText(account, ListKind::Topics),
              "PID  PROGRAM  VALUE  AGE  RATE  SUBSCRIBERS  QUEUED  DROPPED  TOPIC\n"
              "300  sensor      -5   2s  12.3            2      15        7  a\n"
              "300  sensor       -    -     0            0       0        0  b c\n");
}

TEST(ListTest, Topics_OfAPublisherThatLeft_KeepTheValue) {
    auto account = hand_made::Account();
    account.publishers = {hand_made::Publisher(1, "a")};
    account.publishers[0].leftAt = hand_made::Now - hand_made::Second;
    account.publishers[0].lastValue = 3;
    account.publishers[0].lastAt = hand_made::Now - 2 * hand_made::Second;
    EXPECT_EQ(ListText(account, ListKind::Topics),
              "PID  PROGRAM  VALUE  AGE  RATE  SUBSCRIBERS  QUEUED  DROPPED  TOPIC\n"
              "  -  -            3   2s     0            0       0        0  a\n");
}

TEST(ListTest, Publishers_AreThoseThatAreRegistered) {
    auto account = hand_made::Account();
    account.publishers = {hand_made::Publisher(1, "a"), hand_made::Publisher(2, "b")};
    account.publishers[0].accepted = 11;
    account.publishers[1].leftAt = hand_made::Now;
    EXPECT_EQ(ListText(account, ListKind::Publishers),
              "ID  PID  PROGRAM  SINCE                     ACCEPTED  REFUSED  RATE  AGE  TOPIC\n"
              " 1  300  sensor   2023-11-14T22:29:00.000Z        11        0     0    -  a\n");
}

TEST(ListTest, Subscribers_ShowStateAndLag) {
    auto account = hand_made::Account();
    account.subscribers = {hand_made::Subscriber(3, "x", {"a", "b"}), hand_made::Behind(4, "y", 5, 1),
                           hand_made::Behind(5, "z", 6, 2)};
    account.subscribers[2].isCut = true;
    EXPECT_EQ(
        ListText(account, ListKind::Subscribers),
        "ID  PID  PROGRAM  SINCE                     TOPICS  STATE    QUEUED  OLDEST  RATE  TAKEN  DROPPED  NAME\n"
        " 3  400  display  2023-11-14T22:29:30.000Z       2  waiting       0       -     0      0        0  x\n"
        " 4  400  display  2023-11-14T22:29:30.000Z       1  away          5      1s     0      5        0  y\n"
        " 5  400  display  2023-11-14T22:29:30.000Z       1  cut           6      2s     0      5        0  z\n");
}

TEST(ListTest, Names_AreEscaped) {
    auto account = hand_made::Account();
    account.publishers = {hand_made::Publisher(1, "\x1b[2J\n\xff")};
    account.publishers[0].process.program = "my program\x07";
    const auto text = ListText(account, ListKind::Publishers);
    EXPECT_NE(text.find("  my\\x20program\\x07  "), std::string::npos) << text;
    EXPECT_NE(text.find("  \\x1b[2J\\n\\xff\n"), std::string::npos) << text;
}

TEST(ListTest, AnEmptyBus_HasTheHeadings) {
    for (const auto kind : {ListKind::Topics, ListKind::Publishers, ListKind::Subscribers}) {
        const auto text = ListText(hand_made::Account(), kind);
        EXPECT_EQ(text.find('\n'), text.size() - 1);
    }
}

} // namespace
