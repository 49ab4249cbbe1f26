// Defends the record that is read without a lock: whatever moment a reader meets, and wherever the writer was stopped,
// it sees one version of the record as a whole.
#include "instruments/twin.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <thread>

namespace {

struct Record {
    std::uint64_t number = 0;
    std::uint64_t square = 0;
    std::uint64_t sum = 0;
};

Record Make(std::uint64_t number) {
    return {number, number * number, number + number * number};
}

using Twin = instruments::Twin<Record>;

TEST(TwinTest, Read_BeforeTheFirstWrite_IsAllZero) {
    const Twin twin;
    const Record record = twin.Read();
    EXPECT_EQ(record.number, 0U);
    EXPECT_EQ(record.sum, 0U);
}

TEST(TwinTest, Read_IsWhatWasWrittenLast) {
    Twin twin;
    for (std::uint64_t number = 1; number < 5; ++number) {
        twin.Write(Make(number));
        EXPECT_EQ(twin.Read().square, number * number);
    }
}

TEST(TwinTest, AVersion_IsOverWithTheNextWrite) {
    Twin twin;
    twin.Write(Make(1));
    const auto version = twin.Version();
    EXPECT_TRUE(twin.IsStill(version));
    Record record;
    twin.Copy(version, record);
    EXPECT_EQ(record.number, 1U);
    twin.Write(Make(2));
    EXPECT_FALSE(twin.IsStill(version));
}

TEST(TwinTest, EveryRead_UnderConstantWrites_IsOfOneVersionAndNeverOlderThanTheLast) {
    Twin twin;
    std::atomic<bool> isEnding{false};
    std::thread writer([&] {
        for (std::uint64_t number = 1; !isEnding; ++number) {
            twin.Write(Make(number));
        }
    });
    std::uint64_t last = 0;
    std::uint64_t changes = 0;
    for (int i = 0; i < 200'000 || changes < 100; ++i) {
        const Record record = twin.Read();
        ASSERT_EQ(record.square, record.number * record.number);
        ASSERT_EQ(record.sum, record.number + record.square);
        ASSERT_GE(record.number, last);
        changes += record.number != last ? 1 : 0;
        last = record.number;
    }
    isEnding = true;
    writer.join();
}

} // namespace
