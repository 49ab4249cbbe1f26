#pragma once

#include <cstddef>
#include <cstdint>

/// Header of every request and response record; the method's fields follow it. All integers are little-endian.
struct nk_message {
    std::uint16_t iid;  ///< index of the interface within the entity
    std::uint16_t mid;  ///< index of the method within the interface
    std::uint32_t size; ///< bit 31: error reply; bits 0 to 22: size of the record in bytes
    std::uint8_t reserved[16];
};
static_assert(sizeof(nk_message) == 24 && offsetof(nk_message, mid) == 2 && offsetof(nk_message, size) == 4);

inline constexpr std::size_t NkRecordSize = 1056; ///< every record travels in a buffer of this many bytes
inline constexpr std::uint32_t NkSizeMask = 0x007FFFFF;
inline constexpr std::uint32_t NkErrorFlag = 0x80000000;

/// Sets the size of a record that is no error reply; bits 23 to 30 of the size word keep their value.
constexpr void NkSetSize(nk_message& message, std::uint32_t sizeBytes) noexcept {
    message.size = (message.size & ~(NkErrorFlag | NkSizeMask)) | (sizeBytes & NkSizeMask);
}

constexpr std::uint32_t NkGetSize(const nk_message& message) noexcept {
    return message.size & NkSizeMask;
}

constexpr bool NkIsError(const nk_message& message) noexcept {
    return (message.size & NkErrorFlag) != 0;
}

/// Memory for out-of-line data of a record: `current` moves from `start` to `end`. With all three equal there is no
/// room for any.
struct nk_arena {
    void* start;
    void* current;
    void* end;
};
