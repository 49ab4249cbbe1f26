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

/// The memory of an account, and the ways into it. Nothing in it is trusted: what does not fit is an AccountError, and
/// what is read of it is bounded by the constants of the layout.
class MappedAccount final {
public:
    /// Throws: as the constructors of AccountReader, for which they are.
    explicit MappedAccount(std::span<const std::byte> bytes);
    explicit MappedAccount(const std::string& accountPath);
    MappedAccount(const MappedAccount&) = delete;
    MappedAccount& operator=(const MappedAccount&) = delete;
    ~MappedAccount();

    const layout::Header& Head() const noexcept { return *reinterpret_cast<const layout::Header*>(memory.data()); }

    /// Where its parts lie: a copy that was checked, since the memory may change.
    const layout::Regions& Regions() const noexcept { return regions; }

    template <typename Element>
    const Element& At(const layout::Region& region, std::size_t index) const {
        return *reinterpret_cast<const Element*>(memory.data() + region.offset + index * region.elementSize);
    }

    template <typename Element, typename Function>
    void ForEach(const layout::Region& region, std::uint64_t used, const Function& function) const {
        if (used > region.count) {
            ThrowDamaged();
        }
        for (std::size_t i = 0; i < used; ++i) {
            function(At<Element>(region, i));
        }
    }

    /// Throws: AccountError when the text does not fit.
    std::string Copy(layout::Text text) const;

    /// Returns: whether it is the memory of the calling server itself, and no file.
    bool IsMemory() const noexcept { return path.empty(); }

    /// Throws: AccountError.
    [[noreturn]] void ThrowDamaged() const;

    /// Returns: whether the file has been replaced by a newer server's. Always false for memory.
    bool IsReplaced() const;

private:
    void Close();
    void Check();

    std::string path; ///< empty: it is no file
    int file = -1;
    dev_t device = 0;
    ino_t node = 0;
    std::span<const std::byte> memory;
    layout::Regions regions;
};

// How records in shared memory are read.

inline std::uint64_t Load(const layout::Counter& counter) {
    return counter.load(std::memory_order_acquire);
}

/// Returns: a time or a duration, brought into a range in which no sum or difference of two overflows.
inline Nanoseconds TimeIn(std::int64_t nanoseconds) {
    constexpr Nanoseconds most = std::int64_t{1} << 61;
    return std::clamp(nanoseconds, -most, most);
}

inline Nanoseconds Load(const layout::Time& time) {
    return TimeIn(time.load(std::memory_order_acquire));
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
