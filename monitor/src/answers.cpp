#include "answers.h"

#include "instruments/account_json.h"
#include "instruments/open_metrics.h"
#include "instruments/read_account.h"
#include "msgbus/codec.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace msgbus_monitor {

namespace {

constexpr std::string_view JsonType = "application/json";

constexpr unsigned NoContent = 204;
constexpr unsigned BadRequest = 400;
constexpr unsigned Forbidden = 403;
constexpr unsigned NotFound = 404;
constexpr unsigned Unavailable = 503;

std::string Line(const nlohmann::ordered_json& json) {
    return json.dump() + "\n";
}

std::string TextOf(Resource resource, const instruments::Snapshot& snapshot) {
    switch (resource) {
    case Resource::Topics:
        return Line(instruments::TopicsToJson(snapshot));
    case Resource::Subscribers:
        return Line(instruments::SubscribersToJson(snapshot));
    case Resource::Metrics:
        return instruments::ToOpenMetrics(snapshot);
    default:
        return Line(instruments::StateToJson(snapshot));
    }
}

std::size_t TopicCount(const instruments::Snapshot& snapshot) {
    std::size_t count = snapshot.publishers.size();
    for (const auto& subscriber : snapshot.subscribers) {
        count += subscriber.topics.size();
    }
    return count;
}

Refusal UnknownTopic() {
    return {NotFound, "The topic is not known: it has neither a publisher nor a subscriber."};
}

Answer OutcomeAnswer(DescribeOutcome outcome) {
    switch (outcome) {
    case DescribeOutcome::Done:
        return {NoContent, {}, std::make_shared<const std::string>()};
    case DescribeOutcome::UnknownTopic:
        return ToAnswer({NotFound, "The topic has no publisher."});
    case DescribeOutcome::NotOwner:
        return ToAnswer({Forbidden, "The publisher of the topic belongs to another process."});
    case DescribeOutcome::NoRoom:
        break;
    }
    return ToAnswer({Unavailable, "The account has no room for the description."});
}

} // namespace

Answer ToAnswer(const Refusal& refusal) {
    return {refusal.status, JsonType, std::make_shared<const std::string>(Line({{"error", refusal.sentence}})),
            refusal.allowed};
}

Answers::Answers(IMonitored& monitored, const MonitorLimits& bounds)
    : source(monitored), limits(bounds), bytesInUse(std::make_shared<std::atomic<std::size_t>>(std::size_t{0})),
      noMemory(ToAnswer({Unavailable, "There is no memory for the answer."})) {}

Answer Answers::Get(const Route& route) {
    try {
        Refresh();
        if (route.resource == Resource::Topic) {
            return TopicAnswer(route.topic);
        }
        auto& text = texts[route.resource];
        if (!text) {
            if (route.resource != Resource::Metrics && TopicCount(*snapshot) > limits.listedTopics) {
                return ToAnswer({Unavailable, "The bus has too many topics for one answer; ask for single ones, or for "
                                              "/metrics."});
            }
            const auto begin = Clock::now();
            text = Keep(TextOf(route.resource, *snapshot));
            spent += Clock::now() - begin;
        }
        return {200, route.resource == Resource::Metrics ? instruments::OpenMetricsType : JsonType, text};
    } catch (const std::runtime_error& error) {
        return ToAnswer({Unavailable, error.what()});
    } catch (const std::bad_alloc&) {
        return NoMemory();
    }
}

Answer Answers::NoMemory() {
    texts.clear();
    snapshot.reset();
    return noMemory;
}

Answer Answers::Put(const Peer& peer, const std::string& topic, const std::string& text) try {
    try {
        msgbus::Description::FromText(text);
    } catch (const std::invalid_argument& error) {
        return ToAnswer({BadRequest, error.what()});
    }
    const auto outcome = source.Describe(peer, topic, text);
    if (outcome == DescribeOutcome::Done) {
        snapshot.reset(); // so that the client reads what it has written
    }
    return OutcomeAnswer(outcome);
} catch (const std::bad_alloc&) {
    return NoMemory();
}

Answer Answers::Trace(const Route& route) try {
    constexpr unsigned conflict = 409;
    switch (route.change) {
    case Route::Change::Start:
        return source.StartTrace(route.topic, route.values)
                   ? Answer{NoContent, {}, std::make_shared<const std::string>()}
                   : ToAnswer({conflict, "Values of another topic, or for another reader, are followed already."});
    case Route::Change::Stop:
        source.StopTrace();
        return {NoContent, {}, std::make_shared<const std::string>()};
    case Route::Change::None:
        break;
    }
    const auto record = source.ReadTrace();
    return record.topic.empty() ? ToAnswer({NotFound, "There is no trace; PUT starts one."})
                                : Answer{200, JsonType, Keep(Line(TraceToJson(record, source.ClockOffset())))};
} catch (const std::bad_alloc&) {
    return NoMemory();
}

/// Throws: instruments::AccountError; std::runtime_error when the texts in use take too much.
void Answers::Refresh() {
    constexpr int readersShare = 10; // they take one in so many parts of the time
    const auto now = Clock::now();
    const auto cacheTime =
        std::clamp<Clock::duration>(spent * readersShare, limits.leastCacheTime, limits.mostCacheTime);
    if (snapshot && now - readAt < cacheTime) {
        return;
    }
    texts.clear();
    if (*bytesInUse > limits.answerBytes) {
        snapshot.reset();
        throw std::runtime_error("too many answers are still being read");
    }
    snapshot = std::make_unique<instruments::Snapshot>(source.Read());
    readAt = now;
    spent = Clock::now() - now;
}

std::shared_ptr<const std::string> Answers::Keep(std::string text) {
    const std::size_t size = text.size();
    *bytesInUse += size;
    return {new std::string(std::move(text)), [counter = bytesInUse, size](const std::string* kept) {
                delete kept;
                *counter -= size;
            }};
}

Answer Answers::TopicAnswer(const std::string& topic) {
    const auto begin = Clock::now();
    const auto json = instruments::TopicToJson(*snapshot, topic);
    spent += Clock::now() - begin;
    return json ? Answer{200, JsonType, Keep(Line(*json))} : ToAnswer(UnknownTopic());
}

} // namespace msgbus_monitor
