// The topics of a file: as many as the format counts, and what becomes of further ones.

#include "recordings/topic_channels.h"

#include "recording/recording_reader.h"
#include "recording_file_test.h"

#include <gtest/gtest.h>

namespace {

class TopicChannelsTest : public recordings_test::RecordingFileTest {};

TEST_F(TopicChannelsTest, WithoutRoomForATopic_ItsValuesAreLeftOut_AndTheOthersAreWritten) {
    constexpr auto most = recording::RecordingWriter::MostChannels;
    recording::RecordingWriter writer(path, recording::ExistingFile::IsReplaced, "test");
    recordings::TopicChannels channels(writer);
    const auto write = [&](std::size_t topic) {
        channels.Write(std::to_string(topic), recording::Time(), static_cast<std::int64_t>(topic));
    };
    for (std::size_t topic = 0; topic < most; ++topic) {
        write(topic);
    }
    channels.Settle();
    EXPECT_TRUE(channels.IsFull());
    EXPECT_EQ(channels.LeftOut(), 0U);
    write(most);
    write(0);
    write(most);
    channels.Settle();
    EXPECT_EQ(channels.LeftOut(), 2U);
    writer.Close();

    recording::RecordingReader reader(path);
    std::size_t values = 0;
    std::int64_t last = -1;
    while (const auto item = reader.Next()) {
        if (const auto* const message = std::get_if<recording::Message>(&*item)) {
            ++values;
            last = message->value;
        }
    }
    EXPECT_EQ(values, most + 1);
    EXPECT_EQ(last, 0);
}

} // namespace
