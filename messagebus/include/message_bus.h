#pragma once

#include "blocking_queue.h"
#include "bus_interfaces.h"

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <unordered_set>

namespace message_bus {

/// One pushed value. Shared by the inbound queue and every subscriber queue that receives it; never modified.
struct Message {
    Message(std::string messageTopic, long messageValue) : topic(std::move(messageTopic)), value(messageValue) {}

    std::string topic; ///< its publisher's, at the time of the push
    long value;
};

/// One registered subscriber: constant but for its queue. Outlives its registration while a wait holds it.
struct Subscriber {
    long id = -1;
    std::string name; ///< not necessarily unique
    std::unordered_set<std::string> topics;
    BlockingQueue<std::shared_ptr<Message>> queue; ///< unlimited: grows until the subscriber waits or unregisters
};

enum class InboundState {
    Empty,     ///< the events thread has taken every message
    Announced, ///< a wake-up says that there are messages; it may be lost all the same
    LeftBehind ///< there are messages, and the events thread sleeps until the next wake-up, or a push is under way
};

/// The registry of publishers and subscribers, the inbound queue, and the events thread that puts each message into the
/// queues of its topic's subscribers.
///
/// Nothing expires: a client that goes away without unregistering leaves its records behind.
///
/// Lock order: eventsMutex before publishersMutex and before the inbound queue's mutex; subscribersMutex before the
/// inbound queue's and any subscriber queue's mutex. publishersMutex and subscribersMutex are never held together. The
/// listener of a subscriber's queue is called inside subscribersMutex.
class [[gnu::visibility("default")]] MessageBus final : public IProvider, public IProviderControl, public IWorker {
public:
    MessageBus() = default;
    MessageBus(const MessageBus&) = delete;
    MessageBus& operator=(const MessageBus&) = delete;

    /// Joins the events thread. Blocks: until that ends, which takes a Stop before or on another thread.
    ~MessageBus() override;

    cor::ResultCode Push(long publisherId, long message) override;

    cor::ResultCode RegisterPublisher(const std::string& topic, long& publisherId) override;
    cor::ResultCode RegisterSubscriber(const std::string& name, const std::set<std::string>& topics, long& subscriberId)
        override;
    cor::ResultCode UnregisterPublisher(long publisherId) override;
    cor::ResultCode UnregisterSubscriber(long subscriberId) override;

    /// Hands serving over through the connector before it takes a message. Without a connector, before the first Run,
    /// it fails with 10 behind the look-up.
    cor::ResultCode Wait(long subscriberId, std::string& topic, long& message) override;

    // A wait of a known subscriber in steps that never block, for a worker that does not hand serving over.

    /// Writes the first line of a wait. Throws: what the log throws.
    static void BeginWait(long subscriberId);

    /// Takes the subscriber's next message, as a wait does behind its look-up.
    /// Returns: nothing, without a line, while the queue is empty and not canceled; 0 and `next`; 1 once the queue is
    /// canceled, which drops what it took; 10. Except with 0, `next` is of no use.
    /// Threads: any; each message is taken once.
    static std::optional<cor::ResultCode> TryTake(Subscriber & subscriber, std::shared_ptr<Message> & next);

    /// Writes the line of a wait that fails. Returns: 10.
    static cor::ResultCode FailWait(const std::exception& error);

    /// Returns: the topic; empty when no publisher has that id. Threads: any.
    std::string GetPublisherTopicById(long publisherId) const;

    /// Returns: the subscriber; empty when none has that id. Threads: any.
    std::shared_ptr<Subscriber> GetSubscriberPtrById(long subscriberId) const;

    /// Returns: the id of the first subscriber registered under `name`; -1 when there is none.
    /// Contract: takes no lock, so no other thread may register or unregister subscribers meanwhile.
    long GetSubscriberIdByName(const std::string& name) const;

    /// Returns: the state of the inbound queue, which may have changed since. Threads: any.
    InboundState Inbound() const;

    /// Returns: how many messages are in the inbound queue. Threads: any.
    std::size_t InboundSize() const;

    /// How many pushes so far may have lost their wake-up. The message of any other push is taken without another
    /// wake-up, unless it is queued behind that of a counted one. Threads: any. A push is counted after its message is
    /// queued and before it returns.
    std::uint64_t DoubtfulPushes() const noexcept {
        return doubtfulPushes;
    }

    /// Starts the events thread and the connector, then asks the connector every 5 seconds whether to stop. Blocked
    /// waits stay blocked.
    /// Returns: true when the connector asked to stop; false when it threw.
    /// Throws: std::system_error when the events thread cannot be started.
    /// Blocks: until the connector asks to stop or throws. Threads: once, on the thread that owns the bus.
    bool Run(const std::shared_ptr<IConnector>& newConnector);

    /// Starts the events thread; once per bus.
    /// Throws: std::system_error when it cannot be started.
    void Start();

    /// Requests the events thread to end after its pass. Does not wait for it. Threads: any.
    void Stop();

private:
    void EventsProcessor();
    void WakeEventsThread() noexcept;

    std::shared_ptr<IConnector> connector; // set by Run before it starts the server

    std::list<std::shared_ptr<Subscriber>> subscribers; // registration order; guarded by subscribersMutex
    std::map<std::string, long> publishers;             // topic to id; guarded by publishersMutex
    BlockingQueue<std::shared_ptr<Message>> messageQueue;
    std::atomic<long> lastId{0}; // publishers and subscribers share it; ids are never reused

    mutable std::mutex subscribersMutex;
    mutable std::mutex publishersMutex;
    std::mutex eventsMutex;

    std::thread eventsThread;
    std::condition_variable eventsCondition;
    std::atomic<bool> stopFlag{false};
    // Contract: a plain flag, set by some wakers without eventsMutex, so a wake-up between the last Size() of the queue
    // and the reset is lost, and its message waits for the next wake-up. Accessed through std::atomic_ref.
    bool eventsPending = false;

    std::atomic<std::uint64_t> doubtfulPushes{0}; // see DoubtfulPushes
};

} // namespace message_bus
