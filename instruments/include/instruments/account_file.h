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

/// The mapped account of a server that is about to write it. The file stays when this object goes.
/// Threads: Commit one at a time; the rest any.
class AccountFile final {
public:
    /// Creates the account of `directory`; the one of the server before becomes "account.previous". Without a
    /// directory the account is in the memory of this process alone. Everything in it is zero but for the regions and
    /// what the layout gives a value.
    /// Throws: AccountFileError, also when a server that runs has its account there.
    AccountFile(const std::optional<std::string>& directory, const AccountCapacities& capacities);
    AccountFile(const AccountFile&) = delete;
    AccountFile& operator=(const AccountFile&) = delete;
    ~AccountFile();

    /// The account may be read from now on: the file gets its name. Throws: AccountFileError. Once.
    void Publish();

    layout::Header& Head() const noexcept { return *reinterpret_cast<layout::Header*>(memory.data()); }
    std::span<const std::byte> Memory() const noexcept { return memory; }

    /// The element `index` of a region. Requires: it was committed.
    template <typename Element>
    Element& At(const layout::Region& region, std::size_t index) const noexcept {
        return *reinterpret_cast<Element*>(memory.data() + region.offset + index * region.elementSize);
    }

    /// Makes sure that the first `count` elements of a region exist: a write to what the disk has no room for would end
    /// the process. Returns: false when there is no room.
    bool Commit(const layout::Region& region, std::size_t count) noexcept;

private:
    std::string path;    ///< of the file
    std::string newPath; ///< until it is published
    int file = -1;       ///< owned; -1: only memory
    std::span<std::byte> memory;
    std::array<std::size_t, 8> committed{}; ///< bytes, by region in the order of the file
};

} // namespace instruments
