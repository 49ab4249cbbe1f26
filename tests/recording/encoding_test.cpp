// Numbers, texts and checksums of the container, and values as messages.

#include "encoding.h"

#include "recording/value_message.h"

#include <gtest/gtest.h>

#include <limits>

namespace {

using namespace recording;

TEST(Encoding, Numbers_AreLittleEndian) {
    std::string bytes;
    Encoder encoder(bytes);
    encoder.U8(1);
    encoder.U16(0x0203);
    encoder.U32(0x04050607);
    encoder.U64(0x08090A0B0C0D0E0F);
    EXPECT_EQ(bytes, std::string("\x01\x03\x02\x07\x06\x05\x04\x0F\x0E\x0D\x0C\x0B\x0A\x09\x08"));
    Decoder decoder(bytes);
    EXPECT_EQ(decoder.U8(), 1U);
    EXPECT_EQ(decoder.U16(), 0x0203U);
    EXPECT_EQ(decoder.U32(), 0x04050607U);
    EXPECT_EQ(decoder.U64(), 0x08090A0B0C0D0E0FU);
    EXPECT_TRUE(decoder.IsAtEnd());
}

TEST(Encoding, TextsAndMaps_ComeBack) {
    std::string bytes;
    Encoder encoder(bytes);
    const Texts texts{{"a", ""}, {"", "b"}, {"key", std::string("\0\n", 2)}};
    encoder.Text("text");
    encoder.Map(texts);
    Decoder decoder(bytes);
    EXPECT_EQ(decoder.Text(), "text");
    EXPECT_EQ(decoder.Map(), texts);
    EXPECT_TRUE(decoder.IsAtEnd());
}

TEST(Encoding, WhatIsTooShort_IsDamage) {
    EXPECT_THROW(Decoder("").U8(), RecordingError);
    EXPECT_THROW(Decoder("abc").U32(), RecordingError);
    EXPECT_THROW(Decoder(std::string("\x05\0\0\0abcd", 8)).Text(), RecordingError);
    EXPECT_THROW(Decoder(std::string("\xff\xff\xff\xff", 4)).Map(), RecordingError);
}

TEST(Encoding, Crc32_IsThatOfTheStandard) {
    EXPECT_EQ(Crc32("123456789"), 0xCBF43926U);
    EXPECT_EQ(Crc32(""), 0U);
    EXPECT_EQ(Crc32("The quick brown fox jumps over the lazy dog"), 0x414FA339U);
    EXPECT_EQ(Crc32("456789", Crc32("123")), 0xCBF43926U);
}

TEST(Encoding, AValue_ComesBackInEitherByteOrder) {
    for (const std::int64_t value :
         {std::int64_t{0}, std::int64_t{-1}, std::int64_t{0x0102030405060708}, std::numeric_limits<std::int64_t>::min(),
          std::numeric_limits<std::int64_t>::max()}) {
        std::string bytes;
        AppendValueMessage(bytes, value);
        EXPECT_EQ(bytes.size(), ValueMessageSize);
        EXPECT_EQ(ValueOf(bytes), value);
    }
    EXPECT_EQ(ValueOf(std::string("\0\0\0\0\0\0\0\0\0\0\x01\x02", 12)), 0x0102);
}

TEST(Encoding, WhatIsNoValue_IsNone) {
    for (const std::string& bytes : {std::string(), std::string(11, '\0'), std::string(13, '\0'),
                                     std::string("\0\x03\0\0", 4) + std::string(8, '\0')}) {
        EXPECT_EQ(ValueOf(bytes), std::nullopt);
    }
}

} // namespace
