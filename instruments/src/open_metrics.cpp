#include "instruments/open_metrics.h"

#include "common/escape.h"
#include "exposition.h"
#include "instruments/described_value.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <functional>
#include <utility>
#include <vector>

namespace instruments {

namespace {

using common::Escaped;

constexpr double NanosecondsPerSecond = 1e9;

double InSeconds(std::int64_t nanoseconds) {
    return static_cast<double>(nanoseconds) / NanosecondsPerSecond;
}

/// Returns: the age of what happened or began at a time; 0 for never.
double AgeInSeconds(Nanoseconds since, Nanoseconds now) {
    return since == 0 ? 0 : InSeconds(std::max<Nanoseconds>(now - since, 0));
}

// -- the server and the bus

void WriteServer(Exposition& text, const Snapshot& snapshot) {
    const ServerAccount& server = snapshot.server;
    text.Family("msgbus_build", "info", "The server program.");
    text.Sample("_info", {{"version", Escaped(server.version)}, {"mode", server.isStatic ? "static" : "dynamic"}}, 1);
    text.Family("msgbus_server_state", "stateset", "What the server does.");
    for (const auto state : {ServerState::Starting, ServerState::Serving, ServerState::Draining, ServerState::Stopping,
                             ServerState::Stopped}) {
        text.Sample("", {{"msgbus_server_state", NameOf(state)}}, server.state == state ? 1 : 0);
    }
    const auto gauge = [&text](std::string_view name, auto value, std::string_view help) {
        text.Family(name, "gauge", help);
        text.Sample("", {}, value);
    };
    gauge("msgbus_server_start_time_seconds", InSeconds(server.startedAt + server.clockOffset),
          "When the server started, since 1970.");
    gauge("msgbus_server_uptime_seconds", server.isAlive ? AgeInSeconds(server.startedAt, snapshot.readAt) : 0,
          "How long the server has run.");
    gauge("msgbus_server_workers", server.workers, "Threads that serve requests.");
    gauge("msgbus_server_threads", server.threads, "Threads of the process.");
    gauge("msgbus_server_open_descriptors", server.descriptors, "File descriptors that the process has open.");
    gauge("msgbus_server_resident_memory_bytes", server.memoryBytes, "Memory of the process that is in use.");
    gauge("msgbus_topics", TopicsOf(snapshot).size(), "Topics that are known.");
    gauge("msgbus_publishers",
          std::count_if(snapshot.publishers.begin(), snapshot.publishers.end(),
                        [](const auto& publisher) { return publisher.leftAt == 0; }),
          "Publishers that are registered.");
    gauge("msgbus_subscribers", snapshot.subscribers.size(), "Subscribers that are registered.");
    gauge("msgbus_clients_with_mistakes", snapshot.clients.size(),
          "Connected processes that used unknown ids or were refused a registration.");
}

void WriteBusCounters(Exposition& text, const BusAccount& bus) {
    const auto counter = [&text](std::string_view name, std::uint64_t value, std::string_view help) {
        text.Family(name, "counter", help);
        text.Sample("_total", {}, value);
    };
    counter("msgbus_values_accepted", bus.accepted, "Values that the bus has taken from publishers.");
    counter("msgbus_values_fanned_out", bus.fannedOut, "Values that went to the queues of all of their subscribers.");
    counter("msgbus_values_without_subscriber", bus.withoutSubscriber, "Values whose topic had no subscriber.");
    counter("msgbus_values_rescued", bus.rescued, "Values that a lost wake-up had left in the inbound queue.");
    counter("msgbus_pushes_refused", bus.refusedFull, "Pushes that were refused because the inbound queue was full.");
    counter("msgbus_pushes_unknown", bus.unknownPushes, "Pushes with an id that is no publisher of the process.");
    counter("msgbus_waits_unknown", bus.unknownWaits, "Waits with an id that is no subscriber of the process.");
    counter("msgbus_registrations_refused", bus.refusedRegistrations, "Registrations that were refused.");
    counter("msgbus_registrations_unlisted", bus.unlisted, "Registrations for which the account had no room.");
    counter("msgbus_connections_refused", bus.refusedConnections, "Connections beyond a limit.");
    counter("msgbus_account_discrepancies", bus.discrepancies, "Times that the account and the bus did not agree.");
    counter("msgbus_deliveries_due", bus.flows.due, "Values times the subscribers to which each was fanned out.");
    counter("msgbus_deliveries_taken", bus.flows.taken, "Deliveries that the subscribers have got.");
    text.Family("msgbus_deliveries_dropped", "counter", "Deliveries that were dropped, by the reason.");
    const Drops& dropped = bus.flows.dropped;
    for (const auto& [reason, count] : {std::pair{"oldest", dropped.oldest},
                                        {"newest", dropped.newest},
                                        {"cut", dropped.cut},
                                        {"unregistered", dropped.unregistered},
                                        {"undelivered", dropped.undelivered}}) {
        text.Sample("_total", {{"reason", reason}}, count);
    }
}

void WriteBusGauges(Exposition& text, const BusAccount& bus) {
    const auto gauge = [&text](std::string_view name, std::uint64_t value, std::string_view help) {
        text.Family(name, "gauge", help);
        text.Sample("", {}, value);
    };
    gauge("msgbus_inbound_values", bus.inbound, "Values in the inbound queue.");
    gauge("msgbus_inbound_values_highest", bus.mostInbound, "The most values that were in the inbound queue.");
    gauge("msgbus_deliveries_queued", bus.flows.queued, "Deliveries that are unread in the server.");
    gauge("msgbus_deliveries_offered", bus.flows.offered, "Deliveries in memory that is shared with their clients.");
    gauge("msgbus_deliveries_handed_over", bus.flows.handedOver, "Deliveries that are being handed over.");
    gauge("msgbus_account_adds_up", bus.AddsUp() ? 1 : 0, "1 when each value is accounted for, else 0.");
}

struct Bound {
    std::uint64_t nanoseconds;
    std::string_view seconds;
};
// The longest latency that the account can hold lies beyond all of them, as do hours.
constexpr std::array<Bound, 22> Bounds{
    {{1'000, "1e-06"},       {2'000, "2e-06"},        {5'000, "5e-06"},       {10'000, "1e-05"},
     {20'000, "2e-05"},      {50'000, "5e-05"},       {100'000, "0.0001"},    {200'000, "0.0002"},
     {500'000, "0.0005"},    {1'000'000, "0.001"},    {2'000'000, "0.002"},   {5'000'000, "0.005"},
     {10'000'000, "0.01"},   {20'000'000, "0.02"},    {50'000'000, "0.05"},   {100'000'000, "0.1"},
     {200'000'000, "0.2"},   {500'000'000, "0.5"},    {1'000'000'000, "1.0"}, {2'000'000'000, "2.0"},
     {5'000'000'000, "5.0"}, {10'000'000'000, "10.0"}}};

void WriteLatency(Exposition& text, const Latency& latency) {
    text.Family("msgbus_delivery_latency_seconds", "histogram",
                "Time from fan-out to a subscriber's taking a value, of one value in 64.");
    double sum = 0;
    std::uint64_t count = 0;
    std::size_t bound = 0;
    for (const auto& bucket : latency.Buckets()) {
        const std::uint64_t duration = LatencyBuckets::Highest(bucket.index);
        for (; bound < Bounds.size() && Bounds[bound].nanoseconds < duration; ++bound) {
            text.Sample("_bucket", {{"le", Bounds[bound].seconds}}, count);
        }
        count += bucket.count;
        sum += static_cast<double>(duration) * static_cast<double>(bucket.count);
    }
    for (; bound < Bounds.size(); ++bound) {
        text.Sample("_bucket", {{"le", Bounds[bound].seconds}}, count);
    }
    text.Sample("_bucket", {{"le", "+Inf"}}, count);
    text.Sample("_count", {}, count);
    text.Sample("_sum", {}, sum / NanosecondsPerSecond);
}

void WriteThreads(Exposition& text, const Snapshot& snapshot) {
    text.Family("msgbus_thread_away_seconds", "gauge",
                "How long a thread has been away from its loop; 0: it is there.");
    for (const auto& thread : snapshot.threads) {
        text.Sample("", {{"thread", Escaped(thread.name)}}, AgeInSeconds(thread.awaySince, snapshot.readAt));
    }
    text.Family("msgbus_thread_longest_away_seconds", "gauge",
                "The longest time that a thread was away from its loop.");
    for (const auto& thread : snapshot.threads) {
        text.Sample("", {{"thread", Escaped(thread.name)}}, InSeconds(thread.longestAway.count()));
    }
}

void WriteErrors(Exposition& text, const Snapshot& snapshot) {
    text.Family("msgbus_log_records", "counter", "Errors and warnings that were logged, by their place in the source.");
    for (const auto& error : snapshot.errors) {
        text.Sample("_total", {{"level", error.isError ? "error" : "warning"}, {"place", Escaped(error.place)}},
                    error.count);
    }
}

// -- topics and subscribers

/// Sorts `all` by `traffic`, the most first, and leaves the first `most`. Returns: the others.
template <typename T, typename Traffic>
std::vector<T> SplitRest(std::vector<T>& all, std::size_t most, const Traffic& traffic) {
    std::stable_sort(all.begin(), all.end(), [&](const T& a, const T& b) { return traffic(a) > traffic(b); });
    const auto first = all.begin() + static_cast<std::ptrdiff_t>(std::min(all.size(), most));
    std::vector<T> rest(first, all.end());
    all.erase(first, all.end());
    return rest;
}

template <typename T, typename Number>
std::uint64_t SumOf(const std::vector<T>& all, const Number& number) {
    std::uint64_t sum = 0;
    for (const T& each : all) {
        sum += number(each);
    }
    return sum;
}

struct Topic {
    std::string label;
    const PublisherAccount* publisher; ///< null: it has none
    std::uint64_t subscribers;
    std::string_view description;

    std::uint64_t Accepted() const { return publisher ? publisher->accepted + publisher->acceptedBefore : 0; }
    std::uint64_t WithoutSubscriber() const { return publisher ? publisher->withoutSubscriber : 0; }
    std::uint64_t Refused() const { return publisher ? publisher->refusedFull : 0; }
    std::uint64_t Subscribers() const { return subscribers; }
    std::uint64_t HasPublisher() const { return publisher && publisher->leftAt == 0 ? 1 : 0; }
};

void WriteLastValues(Exposition& text, const std::vector<Topic>& topics, std::int64_t clockOffset) {
    text.Family("msgbus_topic_last_value", "gauge",
                "The last value of a topic, as its description says. Beyond 53 bits it is rounded.");
    for (const Topic& topic : topics) {
        if (topic.publisher && topic.publisher->lastValue) {
            text.Sample("", {{"topic", topic.label}}, DescribedValue(topic.description, *topic.publisher->lastValue));
        }
    }
    text.Family("msgbus_topic_last_value_time_seconds", "gauge", "When the last value was accepted, since 1970.");
    for (const Topic& topic : topics) {
        if (topic.publisher && topic.publisher->lastAt != 0) {
            text.Sample("", {{"topic", topic.label}}, InSeconds(topic.publisher->lastAt + clockOffset));
        }
    }
}

void WriteTopics(Exposition& text, const Snapshot& snapshot) {
    std::vector<Topic> topics;
    for (const auto& view : TopicsOf(snapshot)) {
        topics.push_back({Escaped(view.topic), view.publisher ? &snapshot.publishers[*view.publisher] : nullptr,
                          view.subscribers.size(), view.description});
    }
    const auto rest = SplitRest(topics, MostMetricTopics, std::mem_fn(&Topic::Accepted));
    const auto write = [&](std::string_view name, std::string_view type, auto number, std::string_view help) {
        const std::string_view suffix = type == "counter" ? "_total" : "";
        text.Family(name, type, help);
        for (const Topic& topic : topics) {
            text.Sample(suffix, {{"topic", topic.label}}, std::invoke(number, topic));
        }
        if (!rest.empty()) {
            text.Sample(suffix, {{"topic", RestLabel}}, SumOf(rest, std::mem_fn(number)));
        }
    };
    write("msgbus_topic_values_accepted", "counter", &Topic::Accepted, "Values that the bus has taken, by topic.");
    write("msgbus_topic_values_without_subscriber", "counter", &Topic::WithoutSubscriber,
          "Values of the present publisher when the topic had no subscriber.");
    write("msgbus_topic_pushes_refused", "counter", &Topic::Refused,
          "Pushes of the present publisher that were refused because the inbound queue was full.");
    write("msgbus_topic_subscribers", "gauge", &Topic::Subscribers, "Subscribers of a topic.");
    write("msgbus_topic_has_publisher", "gauge", &Topic::HasPublisher, "1 when a publisher is registered, else 0.");
    WriteLastValues(text, topics, snapshot.server.clockOffset);
}

struct Subscriber {
    const SubscriberAccount* account;
    std::string name;
    std::string id;

    std::uint64_t Due() const { return account->flows.due; }
    std::uint64_t Taken() const { return account->flows.taken; }
    std::uint64_t Dropped() const { return account->flows.dropped.Total(); }
    std::uint64_t Queued() const { return account->flows.queued; }
    std::uint64_t Offered() const { return account->flows.offered; }
    std::uint64_t Waiting() const { return account->isWaiting ? 1 : 0; }
};

void WriteSubscriberTimes(Exposition& text, const std::vector<Subscriber>& subscribers, Nanoseconds now) {
    text.Family("msgbus_subscriber_oldest_value_age_seconds", "gauge", "Age of the oldest unread value; 0: none is.");
    for (const Subscriber& each : subscribers) {
        text.Sample("", {{"subscriber", each.name}, {"id", each.id}}, AgeInSeconds(each.account->oldestSince, now));
    }
    text.Family("msgbus_subscriber_latency_seconds", "summary",
                "Time from fan-out to the subscriber's taking a value, of one value in 64.");
    for (const Subscriber& each : subscribers) {
        const Latency& latency = each.account->latency;
        for (const auto& [label, quantile] : {std::pair{"0.5", 0.5}, {"0.99", 0.99}}) {
            text.Sample("", {{"subscriber", each.name}, {"id", each.id}, {"quantile", label}},
                        InSeconds(static_cast<std::int64_t>(latency.Quantile(quantile))));
        }
        text.Sample("_count", {{"subscriber", each.name}, {"id", each.id}}, latency.Count());
    }
}

void WriteSubscribers(Exposition& text, const Snapshot& snapshot) {
    std::vector<Subscriber> subscribers;
    for (const auto& account : snapshot.subscribers) {
        subscribers.push_back({&account, Escaped(account.name), std::to_string(account.id)});
    }
    const auto rest = SplitRest(subscribers, MostMetricSubscribers, std::mem_fn(&Subscriber::Due));
    const auto write = [&](std::string_view name, std::string_view type, auto number, std::string_view help) {
        const std::string_view suffix = type == "counter" ? "_total" : "";
        text.Family(name, type, help);
        for (const Subscriber& each : subscribers) {
            text.Sample(suffix, {{"subscriber", each.name}, {"id", each.id}}, std::invoke(number, each));
        }
        if (!rest.empty()) {
            text.Sample(suffix, {{"subscriber", RestLabel}, {"id", ""}}, SumOf(rest, std::mem_fn(number)));
        }
    };
    write("msgbus_subscriber_values_due", "counter", &Subscriber::Due, "Values that were fanned out to a subscriber.");
    write("msgbus_subscriber_values_taken", "counter", &Subscriber::Taken, "Values that the subscriber has got.");
    write("msgbus_subscriber_values_dropped", "counter", &Subscriber::Dropped, "Values that it will never get.");
    write("msgbus_subscriber_values_queued", "gauge", &Subscriber::Queued, "Values that are unread in the server.");
    write("msgbus_subscriber_values_offered", "gauge", &Subscriber::Offered,
          "Values in the memory that is shared with the client, which may take them meanwhile.");
    write("msgbus_subscriber_waiting", "gauge", &Subscriber::Waiting,
          "1 while the subscriber waits for a value, else 0.");
    WriteSubscriberTimes(text, subscribers, snapshot.readAt);
}

} // namespace

std::string ToOpenMetrics(const Snapshot& snapshot) {
    Exposition text;
    WriteServer(text, snapshot);
    WriteBusCounters(text, snapshot.bus);
    WriteBusGauges(text, snapshot.bus);
    WriteLatency(text, snapshot.bus.latency);
    WriteThreads(text, snapshot);
    WriteErrors(text, snapshot);
    WriteTopics(text, snapshot);
    WriteSubscribers(text, snapshot);
    return std::move(text).End();
}

} // namespace instruments
