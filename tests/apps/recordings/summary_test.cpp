// What is said of a recording with a damaged part: the rest is counted.

#include "recordings/summary.h"

#include "recording/recording_writer.h"
#include "recording_file_test.h"
#include "recordings/inspect.h"

#include <gtest/gtest.h>

#include <fstream>

namespace {

class SummaryTest : public recordings_test::RecordingFileTest {
protected:
    /// Writes three chunks of ten values. Returns: where the second one begins.
    std::uint64_t WriteChunks() const {
        recording::RecordingWriter writer(path, recording::ExistingFile::IsReplaced, "test");
        const auto channel = writer.Add({"t", "", false});
        std::uint64_t second = 0;
        for (std::uint32_t number = 0; number < 30; ++number) {
            writer.Write(
                recording::Message{channel, number, recording::Time(std::chrono::nanoseconds(number)), number});
            if (number % 10 == 9) {
                writer.Flush();
                second = second == 0 ? writer.FileBytes() : second;
            }
        }
        writer.Close();
        return second;
    }

    void ChangeByteAt(std::uint64_t offset) const {
        std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
        file.seekg(static_cast<std::streamoff>(offset));
        const int byte = file.get();
        file.seekp(static_cast<std::streamoff>(offset));
        file.put(static_cast<char>(byte ^ 0x10));
    }
};

TEST_F(SummaryTest, BehindADamagedPart_IsCountedToo) {
    constexpr std::uint64_t intoItsData = 60;
    ChangeByteAt(WriteChunks() + intoItsData);
    const auto summary = recordings::Summarize(path);
    EXPECT_EQ(summary.values, 20U);
    EXPECT_EQ(summary.last.time_since_epoch().count(), 29);
    ASSERT_EQ(summary.damageCount, summary.damages.size());
    EXPECT_GE(summary.damageCount, 1U);
    const std::string text = ToText(summary);
    EXPECT_NE(text.find("damaged: "), std::string::npos) << text;
    EXPECT_NE(text.find("incomplete: "), std::string::npos) << text;
    EXPECT_NE(ToJson(summary).find("\"complete\":false"), std::string::npos);
}

TEST_F(SummaryTest, AWholeFile_HasNoDamage) {
    WriteChunks();
    const auto summary = recordings::Summarize(path);
    EXPECT_EQ(summary.values, 30U);
    EXPECT_EQ(summary.damageCount, 0U);
    EXPECT_NE(ToJson(summary).find("\"complete\":true"), std::string::npos);
}

TEST_F(SummaryTest, ManyNotes_AreCountedButNotKept) {
    constexpr std::uint64_t count = 20'000;
    recording::RecordingWriter writer(path, recording::ExistingFile::IsReplaced, "test");
    for (std::uint64_t number = 0; number < count; ++number) {
        writer.Write(recording::Note{"note", {{"number", std::to_string(number)}}});
    }
    writer.Close();
    const auto summary = recordings::Summarize(path);
    EXPECT_EQ(summary.noteCount, count);
    EXPECT_EQ(summary.notes.size(), 10'000U);
    EXPECT_NE(ToText(summary).find("\nand 10000 more notes\n"), std::string::npos);
    EXPECT_NE(ToJson(summary).find("\"note_count\":20000"), std::string::npos);
}

TEST_F(SummaryTest, LargeNotes_AreCountedButNotKept) {
    recording::RecordingWriter writer(path, recording::ExistingFile::IsReplaced, "test");
    for (int number = 0; number < 20; ++number) {
        writer.Write(recording::Note{"note", {{"text", std::string(1U << 20, 'x')}}});
    }
    writer.Close();
    const auto summary = recordings::Summarize(path);
    EXPECT_EQ(summary.noteCount, 20U);
    EXPECT_EQ(summary.notes.size(), 15U);
}

} // namespace
