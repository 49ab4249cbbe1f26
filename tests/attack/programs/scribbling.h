#pragma once

#include "raw_slot.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <random>
#include <string>
#include <thread>

// Clients that overwrite the pages that they share with a server while their calls are under way.

namespace attack {

using borven_host::LayoutVersion;
using borven_host::SharedSlot;
using platform_test::RawSlot;
using Clock = std::chrono::steady_clock;

struct ScribbleCounts {
    std::atomic<std::uint64_t> words{0};
    std::atomic<std::uint64_t> answered{0};
    std::atomic<std::uint64_t> ended{0}; ///< connections, by the server
};

inline constexpr std::size_t WordsOfAPage = 4096 / sizeof(std::uint32_t);
inline constexpr std::size_t WordsBetweenYields = 32;

inline std::uint32_t Nasty(std::mt19937& random) {
    static constexpr std::array<std::uint32_t, 8> edges{0,          1,          2,       0x7FFFFFFF,
                                                        0x80000000, 0xFFFFFFFF, 0x1FFFF, NkRecordSize};
    const auto choice = random();
    return choice % 2 == 0 ? edges[choice / 2 % edges.size()] : static_cast<std::uint32_t>(random());
}

/// Every word of the page in turn; sometimes the words that steer the protocol, sometimes the whole page at once.
inline void Scribble(SharedSlot& slot, const std::atomic<bool>& isEnding, unsigned seed, ScribbleCounts& counts) {
    std::mt19937 random(seed);
    auto* const page = reinterpret_cast<std::atomic<std::uint32_t>*>(&slot);
    for (std::size_t word = 0; !isEnding; word = (word + 1) % WordsOfAPage) {
        page[word].store(Nasty(random), std::memory_order_relaxed);
        const auto choice = random() % 1024;
        if (choice < 64) {
            slot.request.word.fetch_add(Nasty(random), std::memory_order_relaxed);
        } else if (choice < 128) {
            slot.offers.word.store(std::uint64_t{Nasty(random)} << 32 | Nasty(random), std::memory_order_relaxed);
        } else if (choice < 160) {
            slot.request.hint.store(Nasty(random), std::memory_order_relaxed);
            slot.request.wake.store(Nasty(random), std::memory_order_relaxed);
        } else if (choice == 1000) {
            const auto filling = Nasty(random);
            std::for_each_n(page, WordsOfAPage, [&](auto& each) { each.store(filling, std::memory_order_relaxed); });
            counts.words += WordsOfAPage;
        }
        ++counts.words;
        if (word % WordsBetweenYields == 0) {
            std::this_thread::yield(); // so that the server sees many of these pages
        }
    }
}

/// Calls as the protocol says, until the connection ends or the time is over.
inline void Call(RawSlot& slot, std::size_t interface, Clock::time_point end, ScribbleCounts& counts) {
    constexpr int looks = 200;
    // A request that changes nothing in the bus: the first method, or to unregister what is not registered.
    constexpr std::uint16_t unregisterSubscriber = 5;
    const auto method = interface == 1 ? unregisterSubscriber : std::uint16_t{0};
    const auto record = platform_test::RequestOf(0, static_cast<std::uint16_t>(interface), method);
    pollfd socket{slot.Socket().Get(), POLLRDHUP, 0};
    while (Clock::now() < end) {
        slot.Publish(slot.Slot().request.Put(&record, sizeof record));
        slot.Ring();
        for (int look = 0; look < looks && !slot.IsAnswered(); ++look) {
            std::this_thread::yield();
        }
        counts.answered += slot.IsAnswered() ? 1 : 0;
        if (::poll(&socket, 1, 0) != 0) {
            ++counts.ended;
            return;
        }
    }
}

/// One client: a thread that calls and one that scribbles. It joins `name` again when the server ends the connection.
inline void ScribbleOn(const std::string& name, std::size_t interface, Clock::time_point end, ScribbleCounts& counts) {
    for (unsigned life = 0; Clock::now() < end; ++life) {
        RawSlot slot(LayoutVersion, name);
        std::atomic<bool> isEnding{false};
        std::thread scribbler([&] { Scribble(slot.Slot(), isEnding, life, counts); });
        Call(slot, interface, end, counts);
        isEnding = true;
        scribbler.join();
    }
}

} // namespace attack
