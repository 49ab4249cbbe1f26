// Files that were damaged, or made to do harm: each change is noticed, what is behind it is read, and memory is
// bounded.

#include "encoding.h"
#include "recording/recording_reader.h"
#include "recording/recording_writer.h"
#include "recording/value_message.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <zstd.h>

#include <filesystem>
#include <fstream>
#include <iterator>

namespace {

using namespace recording;
using mcap::Opcode;
using std::chrono::nanoseconds;
using testing::ElementsAre;
using testing::HasSubstr;

using Values = std::vector<std::int64_t>;

/// What is in a file, with everything that is wrong with it.
struct Content {
    Values values;
    std::vector<std::string> topics; ///< of the values
    std::vector<std::string> faults;
    std::uint64_t others = 0;
    bool isComplete = false;
};

Content Read(const std::string& path, Time from = Time::min()) {
    RecordingReader reader(path);
    Content content;
    while (true) {
        try {
            const auto item = reader.Next(from);
            if (!item) {
                break;
            }
            if (const auto* message = std::get_if<Message>(&*item)) {
                content.values.push_back(message->value);
                content.topics.push_back(reader.Channels().at(message->channel).topic);
            }
        } catch (const RecordingError& error) {
            content.faults.emplace_back(error.what());
        }
    }
    content.others = reader.OtherMessages();
    content.isComplete = reader.End().isComplete;
    return content;
}

std::string Compressed(const std::string& bytes) {
    std::string compressed(ZSTD_compressBound(bytes.size()), '\0');
    compressed.resize(ZSTD_compress(compressed.data(), compressed.size(), bytes.data(), bytes.size(), 1));
    return compressed;
}

// Records as a writer of others may have them.

std::string HeaderRecord() {
    std::string content;
    Encoder encoder(content);
    encoder.Text("");
    encoder.Text("hand");
    return Record(Opcode::Header, content);
}

std::string SchemaRecord() {
    std::string content;
    Encoder encoder(content);
    encoder.U16(1);
    encoder.Text(recording::Int64Name);
    encoder.Text(recording::SchemaEncoding);
    encoder.Text(recording::Int64Definition);
    return Record(Opcode::Schema, content);
}

std::string ChannelRecord(std::uint16_t id, const std::string& topic, const Texts& metadata = {}) {
    std::string content;
    Encoder encoder(content);
    encoder.U16(id);
    encoder.U16(1);
    encoder.Text(topic);
    encoder.Text(recording::MessageEncoding);
    encoder.Map(metadata);
    return Record(Opcode::Channel, content);
}

std::string MessageRecord(std::uint16_t channel, std::int64_t value, std::uint64_t time = 7) {
    std::string content;
    Encoder encoder(content);
    encoder.U16(channel);
    encoder.U32(0);
    encoder.U64(time);
    encoder.U64(time);
    AppendValueMessage(content, value);
    return Record(Opcode::Message, content);
}

std::string ChunkRecord(std::string_view compression, const std::string& stored, std::uint64_t size,
                        std::uint64_t time = 7) {
    std::string content;
    Encoder encoder(content);
    encoder.U64(time);
    encoder.U64(time);
    encoder.U64(size);
    encoder.U32(0); // no checksum
    encoder.Text(compression);
    encoder.U64(stored.size());
    return Record(Opcode::Chunk, content + stored);
}

std::string EndRecords() {
    std::string crc;
    Encoder(crc).U32(0);
    return Record(Opcode::DataEnd, crc) + Record(Opcode::Footer, std::string(20, '\0')) + std::string(mcap::Magic);
}

class DamageTest : public testing::Test {
protected:
    DamageTest() {
        std::string pattern = (std::filesystem::temp_directory_path() / "borven-damage-XXXXXX").string();
        folder = ::mkdtemp(pattern.data());
    }
    ~DamageTest() override { std::filesystem::remove_all(folder); }

