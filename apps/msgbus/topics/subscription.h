#pragma once

#include "common/mutex.h"
#include "common/thread_annotations.h"
#include "msgbus/subscriber.h"
#include "topics/topic_source.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace topics {

/// A subscriber whose topics may become more. A subscriber of the bus has the topics that it was registered with, so
/// each batch of new ones gets a further subscriber of the same name; one loop takes the values of all. Each topic
/// belongs to one of them, so its values keep their order.
///
/// Threads: NextUntil on one thread; the others on any thread meanwhile.
class Subscription final {
public:
    /// From so many subscribers on, those whose topics have no publisher any more are given up.
    static constexpr std::size_t ManySubscribers = 64;
    static constexpr std::chrono::milliseconds LookInterval{10};
    static constexpr std::chrono::seconds RetryInterval{1};

    /// Called on the thread that receives, with a sentence for people. `isGap`: topics are missed.
    using Report = std::function<void(const std::string& sentence, bool isGap)>;

    /// Registers the first subscriber, also without topics when there is a source. `source`: nothing: the topics stay
    /// as they are. Throws and blocks: as msgbus::Subscriber.
    Subscription(std::string name, std::vector<std::string> topics, msgbus::Options options,
                 std::unique_ptr<ITopicSource> source = nullptr, Report report = {});
    Subscription(const Subscription&) = delete;
    Subscription& operator=(const Subscription&) = delete;
    ~Subscription();

    /// Takes the next value of any topic. Throws and blocks: as msgbus::Subscriber.
    msgbus::Received NextUntil(msgbus::Deadline deadline);

    /// Unregisters all, and ends a blocked NextUntil. Cannot be undone. Blocks: as msgbus::Subscriber, for each.
    void Cancel() noexcept EXCLUDES(mutex);

    /// Returns: what all have missed together; of reconnections those of the one that has most.
    msgbus::Loss Lost() const EXCLUDES(mutex);

    /// Returns: the id of the first subscriber.
    std::int64_t Id() const { return first->Id(); }

    /// Returns: whether topics were missed that a report has named.
    bool HasGap() const noexcept { return hasGap; }

private:
    /// What one registration has.
    struct Batch {
        std::shared_ptr<msgbus::Subscriber> subscriber;
        std::vector<std::string> topics;
        int descriptor = -1;
        std::map<std::string, std::int64_t> received; ///< last values that were received, which may come once more
        bool isReady = true;                          ///< TryNext may have something
    };

    void Look() EXCLUDES(mutex);
    void Subscribe(std::vector<NewTopic> topics) EXCLUDES(mutex);
    bool Add(const std::vector<NewTopic>& topics, bool startsWithLast) EXCLUDES(mutex);
    static bool IsRepeated(Batch& batch, const msgbus::Message& message);
    void GiveUpVacant() EXCLUDES(mutex);
    void NoteBlindness();
    void Miss(const std::string& sentence);
    bool TakeReady(msgbus::Received& received);
    void AwaitAny(msgbus::Deadline deadline);

    const std::string name;
    const msgbus::Options options;
    const std::unique_ptr<ITopicSource> source;
    const Report report;
    const std::shared_ptr<msgbus::Subscriber> first;
    const int canceledDescriptor; ///< becomes readable with Cancel; -1 without a source

    std::atomic<bool> hasGap{false}; // a flag of its own: nothing else is read because of it

    // Of the thread that receives.
    std::vector<Batch> batches; ///< the first one never goes
    std::size_t turn = 0;       ///< whose values are taken
    unsigned taken = 0;         ///< in this turn
    std::vector<NewTopic> waiting;
    std::chrono::steady_clock::time_point nextLook;
    std::chrono::steady_clock::time_point nextTry;
    std::string lastBlindness, lastRefusal;

    mutable common::Mutex mutex;
    bool isCanceled GUARDED_BY(mutex) = false;
    std::vector<std::shared_ptr<msgbus::Subscriber>> all GUARDED_BY(mutex); ///< of `batches`
    msgbus::Loss before GUARDED_BY(mutex);                                  ///< of those that were given up
};

} // namespace topics
