// The page of `msgbus top` fits the terminal exactly, whatever is on the bus: one line too many scrolls the screen, one
// column too many breaks a line.

#include "top/page.h"

#include "hand_made.h"
#include "terminal/text_width.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

namespace {

using terminal::Size;
using terminal::Style;

using Lines = std::vector<terminal::StyledLine>;

instruments::Snapshot Crowd(std::size_t count) {
    auto account = hand_made::Account();
    for (std::size_t i = 0; i < count; ++i) {
        const auto id = static_cast<std::int64_t>(i);
        account.publishers.push_back(
            hand_made::Publisher(2 * id + 1, "topic/" + std::to_string(i) + std::string(i % 100, 'x') + "温"));
        account.publishers.back().rates.last1 = 1e9;
        account.subscribers.push_back(hand_made::Behind(2 * id + 2, "subscriber", 1'000'000'000'000 + i, 100'000));
    }
    return account;
}

std::size_t CountOf(const Lines& page, const std::string& part) {
    return static_cast<std::size_t>(std::count_if(
        page.begin(), page.end(), [&](const auto& line) { return line.text.find(part) != std::string::npos; }));
}

TEST(PageTest, APage_FillsTheTerminalAndNoMore) {
    for (const Size size : {Size{80, 24}, Size{40, 10}, Size{200, 60}, Size{10, 3}, Size{1, 1}, Size{80, 7}}) {
        for (const unsigned clients : {0u, 1u, 5u, 500u}) {
            const auto page = top::Page(Crowd(clients), {}, size);
            EXPECT_EQ(page.size(), size.rows);
            for (const auto& line : page) {
                EXPECT_LE(terminal::WidthOf(line.text), size.columns) << line.text;
            }
        }
    }
}

TEST(PageTest, BothTables_ShareTheRoom) {
    const auto page = top::Page(Crowd(500), {}, Size{80, 24});
    EXPECT_EQ(CountOf(page, "topics: 7 of 501, by rate"), 1u);
    EXPECT_EQ(CountOf(page, "subscribers: 8 of 500, by rate"), 1u);
}

TEST(PageTest, ATableThatNeedsLess_LeavesTheRoomToTheOther) {
    auto account = Crowd(500);
    account.publishers.resize(1);
    account.subscribers.resize(1);
    account.subscribers[0].topics = {account.publishers[0].topic};
    for (std::size_t i = 0; i < 100; ++i) {
        account.subscribers.push_back(hand_made::Subscriber(static_cast<std::int64_t>(1000 + i), "s", {"topic/0温"}));
    }
    EXPECT_EQ(CountOf(top::Page(account, {}, Size{80, 24}), "subscribers: 14 of 101, by rate"), 1u);
}

TEST(PageTest, WithoutASize_EverythingIsThere) {
    const auto page = top::Page(Crowd(500), {}, std::nullopt);
    EXPECT_EQ(CountOf(page, "topic/"), 500u);
    EXPECT_EQ(CountOf(page, "subscriber"), 501u);
    EXPECT_EQ(CountOf(page, "q quit"), 0u);
}

TEST(PageTest, Show_LeavesTheOtherTableOut) {
    top::View view;
    view.show = top::Show::Subscribers;
    view.sort = top::SortKey::Queued;
    view.isReversed = true;
    const auto page = top::Page(Crowd(3), view, Size{80, 24});
    EXPECT_EQ(CountOf(page, "TOPIC"), 0u);
    EXPECT_EQ(CountOf(page, "subscribers: 3 of 3, by lag reversed"), 1u);
}

TEST(PageTest, DropsAndLag_StandOut) {
    auto account = hand_made::Account();
    account.subscribers = {hand_made::Behind(1, "lagging", 1000, 1), hand_made::Subscriber(2, "losing", {"a"}),
                           hand_made::Subscriber(3, "well", {"a"})};
    account.subscribers[1].flows.dropped.oldest = 1;
    const auto page = top::Page(account, {}, Size{80, 24});
    const auto styleOf = [&](const std::string& name) {
        return std::find_if(page.begin(), page.end(), [&](const auto& line) { return line.text.ends_with(name); })
            ->style;
    };
    EXPECT_EQ(styleOf("lagging"), Style::Warning);
    EXPECT_EQ(styleOf("losing"), Style::Alarm);
    EXPECT_EQ(styleOf("well"), Style::Plain);
}

TEST(PageTest, AServerThatIsGone_IsOnThePage) {
    auto account = hand_made::Account();
    EXPECT_EQ(CountOf(top::Page(account, {}, Size{80, 24}), "is gone"), 0u);
    account.server.isAlive = false;
    EXPECT_EQ(CountOf(top::Page(account, {}, Size{80, 24}), "is gone"), 1u);
}

TEST(PageTest, AnAccountThatDoesNotAddUp_SaysSo) {
    auto account = hand_made::Account();
    account.bus.accepted = 1;
    EXPECT_EQ(CountOf(top::Page(account, {}, Size{80, 24}), "does not add up"), 1u);
}

} // namespace
