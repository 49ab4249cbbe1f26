#pragma once

#include "instruments/account_layout.h"
#include "instruments/snapshot.h"

#include <sched.h>
#include <sys/types.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string>

namespace instruments {

/// The memory of an account, and the ways into it. Nothing in it is trusted: what lies outside counts as empty.
class MappedAccount final {
public:
    /// Throws: as the constructors of AccountReader, for which they are.
    explicit MappedAccount(std::span<const std::byte> bytes);
    explicit MappedAccount(const std::string& accountPath);
    MappedAccount(const MappedAccount&) = delete;
    MappedAccount& operator=(const MappedAccount&) = delete;
    ~MappedAccount();

    const layout::Header& Head() const noexcept { return *reinterpret_cast<const layout::Header*>(memory.data()); }

    template <typename Element>
    const Element& At(const layout::Region& region, std::size_t index) const {
        return *reinterpret_cast<const Element*>(memory.data() + region.offset + index * region.elementSize);
    }

    template <typename Element, typename Function>
    void ForEach(const layout::Region& region, std::uint64_t used, const Function& function) const {
        for (std::size_t i = 0; i < std::min(used, region.count); ++i) {
            function(At<Element>(region, i));
        }
    }

    std::string Copy(layout::Text text) const;

    /// Returns: whether the file has been replaced by a newer server's. Always false for memory.
    bool IsReplaced() const;

private:
    void Close();
    void Check() const;

    std::string path; ///< empty: it is no file
    int file = -1;
    dev_t device = 0;
    ino_t node = 0;
    std::span<const std::byte> memory;
};

// How records in shared memory are read.

inline std::uint64_t Load(const layout::Counter& counter) {
    return counter.load(std::memory_order_acquire);
}

template <std::size_t Size>
std::string TextIn(const std::array<char, Size>& bytes) {
    return {bytes.data(), ::strnlen(bytes.data(), Size)};
}

inline Process ProcessOf(const layout::Program& program) {
    return {static_cast<std::int32_t>(program.pid), program.startTime, TextIn(program.name)};
}

/// Repeats `attempt` until it has met one moment. What changes all the time leaves gaps of many times what an attempt
/// takes.
template <typename Attempt>
void AtOneMoment(const Attempt& attempt) {
    for (unsigned tries = 1; !attempt(); ++tries) {
        constexpr unsigned patience = 64;
        if (tries % patience == 0) {
            ::sched_yield();
        }
    }
}

} // namespace instruments
