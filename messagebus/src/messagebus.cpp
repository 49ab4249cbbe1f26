#include "diagnostics.h"
#include "message_bus.h"

#include <algorithm>
#include <cassert>
#include <chrono>
#include <stdexcept>
#include <utility>

namespace message_bus {

using cor::ResultCode;
using diagnostics::Log;
using diagnostics::LogLevel;
using diagnostics::LogSite;

namespace {

constexpr auto Tag = "[MessageBus]";
constexpr long NoId = -1;
// A push is accepted while fewer are queued, so the queue can hold this many.
constexpr std::size_t InboundLimit = 1025;
constexpr std::chrono::nanoseconds StopPollInterval{5'000'000'000};

auto FindPublisher(const std::map<std::string, long>& publishers, long id) {
    return std::find_if(publishers.begin(), publishers.end(), [id](const auto& entry) { return entry.second == id; });
}

auto FindSubscriber(const std::list<std::shared_ptr<Subscriber>>& subscribers, long id) {
    return std::find_if(subscribers.begin(), subscribers.end(), [id](const auto& entry) { return entry->id == id; });
}

// Every record of a wait carries the name of Wait, whichever function writes it: operators search for it.
LogSite WaitSite(LogLevel level, int line = __builtin_LINE()) {
    return {level, __FILE__, line, "Wait"};
}

/// The last test of a wait, after its pop. Returns: 0; 1 when the queue is canceled: a message that was taken is then
/// dropped with the subscriber.
ResultCode TestForCancel(const Subscriber& subscriber) {
    if (subscriber.queue.IsCanceled()) {
        Log(WaitSite(LogLevel::Debug), "{}: Canceled", Tag);
        return ResultCode::NotRegistered;
    }
    return ResultCode::Success;
}

/// Writes both outputs or neither.
void Deliver(const Message& next, std::string& topic, long& message) {
    std::string text = next.topic; // all that can fail
    message = next.value;
    topic = std::move(text);
}

} // namespace

MessageBus::~MessageBus() {
    if (eventsThread.joinable()) {
        try {
            eventsThread.join();
        } catch (...) {
            // Dropped: no exception may leave a destructor.
        }
    }
}

ResultCode MessageBus::RegisterPublisher(const std::string& topic, long& publisherId) {
    std::unique_lock lock(publishersMutex, std::defer_lock);
    try {
        // Contract: the line shows the id that the caller passed in, so the new id stands in the last line only.
        Log(LogLevel::Debug, "{}: RegisterPublisher id {} topic {}", Tag, publisherId, topic);
        lock.lock();
        if (publishers.contains(topic)) {
            publisherId = NoId;
            Log(LogLevel::Warning, "{}: the topic ({}) is already registered", Tag, topic);
            return ResultCode::Conflict;
        }
        std::string key = topic;
        const long id = ++lastId;
        [[maybe_unused]] const bool isNew = publishers.emplace(std::move(key), id).second;
        assert(isNew);
        publisherId = id;
        Log(LogLevel::Debug, "{}: Publisher {} registered", Tag, id);
        return ResultCode::Success;
    } catch (const std::exception& error) {
        Log(LogLevel::Error, "{}: {}", Tag, error.what());
        return ResultCode::Failed;
    }
}

ResultCode MessageBus::RegisterSubscriber(const std::string& name, const std::set<std::string>& topics,
                                          long& subscriberId) {
    std::unique_lock lock(subscribersMutex, std::defer_lock);
    try {
        // Contract: the id is handed out before anything can fail, so a failed registration uses one up.
        const long id = ++lastId;
        subscriberId = id;
        const auto subscriber = std::make_shared<Subscriber>();
        subscriber->id = id;
        subscriber->name = name;
        subscriber->topics.insert(topics.begin(), topics.end());

        lock.lock();
        subscribers.push_back(subscriber);
        lock.unlock();

        WakeEventsThread();
        Log(LogLevel::Debug, "{}: Subscriber with ID {} registered", Tag, id);
        return ResultCode::Success;
    } catch (const std::exception& error) {
        Log(LogLevel::Error, "{}: {}", Tag, error.what());
        return ResultCode::Failed;
    }
}

ResultCode MessageBus::UnregisterPublisher(long publisherId) {
    std::unique_lock lock(publishersMutex, std::defer_lock);
    try {
        WakeEventsThread(); // Contract: before the look-up, so an unknown id wakes the events thread too
        lock.lock();
        const auto found = FindPublisher(publishers, publisherId);
        if (found == publishers.end()) {
            Log(LogLevel::Error, "{}: The publisher ID ({}) not found", Tag, publisherId);
            return ResultCode::Conflict;
        }
        publishers.erase(found);
        Log(LogLevel::Debug, "{}: The publisher ID ({}) has been removed", Tag, publisherId);
        Log(LogLevel::Debug, "{}: The publisher with ID {} unregistered", Tag, publisherId);
        return ResultCode::Success;
    } catch (const std::exception& error) {
        Log(LogLevel::Error, "{}: {}", Tag, error.what());
        return ResultCode::Failed;
    }
}

ResultCode MessageBus::UnregisterSubscriber(long subscriberId) {
    std::unique_lock lock(subscribersMutex, std::defer_lock);
    try {
        lock.lock();
        const auto found = FindSubscriber(subscribers, subscriberId);
        if (found == subscribers.end()) {
            Log(LogLevel::Error, "{}: The subscriber with ID ({}) not found", Tag, subscriberId);
            return ResultCode::Conflict;
        }
        (*found)->queue.Cancel();
        subscribers.erase(found);
        Log(LogLevel::Debug, "{}: The subscriber ID ({}) has been removed", Tag, subscriberId);
        return ResultCode::Success;
    } catch (const std::exception& error) {
        Log(LogLevel::Error, "{}: {}", Tag, error.what());
        return ResultCode::Failed;
    }
}

std::string MessageBus::GetPublisherTopicById(long publisherId) const {
    const std::lock_guard lock(publishersMutex);
    const auto found = FindPublisher(publishers, publisherId);
    return found == publishers.end() ? std::string() : found->first;
}

std::shared_ptr<Subscriber> MessageBus::GetSubscriberPtrById(long subscriberId) const {
    const std::lock_guard lock(subscribersMutex);
    const auto found = FindSubscriber(subscribers, subscriberId);
    return found == subscribers.end() ? nullptr : *found;
}

long MessageBus::GetSubscriberIdByName(const std::string& name) const {
    const auto found = std::find_if(subscribers.begin(), subscribers.end(),
                                    [&name](const auto& subscriber) { return subscriber->name == name; });
    return found == subscribers.end() ? NoId : (*found)->id;
}

InboundState MessageBus::Inbound() const {
    if (InboundSize() == 0) {
        return InboundState::Empty;
    }
    // std::atomic_ref takes no constant type, although this only reads.
    const std::atomic_ref<bool> pending(const_cast<bool&>(eventsPending));
    return pending.load(std::memory_order_relaxed) ? InboundState::Announced : InboundState::LeftBehind;
}

std::size_t MessageBus::InboundSize() const {
    return messageQueue.Size();
}

ResultCode MessageBus::Push(long publisherId, long message) {
    const std::lock_guard lock(eventsMutex);
    // Before the publisher is looked up: a full queue is full for unknown publishers too.
    if (messageQueue.Size() >= InboundLimit) {
        Log(LogLevel::Error, "{}: Message queue is full", Tag);
        return ResultCode::Exhausted;
    }
    try {
        std::string topic = GetPublisherTopicById(publisherId);
        if (topic.empty()) {
            return ResultCode::Success; // Contract: so an unknown publisher does not learn that its push is dropped
        }
        Log(LogLevel::Debug, "{}: New message ({}) has been pushed to queue", Tag, topic);
        const std::size_t queued = messageQueue.Enqueue(std::make_shared<Message>(std::move(topic), message));
        assert(queued != 0 && queued <= InboundLimit); // pushes take turns, and this queue is never canceled
        // In doubt: the events thread may have looked at the queue for the last time and be about to reset the flag.
        // Not behind a message that it has yet to take, since it looks again behind each; nor once the flag is reset,
        // since it then takes the lock held here before it sleeps.
        if (queued == 1 && std::atomic_ref<bool>(eventsPending).load(std::memory_order_relaxed)) {
            ++doubtfulPushes;
        }
        WakeEventsThread();
        return ResultCode::Success;
    } catch (const std::exception& error) {
        Log(LogLevel::Error, "{}: {}", Tag, error.what());
        return ResultCode::Failed;
    }
}

void MessageBus::EventsProcessor() {
    const std::atomic_ref<bool> pending(eventsPending);
    try {
        Log(LogLevel::Info, "{}: queue thread started", Tag);
        while (!stopFlag) {
            {
                std::unique_lock lock(eventsMutex);
                while (!pending.load(std::memory_order_relaxed)) {
                    eventsCondition.wait(lock);
                }
            }
            if (messageQueue.Size() != 0) {
                const std::lock_guard lock(subscribersMutex);
                while (messageQueue.Size() != 0) {
                    std::shared_ptr<Message> message;
                    [[maybe_unused]] const bool isTaken = messageQueue.Pop(message, 0);
                    assert(isTaken); // and did not block: only this thread takes from the queue
                    for (const auto& subscriber : subscribers) {
                        if (subscriber->topics.contains(message->topic)) {
                            subscriber->queue.Enqueue(message);
                        }
                    }
                }
            }
            // Contract: a wake-up since the last Size() is lost here, so its message waits for the next wake-up.
            pending.store(false, std::memory_order_relaxed);
        }
        Log(LogLevel::Info, "{}: queue thread stopped", Tag);
    } catch (const std::exception& error) {
        pending.store(false, std::memory_order_relaxed);
        Log(LogLevel::Error, "{}: error occurred: {}", Tag, error.what());
    }
}

void MessageBus::WakeEventsThread() noexcept {
    std::atomic_ref<bool>(eventsPending).store(true, std::memory_order_relaxed);
    eventsCondition.notify_one();
}

ResultCode MessageBus::Wait(long subscriberId, std::string& topic, long& message) {
    BeginWait(subscriberId);
    // Contract: both refusals log the same text, so only the code distinguishes them.
    if (subscriberId == NoId) {
        Log(LogLevel::Error, "{}: The clientID is not registered", Tag);
        return ResultCode::Exhausted;
    }
    const auto subscriber = GetSubscriberPtrById(subscriberId);
    if (!subscriber) {
        Log(LogLevel::Error, "{}: The clientID is not registered", Tag);
        return ResultCode::NotRegistered;
    }
    try {
        if (!connector) {
            throw std::logic_error("Wait before the bus runs");
        }
        connector->SwitchActiveIpcServer();
        std::shared_ptr<Message> next;
        subscriber->queue.Pop(next, 0);
        const ResultCode result = TestForCancel(*subscriber);
        if (result == ResultCode::Success) {
            assert(next);
            Deliver(*next, topic, message);
        }
        return result;
    } catch (const std::exception& error) {
        return FailWait(error);
    }
}

void MessageBus::BeginWait(long subscriberId) {
    // Contract: no tag, so a search for the tag does not find the first line of a wait.
    Log(WaitSite(LogLevel::Debug), "Wait is called by subscriber ({})", subscriberId);
}

std::optional<ResultCode> MessageBus::TryTake(Subscriber& subscriber, std::shared_ptr<Message>& next) {
    try {
        const bool isTaken = subscriber.queue.TryPop(next);
        const ResultCode result = TestForCancel(subscriber);
        return isTaken || result != ResultCode::Success ? std::optional(result) : std::nullopt;
    } catch (const std::exception& error) {
        return FailWait(error);
    }
}

ResultCode MessageBus::FailWait(const std::exception& error) {
    Log(WaitSite(LogLevel::Error), "{}: {}", Tag, error.what());
    return ResultCode::Failed;
}

bool MessageBus::Run(const std::shared_ptr<IConnector>& newConnector) {
    connector = newConnector;
    Start();
    try {
        if (!connector->ShouldBeStopped()) {
            connector->RunServer(); // Contract: the result is ignored, so only an exception ends Run here
        }
        while (!connector->ShouldBeStopped()) {
            std::this_thread::sleep_for(StopPollInterval);
        }
        Stop();
        return true;
    } catch (const std::exception& error) {
        Log(LogLevel::Error, "{}: {}", Tag, error.what());
        Stop();
        return false;
    }
}

void MessageBus::Start() {
    stopFlag.exchange(false);
    std::atomic_ref<bool>(eventsPending).store(false, std::memory_order_relaxed);
    eventsThread = std::thread(&MessageBus::EventsProcessor, this);
}

void MessageBus::Stop() {
    stopFlag.exchange(true);
    WakeEventsThread();
}

} // namespace message_bus
