#include "health.h"

#include "instruments/snapshot.h"

#include <fmt/format.h>

#include <array>
#include <cstring>

namespace msgbus_server {

namespace layout = instruments::layout;

using instruments::ServerState;

namespace {

constexpr std::int64_t PatienceInNanoseconds = std::chrono::nanoseconds(Health::Patience).count();

std::int64_t InSeconds(std::int64_t nanoseconds) {
    return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::nanoseconds(nanoseconds)).count();
}

std::string NameOf(const layout::Thread& thread) {
    std::array<char, sizeof thread.name + 1> name{};
    for (std::size_t i = 0; i < thread.name.size(); ++i) {
        const std::uint64_t word = thread.name[i].load(std::memory_order_acquire);
        std::memcpy(name.data() + i * sizeof word, &word, sizeof word);
    }
    return name.data();
}

} // namespace

std::optional<std::string> Health::WhyIll(std::int64_t now) {
    auto reason = WhyNotServing();
    if (!reason) {
        reason = WhichThreadIsAway(now);
    }
    return reason ? reason : WhyNotDelivering(now);
}

std::optional<std::string> Health::WhyNotServing() const {
    switch (static_cast<ServerState>(file.Head().state.load(std::memory_order_acquire))) {
    case ServerState::Serving:
        return std::nullopt;
    case ServerState::Starting:
        return "The server does not serve yet.";
    case ServerState::Draining:
        return "The server drains: it refuses pushes and registrations, and then stops.";
    case ServerState::Stopping:
    case ServerState::Stopped:
        break;
    }
    return "The server stops.";
}

std::optional<std::string> Health::WhichThreadIsAway(std::int64_t now) const {
    for (std::size_t i = 0; i < layout::ThreadCapacity; ++i) {
        const auto& thread = file.At<layout::Thread>(file.Regions().threads, i);
        const auto since = thread.awaySince.load(std::memory_order_acquire);
        if (since != layout::NoTime && now - since > PatienceInNanoseconds) {
            return fmt::format("The thread '{}' has been away from its loop for {} s.", NameOf(thread),
                               InSeconds(now - since));
        }
    }
    return std::nullopt;
}

std::optional<std::string> Health::WhyNotDelivering(std::int64_t now) {
    auto& bus = file.Head().bus;
    const std::uint64_t left = bus.fanOut.Read().left; // first: what enters meanwhile does not count
    const std::uint64_t entered = bus.pushes.Read().entered;
    if (entered <= left) {
        leftSince = layout::NoTime; // there may be a value for the first time when the next one asks
        return std::nullopt;
    }
    if (leftSince == layout::NoTime || left != leftInbound) {
        leftInbound = left;
        leftSince = now;
        return std::nullopt;
    }
    if (now - leftSince <= PatienceInNanoseconds) {
        return std::nullopt;
    }
    return fmt::format("No value has left the inbound queue for {} s, and {} are in it.", InSeconds(now - leftSince),
                       entered - left);
}

} // namespace msgbus_server