    std::string Path() const { return (folder / "file.mcap").string(); }
    std::string Bytes() const {
        std::ifstream file(Path(), std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    void Put(const std::string& bytes) const { std::ofstream(Path(), std::ios::binary) << bytes; }

    /// Reads a file of these records behind the header and a schema.
    Content ReadMade(const std::string& records, Time from = Time::min()) const {
        Put(std::string(mcap::Magic) + HeaderRecord() + SchemaRecord() + records + EndRecords());
        return Read(Path(), from);
    }

    /// Writes three chunks of two values: 0 to 5.
    void WriteChunks() const {
        RecordingWriter writer(Path(), ExistingFile::IsReplaced, "test");
        const auto channel = writer.Add({"topic", "fixed;step=1/10", false});
        writer.Write(Note{"note", {{"key", "text"}}});
        for (std::int64_t value = 0; value < 6; ++value) {
            writer.Write(Message{channel, static_cast<std::uint32_t>(value), Time(nanoseconds(1000 + value)), value});
            if (value % 2 == 1) {
                writer.Flush();
            }
        }
        writer.Close();
    }

    std::filesystem::path folder;
};

TEST_F(DamageTest, AChangedByteAnywhereInTheData_IsNoticed) {
    WriteChunks();
    const std::string whole = Bytes();
    ASSERT_TRUE(Read(Path()).faults.empty() && Read(Path()).isComplete);
    const std::size_t summary = whole.rfind(SchemaRecord().substr(0, 9)); // which begins with the schemas again
    ASSERT_GT(summary, whole.size() / 2);
    constexpr std::size_t dataEnd = mcap::RecordHead + 4;
    for (std::size_t at = mcap::Magic.size(); at < summary - dataEnd; ++at) {
        std::string damaged = whole;
        damaged[at] = static_cast<char>(damaged[at] ^ 0x10);
        Put(damaged);
        const Content content = Read(Path());
        EXPECT_TRUE(!content.faults.empty() || !content.isComplete) << "at " << at << " of " << summary;
    }
}

TEST_F(DamageTest, BehindADamagedChunk_TheOthersAreRead) {
    WriteChunks();
    std::string bytes = Bytes();
    std::size_t second = bytes.find(mcap::Zstd, bytes.find(mcap::Zstd) + 1);
    bytes[second + mcap::Zstd.size() + 8 + 10] ^= 1;
    Put(bytes);
    const Content content = Read(Path());
    EXPECT_THAT(content.values, ElementsAre(0, 1, 4, 5));
    EXPECT_EQ(content.faults.size(), 2U); // the chunk, and the checksum of all data
    EXPECT_TRUE(content.isComplete);
}

TEST_F(DamageTest, ALengthThatDoesNotFitIntoItsChunk_EndsTheChunk) {
    std::string records = MessageRecord(1, 5) + std::string("\x05") + std::string(8, '\x7f') + MessageRecord(1, 6);
    const Content content =
        ReadMade(ChannelRecord(1, "t") + ChunkRecord("", records, records.size()) + MessageRecord(1, 7));
    EXPECT_THAT(content.values, ElementsAre(5, 7));
    EXPECT_THAT(content.faults, ElementsAre(HasSubstr("a chunk ends within a record")));
}

TEST_F(DamageTest, ARecordThatIsTooShort_IsASentence) {
    for (const auto opcode : {Opcode::Schema, Opcode::Channel, Opcode::Message, Opcode::Metadata, Opcode::Chunk}) {
        const Content content = ReadMade(ChannelRecord(1, "t") + Record(opcode, "x") + MessageRecord(1, 7));
        EXPECT_THAT(content.values, ElementsAre(7));
        EXPECT_THAT(content.faults, ElementsAre(HasSubstr("damaged")));
    }
}

TEST_F(DamageTest, AChunkOfAnotherSizeThanItClaims_IsNotRead) {
    const std::string records = MessageRecord(1, 5);
    const Content content = ReadMade(ChannelRecord(1, "t") + ChunkRecord("", records, records.size() + 1) +
                                     ChunkRecord("zstd", Compressed(records), records.size() - 1) +
                                     ChunkRecord("zstd", Compressed(records), records.size() + 1) +
                                     ChunkRecord("zstd", Compressed(records), ~std::uint64_t{0}) + MessageRecord(1, 7));
    EXPECT_THAT(content.values, ElementsAre(7));
    EXPECT_EQ(content.faults.size(), 4U);
}

TEST_F(DamageTest, ManyLargeChannelsInASmallFile_TakeNoMemory) {
    std::string chunks;
    for (std::uint16_t id = 1; id <= 30; ++id) {
        const std::string channel = ChannelRecord(id, std::string(4U << 20, 't'));
        chunks += ChunkRecord("zstd", Compressed(channel), channel.size());
    }
    ASSERT_LT(chunks.size(), 100'000U);
    const Content content = ReadMade(chunks);
    EXPECT_EQ(content.faults.size(), 30U - 16U); // of which 16 are 64 MiB
    EXPECT_THAT(content.faults.front(), HasSubstr("more channels than this program takes"));
}

TEST_F(DamageTest, ASecondChannelOfTheSameNumber_ChangesNothing) {
    const Content content = ReadMade(ChannelRecord(1, "t") + ChannelRecord(1, "other") + MessageRecord(1, 7));
    EXPECT_THAT(content.topics, ElementsAre("t"));
}

TEST_F(DamageTest, BytesOfATopicThatAreNone_AreIgnored) {
    for (const char* bytes : {"", "6", "6g"}) {
        const Content content = ReadMade(ChannelRecord(1, "t", {{mcap::TopicBytesKey, bytes}}) + MessageRecord(1, 7));
        EXPECT_THAT(content.topics, ElementsAre("t")) << bytes;
    }
}

TEST_F(DamageTest, ChannelsInChunksThatArePassedOver_AreKnown) {
    const std::string early = ChannelRecord(2, "later") + MessageRecord(2, 1, 10);
    const std::string late = MessageRecord(2, 2, 20);
    const Content content = ReadMade(ChannelRecord(1, "t") + ChunkRecord("", early, early.size(), 10) +
                                         ChunkRecord("", late, late.size(), 20),
                                     Time(nanoseconds(15)));
    EXPECT_THAT(content.values, ElementsAre(2));
    EXPECT_EQ(content.others, 0U);
}

TEST_F(DamageTest, APipe_IsNotWaitedFor) {
    ASSERT_EQ(::mkfifo(Path().c_str(), 0600), 0);
    EXPECT_THROW(RecordingReader{Path()}, RecordingError);
}

TEST_F(DamageTest, AFileThatBecomesShorter_EndsWithASentence) {
    RecordingWriter(Path(), ExistingFile::IsReplaced, "test");
    const auto size = std::filesystem::file_size(Path());
    std::filesystem::resize_file(Path(), size + (1U << 20));
    RecordingReader reader(Path());
    std::filesystem::resize_file(Path(), size);
    EXPECT_THROW(static_cast<void>(reader.Next()), RecordingError);
    EXPECT_FALSE(reader.Next());
}

} // namespace
