#include "topics/account_topics.h"

#include "look/look_loop.h"

#include <algorithm>

namespace topics {

using instruments::AccountReader;
using instruments::EventKind;

namespace {

/// Of a big bus a whole look takes long: it must not take more than a tenth of the time.
constexpr int PauseFactor = 10;

/// So long after the old account is away a server has one of its own, if it keeps one.
constexpr std::chrono::seconds TimeToStart{2};

bool IsRegistration(const instruments::Event& event) {
    return event.kind == EventKind::PublisherRegistered || event.kind == EventKind::SubscriberRegistered;
}

} // namespace

AccountTopics::AccountTopics(const GlobSet& globs, const std::vector<std::string>& named)
    : source(std::nullopt), newTopics(globs, named) {}

/// Returns: whether a client may have registered since the last whole look.
bool AccountTopics::IsWholeLookDue() {
    if (source.FollowRestart()) {
        lastEvent = 0;
        newTopics.NoteRestart();
        return true;
    }
    const auto events = source.Reader().EventsAfter(lastEvent);
    if (!events.empty()) {
        lastEvent = events.back().number;
    }
    // Once more after a registration: the account may have the event before the client.
    const bool wasRecent = isRegistrationRecent;
    isRegistrationRecent = std::any_of(events.begin(), events.end(), IsRegistration);
    return isRegistrationRecent || wasRecent || Clock::now() >= nextWhole;
}

void AccountTopics::ReadWhole() {
    const auto begin = Clock::now();
    snapshot = source.Read(AccountReader::Depth::WithoutLatency);
    const auto end = Clock::now();
    nextLook = end + std::max<Clock::duration>(LookInterval, PauseFactor * (end - begin));
    nextWhole = end + WholeInterval;
    // A server without an account sets that of the one before aside.
    if (!look::HasEnded(snapshot.server) || !source.Reader().IsReplaced()) {
        replacedSince.reset();
    } else if (!replacedSince) {
        replacedSince = end;
    }
    blindness = replacedSince && end - *replacedSince >= TimeToStart
                    ? "the server that runs keeps no account: topics that come from now on are not noticed"
                    : "";
}

std::vector<NewTopic> AccountTopics::Look() {
    if (Clock::now() < nextLook) {
        return {};
    }
    nextLook = Clock::now() + LookInterval;
    try {
        if (!IsWholeLookDue()) {
            return {};
        }
        ReadWhole();
    } catch (const instruments::AccountError& error) {
        nextLook = Clock::now() + WholeInterval;
        blindness = std::string(error.what()) + "; topics that come from now on are not noticed";
        return {};
    }
    return newTopics.Take(snapshot);
}

bool AccountTopics::IsVacant(std::int64_t subscriber, const std::vector<std::string>& topics) const {
    const auto own = std::find_if(snapshot.subscribers.begin(), snapshot.subscribers.end(),
                                  [subscriber](const auto& each) { return each.id == subscriber; });
    if (own == snapshot.subscribers.end() || snapshot.bus.inbound != 0 || own->flows.queued != 0 ||
        own->flows.offered != 0 || own->flows.handedOver != 0) {
        return false;
    }
    return std::none_of(snapshot.publishers.begin(), snapshot.publishers.end(), [&topics](const auto& publisher) {
        return publisher.leftAt == 0 && std::find(topics.begin(), topics.end(), publisher.topic) != topics.end();
    });
}

} // namespace topics
