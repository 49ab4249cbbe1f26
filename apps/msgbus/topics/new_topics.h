#pragma once

#include "instruments/snapshot.h"
#include "topics/glob_set.h"
#include "topics/topic_source.h"

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace topics {

/// Which topics of an account match and were not there before. Reserved topics (common/reserved_topics.h) never are.
/// Threads: one at a time.
class NewTopics final {
public:
    /// `named`: topics that are subscribed to anyway.
    NewTopics(GlobSet globs, const std::vector<std::string>& named);

    /// Returns: the topics that match and are not known, in the order of their bytes. They are known from now on.
    std::vector<NewTopic> Take(const instruments::Snapshot& snapshot);

    /// The topics are not known any more, and are new again when they have had a publisher since `snapshot`.
    void Forget(const std::vector<std::string>& topics, const instruments::Snapshot& snapshot);

    /// A restarted server has another account: what it has is compared with nothing of the one before.
    void NoteRestart() { forgotten.clear(); }

private:
    struct Forgotten {
        instruments::Nanoseconds at;
        std::optional<std::int64_t> lastValue; ///< which was received
    };

    GlobSet wanted;
    std::set<std::string, std::less<>> known;
    std::map<std::string, Forgotten, std::less<>> forgotten;
};

} // namespace topics
