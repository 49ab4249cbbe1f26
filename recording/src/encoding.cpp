#include "encoding.h"

#include <array>

namespace recording {

namespace {

/// The tables of the polynomial 0xEDB88320 (IEEE 802.3), for eight bytes at a time.
constexpr std::size_t Slices = 8;
using CrcTables = std::array<std::array<std::uint32_t, 256>, Slices>;

constexpr CrcTables MakeCrcTables() {
    CrcTables tables{};
    for (std::uint32_t byte = 0; byte < 256; ++byte) {
        std::uint32_t value = byte;
        for (int bit = 0; bit < 8; ++bit) {
            value = (value >> 1) ^ ((value & 1) != 0 ? 0xEDB88320U : 0);
        }
        tables[0][byte] = value;
    }
    for (std::size_t slice = 1; slice < Slices; ++slice) {
        for (std::size_t byte = 0; byte < 256; ++byte) {
            const std::uint32_t before = tables[slice - 1][byte];
            tables[slice][byte] = (before >> 8) ^ tables[0][before & 0xFF];
        }
    }
    return tables;
}

constexpr CrcTables Tables = MakeCrcTables();

std::uint8_t ByteAt(std::string_view bytes, std::size_t index) {
    return static_cast<std::uint8_t>(bytes[index]);
}

} // namespace

void Encoder::Map(const Texts& texts) {
    std::string pairs;
    Encoder encoder(pairs);
    for (const auto& [key, value] : texts) {
        encoder.Text(key);
        encoder.Text(value);
    }
    Text(pairs);
}

std::string Record(mcap::Opcode opcode, std::string_view content) {
    std::string record;
    record.reserve(mcap::RecordHead + content.size());
    Encoder encoder(record);
    encoder.U8(static_cast<std::uint8_t>(opcode));
    encoder.U64(content.size());
    record += content;
    return record;
}

std::string_view Decoder::Take(std::uint64_t count) {
    if (count > bytes.size()) {
        throw RecordingError("the file is damaged: something in it is longer than the record that has it");
    }
    const auto taken = bytes.substr(0, static_cast<std::size_t>(count));
    bytes.remove_prefix(taken.size());
    return taken;
}

std::uint64_t Decoder::Number(std::size_t size) {
    const auto taken = Take(size);
    std::uint64_t value = 0;
    for (std::size_t byte = 0; byte < size; ++byte) {
        value |= std::uint64_t{ByteAt(taken, byte)} << (8 * byte);
    }
    return value;
}

Texts Decoder::Map() {
    Decoder pairs(Text());
    Texts texts;
    while (!pairs.IsAtEnd()) {
        constexpr std::size_t mostTexts = 65'536;
        if (texts.size() == mostTexts) {
            throw RecordingError("the file is damaged: a map in it has more than 65,536 texts");
        }
        std::string key(pairs.Text());
        texts[std::move(key)] = pairs.Text();
    }
    return texts;
}

std::uint32_t Crc32(std::string_view bytes, std::uint32_t before) {
    std::uint32_t crc = ~before;
    for (; bytes.size() >= Slices; bytes.remove_prefix(Slices)) {
        std::uint32_t next = 0;
        for (std::size_t index = 0; index < Slices; ++index) {
            const std::uint32_t mixed = index < 4 ? crc >> (8 * index) & 0xFF : 0;
            next ^= Tables[Slices - 1 - index][mixed ^ ByteAt(bytes, index)];
        }
        crc = next;
    }
    for (std::size_t index = 0; index < bytes.size(); ++index) {
        crc = (crc >> 8) ^ Tables[0][(crc ^ ByteAt(bytes, index)) & 0xFF];
    }
    return ~crc;
}

} // namespace recording
