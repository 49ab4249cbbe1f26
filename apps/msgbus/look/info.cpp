#include "info.h"

#include "account_source.h"
#include "arguments.h"
#include "common/escape.h"
#include "instruments/account_json.h"
#include "list.h"
#include "terminal/quantity.h"
#include "terminal/text_table.h"
#include "terminal/write_out.h"
#include "value_text.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <algorithm>

namespace look {

namespace {

using instruments::Snapshot;
using terminal::Age;
using terminal::Duration;
using terminal::Table;
using enum Table::Align;

/// Lines "  NAME  TEXT" below a title.
class Section final {
public:
    explicit Section(std::string title) : text(std::move(title) + '\n') {}

    void Add(std::string_view name, std::string_view line) { text += fmt::format("  {:<13} {}\n", name, line); }
    void Append(std::string_view lines) { text += lines; }
    std::string Text() && { return std::move(text); }

private:
    std::string text;
};

std::string ProcessText(const instruments::Process& process) {
    return process.pid == 0 ? "not known" : fmt::format("{} ({})", process.pid, common::Escaped(process.program));
}

std::string RatesText(const instruments::Rates& rates) {
    return fmt::format("{}/s in 1 s, {}/s in 10 s, {}/s in 60 s", terminal::Rate(rates.last1),
                       terminal::Rate(rates.last10), terminal::Rate(rates.last60));
}

std::string SinceText(const Snapshot& snapshot, instruments::Nanoseconds at) {
    return at == 0 ? "never"
                   : fmt::format("{}, {} ago", terminal::UtcTime(at, snapshot.server.clockOffset),
                                 Age(snapshot.readAt, at));
}

void AddPublisher(Section& section, const Snapshot& snapshot, const instruments::PublisherAccount& publisher,
                  std::string_view description) {
    section.Add("last value", publisher.lastValue ? fmt::format("{}, {}", ValueText(*publisher.lastValue, description),
                                                                SinceText(snapshot, publisher.lastAt))
                                                  : "none");
    if (publisher.leftAt != 0) {
        section.Add("publisher", fmt::format("none; the last one left: {}", SinceText(snapshot, publisher.leftAt)));
    } else {
        section.Add("publisher", fmt::format("id {}, process {}", publisher.id, ProcessText(publisher.process)));
        section.Add("since", SinceText(snapshot, publisher.since));
    }
    section.Add("rate", RatesText(publisher.rates));
    section.Add("gaps", publisher.smallestGap && publisher.largestGap
                            ? fmt::format("{} to {}", Duration(*publisher.smallestGap), Duration(*publisher.largestGap))
                            : "none");
    section.Add("accepted", fmt::format("{}, {} of them without a subscriber; {} of earlier publishers",
                                        publisher.accepted, publisher.withoutSubscriber, publisher.acceptedBefore));
    section.Add("refused", fmt::format("{} pushes, because the inbound queue was full", publisher.refusedFull));
}

std::string TopicText(const Snapshot& snapshot, const instruments::TopicView& view) {
    Section section("topic " + common::Escaped(view.topic));
    if (!view.description.empty()) {
        section.Add("description", common::Escaped(view.description));
    }
    if (view.publisher) {
        AddPublisher(section, snapshot, snapshot.publishers[*view.publisher], view.description);
    } else {
        section.Add("publisher", "none");
    }
    section.Add("subscribers", std::to_string(view.subscribers.size()));
    if (!view.subscribers.empty()) {
        Table table({{"ID"}, {"QUEUED"}, {"OLDEST"}, {"DROPPED"}, {"NAME", Left}});
        for (const std::size_t i : view.subscribers) {
            const auto& subscriber = snapshot.subscribers[i];
            table.Add({std::to_string(subscriber.id), std::to_string(subscriber.flows.queued),
                       Age(snapshot.readAt, subscriber.oldestSince), std::to_string(subscriber.flows.dropped.Total()),
                       common::Escaped(subscriber.name)});
        }
        section.Append(table.Text("    "));
    }
    return std::move(section).Text();
}

std::string LatencyText(const instruments::Latency& latency) {
    if (latency.Count() == 0) {
        return "no samples";
    }
    const auto at = [&](double quantile) { return Duration(static_cast<std::int64_t>(latency.Quantile(quantile))); };
    return fmt::format("50 %: {}, 90 %: {}, 99 %: {}, 99.9 %: {}, most: {}, of {} samples", at(0.5), at(0.9), at(0.99),
                       at(0.999), at(1), latency.Count());
}

std::string SubscriberText(const Snapshot& snapshot, const instruments::SubscriberAccount& subscriber) {
    Section section("subscriber " + common::Escaped(subscriber.name));
    section.Add("id", std::to_string(subscriber.id));
    section.Add("process", ProcessText(subscriber.process));
    section.Add("since", SinceText(snapshot, subscriber.since));
    section.Add("state", subscriber.isCut       ? "cut: it left too many values unread"
                         : subscriber.isWaiting ? "waiting for a value"
                                                : "away from its wait");
    const auto& flows = subscriber.flows;
    const auto& dropped = flows.dropped;
    section.Add("due", fmt::format("{} = {} taken + {} offered + {} queued + {} being handed over + {} dropped{}",
                                   flows.due, flows.taken, flows.offered, flows.queued, flows.handedOver,
                                   dropped.Total(), flows.AddsUp() ? "" : "; THIS DOES NOT ADD UP"));
    section.Add("dropped", fmt::format("{} oldest, {} newest, {} cut, {} unregistered, {} undelivered", dropped.oldest,
                                       dropped.newest, dropped.cut, dropped.unregistered, dropped.undelivered));
    section.Add("oldest unread", subscriber.oldestSince == 0 ? "none" : Age(snapshot.readAt, subscriber.oldestSince));
    section.Add("rate", RatesText(subscriber.rates));
    section.Add("latency", LatencyText(subscriber.latency));
    section.Add("topics", std::to_string(subscriber.topics.size()));
    for (const auto& topic : subscriber.topics) {
        section.Append("    " + common::Escaped(topic) + '\n');
    }
    return std::move(section).Text();
}

std::string InfoJson(const Snapshot& snapshot, const Found& found) {
    auto subscribers = nlohmann::ordered_json::array();
    const auto all = instruments::SubscribersToJson(snapshot);
    for (const auto& subscriber : all["subscribers"]) {
        if (std::any_of(found.subscribers.begin(), found.subscribers.end(),
                        [&](std::size_t i) { return subscriber["id"] == snapshot.subscribers[i].id; })) {
            subscribers.push_back(subscriber);
        }
    }
    nlohmann::ordered_json topic;
    if (found.topic) {
        topic = instruments::TopicToJson(snapshot, found.topic->topic).value_or(nullptr);
    }
    return terminal::JsonLine(
        {{"version", instruments::JsonVersion}, {"topic", std::move(topic)}, {"subscribers", std::move(subscribers)}});
}

} // namespace

std::string InfoText(const Snapshot& snapshot, const Found& found) {
    std::string text;
    if (found.topic) {
        text = TopicText(snapshot, *found.topic);
    }
    for (const std::size_t i : found.subscribers) {
        text += (text.empty() ? "" : "\n") + SubscriberText(snapshot, snapshot.subscribers[i]);
    }
    return text;
}

ExitStatus Info(const InfoArguments& arguments) {
    const Snapshot snapshot = AccountSource(arguments.account).Read();
    ServerWarning().Update(snapshot.server);
    const Found found = Find(snapshot, arguments.word);
    if (!found.topic && found.subscribers.empty()) {
        Say("there is no topic, subscriber or id '" + arguments.word + "'");
        return ExitStatus::Failed;
    }
    terminal::WriteOut(arguments.json ? InfoJson(snapshot, found) : InfoText(snapshot, found));
    return ExitStatus::Done;
}

} // namespace look
