#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

namespace msgbus_server {

/// A fixed number of pages, handed out full of zeros and taken back.
/// Threads: every operation from any thread, none waits for another.
class PagePool final {
public:
    static constexpr std::size_t PageSize = 4096;
    static constexpr std::size_t Capacity = 4096;

    constexpr PagePool() = default;
    PagePool(const PagePool&) = delete;
    PagePool& operator=(const PagePool&) = delete;

    /// Returns: a page of zeros, the caller's until it is given back; null when all are out.
    void* Take() noexcept;

    /// Returns: whether `address` is the start of a page of this pool, which is then taken back.
    /// Requires: nobody uses the page any more.
    bool GiveBack(void* address) noexcept;

private:
    static constexpr std::size_t bitsPerWord = 64;

    std::array<std::atomic<std::uint64_t>, Capacity / bitsPerWord> taken{}; ///< a bit for each page
    alignas(PageSize) std::array<std::array<std::byte, PageSize>, Capacity> pages{};
};

} // namespace msgbus_server
