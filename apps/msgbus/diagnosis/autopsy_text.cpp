// What an account shows of the end of its server, for people.

#include "autopsy.h"
#include "common/escape.h"
#include "look/list.h"
#include "look/watch.h"
#include "terminal/quantity.h"
#include "terminal/text_table.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>
#include <vector>

namespace diagnosis {

namespace {

using instruments::Nanoseconds;
using instruments::ServerState;
using instruments::Snapshot;
using instruments::SubscriberAccount;
using terminal::Duration;
using terminal::Table;
using terminal::UtcTime;
using enum Table::Align;

constexpr std::size_t MostSubscribers = 20; ///< that are listed
constexpr std::size_t MostEvents = 20;

std::string Fate(const Snapshot& snapshot) {
    const auto& server = snapshot.server;
    const std::string state(instruments::NameOf(server.state));
    if (server.state == ServerState::Stopped) {
        return "it has stopped in order";
    }
    if (!server.isAlive) {
        return "it ended while it was " + state + ", without a stop: it was killed, or failed";
    }
    return server.isPaused ? "it is paused by a signal or a debugger while " + state : "it runs, and is " + state;
}

std::string ServerText(const Snapshot& snapshot) {
    const auto& server = snapshot.server;
    const auto end = EndOf(snapshot);
    return fmt::format("server     msgbusd {}, process {}, {}{}{}\n"
                       "fate       {}\n"
                       "started    {}\n"
                       "last sign  {}, after {}\n"
                       "resources  {} workers, {} threads, {} descriptors, {} at {}\n",
                       common::Escaped(server.version), server.pid, server.isStatic ? "static" : "dynamic",
                       server.options.empty() ? "" : ", options: ", common::Escaped(server.options), Fate(snapshot),
                       UtcTime(server.startedAt, server.clockOffset), UtcTime(end, server.clockOffset),
                       Duration(end - server.startedAt), server.workers, server.threads, server.descriptors,
                       terminal::Bytes(server.memoryBytes), UtcTime(server.gaugesAt, server.clockOffset));
}

std::string SumsText(const Snapshot& snapshot) {
    const auto& bus = snapshot.bus;
    const auto& flows = bus.flows;
    std::string text = fmt::format("\nvalues\n"
                                   "  {} accepted = {} fanned out + {} inbound + {} without a subscriber\n"
                                   "  {} due = {} taken + {} offered + {} queued + {} being handed over + {} dropped\n"
                                   "  {} pushes were refused because the inbound queue was full; it held {} at most\n",
                                   bus.accepted, bus.fannedOut, bus.inbound, bus.withoutSubscriber, flows.due,
                                   flows.taken, flows.offered, flows.queued, flows.handedOver, flows.dropped.Total(),
                                   bus.refusedFull, bus.mostInbound);
    text += bus.AddsUp() ? "  the account adds up\n" : "  THE ACCOUNT DOES NOT ADD UP\n";
    if (bus.discrepancies != 0) {
        text += fmt::format("  the account and the bus did not agree {} times\n", bus.discrepancies);
    }
    if (bus.unlisted != 0) {
        text += fmt::format("  {} registrations had no room in the account; the sums lack them\n", bus.unlisted);
    }
    return text;
}

/// Subscribers that were behind, the worst first.
std::string SlowText(const Snapshot& snapshot) {
    std::vector<const SubscriberAccount*> behind;
    for (const auto& subscriber : snapshot.subscribers) {
        if (subscriber.flows.queued != 0 || subscriber.isCut) {
            behind.push_back(&subscriber);
        }
    }
    if (behind.empty()) {
        return "\nbehind: no subscriber had a value unread\n";
    }
    std::stable_sort(behind.begin(), behind.end(),
                     [](const auto* a, const auto* b) { return a->flows.queued > b->flows.queued; });
    Table table({{"ID"}, {"PID"}, {"PROGRAM", Left}, {"STATE", Left}, {"QUEUED"}, {"OLDEST"}, {"NAME", Left}});
    const auto end = EndOf(snapshot);
    for (std::size_t i = 0; i < std::min(behind.size(), MostSubscribers); ++i) {
        const auto& subscriber = *behind[i];
        table.Add({std::to_string(subscriber.id), std::to_string(subscriber.process.pid),
                   look::AsWord(subscriber.process.program),
                   subscriber.isCut       ? "cut"
                   : subscriber.isWaiting ? "waiting"
                                          : "away",
                   std::to_string(subscriber.flows.queued), terminal::Age(end, subscriber.oldestSince),
                   common::Escaped(subscriber.name)});
    }
    return fmt::format("\nbehind: {} subscribers had values unread\n", behind.size()) + table.Text("  ");
}

std::string LostText(const Snapshot& snapshot) {
    const auto& dropped = snapshot.bus.flows.dropped;
    if (dropped.Total() == 0) {
        return "\nlost: nothing\n";
    }
    std::string text = fmt::format("\nlost: {} values\n", dropped.Total());
    const std::array<std::pair<std::uint64_t, std::string_view>, 5> reasons{
        {{dropped.oldest, "the oldest of a subscriber at its limit (drop-oldest)"},
         {dropped.newest, "the newest of a subscriber at its limit (drop-newest)"},
         {dropped.cut, "unread when their subscriber was cut"},
         {dropped.unregistered, "unread when their subscriber unregistered, or its process ended"},
         {dropped.undelivered, "on their way to a client that was gone"}}};
    for (const auto& [count, reason] : reasons) {
        if (count != 0) {
            text += fmt::format("  {} {}\n", count, reason);
        }
    }
    for (const auto& subscriber : snapshot.subscribers) {
        if (const auto count = subscriber.flows.dropped.Total(); count != 0) {
            text += fmt::format("  {} of these: subscriber '{}' (id {}), still registered\n", count,
                                common::Escaped(subscriber.name), subscriber.id);
        }
    }
    return text;
}

std::string ErrorsText(const Snapshot& snapshot) {
    if (snapshot.errors.empty()) {
        return "\nerrors: none were logged\n";
    }
    Table table({{"LEVEL", Left}, {"COUNT"}, {"FIRST", Left}, {"LAST", Left}, {"PLACE", Left}, {"TEXT", Left}});
    const auto offset = snapshot.server.clockOffset;
    for (const auto& error : snapshot.errors) {
        table.Add({error.isError ? "error" : "warning", std::to_string(error.count), UtcTime(error.firstAt, offset),
                   UtcTime(error.lastAt, offset), look::AsWord(error.place), common::Escaped(error.text)});
    }
    return fmt::format("\nerrors: {} different ones were logged\n", snapshot.errors.size()) + table.Text("  ");
}

std::string ThreadsText(const Snapshot& snapshot) {
    if (snapshot.threads.empty()) {
        return "\nthreads: none are known\n";
    }
    const auto end = EndOf(snapshot);
    auto threads = snapshot.threads;
    std::stable_sort(threads.begin(), threads.end(),
                     [](const auto& a, const auto& b) { return a.longestAway > b.longestAway; });
    Table table({{"AWAY"}, {"LONGEST"}, {"WHEN", Left}, {"THREAD", Left}});
    for (const auto& thread : threads) {
        table.Add({terminal::Age(end, thread.awaySince), Duration(thread.longestAway.count()),
                   UtcTime(thread.longestAt, snapshot.server.clockOffset), common::Escaped(thread.name)});
    }
    return "\nthreads: how long each is away from its loop, and was at most\n" + table.Text("  ");
}

std::string EventsText(const Snapshot& snapshot) {
    const auto& events = snapshot.events;
    const std::size_t shown = std::min(events.size(), MostEvents);
    std::string text = fmt::format("\nevents: the last {} of {}\n", shown, events.empty() ? 0 : events.back().number);
    for (std::size_t i = events.size() - shown; i < events.size(); ++i) {
        text += "  " + look::EventText(events[i], snapshot.server.clockOffset) + '\n';
    }
    return text;
}

} // namespace

Nanoseconds EndOf(const Snapshot& snapshot) {
    if (snapshot.server.isAlive) {
        return snapshot.readAt;
    }
    Nanoseconds end = std::max(snapshot.server.startedAt, snapshot.server.gaugesAt);
    for (const auto& publisher : snapshot.publishers) {
        end = std::max({end, publisher.lastAt, publisher.leftAt, publisher.since});
    }
    for (const auto& subscriber : snapshot.subscribers) {
        end = std::max({end, subscriber.since, subscriber.oldestSince});
    }
    for (const auto& thread : snapshot.threads) {
        end = std::max({end, thread.awaySince, thread.longestAt});
    }
    for (const auto& error : snapshot.errors) {
        end = std::max(end, error.lastAt);
    }
    for (const auto& event : snapshot.events) {
        end = std::max(end, event.at);
    }
    return end;
}

std::string AutopsyText(const Snapshot& snapshot) {
    return ServerText(snapshot) + SumsText(snapshot) + SlowText(snapshot) + LostText(snapshot) + ErrorsText(snapshot) +
           ThreadsText(snapshot) + EventsText(snapshot);
}

} // namespace diagnosis
