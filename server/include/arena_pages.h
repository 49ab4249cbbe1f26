#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

namespace msgbus_server {

/// A fixed number of pages, lent out full of zeros.
/// Threads: every operation from any thread; none blocks.
class ArenaPages final {
public:
    static constexpr std::size_t PageSize = 4096;
    static constexpr std::size_t Capacity = 4096;

    constexpr ArenaPages() = default;
    ArenaPages(const ArenaPages&) = delete;
    ArenaPages& operator=(const ArenaPages&) = delete;

    /// Returns: a page of zeros, the caller's until GiveBack; null when all are lent.
    void* Lend() noexcept;

    /// Returns: whether `address` is the start of a page that was lent, which is then free again.
    /// Requires: the page is no longer used.
    bool GiveBack(void* address) noexcept;

private:
    static constexpr std::size_t BitsPerWord = 64;

    std::array<std::atomic<std::uint64_t>, Capacity / BitsPerWord> lent{}; ///< a bit for each page
    alignas(PageSize) std::array<std::array<std::byte, PageSize>, Capacity> pages{};
};

} // namespace msgbus_server
