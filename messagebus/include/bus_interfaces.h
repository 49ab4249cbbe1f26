#pragma once

#include "cor/result_code.h"

#include <set>
#include <string>

// The seams of the bus. A server program may wrap IProvider, IProviderControl and IWorker before it hands them to the
// connector.

namespace message_bus {

/// Publishing.
class [[gnu::visibility("default")]] IProvider {
public:
    virtual ~IProvider() = default;

    /// Queues `message` under the topic of `publisherId`.
    /// Returns: 0, also for an unknown publisher, whose message is dropped; 2 when the inbound queue is full; 10.
    /// Blocks: never on subscribers. Threads: any.
    virtual cor::ResultCode Push(long publisherId, long message) = 0;
};

/// Registration.
class [[gnu::visibility("default")]] IProviderControl {
public:
    virtual ~IProviderControl() = default;

    /// Makes the caller the one publisher of `topic`.
    /// Returns: 0 and the new id; 8 and -1 when the topic has a publisher; 10.
    /// Threads: any.
    virtual cor::ResultCode RegisterPublisher(const std::string& topic, long& publisherId) = 0;

    /// Adds a subscriber of `topics`; neither the name nor the topics are checked against those of others.
    /// Returns: 0 or 10; either way `subscriberId` is a new id.
    /// Threads: any.
    virtual cor::ResultCode RegisterSubscriber(const std::string& name, const std::set<std::string>& topics,
                                               long& subscriberId) = 0;

    /// Frees the publisher's topic. What it has pushed is still delivered.
    /// Returns: 0; 8 for an unknown id; 10.
    /// Threads: any.
    virtual cor::ResultCode UnregisterPublisher(long publisherId) = 0;

    /// Removes the subscriber, drops what it has not read and ends its blocked waits.
    /// Returns: 0; 8 for an unknown id; 10.
    /// Threads: any.
    virtual cor::ResultCode UnregisterSubscriber(long subscriberId) = 0;
};

/// Receiving.
class [[gnu::visibility("default")]] IWorker {
public:
    virtual ~IWorker() = default;

    /// Takes the subscriber's next message.
    /// Returns: 0 with both outputs written; 1 unknown or unregistered meanwhile; 2 the id is -1; 10. Except with 0 the
    /// outputs are left alone.
    /// Blocks: until a message arrives or the subscriber is unregistered. Threads: any; two waits of one subscriber
    /// take a message each.
    virtual cor::ResultCode Wait(long subscriberId, std::string& topic, long& message) = 0;
};

/// What the bus needs of the object that connects it to its clients.
class [[gnu::visibility("default")]] IConnector {
public:
    virtual ~IConnector() = default;

    /// Starts serving requests and returns. Returns: 0; 6.
    virtual cor::ResultCode RunServer() = 0;

    /// Makes another thread serve in place of the calling one, which is about to block. Returns: 0.
    virtual cor::ResultCode SwitchActiveIpcServer() = 0;

    /// True once the component is to shut down.
    virtual bool ShouldBeStopped() = 0;
};

} // namespace message_bus
