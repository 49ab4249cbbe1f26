#pragma once

#include "instruments/account_layout.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>

namespace instruments {

/// The account file cannot be written: what() is a sentence.
class AccountFileError final : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// How much an account has room for: no more than the layout's constants. What is not used takes no memory.
struct AccountCapacities {
    std::size_t publishers = 16384;
    std::size_t subscribers = 16384;
    std::size_t clients = layout::MostClients;
    std::size_t textBytes = layout::MostTextBytes;
    std::size_t latencyPages = layout::MostLatencyPages;
};

/// The mapped account of a server that is about to write it. It gets its name with Publish, so that a start which fails
/// leaves that of the server before in its place; the file stays when this object goes, unless it has none.
/// Threads: Commit one at a time for each region; the rest any.
class AccountFile final {
public:
    /// Creates the account of `directory`, and removes what servers that were killed before Publish have left there.
    /// Without a directory the account is in the memory of this process alone. Everything in it is zero but for the
    /// regions and what the layout gives a value. Throws: AccountFileError.
    AccountFile(const std::optional<std::string>& directory, const AccountCapacities& capacities);
    AccountFile(const AccountFile&) = delete;
    AccountFile& operator=(const AccountFile&) = delete;
    ~AccountFile();

    /// The account may be read from now on, by those who have the memory.
    void MarkReadable() noexcept { Head().magic.store(layout::Magic, std::memory_order_release); }
    /// Marks it, and the file gets its name; the account of the server before becomes "account.previous". Once.
    /// Throws: AccountFileError, also when a server that runs has its account there; then this one has no name, and can
    /// be used as memory.
    void Publish();

    layout::Header& Head() const noexcept { return *reinterpret_cast<layout::Header*>(memory.data()); }
    std::span<const std::byte> Memory() const noexcept { return memory; }
    /// Where its parts lie: not as the memory says, into which others may write.
    const layout::Regions& Regions() const noexcept { return regions; }

    /// The element `index` of a region. Requires: it was committed.
    template <typename Element>
    Element& At(const layout::Region& region, std::size_t index) const noexcept {
        return *reinterpret_cast<Element*>(memory.data() + region.offset + index * region.elementSize);
    }

    /// Makes sure that the first `count` elements of one of Regions() exist: a write to what the disk has no room for
    /// would end the process. Returns: false when there is no room.
    bool Commit(const layout::Region& region, std::size_t count) noexcept;

private:
    void Withdraw() noexcept;

    std::string path;    ///< of the file
    std::string newPath; ///< until it is published; empty: it has none
    int file = -1;       ///< owned; -1: only memory
    std::span<std::byte> memory;
    layout::Regions regions;
    std::array<std::size_t, 8> committed{}; ///< bytes, by region in the order of the file
};

} // namespace instruments
