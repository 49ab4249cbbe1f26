#include "list.h"

#include "account_source.h"
#include "common/escape.h"
#include "instruments/account_json.h"
#include "terminal/quantity.h"
#include "terminal/text_table.h"
#include "terminal/write_out.h"

#include <nlohmann/json.hpp>

namespace look {

namespace {

using instruments::Snapshot;
using terminal::Table;
using enum Table::Align;

std::string Pid(const instruments::Process& process) {
    return process.pid == 0 ? "-" : std::to_string(process.pid);
}

std::string TopicsText(const Snapshot& snapshot) {
    Table table({{"PID"},
                 {"PROGRAM", Left},
                 {"VALUE"},
                 {"AGE"},
                 {"RATE"},
                 {"SUBSCRIBERS"},
                 {"QUEUED"},
                 {"DROPPED"},
                 {"TOPIC", Left}});
    for (const auto& view : instruments::TopicsOf(snapshot)) {
        std::uint64_t queued = 0;
        std::uint64_t dropped = 0;
        for (const std::size_t i : view.subscribers) {
            queued += snapshot.subscribers[i].flows.queued;
            dropped += snapshot.subscribers[i].flows.dropped.Total();
        }
        const auto* const publisher = view.publisher ? &snapshot.publishers[*view.publisher] : nullptr;
        const bool isRegistered = publisher != nullptr && publisher->leftAt == 0;
        const bool hasValue = publisher != nullptr && publisher->lastValue;
        table.Add({isRegistered ? Pid(publisher->process) : "-",
                   isRegistered ? AsWord(publisher->process.program) : "-",
                   hasValue ? std::to_string(*publisher->lastValue) : "-",
                   hasValue ? terminal::Age(snapshot.readAt, publisher->lastAt) : "-",
                   terminal::Rate(publisher == nullptr ? 0 : publisher->rates.last10),
                   std::to_string(view.subscribers.size()), std::to_string(queued), std::to_string(dropped),
                   common::Escaped(view.topic)});
    }
    return table.Text();
}

std::string PublishersText(const Snapshot& snapshot) {
    Table table({{"ID"},
                 {"PID"},
                 {"PROGRAM", Left},
                 {"SINCE", Left},
                 {"ACCEPTED"},
                 {"REFUSED"},
                 {"RATE"},
                 {"AGE"},
                 {"TOPIC", Left}});
    for (const auto& publisher : snapshot.publishers) {
        if (publisher.leftAt == 0) {
            table.Add({std::to_string(publisher.id), Pid(publisher.process), AsWord(publisher.process.program),
                       terminal::UtcTime(publisher.since, snapshot.server.clockOffset),
                       std::to_string(publisher.accepted), std::to_string(publisher.refusedFull),
                       terminal::Rate(publisher.rates.last10), terminal::Age(snapshot.readAt, publisher.lastAt),
                       common::Escaped(publisher.topic)});
        }
    }
    return table.Text();
}

std::string SubscribersText(const Snapshot& snapshot) {
    Table table({{"ID"},
                 {"PID"},
                 {"PROGRAM", Left},
                 {"SINCE", Left},
                 {"TOPICS"},
                 {"STATE", Left},
                 {"QUEUED"},
                 {"OLDEST"},
                 {"RATE"},
                 {"TAKEN"},
                 {"DROPPED"},
                 {"NAME", Left}});
    for (const auto& subscriber : snapshot.subscribers) {
        table.Add({std::to_string(subscriber.id), Pid(subscriber.process), AsWord(subscriber.process.program),
                   terminal::UtcTime(subscriber.since, snapshot.server.clockOffset),
                   std::to_string(subscriber.topics.size()),
                   subscriber.isCut       ? "cut"
                   : subscriber.isWaiting ? "waiting"
                                          : "away",
                   std::to_string(subscriber.flows.queued), terminal::Age(snapshot.readAt, subscriber.oldestSince),
                   terminal::Rate(subscriber.rates.last10), std::to_string(subscriber.flows.taken),
                   std::to_string(subscriber.flows.dropped.Total()), common::Escaped(subscriber.name)});
    }
    return table.Text();
}

std::string ListJson(const Snapshot& snapshot, ListKind kind) {
    switch (kind) {
    case ListKind::Publishers: {
        auto state = instruments::StateToJson(snapshot);
        return terminal::JsonLine({{"version", instruments::JsonVersion}, {"publishers", state["publishers"]}});
    }
    case ListKind::Subscribers:
        return terminal::JsonLine(instruments::SubscribersToJson(snapshot));
    case ListKind::Topics:
        break;
    }
    return terminal::JsonLine(instruments::TopicsToJson(snapshot));
}

} // namespace

std::string AsWord(std::string_view name) {
    std::string word;
    for (const char c : common::Escaped(name)) {
        word += c == ' ' ? std::string("\\x20") : std::string(1, c);
    }
    return word.empty() ? "-" : word;
}

std::string ListText(const Snapshot& snapshot, ListKind kind) {
    return kind == ListKind::Publishers    ? PublishersText(snapshot)
           : kind == ListKind::Subscribers ? SubscribersText(snapshot)
                                           : TopicsText(snapshot);
}

ExitStatus List(const ListArguments& arguments) {
    const auto depth = arguments.json ? instruments::AccountReader::Depth::Everything
                                      : instruments::AccountReader::Depth::WithoutLatency;
    const Snapshot snapshot = AccountSource(arguments.account).Read(depth);
    ServerWarning().Update(snapshot.server);
    terminal::WriteOut(arguments.json ? ListJson(snapshot, arguments.kind) : ListText(snapshot, arguments.kind));
    return ExitStatus::Done;
}

} // namespace look
