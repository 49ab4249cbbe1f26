#pragma once

#include <array>
#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

namespace instruments {

/// A record in shared memory that one writer at a time replaces as a whole, and that any number of readers read without
/// a lock. There are two copies: the writer fills the one that is not in use and then switches. So the record is whole
/// at every moment, also when the writer is stopped or killed in between.
template <typename T>
class Twin final {
    static_assert(std::is_trivially_copyable_v<T> && sizeof(T) % sizeof(std::uint64_t) == 0);
    static constexpr std::size_t WordCount = sizeof(T) / sizeof(std::uint64_t);
    using Words = std::array<std::uint64_t, WordCount>;

public:
    /// Threads: one at a time.
    void Write(const T& value) noexcept {
        const std::uint64_t next = sequence.load(std::memory_order_relaxed) + 1;
        auto& copy = copies[next % 2];
        for (std::size_t i = 0; i < WordCount; ++i) {
            // Word by word: a wider load of what was written a moment ago, word by word, would have to wait.
            std::uint64_t word = 0;
            std::memcpy(&word, reinterpret_cast<const std::byte*>(&value) + i * sizeof word, sizeof word);
            // Release: behind the last switch, so a reader that meets this word finds that the copy is out of use.
            copy[i].store(word, std::memory_order_release);
        }
        sequence.store(next, std::memory_order_release);
    }

    /// For readers: the version in use. Threads: any, as all below.
    std::uint64_t Version() const noexcept { return sequence.load(std::memory_order_acquire); }

    /// Copies `version` to `value`; what it is, is certain only if IsStill(version) holds afterwards.
    void Copy(std::uint64_t version, T& value) const noexcept {
        Words words;
        const auto& copy = copies[version % 2];
        for (std::size_t i = 0; i < WordCount; ++i) {
            words[i] = copy[i].load(std::memory_order_acquire);
        }
        value = std::bit_cast<T>(words);
    }

    bool IsStill(std::uint64_t version) const noexcept { return sequence.load(std::memory_order_acquire) == version; }

    /// Returns: the record at one moment. Blocks: while the writer replaces it again and again.
    T Read() const noexcept {
        T value;
        std::uint64_t version = 0;
        do {
            version = Version();
            Copy(version, value);
        } while (!IsStill(version));
        return value;
    }

private:
    std::atomic<std::uint64_t> sequence{0};
    std::array<std::array<std::atomic<std::uint64_t>, WordCount>, 2> copies{};
};

} // namespace instruments
