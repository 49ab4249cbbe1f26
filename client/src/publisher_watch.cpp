#include "publisher_watch.h"

#include "common/reserved_topics.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace msgbus {

namespace {

constexpr auto NoTime = std::chrono::milliseconds::zero();

/// What is received has a topic of at most so many bytes, and a reserved topic has to arrive whole.
constexpr std::size_t LongestTopic = 1022 - common::ReservedPrefix;

PublisherState StateOf(common::Presence presence) {
    switch (presence) {
    case common::Presence::None:
        break;
    case common::Presence::Came:
        return PublisherState::Came;
    case common::Presence::Left:
        return PublisherState::Left;
    case common::Presence::Died:
        return PublisherState::Died;
    }
    return PublisherState::None;
}

} // namespace

std::vector<std::string> PublisherWatch::TopicsFor(std::vector<std::string> topics, const Options& options) {
    std::vector<std::string> added;
    for (const auto& topic : topics) {
        if ((options.onPublisher || options.startWithLast) && topic.size() > LongestTopic) {
            throw std::invalid_argument("the topic has " + std::to_string(topic.size()) + " bytes; with " +
                                        (options.onPublisher ? "onPublisher" : "startWithLast") + " at most " +
                                        std::to_string(LongestTopic) + " can be sent");
        }
        if (options.onPublisher) {
            added.push_back(common::MakeReserved(common::ReservedTopic::Presence, topic));
        }
        if (options.startWithLast) {
            added.push_back(common::MakeReserved(common::ReservedTopic::LastValue, topic));
        }
    }
    topics.insert(topics.end(), std::make_move_iterator(added.begin()), std::make_move_iterator(added.end()));
    return topics;
}

PublisherWatch::PublisherWatch(std::vector<std::string> topics, const Options& subscriberOptions,
                               std::function<Deadline()> time)
    : options(subscriberOptions), now(std::move(time)) {
    for (auto& name : topics) {
        Topic& topic = watched[std::move(name)];
        topic.quietSince = now();
        NoteDueTime(topic);
    }
}

void PublisherWatch::NoteRestart() {
    waitsSince.reset();
    for (auto& [name, topic] : watched) {
        topic.isAnswered = false;
        topic.missingAt = Deadline::max();
        topic.quietSince = now();
        NoteDueTime(topic);
    }
}

bool PublisherWatch::Take(const Message& message) {
    waitsSince.reset();
    if (!common::IsReserved(message.topic)) {
        if (options.staleAfter > NoTime) {
            if (const auto found = watched.find(message.topic); found != watched.end()) {
                found->second.quietSince = now();
                if (std::exchange(found->second.isSilent, false)) {
                    NoteDueTime(found->second);
                }
            }
        }
        return false;
    }
    const auto reserved = common::ParseReserved(message.topic);
    const auto found = reserved ? watched.find(reserved->topic) : watched.end();
    if (found == watched.end() || reserved->kind != common::ReservedTopic::Presence) {
        return false; // one that the program has asked for itself
    }
    const auto value = common::PresenceValue::Decode(message.value);
    if (std::exchange(found->second.isAnswered, true)) {
        Follow(*found, StateOf(value.presence), value.id);
    } else {
        FollowRestart(*found, StateOf(value.presence), value.id);
    }
    return true;
}

/// A change, as the server reports it.
void PublisherWatch::Follow(Topics::value_type& topic, PublisherState state, std::int64_t id) {
    const bool wasThere = topic.second.reported == PublisherState::Came;
    topic.second.missingAt = Deadline::max();
    if (state == PublisherState::Came && wasThere) { // it has come back to a restarted server
        topic.second.id = id;
    } else if (wasThere || state == PublisherState::Came) {
        Report(topic, state, id);
    }
}

/// How it stands when the subscriber is registered.
void PublisherWatch::FollowRestart(Topics::value_type& topic, PublisherState state, std::int64_t id) {
    if (!topic.second.reported) {
        Report(topic, state, id);
    } else if (state == PublisherState::Came) {
        Follow(topic, state, id);
    } else if (topic.second.reported == PublisherState::Came) {
        topic.second.missingAt = now() + ReturnTime;
        NoteDueTime(topic.second);
    }
}

void PublisherWatch::Report(Topics::value_type& topic, PublisherState state, std::int64_t id) {
    topic.second.reported = state;
    topic.second.id = id;
    topic.second.isSilent = false;
    topic.second.missingAt = Deadline::max();
    topic.second.quietSince = now();
    NoteDueTime(topic.second);
    options.onPublisher({topic.first, state, id});
}

/// Returns: when something is to be reported of a topic although nothing comes.
Deadline PublisherWatch::DueTime(const Topic& topic) const noexcept {
    if (topic.missingAt != Deadline::max()) {
        return topic.missingAt;
    }
    const bool isAbsent = topic.reported.value_or(PublisherState::Came) != PublisherState::Came;
    if (options.staleAfter <= NoTime || topic.isSilent || isAbsent ||
        Deadline::max() - topic.quietSince <= options.staleAfter) {
        return Deadline::max();
    }
    return topic.quietSince + options.staleAfter;
}

void PublisherWatch::NoteDueTime(const Topic& topic) noexcept {
    due = std::min(due, DueTime(topic));
}

Deadline PublisherWatch::NoteWait() noexcept {
    if (due == Deadline::max()) {
        return due;
    }
    if (!waitsSince) {
        waitsSince = now();
    }
    return std::max<Deadline>(due, *waitsSince + AnswerTime);
}

void PublisherWatch::ReportDue() {
    const auto present = now();
    if (present < NoteWait()) {
        return;
    }
    for (auto& topic : watched) {
        if (DueTime(topic.second) > present) {
            continue;
        }
        if (topic.second.missingAt != Deadline::max()) {
            Report(topic, PublisherState::None, 0);
        } else {
            topic.second.isSilent = true;
            options.onPublisher({topic.first, PublisherState::Silent, topic.second.id});
        }
    }
    due = Deadline::max();
    for (const auto& [name, topic] : watched) {
        NoteDueTime(topic);
    }
}

bool PublisherWatch::HasDueTimes() const noexcept {
    return options.staleAfter > NoTime || options.reconnectFor > NoTime;
}

} // namespace msgbus
