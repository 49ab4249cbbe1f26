#include "topics/subscription.h"

#include "msgbus/error.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <system_error>
#include <utility>

namespace topics {

namespace {

using std::chrono::steady_clock;

/// Longer topics cannot be asked for their last value.
constexpr std::size_t LongestWithLast = 1020;

/// So many values of one subscriber are taken before those of the others get a turn.
constexpr unsigned ValuesPerTurn = 64;

int MakeEvent() {
    const int descriptor = ::eventfd(0, EFD_CLOEXEC);
    if (descriptor < 0) {
        throw std::system_error(errno, std::generic_category(), "cannot wait for several subscribers");
    }
    return descriptor;
}

std::string Name(const std::vector<std::string>& topics) {
    const std::string sentence = "topic '" + topics.front() + "'";
    const std::size_t others = topics.size() - 1;
    return others == 0   ? sentence
           : others == 1 ? sentence + " and another"
                         : sentence + " and " + std::to_string(others) + " others";
}

} // namespace

Subscription::Subscription(std::string subscriberName, std::vector<std::string> topics,
                           msgbus::Options subscriberOptions, std::unique_ptr<ITopicSource> topicSource,
                           Report reportTo)
    : name(std::move(subscriberName)), options(std::move(subscriberOptions)), source(std::move(topicSource)),
      report(std::move(reportTo)), first(std::make_shared<msgbus::Subscriber>(name, topics, options)),
      canceledDescriptor(source ? MakeEvent() : -1) {
    batches.push_back({first, std::move(topics), source ? first->Descriptor() : -1, {}});
    const common::MutexLock lock(mutex);
    all.push_back(first);
}

Subscription::~Subscription() {
    if (canceledDescriptor >= 0) {
        ::close(canceledDescriptor);
    }
}

msgbus::Received Subscription::NextUntil(msgbus::Deadline deadline) {
    if (!source) {
        return first->NextUntil(deadline);
    }
    while (true) {
        if (steady_clock::now() >= nextLook) {
            Look();
        }
        msgbus::Received received;
        if (TakeReady(received) || steady_clock::now() >= deadline) {
            return received;
        }
        AwaitAny(std::min(deadline, nextLook));
    }
}

/// Takes a value of those that are ready, in turns. Returns: whether there is one, or all is canceled.
bool Subscription::TakeReady(msgbus::Received& received) {
    for (std::size_t tried = 0; tried < batches.size(); ++tried) {
        Batch& batch = batches[turn];
        while (batch.isReady && taken < ValuesPerTurn) {
            received = batch.subscriber->TryNext();
            if (received.outcome == msgbus::Outcome::TimedOut) {
                batch.isReady = false;
            } else if (!received || !IsRepeated(batch, *received)) {
                ++taken;
                return true;
            }
        }
        turn = (turn + 1) % batches.size();
        taken = 0;
    }
    received.outcome = msgbus::Outcome::TimedOut;
    return false;
}

/// Returns: whether it is the last value of a topic that was received already. Before its publisher publishes, the
/// topic starts with that one; whether it will is not known when it is subscribed to.
bool Subscription::IsRepeated(Batch& batch, const msgbus::Message& message) {
    const auto before = batch.received.extract(message.topic);
    return before && before.mapped() == message.value;
}

/// Blocks: until a subscriber has something, or until `deadline`.
void Subscription::AwaitAny(msgbus::Deadline deadline) {
    std::vector<pollfd> watched;
    watched.reserve(batches.size() + 1);
    int timeout = 0;
    if (std::none_of(batches.begin(), batches.end(), [](const Batch& batch) { return batch.isReady; })) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - steady_clock::now()).count();
        timeout = static_cast<int>(std::clamp<decltype(left)>(left, 0, std::numeric_limits<int>::max()));
    }
    for (const auto& batch : batches) {
        watched.push_back({batch.descriptor, POLLIN, 0});
    }
    watched.push_back({canceledDescriptor, POLLIN, 0});
    if (::poll(watched.data(), watched.size(), timeout) <= 0) {
        return;
    }
    const bool isEnded = watched.back().revents != 0;
    for (std::size_t i = 0; i < batches.size(); ++i) {
        batches[i].isReady = batches[i].isReady || isEnded || watched[i].revents != 0;
    }
}

