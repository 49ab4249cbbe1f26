#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace recording {

/// A file that is read from its begin, as long as it was when it was opened.
class InputFile final {
public:
    /// Throws: RecordingError.
    explicit InputFile(const std::string& path);
    InputFile(const InputFile&) = delete;
    InputFile& operator=(const InputFile&) = delete;
    ~InputFile();

    std::uint64_t Size() const noexcept { return size; }
    std::uint64_t Position() const noexcept { return position; }
    std::uint64_t Left() const noexcept { return size - position; }

    /// Returns: the next bytes, until the next call. Requires: there are so many left. Throws: RecordingError; then
    /// nothing is left.
    std::string_view Take(std::uint64_t count);
    /// Passes so many bytes. Requires and throws: the same.
    void Pass(std::uint64_t count);

    /// Returns: the CRC of all bytes so far.
    std::uint32_t Crc() const noexcept { return crc; }

private:
    void Read(char* into, std::size_t count, std::uint64_t from);

    int descriptor;
    std::uint64_t size = 0;
    std::uint64_t position = 0;
    std::string ahead; ///< bytes from `aheadAt` on, so that small records do not take a call each
    std::uint64_t aheadAt = 0;
    std::string joined; ///< what is longer than that
    std::uint32_t crc = 0;
};

} // namespace recording
