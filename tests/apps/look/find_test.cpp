// What a word on the command line means: a topic or name that is printed escaped can be given as it was printed, and a
// number that is a name stays one.

#include "look/find.h"

#include "hand_made.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class FindTest : public testing::Test {
protected:
    FindTest() {
        account.publishers = {hand_made::Publisher(7, "a"), hand_made::Publisher(8, "line\nfeed")};
        account.subscribers = {hand_made::Subscriber(9, "display", {"a", "wanted"}),
                               hand_made::Subscriber(10, "display", {"a"}), hand_made::Subscriber(11, "9", {"a"})};
    }

    instruments::Snapshot account = hand_made::Account();
};

TEST_F(FindTest, FindTopic_ByItsBytes_FindsIt) {
    EXPECT_EQ(look::FindTopic(account, "a")->topic, "a");
    EXPECT_EQ(look::FindTopic(account, "line\nfeed")->publisher, 1u);
}

TEST_F(FindTest, FindTopic_ByWhatIsPrinted_FindsIt) {
    EXPECT_EQ(look::FindTopic(account, "line\\nfeed")->topic, "line\nfeed");
}

TEST_F(FindTest, FindTopic_ThatOnlyASubscriberKnows_FindsItWithoutPublisher) {
    const auto view = look::FindTopic(account, "wanted");
    ASSERT_TRUE(view);
    EXPECT_FALSE(view->publisher);
    EXPECT_THAT(view->subscribers, ElementsAre(0));
}

TEST_F(FindTest, Find_ByName_FindsEverySubscriberOfThatName) {
    const auto found = look::Find(account, "display");
    EXPECT_FALSE(found.topic);
    EXPECT_THAT(found.subscribers, ElementsAre(0, 1));
}

TEST_F(FindTest, Find_ByANameThatIsAlsoWhatIsPrintedForAnother_FindsTheName) {
    account.subscribers.push_back(hand_made::Subscriber(12, "line\\nfeed", {"a"}));
    account.subscribers.push_back(hand_made::Subscriber(13, "line\nfeed", {"a"}));
    EXPECT_THAT(look::Find(account, "line\\nfeed").subscribers, ElementsAre(3));
}

TEST_F(FindTest, Find_ByNumber_FindsIdAndName) {
    EXPECT_THAT(look::Find(account, "9").subscribers, ElementsAre(0, 2));
}

TEST_F(FindTest, Find_ByIdOfAPublisher_FindsItsTopic) {
    EXPECT_EQ(look::Find(account, "8").topic->topic, "line\nfeed");
}

TEST_F(FindTest, Find_ByIdOfAPublisherThatLeft_FindsNothing) {
    account.publishers[1].leftAt = hand_made::Now;
    EXPECT_FALSE(look::Find(account, "8").topic);
}

TEST_F(FindTest, Find_WithAnUnknownWord_FindsNothing) {
    for (const auto* const word : {"", "b", "0", "12", "9 ", "-9", "99999999999999999999"}) {
        const auto found = look::Find(account, word);
        EXPECT_FALSE(found.topic) << word;
        EXPECT_THAT(found.subscribers, IsEmpty()) << word;
    }
}

} // namespace
