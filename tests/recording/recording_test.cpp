// What was written is read: every value, in order, with its time; of a file that was cut or damaged what can be had,
// and never more.

#include "recording/recording_reader.h"
#include "recording/recording_writer.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <random>

namespace {

using namespace recording;
using std::chrono::nanoseconds;

struct Content {
    std::vector<Message> messages;
    std::vector<Note> notes;
    std::map<std::uint16_t, Channel> channels;
    FileEnd end;
    std::uint64_t others = 0;
};

class RecordingTest : public testing::Test {
protected:
    RecordingTest() {
        std::string pattern = (std::filesystem::temp_directory_path() / "borven-recording-XXXXXX").string();
        folder = ::mkdtemp(pattern.data());
    }
    ~RecordingTest() override { std::filesystem::remove_all(folder); }

    std::string Path(const char* name = "file.mcap") const { return (folder / name).string(); }

    static Content Read(const std::string& path, Time from = Time::min()) {
        RecordingReader reader(path);
        Content content;
        while (auto item = reader.Next(from)) {
            if (const auto* message = std::get_if<Message>(&*item)) {
                content.messages.push_back(*message);
            } else {
                content.notes.push_back(std::get<Note>(*item));
            }
        }
        content.channels = reader.Channels();
        content.end = reader.End();
        content.others = reader.OtherMessages();
        return content;
    }

