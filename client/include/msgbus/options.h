#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace msgbus {

class Backend;

/// How to connect to the bus.
enum class Route {
    Automatic, ///< the mode in BORVEN_BUS ("static" or "dynamic"); if unset, dynamic, then static if nothing is found
    Dynamic,   ///< the services that a server publishes
    Static,    ///< the channel that a server opens under a fixed name
};

/// What Options::onNotice reports.
enum class Notice {
    ServerLost,       ///< the server is gone; the library looks for a restarted one
    RegisteredAgain,  ///< with a restarted server; the sentence names what may be lost
    WaitingForServer, ///< Options::waitForServer: there is none yet
    WaitingForTopic,  ///< Options::waitForTopic: the topic has another publisher
};

/// How it stands with the publisher of a topic.
enum class PublisherState {
    None,   ///< there is none: at first, or since the server was restarted
    Came,   ///< there is one, from now on or since before
    Left,   ///< it was unregistered, by its program
    Died,   ///< its process has ended, or closed its connections, without that
    Silent, ///< there is one, and no value of it was received for Options::staleAfter
};

/// A change that Options::onPublisher reports.
struct PublisherNotice {
    std::string topic;                           ///< as the constructor of the subscriber got it
    PublisherState state = PublisherState::None; ///< from now on
    std::int64_t id = 0;                         ///< of the publisher that came, left, died or is silent; else 0
};

/// When a call is to end at the latest.
using Deadline = std::chrono::steady_clock::time_point;

/// Settings of one publisher or subscriber.
struct Options {
    Route route = Route::Automatic; ///< how the server is found

    /// How long a running server may take to accept one connection.
    std::chrono::milliseconds connectTimeout{5000};

    /// How long a running server may take to answer one request, other than a subscriber's wait for a value; the turn
    /// on the connection that all requests of a process share is included. Afterwards TimedOutError is thrown. A server
    /// takes microseconds for a request unless it was stopped.
    std::chrono::milliseconds callTimeout{5000};

    /// How long a constructor looks for a server before it throws NoServerError.
    std::chrono::milliseconds waitForServer{0};

    /// How long the constructor of a publisher waits while its topic has another publisher. A subscriber never waits
    /// for a topic: it may subscribe before there is a publisher.
    std::chrono::milliseconds waitForTopic{0};

    /// How long to look for a restarted server after the server is gone. Zero: throw ServerGoneError at once. A client
    /// that finds a restarted server registers with it, under a new id, and continues. The new server has no memory of
    /// the old one:
    /// - a subscriber loses the values that it had not read, and those published before it is registered again. Those
    ///   of the publisher's own process are registered before the publisher goes on; `msgbusd --hold-pushes` gives the
    ///   subscribers of other processes time;
    /// - a publisher pushes the unacknowledged value again, so that the value may arrive twice; values that were
    ///   acknowledged but not yet read by every subscriber are lost.
    std::chrono::milliseconds reconnectFor{0};

    /// How long Push retries while the server's inbound queue is full.
    std::chrono::milliseconds fullQueueTimeout{10000};

    /// Called with what happens, and with a sentence for people. May be empty.
    /// Threads: called inside a constructor or a call, on its thread. Must not call the publisher or subscriber. What
    /// it throws ends that call, which may be repeated.
    std::function<void(Notice notice, const std::string& sentence)> onNotice{};

    /// Of a subscriber: called with each change of a topic's publisher, and first with how it stands. May be empty.
    /// It is called within Next, NextFor, NextUntil and TryNext, in order with the values: when a publisher has left or
    /// died, every value of it was received. A publisher whose process is gone is reported within 0.1 s, where the
    /// server is not busier than that.
    ///
    /// A restarted server is no change: a publisher that registers with it again within two seconds of the subscriber
    /// stays as it was, although with another id; else it is reported as None, and as Came when it does so later. What
    /// changed while the server was gone is then reported by how it stands now. A server of an earlier version, or with
    /// `--no-notices`, reports nothing: then there is only Silent, also of a topic without a publisher.
    ///
    /// It needs topics of at most 1020 bytes, each of which counts twice for the server's limits.
    /// Threads: as onNotice. Of the subscriber it may call Cancel, Lost, Name and Id.
    std::function<void(const PublisherNotice& notice)> onPublisher{};

    /// Of a subscriber with onPublisher: after how long without a value of a topic its publisher is reported as Silent,
    /// once until the next value. Counted from the receipt of a value, from Came, or from construction; and only while
    /// there is a publisher. Zero: never.
    std::chrono::milliseconds staleAfter{0};

    /// Of a subscriber: whether it gets the last value of each topic first, if the server remembers one; what is
    /// published later follows without a gap. For topics of at most 1020 bytes. After a reconnection, a value may come
    /// that was received before. `msgbusd --retain` does this for every subscriber of some topics.
    bool startWithLast = false;

    /// Of a publisher: called with the number of its topic's subscribers, first by the constructor, then whenever it
    /// has become 0 or 1, within Push, TryPush and PushAll behind each value, and within Publisher::Subscribers. May be
    /// empty. While a restarted server is looked for, these may take 0.1 s longer. Topics of at most 1021 bytes.
    /// From a server that reports nothing the constructor throws PlatformError after callTimeout.
    /// Threads: as onNotice. A value was published although the function throws.
    std::function<void(std::size_t count)> onSubscribers{};

    /// Of a publisher: what the values of its topic mean, for those who look at the bus: the Description::ToText of
    /// msgbus/codec.h; anything else lets the constructor throw std::invalid_argument. PublisherOf sets it. It is sent
    /// behind each registration, without waiting for an answer. A server with `--no-monitor` does not take it. Empty:
    /// nothing is known.
    std::string description{};

    /// Where requests go; empty: to the server that `route` finds. Set by msgbus/testing.h.
    std::shared_ptr<Backend> backend{};
};

} // namespace msgbus
