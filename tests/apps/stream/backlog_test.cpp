// Defends the WebSocket frames that are made here, and that what waits for a client is bounded, in order and counted.
#include "stream/wire/backlog.h"

#include "stream/wire/protocol.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using namespace stream;

constexpr std::size_t FrameBytes = 2 + ValueSize;

std::string All(Backlog& backlog) {
    std::string bytes;
    backlog.TakeFrames(bytes, std::size_t{1} << 30);
    return bytes;
}

std::string Frame(const Backlog::Value& value) {
    std::string bytes;
    AppendFrameHead(bytes, FrameKind::Binary, ValueSize);
    AppendValue(bytes, value.subscription, value.timeNs, value.value);
    return bytes;
}

TEST(StreamBacklogTest, FrameHeads_HaveTheLengthsOfTheStandard) {
    const auto head = [](std::size_t size) {
        std::string bytes;
        AppendFrameHead(bytes, FrameKind::Text, size);
        return bytes;
    };
    EXPECT_EQ(head(0), std::string("\x81\x00", 2));
    EXPECT_EQ(head(125), "\x81\x7d");
    EXPECT_EQ(head(126), std::string("\x81\x7e\x00\x7e", 4));
    EXPECT_EQ(head(65535), "\x81\x7e\xff\xff");
    EXPECT_EQ(head(65536), std::string("\x81\x7f\0\0\0\0\0\1\0\0", 10));
}

TEST(StreamBacklogTest, CloseFrame_HasCodeAndReasonAndFits) {
    EXPECT_EQ(CloseFrame(1001, "end"), "\x88\x05\x03\xe9"
                                       "end");
    EXPECT_EQ(CloseFrame(1000, std::string(200, 'x')).size(), 2U + 125U);
}

TEST(StreamBacklogTest, ReasonThatIsCut_IsUtf8AllTheSame) {
    const std::string reason = std::string(122, 'x') + "\u00e9";
    EXPECT_TRUE(CloseFrame(1000, reason).ends_with("xx"));
    EXPECT_EQ(CloseFrame(1000, reason.substr(1)).size(), 4U + 123U);
}

TEST(StreamBacklogTest, End_IsBehindTheTextsAndNothingFollows) {
    Backlog backlog;
    backlog.AddValue({1, 2, 3});
    ASSERT_TRUE(backlog.AddText("a"));
    backlog.End("the end");
    EXPECT_FALSE(backlog.IsEmpty());
    EXPECT_TRUE(backlog.AddText("b"));
    backlog.AddValue({1, 2, 4});

    EXPECT_EQ(All(backlog), "\x81\x01"
                            "athe end");
    EXPECT_TRUE(backlog.IsEmpty());
    EXPECT_EQ(All(backlog), "");
}

TEST(StreamBacklogTest, Texts_AreSentBeforeValuesAndAllInOrder) {
    Backlog backlog;
    backlog.AddValue({1, 2, 3});
    backlog.AddValue({1, 3, 4});
    ASSERT_TRUE(backlog.AddText("a"));
    ASSERT_TRUE(backlog.AddText("b"));

    EXPECT_EQ(All(backlog), "\x81\x01"
                            "a\x81\x01"
                            "b" +
                                Frame({1, 2, 3}) + Frame({1, 3, 4}));
    EXPECT_TRUE(backlog.IsEmpty());
}

TEST(StreamBacklogTest, Batch_EndsAtItsSize) {
    Backlog backlog;
    for (int value = 0; value < 10; ++value) {
        backlog.AddValue({1, 2, value});
    }
    std::string bytes;
    backlog.TakeFrames(bytes, 3 * FrameBytes);

    EXPECT_EQ(bytes.size(), 3 * FrameBytes);
    EXPECT_EQ(backlog.ValueCount(), 7U);
    EXPECT_TRUE(All(backlog).starts_with(Frame({1, 2, 3})));
}

TEST(StreamBacklogTest, TooManyValues_DropTheOldestAndCountThem) {
    Backlog backlog;
    for (std::size_t value = 0; value < Backlog::MostValues + 5; ++value) {
        backlog.AddValue({1, 2, static_cast<std::int64_t>(value)});
    }
    EXPECT_EQ(backlog.ValueCount(), Backlog::MostValues);
    EXPECT_EQ(backlog.Dropped(), 5U);
    EXPECT_TRUE(All(backlog).starts_with(Frame({1, 2, 5})));
}

TEST(StreamBacklogTest, ReportOfDropped_ComesOnceWithTheNumber) {
    Backlog backlog;
    for (std::size_t value = 0; value < Backlog::MostValues + 5; ++value) {
        backlog.AddValue({1, 2, 3});
    }
    All(backlog);
    EXPECT_TRUE(backlog.IsEmpty());
    backlog.ReportDropped();
    EXPECT_FALSE(backlog.IsEmpty());
    EXPECT_NE(All(backlog).find("5 values were dropped"), std::string::npos);
    EXPECT_EQ(All(backlog), "");
}

TEST(StreamBacklogTest, TooMuchText_IsRefusedUntilItIsSent) {
    const std::string quarter(Backlog::MostTextBytes / 4, 'x');
    Backlog backlog;
    for (int count = 0; count < 4; ++count) {
        ASSERT_TRUE(backlog.AddText(quarter));
    }
    EXPECT_EQ(backlog.TextBytes(), Backlog::MostTextBytes);
    EXPECT_FALSE(backlog.AddText("x"));
    std::string bytes;
    backlog.TakeFrames(bytes, 1);
    EXPECT_EQ(backlog.TextBytes(), 3 * quarter.size());
    EXPECT_TRUE(backlog.AddText("x"));
}

TEST(StreamBacklogTest, ManySmallTexts_AndOneThatIsLong_AreTaken) {
    Backlog backlog;
    for (int count = 0; count < 1000; ++count) {
        ASSERT_TRUE(backlog.AddText("x"));
    }
    EXPECT_TRUE(backlog.AddText(std::string(2 * Backlog::MostTextBytes, 'x')));
}

TEST(StreamBacklogTest, ValuesOfAnEndedSubscription_AreNotSent) {
    Backlog backlog;
    backlog.AddValue({1, 2, 3});
    backlog.AddValue({2, 2, 4});
    backlog.Forget(1);

    EXPECT_EQ(All(backlog), Frame({2, 2, 4}));
    EXPECT_EQ(backlog.Dropped(), 0U);
}

} // namespace
