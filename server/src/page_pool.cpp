#include "page_pool.h"

#include <bit>
#include <functional>

namespace msgbus_server {

void* PagePool::Take() noexcept {
    // The lowest free one: as few pages as possible are ever touched.
    for (std::size_t i = 0; i < taken.size(); ++i) {
        std::uint64_t word = taken[i].load(std::memory_order_relaxed);
        while (~word != 0) {
            const std::uint64_t bit = std::uint64_t{1} << std::countr_one(word);
            word = taken[i].fetch_or(bit, std::memory_order_acquire);
            if ((word & bit) == 0) {
                auto& page = pages[i * bitsPerWord + static_cast<std::size_t>(std::countr_zero(bit))];
                page.fill(std::byte{0});
                return page.data();
            }
            word |= bit;
        }
    }
    return nullptr;
}

bool PagePool::GiveBack(void* address) noexcept {
    const auto* const first = pages.front().data();
    const auto* const given = static_cast<const std::byte*>(address);
    if (std::less<>()(given, first) || !std::less<>()(given, first + sizeof pages)) {
        return false;
    }
    const auto offset = static_cast<std::size_t>(given - first);
    if (offset % PageSize != 0) {
        return false;
    }
    const std::size_t index = offset / PageSize;
    taken[index / bitsPerWord].fetch_and(~(std::uint64_t{1} << index % bitsPerWord), std::memory_order_release);
    return true;
}

} // namespace msgbus_server