    std::string Bytes() const {
        std::ifstream file(Path(), std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    void Put(const std::string& bytes) const { std::ofstream(Path(), std::ios::binary) << bytes; }

    /// Writes `count` values of two channels, in chunks of `perChunk`.
    void WriteValues(std::int64_t count, std::int64_t perChunk, bool isClosed = true) const {
        RecordingWriter writer(Path(), ExistingFile::IsReplaced, "test");
        const auto one = writer.Add({"one", "", false});
        const auto two = writer.Add({"two", "", true});
        for (std::int64_t value = 0; value < count; ++value) {
            writer.Write(Message{value % 3 == 0 ? two : one, static_cast<std::uint32_t>(value), TimeAt(value), value});
            if (value % perChunk == perChunk - 1) {
                writer.Flush();
            }
        }
        if (isClosed) {
            writer.Close();
        }
    }
    static Time TimeAt(std::int64_t value) { return Time(nanoseconds(1'790'000'000'000'000'000 + value * 1000)); }

    std::filesystem::path folder;
};

TEST_F(RecordingTest, WhatWasWritten_IsRead) {
    {
        RecordingWriter writer(Path(), ExistingFile::IsKept, "test 1");
        const auto one = writer.Add({"a topic", "fixed;step=1/10;unit=V", false});
        const auto two = writer.Add({"b\xff\n", "", true});
        writer.Write(Note{"begin", {{"host", "here"}}});
        writer.Write(Message{one, 7, TimeAt(1), std::numeric_limits<std::int64_t>::min()});
        writer.Write(Message{two, 8, TimeAt(0), std::numeric_limits<std::int64_t>::max()});
        writer.Write(Note{"loss", {{"values", "3"}}});
        writer.Write(Message{one, 9, TimeAt(2), -1});
        EXPECT_EQ(writer.MessageCount(), 3U);
        writer.Close();
        EXPECT_EQ(writer.FileBytes(), std::filesystem::file_size(Path()));
    }
    const Content content = Read(Path());
    ASSERT_EQ(content.messages.size(), 3U);
    EXPECT_EQ(content.messages[0].value, std::numeric_limits<std::int64_t>::min());
    EXPECT_EQ(content.messages[0].sequence, 7U);
    EXPECT_EQ(content.messages[0].time, TimeAt(1));
    EXPECT_EQ(content.messages[1].value, std::numeric_limits<std::int64_t>::max());
    EXPECT_EQ(content.messages[1].time, TimeAt(0));
    EXPECT_EQ(content.messages[2].value, -1);
    ASSERT_EQ(content.channels.size(), 2U);
    const auto& first = content.channels.at(content.messages[0].channel);
    EXPECT_EQ(first.topic, "a topic");
    EXPECT_EQ(first.description, "fixed;step=1/10;unit=V");
    EXPECT_FALSE(first.isFloat);
    const auto& second = content.channels.at(content.messages[1].channel);
    EXPECT_EQ(second.topic, "b\xff\n");
    EXPECT_TRUE(second.isFloat);
    ASSERT_EQ(content.notes.size(), 2U);
    EXPECT_EQ(content.notes[0].name, "begin");
    EXPECT_EQ(content.notes[0].texts.at("host"), "here");
    EXPECT_EQ(content.notes[1].texts.at("values"), "3");
    EXPECT_TRUE(content.end.isComplete);
    EXPECT_EQ(content.end.cutBytes, 0U);
    EXPECT_EQ(RecordingReader(Path()).FileBytes(), std::filesystem::file_size(Path()));
}

TEST_F(RecordingTest, ARecordingWithoutValues_IsComplete) {
    {
        RecordingWriter writer(Path(), ExistingFile::IsKept, "test");
        writer.Close();
    }
    EXPECT_TRUE(Read(Path()).end.isComplete);
    EXPECT_TRUE(Read(Path()).messages.empty());
}

TEST_F(RecordingTest, AFileThatIsThere_IsKeptUnlessItIsToBeReplaced) {
    Put("something");
    EXPECT_THROW(RecordingWriter(Path(), ExistingFile::IsKept, "test"), RecordingError);
    EXPECT_EQ(Bytes(), "something");
    WriteValues(1, 1);
    EXPECT_EQ(Read(Path()).messages.size(), 1U);
}

TEST_F(RecordingTest, WhatWasFlushed_IsReadableWithoutTheEnd) {
    WriteValues(10, 4, false); // of which two were only collected
    const Content content = Read(Path());
    EXPECT_EQ(content.messages.size(), 8U);
    EXPECT_FALSE(content.end.isComplete);
    EXPECT_EQ(content.end.cutBytes, 0U);
    EXPECT_EQ(content.end.reason, "it was not closed");
}

TEST_F(RecordingTest, CutAnywhere_TheValuesOfWholeChunksAreRead) {
    WriteValues(30, 10);
    const std::string whole = Bytes();
    std::size_t before = 0;
    for (std::size_t size = 8; size <= whole.size(); ++size) {
        Put(whole.substr(0, size));
        const Content content = Read(Path());
        EXPECT_EQ(content.messages.size() % 10, 0U);
        EXPECT_GE(content.messages.size(), before);
        before = content.messages.size();
        for (std::size_t index = 0; index < content.messages.size(); ++index) {
            ASSERT_EQ(content.messages[index].value, static_cast<std::int64_t>(index));
        }
        EXPECT_EQ(content.end.isComplete, size == whole.size()) << size;
        EXPECT_EQ(content.end.reason.empty(), size == whole.size()) << size;
    }
    EXPECT_EQ(before, 30U);
    for (std::size_t size = 0; size < 8; ++size) {
        Put(whole.substr(0, size));
        EXPECT_THROW(RecordingReader{Path()}, RecordingError);
    }
}

TEST_F(RecordingTest, DamagedAnywhere_NothingIsReadThatWasNotWritten) {
    WriteValues(300, 100);
    const std::string whole = Bytes();
    std::mt19937 random(1);
    std::size_t refused = 0;
    for (int round = 0; round < 3000; ++round) {
        std::string damaged = whole;
        for (int fault = 0; fault < 1 + round % 3; ++fault) {
            damaged[random() % damaged.size()] = static_cast<char>(random());
        }
        Put(damaged);
        try {
            for (const auto& message : Read(Path()).messages) {
                EXPECT_LT(message.value, 300);
                EXPECT_GE(message.value, 0);
            }
        } catch (const RecordingError&) {
            ++refused;
        }
    }
    EXPECT_GT(refused, 100U);
}

TEST_F(RecordingTest, ALargeChunkThatIsClaimed_TakesNoMemory) {
    WriteValues(10, 10);
    std::string bytes = Bytes();
    const auto chunk = bytes.find("zstd");
    ASSERT_NE(chunk, std::string::npos);
    for (std::size_t byte = 0; byte < 8; ++byte) {
        bytes[chunk - 4 - 4 - 8 + byte] = '\x7f'; // the uncompressed size
    }
    Put(bytes);
    EXPECT_THROW(Read(Path()), RecordingError);
}

TEST_F(RecordingTest, AnotherCompression_IsNamed) {
    WriteValues(10, 10);
    std::string bytes = Bytes();
    bytes.replace(bytes.find("zstd"), 4, "lz4x");
    Put(bytes);
    try {
        Read(Path());
        FAIL();
    } catch (const RecordingError& error) {
        EXPECT_STREQ(error.what(), "the file is compressed with 'lz4x', which this program cannot read; zstd it can");
    }
}

TEST_F(RecordingTest, MessagesOfOtherTypes_AreCounted) {
    WriteValues(9, 9, false); // so that it has no checksum of its data
    std::string bytes = Bytes();
    bytes.replace(bytes.find("std_msgs/msg/Float64"), 20, "std_msgs/msg/Fluff64");
    Put(bytes);
    const Content content = Read(Path());
    EXPECT_EQ(content.messages.size(), 6U);
    EXPECT_EQ(content.others, 3U);
    EXPECT_EQ(content.channels.size(), 1U);
}

TEST_F(RecordingTest, ChunksThatEndBefore_ArePassedOver) {
    WriteValues(100, 10);
    const Content content = Read(Path(), TimeAt(55));
    ASSERT_FALSE(content.messages.empty());
    EXPECT_EQ(content.messages.back().value, 99);
    EXPECT_GE(content.messages.size(), 45U);
    EXPECT_LE(content.messages.size(), 60U); // the chunk with number 55, those behind it
    EXPECT_TRUE(content.end.isComplete);
}

TEST_F(RecordingTest, ManyValues_MakeChunksByThemselves) {
    WriteValues(100'000, std::numeric_limits<std::int64_t>::max());
    const Content content = Read(Path());
    ASSERT_EQ(content.messages.size(), 100'000U);
    EXPECT_EQ(content.messages.back().value, 99'999);
    EXPECT_GT(std::filesystem::file_size(Path()), 100'000U);
}

TEST_F(RecordingTest, WhatIsNoRecording_IsRefused) {
    EXPECT_THROW(RecordingReader{Path("missing")}, RecordingError);
    EXPECT_THROW(RecordingReader{folder.string()}, RecordingError);
    Put("no magic in these bytes");
    EXPECT_THROW(RecordingReader{Path()}, RecordingError);
    Put("");
    EXPECT_THROW(RecordingReader{Path()}, RecordingError);
}

TEST_F(RecordingTest, WhatCannotBeWritten_IsAnError) {
    EXPECT_THROW(RecordingWriter("/nowhere/file.mcap", ExistingFile::IsKept, "test"), RecordingError);
    EXPECT_THROW(RecordingWriter("/dev/full", ExistingFile::IsReplaced, "test"), RecordingError);
}

TEST_F(RecordingTest, AnUnknownChannel_IsAnError) {
    RecordingWriter writer(Path(), ExistingFile::IsKept, "test");
    EXPECT_THROW(writer.Write(Message{}), RecordingError);
    EXPECT_THROW((writer.Write(Message{1, 0, {}, 0})), RecordingError);
}

} // namespace
