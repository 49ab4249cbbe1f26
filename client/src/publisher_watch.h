#pragma once

#include "msgbus/options.h"
#include "msgbus/subscriber.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace msgbus {

/// What one subscriber knows of the publishers of its topics, and what is to be reported about them.
/// Threads: one at a time.
class PublisherWatch final {
public:
    /// A publisher has so much time to register with a restarted server before it counts as gone.
    static constexpr std::chrono::milliseconds ReturnTime{2000};

    /// A wait that was not answered for so long shows that nothing has come: what has, takes less from the server.
    static constexpr std::chrono::milliseconds AnswerTime{50};

    /// Returns: `topics`, and the reserved ones that `options` ask for. Throws: std::invalid_argument for topics that
    /// are too long for that.
    static std::vector<std::string> TopicsFor(std::vector<std::string> topics, const Options& options);

    /// Requires: options.onPublisher. Lifetime: `options` must outlive this object.
    PublisherWatch(std::vector<std::string> topics, const Options& subscriberOptions,
                   std::function<Deadline()> time = std::chrono::steady_clock::now);

    /// The subscriber is registered with a restarted server.
    void NoteRestart();

    /// Takes what was received. Returns: false for a value; true for a notice, which is reported if it is news.
    bool Take(const Message& message);

    /// A wait begins, or goes on. Returns: when ReportDue is to be called although nothing comes.
    Deadline NoteWait() noexcept;
    /// Reports what is due by now. The last wait was not answered.
    void ReportDue();

    /// Returns: whether NextDue may ever be but Deadline::max().
    bool HasDueTimes() const noexcept;

private:
    struct Topic {
        std::optional<PublisherState> reported; ///< nothing yet; else not Silent
        std::int64_t id = 0;
        bool isAnswered = false;              ///< by the server with which it is registered
        bool isSilent = false;                ///< and this was reported
        Deadline quietSince;                  ///< as staleAfter counts
        Deadline missingAt = Deadline::max(); ///< from then on it counts as gone
    };
    using Topics = std::map<std::string, Topic, std::less<>>;

    void Follow(Topics::value_type& topic, PublisherState state, std::int64_t id);
    void FollowRestart(Topics::value_type& topic, PublisherState state, std::int64_t id);
    void Report(Topics::value_type& topic, PublisherState state, std::int64_t id);
    Deadline DueTime(const Topic& topic) const noexcept;
    void NoteDueTime(const Topic& topic) noexcept;

    const Options& options;
    const std::function<Deadline()> now;
    Topics watched;
    Deadline due = Deadline::max();     ///< of the first topic that is due, or some time before
    std::optional<Deadline> waitsSince; ///< none: no wait is under way that is to show that nothing comes
};

} // namespace msgbus
