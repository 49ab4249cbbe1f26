// Reads the account of a server again and again, also over restarts of the server, and checks each time that it adds up
// and that no counter has gone back:
//   account_check FILE COUNT [SERVERS]    until it was read COUNT times, and of so many servers
// Prints a line with what it has seen. Exit status 1 if it failed.

#include "instruments/read_account.h"

#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>
#include <thread>

namespace {

using instruments::AccountReader;
using instruments::Snapshot;

std::string Describe(const instruments::Flows& flows) {
    const auto& [due, taken, offered, queued, handedOver, dropped] = flows;
    return "due " + std::to_string(due) + ", taken " + std::to_string(taken) + ", offered " + std::to_string(offered) +
           ", queued " + std::to_string(queued) + ", handed over " + std::to_string(handedOver) + ", dropped " +
           std::to_string(dropped.Total());
}

/// Returns: what is wrong; empty: nothing.
std::string FaultIn(const Snapshot& now, const Snapshot& last) {
    const auto& bus = now.bus;
    if (!bus.AddsUp()) {
        return "the bus: accepted " + std::to_string(bus.accepted) + ", fanned out " + std::to_string(bus.fannedOut) +
               ", inbound " + std::to_string(bus.inbound) + ", without subscriber " +
               std::to_string(bus.withoutSubscriber) + "; " + Describe(bus.flows);
    }
    for (const auto& subscriber : now.subscribers) {
        if (!subscriber.flows.AddsUp()) {
            return "subscriber " + std::to_string(subscriber.id) + ": " + Describe(subscriber.flows);
        }
    }
    if (bus.discrepancies != 0 || bus.unlisted != 0) {
        return "the account and the bus do not agree";
    }
    const bool isSameServer = now.server.startedAt == last.server.startedAt;
    if (isSameServer &&
        (bus.accepted < last.bus.accepted || bus.fannedOut < last.bus.fannedOut || bus.flows.due < last.bus.flows.due ||
         bus.flows.taken < last.bus.flows.taken || bus.flows.dropped.Total() < last.bus.flows.dropped.Total())) {
        return "a counter has gone back";
    }
    return {};
}

std::unique_ptr<AccountReader> Open(const std::string& path) {
    while (true) {
        try {
            return std::make_unique<AccountReader>(path);
        } catch (const instruments::NoAccountError&) {
            std::this_thread::yield(); // a new server is about to put its own there
        }
    }
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 3 && argc != 4) {
        return EXIT_FAILURE;
    }
    auto reader = Open(argv[1]);
    Snapshot last;
    std::uint64_t changes = 0;
    std::size_t servers = 1;
    std::size_t mostSubscribers = 0;
    const std::size_t wanted = argc == 4 ? std::strtoul(argv[3], nullptr, 10) : 1;
    for (long i = 0; i < std::atol(argv[2]) || servers < wanted; ++i) {
        if (reader->IsReplaced()) {
            reader = Open(argv[1]);
            ++servers;
        }
        Snapshot now = reader->Read();
        if (const std::string fault = FaultIn(now, last); !fault.empty()) {
            std::cout << "read " << i << ": " << fault << '\n';
            return EXIT_FAILURE;
        }
        changes += now.bus.flows == last.bus.flows ? 0 : 1;
        mostSubscribers = std::max(mostSubscribers, now.subscribers.size());
        last = std::move(now);
    }
    std::cout << "adds up; changes " << changes << " servers " << servers << " subscribers " << mostSubscribers
              << " dropped " << last.bus.flows.dropped.Total() << '\n';
    return EXIT_SUCCESS;
}
