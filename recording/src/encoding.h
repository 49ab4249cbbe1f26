#pragma once

#include "mcap_format.h"
#include "recording/recording.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

// Numbers, strings and maps as MCAP has them: little-endian, strings and maps behind their length in 32 bits.

namespace recording {

/// Appends what it is given to a string of bytes.
class Encoder final {
public:
    explicit Encoder(std::string& appendedTo) : bytes(appendedTo) {}

    void U8(std::uint8_t value) { bytes += static_cast<char>(value); }
    void U16(std::uint16_t value) { Number(value); }
    void U32(std::uint32_t value) { Number(value); }
    void U64(std::uint64_t value) { Number(value); }
    void Text(std::string_view text) {
        U32(static_cast<std::uint32_t>(text.size()));
        bytes += text;
    }
    void Map(const Texts& texts);

private:
    template <typename Value>
    void Number(Value value) {
        for (std::size_t byte = 0; byte < sizeof value; ++byte) {
            bytes += static_cast<char>(value >> (8 * byte) & 0xFF);
        }
    }

    std::string& bytes;
};

/// Returns: the bytes of a record.
std::string Record(mcap::Opcode opcode, std::string_view content);

/// Takes one after the other from a string of bytes. Each throws RecordingError where the bytes do not suffice.
class Decoder final {
public:
    explicit Decoder(std::string_view decoded) : bytes(decoded) {}

    std::uint8_t U8() { return static_cast<std::uint8_t>(Take(1).front()); }
    std::uint16_t U16() { return static_cast<std::uint16_t>(Number(2)); }
    std::uint32_t U32() { return static_cast<std::uint32_t>(Number(4)); }
    std::uint64_t U64() { return Number(8); }
    std::string_view Text() { return Take(U32()); }
    Texts Map();
    std::string_view Take(std::uint64_t count);
    /// Returns: all that is left.
    std::string_view Rest() { return Take(bytes.size()); }
    bool IsAtEnd() const noexcept { return bytes.empty(); }

private:
    std::uint64_t Number(std::size_t size);

    std::string_view bytes;
};

/// Returns: the CRC-32 of the bytes, going on from `before`.
std::uint32_t Crc32(std::string_view bytes, std::uint32_t before = 0);

} // namespace recording
