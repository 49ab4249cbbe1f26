#pragma once

#include "look/account_source.h"
#include "topics/new_topics.h"
#include "topics/topic_source.h"

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace topics {

/// The topics of the bus, from the account of its server: events show within LookInterval that a client has registered,
/// and the whole account is looked at then, and once in WholeInterval in any case.
class AccountTopics final : public ITopicSource {
public:
    static constexpr std::chrono::milliseconds LookInterval{10};
    static constexpr std::chrono::milliseconds WholeInterval{1000};

    /// Opens the account. Throws: instruments::NoAccountError; instruments::AccountError.
    AccountTopics(const GlobSet& globs, const std::vector<std::string>& named);

    std::vector<NewTopic> Look() override;
    bool IsVacant(std::int64_t subscriber, const std::vector<std::string>& topics) const override;
    void Forget(const std::vector<std::string>& topics) override { newTopics.Forget(topics, snapshot); }
    std::string Blindness() const override { return blindness; }

private:
    using Clock = std::chrono::steady_clock;

    bool IsWholeLookDue();
    void ReadWhole();

    look::AccountSource source;
    NewTopics newTopics;
    instruments::Snapshot snapshot;
    std::uint64_t lastEvent = 0;
    bool isRegistrationRecent = true; ///< what is behind an event may be in the account a moment later
    Clock::time_point nextLook;
    Clock::time_point nextWhole;
    std::optional<Clock::time_point> replacedSince; ///< that of a server that has ended, without another in its place
    std::string blindness;
};

} // namespace topics
