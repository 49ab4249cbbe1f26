#include "audience.h"

#include "common/reserved_topics.h"
#include "kn/status.h"
#include "msgbus/error.h"

#include <utility>

namespace msgbus {

namespace {

Options OptionsOf(const Options& publisher) {
    Options options;
    options.route = publisher.route;
    options.connectTimeout = publisher.connectTimeout;
    options.callTimeout = publisher.callTimeout;
    options.reconnectFor = publisher.reconnectFor;
    options.backend = publisher.backend;
    return options;
}

} // namespace

Audience::Audience(const std::string& watchedTopic, const Options& options)
    : topic(common::MakeReserved(common::ReservedTopic::SubscriberCount, watchedTopic)), patience(options.callTimeout),
      subscriberOptions(OptionsOf(options)) {}

void Audience::Update() {
    try {
        if (!subscriber) {
            Connect();
        }
        while (const auto received = subscriber->TryNext()) {
            Take(*received);
        }
    } catch (...) {
        subscriber.reset();
        throw;
    }
}

void Audience::Connect() {
    subscriber.emplace("subscriber-count", std::vector<std::string>{topic}, subscriberOptions);
    const auto first = subscriber->NextFor(patience); // the server has put it there before it has replied
    if (!first) {
        throw PlatformError(KnStatusUnimplemented, "the message bus server does not report how many subscribers there "
                                                   "are");
    }
    Take(*first);
}

void Audience::Take(const Message& message) {
    const auto now = static_cast<std::size_t>(message.value);
    const auto before = std::exchange(count, now);
    if (!before || (now != *before && now <= 1)) {
        changes.push_back(now);
    }
}

std::optional<std::size_t> Audience::TakeChange() {
    if (changes.empty()) {
        return std::nullopt;
    }
    const std::size_t change = changes.front();
    changes.pop_front();
    return change;
}

} // namespace msgbus
