#include "arena_pages.h"

#include <bit>
#include <functional>

namespace msgbus_server {

void* ArenaPages::Lend() noexcept {
    // The lowest free one: as few pages as possible are ever touched.
    for (std::size_t i = 0; i < lent.size(); ++i) {
        std::uint64_t word = lent[i].load(std::memory_order_relaxed);
        while (~word != 0) {
            const std::uint64_t bit = std::uint64_t{1} << std::countr_one(word);
            word = lent[i].fetch_or(bit, std::memory_order_acquire);
            if ((word & bit) == 0) {
                auto& page = pages[i * BitsPerWord + static_cast<std::size_t>(std::countr_zero(bit))];
                page.fill(std::byte{0});
                return page.data();
            }
            word |= bit;
        }
    }
    return nullptr;
}

bool ArenaPages::GiveBack(void* address) noexcept {
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
    const std::uint64_t bit = std::uint64_t{1} << index % BitsPerWord;
    return (lent[index / BitsPerWord].fetch_and(~bit, std::memory_order_release) & bit) != 0;
}

} // namespace msgbus_server