void Subscription::Look() {
    nextLook = steady_clock::now() + LookInterval;
    auto found = source->Look();
    NoteBlindness();
    if (!waiting.empty() && steady_clock::now() >= nextTry) {
        found.insert(found.end(), std::make_move_iterator(waiting.begin()), std::make_move_iterator(waiting.end()));
        waiting.clear();
    }
    if (found.empty()) {
        return;
    }
    if (batches.size() >= ManySubscribers) {
        GiveUpVacant();
    }
    Subscribe(std::move(found));
}

void Subscription::NoteBlindness() {
    const std::string blindness = source->Blindness();
    if (!blindness.empty() && blindness != lastBlindness) {
        Miss(blindness);
    }
    lastBlindness = blindness;
}

void Subscription::Miss(const std::string& sentence) {
    hasGap = true;
    if (report) {
        report(sentence, true);
    }
}

void Subscription::Subscribe(std::vector<NewTopic> topics) {
    const auto tooLong = std::stable_partition(
        topics.begin(), topics.end(), [](const NewTopic& topic) { return topic.name.size() <= LongestWithLast; });
    const std::vector<NewTopic> withLast(topics.begin(), tooLong), without(tooLong, topics.end());
    for (const auto& [batch, startsWithLast] : {std::pair(&withLast, true), std::pair(&without, false)}) {
        if (!batch->empty() && !Add(*batch, startsWithLast)) {
            waiting.insert(waiting.end(), batch->begin(), batch->end());
            nextTry = steady_clock::now() + RetryInterval;
        }
    }
}

/// Returns: whether there is a subscriber for the topics.
bool Subscription::Add(const std::vector<NewTopic>& added, bool startsWithLast) {
    std::vector<std::string> topics;
    std::map<std::string, std::int64_t> received;
    for (const auto& topic : added) {
        topics.push_back(topic.name);
        if (startsWithLast && topic.received) {
            received.emplace(topic.name, *topic.received);
        }
    }
    msgbus::Options more = options;
    more.startWithLast = startsWithLast;
    more.onNotice = nullptr; // the first subscriber reports what happens to the server
    std::shared_ptr<msgbus::Subscriber> subscriber;
    int descriptor = -1;
    try {
        subscriber = std::make_shared<msgbus::Subscriber>(name, topics, more);
        descriptor = subscriber->Descriptor();
    } catch (const msgbus::NoServerError&) {
        return false; // between two servers: what the subscribers that there are say of it is enough
    } catch (const msgbus::ServerGoneError&) {
        return false;
    } catch (const msgbus::Error& error) {
        if (error.what() != lastRefusal) {
            Miss(Name(topics) + " cannot be received for now: " + error.what());
            lastRefusal = error.what();
        }
        return false;
    }
    lastRefusal.clear();
    batches.push_back({subscriber, topics, descriptor, std::move(received)});
    bool isTooLate = false;
    {
        const common::MutexLock lock(mutex);
        all.push_back(subscriber);
        isTooLate = isCanceled;
    }
    if (isTooLate) {
        subscriber->Cancel();
    }
    if (report) {
        report("receiving " + Name(topics) + " too", false);
    }
    return true;
}

void Subscription::GiveUpVacant() {
    for (std::size_t i = batches.size(); i-- > 1;) {
        Batch& batch = batches[i];
        if (batch.isReady || !source->IsVacant(batch.subscriber->Id(), batch.topics)) {
            continue;
        }
        source->Forget(batch.topics);
        {
            const common::MutexLock lock(mutex);
            before.values += batch.subscriber->Lost().values;
            std::erase(all, batch.subscriber);
        }
        batches.erase(batches.begin() + static_cast<std::ptrdiff_t>(i));
    }
    turn = 0;
    taken = 0;
}

void Subscription::Cancel() noexcept {
    std::vector<std::shared_ptr<msgbus::Subscriber>> canceled;
    {
        const common::MutexLock lock(mutex);
        isCanceled = true;
        canceled = all;
    }
    for (const auto& subscriber : canceled) {
        subscriber->Cancel();
    }
    if (canceledDescriptor >= 0) {
        const std::uint64_t one = 1;
        static_cast<void>(!::write(canceledDescriptor, &one, sizeof one)); // cannot fail: it is far from its limit
    }
}

msgbus::Loss Subscription::Lost() const {
    const common::MutexLock lock(mutex);
    msgbus::Loss sum = before;
    for (const auto& subscriber : all) {
        const auto loss = subscriber->Lost();
        sum.values += loss.values;
        sum.reason = loss.reason != 0 ? loss.reason : sum.reason;
        sum.reconnections = std::max(sum.reconnections, loss.reconnections);
    }
    return sum;
}

} // namespace topics
