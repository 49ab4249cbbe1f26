#include "instruments/account_json.h"

#include "common/escape.h"
#include "instruments/described_value.h"
#include "msgbus/codec.h"

#include <algorithm>
#include <array>
#include <stdexcept>
#include <utility>

namespace instruments {

namespace {

using common::Escaped;
using Json = nlohmann::ordered_json;

/// Times as the JSON has them.
class Clock final {
public:
    explicit Clock(const Snapshot& snapshot) : now(snapshot.readAt), offset(snapshot.server.clockOffset) {}

    Json Unix(Nanoseconds at) const { return at == 0 ? Json() : Json(at + offset); }
    /// Null: never.
    Json Age(Nanoseconds since) const { return since == 0 ? Json() : Json(std::max<Nanoseconds>(now - since, 0)); }

private:
    Nanoseconds now;
    std::int64_t offset;
};

template <typename T>
Json OrNull(const std::optional<T>& value) {
    return value ? Json(*value) : Json();
}

Json TextOrNull(const std::optional<std::int64_t>& value) {
    return value ? Json(std::to_string(*value)) : Json();
}

Json ToJson(const Rates& rates) {
    return {{"last_1s", rates.last1}, {"last_10s", rates.last10}, {"last_60s", rates.last60}};
}

Json ToJson(const Latency& latency) {
    Json octaves = Json::array();
    for (const auto& [bucket, count] : latency.Buckets()) {
        constexpr std::size_t page = LatencyBuckets::PerPage;
        const std::uint64_t highest = LatencyBuckets::Highest(bucket / page * page + page - 1);
        if (octaves.empty() || octaves.back()["upto_ns"] != highest) {
            octaves.push_back({{"upto_ns", highest}, {"count", 0U}});
        }
        Json& sum = octaves.back()["count"];
        sum = sum.get<std::uint64_t>() + count;
    }
    constexpr std::array<std::pair<const char*, double>, 4> quantiles{
        {{"p50_ns", 0.5}, {"p90_ns", 0.9}, {"p99_ns", 0.99}, {"p999_ns", 0.999}}};
    Json json{{"samples", latency.Count()}};
    for (const auto& [name, quantile] : quantiles) {
        json[name] = latency.Quantile(quantile);
    }
    json["max_ns"] = latency.Highest();
    json["octaves"] = std::move(octaves);
    return json;
}

Json ToJson(const Flows& flows) {
    return {{"due", flows.due},
            {"taken", flows.taken},
            {"offered", flows.offered},
            {"queued", flows.queued},
            {"handed_over", flows.handedOver},
            {"dropped",
             {{"oldest", flows.dropped.oldest},
              {"newest", flows.dropped.newest},
              {"cut", flows.dropped.cut},
              {"unregistered", flows.dropped.unregistered},
              {"undelivered", flows.dropped.undelivered},
              {"total", flows.dropped.Total()}}}};
}

Json ToJson(const ServerAccount& server, const Clock& clock) {
    return {{"version", Escaped(server.version)},
            {"pid", server.pid},
            {"alive", server.isAlive},
            {"paused", server.isPaused},
            {"state", NameOf(server.state)},
            {"mode", server.isStatic ? "static" : "dynamic"},
            {"started_unix_ns", clock.Unix(server.startedAt)},
            {"uptime_ns", server.isAlive ? clock.Age(server.startedAt) : Json()},
            {"options", Escaped(server.options)},
            {"workers", server.workers},
            {"threads", server.threads},
            {"descriptors", server.descriptors},
            {"memory_bytes", server.memoryBytes}};
}

Json ToJson(const BusAccount& bus) {
    return {{"accepted", bus.accepted},
            {"fanned_out", bus.fannedOut},
            {"inbound", bus.inbound},
            {"without_subscriber", bus.withoutSubscriber},
            {"refused_full", bus.refusedFull},
            {"most_inbound", bus.mostInbound},
            {"unknown_pushes", bus.unknownPushes},
            {"unknown_waits", bus.unknownWaits},
            {"refused_registrations", bus.refusedRegistrations},
            {"refused_connections", bus.refusedConnections},
            {"rescued", bus.rescued},
            {"discrepancies", bus.discrepancies},
            {"unlisted", bus.unlisted},
            {"adds_up", bus.AddsUp()},
            {"flows", ToJson(bus.flows)},
            {"latency", ToJson(bus.latency)}};
}

Json ToJson(const PublisherAccount& publisher, const Clock& clock) {
    return {{"id", publisher.id},
            {"topic", Escaped(publisher.topic)},
            {"pid", publisher.process.pid},
            {"program", Escaped(publisher.process.program)},
            {"since_unix_ns", clock.Unix(publisher.since)},
            {"registered", publisher.leftAt == 0},
            {"left_unix_ns", clock.Unix(publisher.leftAt)},
            {"accepted", publisher.accepted},
            {"accepted_before", publisher.acceptedBefore},
            {"without_subscriber", publisher.withoutSubscriber},
            {"refused_full", publisher.refusedFull},
            {"last_value", OrNull(publisher.lastValue)},
            {"last_value_text", TextOrNull(publisher.lastValue)},
            {"last_unix_ns", clock.Unix(publisher.lastAt)},
            {"last_age_ns", clock.Age(publisher.lastAt)},
            {"smallest_gap_ns", OrNull(publisher.smallestGap)},
            {"largest_gap_ns", OrNull(publisher.largestGap)},
            {"rates", ToJson(publisher.rates)}};
}

Json ToJson(const SubscriberAccount& subscriber, const Clock& clock) {
    Json topics = Json::array();
    for (const auto& topic : subscriber.topics) {
        topics.push_back(Escaped(topic));
    }
    return {{"id", subscriber.id},
            {"name", Escaped(subscriber.name)},
            {"topics", std::move(topics)},
            {"pid", subscriber.process.pid},
            {"program", Escaped(subscriber.process.program)},
            {"since_unix_ns", clock.Unix(subscriber.since)},
            {"waiting", subscriber.isWaiting},
            {"cut", subscriber.isCut},
            {"flows", ToJson(subscriber.flows)},
            {"oldest_age_ns", clock.Age(subscriber.oldestSince)},
            {"rates", ToJson(subscriber.rates)},
            {"latency", ToJson(subscriber.latency)}};
}

/// Returns: the parts of a description; of one that a newer server has accepted, only its text.
Json DescriptionToJson(std::string_view text) {
    Json json{{"text", Escaped(text)}};
    try {
        const auto description = msgbus::Description::FromText(text);
        json["type"] = description.type;
        json["numerator"] = description.numerator;
        json["denominator"] = description.denominator;
        json["unit"] = Escaped(description.unit);
        json["names"] = Json::array();
        for (const auto& [value, name] : description.names) {
            json["names"].push_back({{"value", value}, {"name", Escaped(name)}});
        }
        json["remark"] = Escaped(description.remark);
    } catch (const std::invalid_argument&) {
        // The text says it all.
    }
    return json;
}

Json ToJson(const TopicView& view, const Snapshot& snapshot, const Clock& clock) {
    static const PublisherAccount none;
    const PublisherAccount& publisher = view.publisher ? snapshot.publishers[*view.publisher] : none;
    std::uint64_t queued = 0;
    std::uint64_t dropped = 0;
    Json subscribers = Json::array();
    for (const std::size_t index : view.subscribers) {
        const SubscriberAccount& subscriber = snapshot.subscribers[index];
        subscribers.push_back(subscriber.id);
        queued += subscriber.flows.queued;
        dropped += subscriber.flows.dropped.Total();
    }
    return {{"topic", Escaped(view.topic)},
            {"publisher", view.publisher ? ToJson(publisher, clock) : Json()},
            {"last_value", OrNull(publisher.lastValue)},
            {"last_value_text", TextOrNull(publisher.lastValue)},
            {"last_value_described", DescribedValueToJson(view.description, publisher.lastValue)},
            {"last_unix_ns", clock.Unix(publisher.lastAt)},
            {"last_age_ns", clock.Age(publisher.lastAt)},
            {"rates", ToJson(publisher.rates)},
            {"subscribers", std::move(subscribers)},
            {"queued", queued},
            {"dropped", dropped},
            {"description", view.description.empty() ? Json() : DescriptionToJson(view.description)}};
}

Json ToJson(const ClientAccount& client, const Clock& clock) {
    return {{"pid", client.process.pid},
            {"program", Escaped(client.process.program)},
            {"since_unix_ns", clock.Unix(client.since)},
            {"unknown_pushes", client.unknownPushes},
            {"unknown_waits", client.unknownWaits},
            {"refused_registrations", client.refusedRegistrations}};
}

Json ToJson(const ThreadAccount& thread, const Clock& clock) {
    return {{"name", Escaped(thread.name)},
            {"away_ns", thread.awaySince == 0 ? Json(0) : clock.Age(thread.awaySince)},
            {"longest_away_ns", thread.longestAway.count()},
            {"longest_unix_ns", clock.Unix(thread.longestAt)}};
}

Json ToJson(const ErrorAccount& error, const Clock& clock) {
    return {{"level", error.isError ? "error" : "warning"},
            {"place", Escaped(error.place)},
            {"count", error.count},
            {"first_unix_ns", clock.Unix(error.firstAt)},
            {"last_unix_ns", clock.Unix(error.lastAt)},
            {"text", Escaped(error.text)}};
}

template <typename T>
Json ListToJson(const std::vector<T>& list, const Clock& clock) {
    Json json = Json::array();
    for (const T& element : list) {
        json.push_back(ToJson(element, clock));
    }
    return json;
}

Json TopicListToJson(const Snapshot& snapshot, const Clock& clock) {
    Json json = Json::array();
    for (const auto& view : TopicsOf(snapshot)) {
        json.push_back(ToJson(view, snapshot, clock));
    }
    return json;
}

Json EventListToJson(const Snapshot& snapshot) {
    Json json = Json::array();
    for (const auto& event : snapshot.events) {
        json.push_back(EventToJson(event, snapshot.server.clockOffset));
    }
    return json;
}

} // namespace

Json StateToJson(const Snapshot& snapshot) {
    const Clock clock(snapshot);
    return {{"version", JsonVersion},
            {"read_unix_ns", clock.Unix(snapshot.readAt)},
            {"server", ToJson(snapshot.server, clock)},
            {"bus", ToJson(snapshot.bus)},
            {"topics", TopicListToJson(snapshot, clock)},
            {"publishers", ListToJson(snapshot.publishers, clock)},
            {"subscribers", ListToJson(snapshot.subscribers, clock)},
            {"clients", ListToJson(snapshot.clients, clock)},
            {"threads", ListToJson(snapshot.threads, clock)},
            {"errors", ListToJson(snapshot.errors, clock)},
            {"events", EventListToJson(snapshot)}};
}

Json TopicsToJson(const Snapshot& snapshot) {
    return {{"version", JsonVersion}, {"topics", TopicListToJson(snapshot, Clock(snapshot))}};
}

std::optional<Json> TopicToJson(const Snapshot& snapshot, std::string_view topic) {
    const auto view = TopicOf(snapshot, topic);
    return view ? std::optional(ToJson(*view, snapshot, Clock(snapshot))) : std::nullopt;
}

Json SubscribersToJson(const Snapshot& snapshot) {
    return {{"version", JsonVersion}, {"subscribers", ListToJson(snapshot.subscribers, Clock(snapshot))}};
}

Json EventToJson(const Event& event, std::int64_t clockOffset) {
    return {{"number", event.number},
            {"unix_ns", event.at == 0 ? Json() : Json(event.at + clockOffset)},
            {"event", NameOf(event.kind)},
            {"id", event.id},
            {"name", Escaped(event.name)},
            {"pid", event.process.pid},
            {"program", Escaped(event.process.program)},
            {"code", event.code},
            {"lost", event.lost}};
}

nlohmann::ordered_json DescribedValueToJson(std::string_view description,
                                            const std::optional<std::int64_t>& lastValue) {
    const std::string text = lastValue ? DescribedText(description, *lastValue) : "";
    return text.empty() ? Json() : Json(Escaped(text));
}

} // namespace instruments
