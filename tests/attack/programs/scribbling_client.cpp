// A client that overwrites the pages that it shares with the server while its calls are under way: `scribbling_client
// MILLISECONDS`. Each of its connections has a thread that calls and one that scribbles: single words and the whole
// page, with edge values and random ones. It joins again when the server ends a connection. Prints how many words it
// wrote, how many calls were answered, and how many connections were ended. Exit status 0 unless the server refused a
// join.

#include "raw_slot.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <iostream>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

using borven_host::LayoutVersion;
using borven_host::SharedSlot;
using platform_test::RawSlot;
using Clock = std::chrono::steady_clock;

constexpr std::size_t WordsOfAPage = 4096 / sizeof(std::uint32_t);
constexpr std::size_t WordsBetweenYields = 32;
constexpr std::uint16_t UnregisterSubscriber = 5;

struct Counts {
    std::atomic<std::uint64_t> words{0};
    std::atomic<std::uint64_t> answered{0};
    std::atomic<std::uint64_t> ended{0};
};

std::vector<std::string> Names() {
    if (std::string(std::getenv("BORVEN_BUS")) == "static") {
        return {3, "static/msgbus_connection_id"};
    }
    const std::string component = "services/br.MessageBusComponent.";
    return {component + "provider", component + "ctl", component + "subs"};
}

/// A request that changes nothing in the bus: the first method, or to unregister what is not registered.
nk_message HarmlessRequest(std::size_t interface) {
    const auto method = interface == 1 ? UnregisterSubscriber : std::uint16_t{0};
    return {static_cast<std::uint16_t>(interface), method, NkRecordSize, {}};
}

std::uint32_t Nasty(std::mt19937& random) {
    constexpr std::array<std::uint32_t, 8> edges{0, 1, 2, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF, 0x1FFFF, NkRecordSize};
    const auto choice = random();
    return choice % 2 == 0 ? edges[choice / 2 % edges.size()] : static_cast<std::uint32_t>(random());
}

/// Every word of the page in turn; sometimes the words that steer the protocol, sometimes the whole page at once.
void Scribble(SharedSlot& slot, const std::atomic<bool>& isEnding, unsigned seed, Counts& counts) {
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
void Call(RawSlot& slot, std::size_t interface, Clock::time_point end, Counts& counts) {
    constexpr int looks = 200;
    std::array<std::byte, NkRecordSize> record{};
    const nk_message header = HarmlessRequest(interface);
    std::memcpy(record.data(), &header, sizeof header);
    pollfd socket{slot.Socket().Get(), POLLRDHUP, 0};
    while (Clock::now() < end) {
        slot.Publish(slot.Slot().request.Put(record.data(), record.size()));
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

void Attack(const std::string& name, std::size_t interface, Clock::time_point end, Counts& counts) {
    for (unsigned life = 0; Clock::now() < end; ++life) {
        RawSlot slot(LayoutVersion, name);
        std::atomic<bool> isEnding{false};
        std::thread scribbler([&] { Scribble(slot.Slot(), isEnding, life, counts); });
        Call(slot, interface, end, counts);
        isEnding = true;
        scribbler.join();
    }
}

} // namespace

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    GTEST_FLAG_SET(throw_on_failure, true); // a join that fails ends the program
    const auto end = Clock::now() + std::chrono::milliseconds(argc > 1 ? std::stoll(argv[1]) : 1000);
    Counts counts;
    std::vector<std::thread> attackers;
    const auto names = Names();
    for (std::size_t interface = 0; interface < names.size(); ++interface) {
        attackers.emplace_back([&, interface] { Attack(names[interface], interface, end, counts); });
    }
    for (auto& attacker : attackers) {
        attacker.join();
    }
    std::cout << counts.words << ' ' << counts.answered << ' ' << counts.ended << std::endl;
    return 0;
}
