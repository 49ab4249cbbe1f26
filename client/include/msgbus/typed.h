#pragma once

#include "msgbus/codec.h"
#include "msgbus/options.h"
#include "msgbus/publisher.h"
#include "msgbus/subscriber.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#if __cplusplus >= 202002L
#include <span>
#endif

// Publishers and subscribers of values of a C++ type that has a codec (msgbus/codec.h):
//
//     msgbus::PublisherOf<double> publisher("temperature");        msgbus::SubscriberOf<double> subscriber("display",
//     ... publisher.Push(21.5);                                        for (const auto& [topic, value] : subscriber) {
//     ... }
//
// What the members do, throw and block for, and their threads, is as in Publisher and Subscriber. Besides:
// - a value that cannot be sent throws std::out_of_range, and nothing is pushed;
// - a published value that is none of the type throws std::out_of_range in the receiving call. It counts as received:
//   the next call takes the one that follows it.

namespace msgbus {

/// One published value.
template <typename T>
struct MessageOf {
    std::string topic; ///< as Message::topic
    T value;           ///< what was published
};

/// What a receive with a time limit returns.
template <typename T>
struct ReceivedOf {
    Outcome outcome = Outcome::TimedOut; ///< how the receive ended
    std::optional<MessageOf<T>> message; ///< only with Outcome::Value

    /// Returns: whether there is a value. The two below require it.
    explicit operator bool() const noexcept { return outcome == Outcome::Value; }
    const MessageOf<T>& operator*() const noexcept { return *message; }   ///< the value
    const MessageOf<T>* operator->() const noexcept { return &*message; } ///< the value
};

/// A Publisher of values of type T.
template <typename T>
class PublisherOf final {
public:
    /// As the constructor of Publisher. Options::description, where it is empty, becomes that of Type.
    explicit PublisherOf(std::string topic, Options options = {})
        : publisher(std::move(topic), WithDescription(std::move(options))) {}

    /// Returns: what it publishes.
    static Description Type() { return Codec<T>::Describe(); }

    /// As Publisher::Push.
    void Push(const T& value) { publisher.Push(Codec<T>::Encode(value)); }
    /// As Publisher::Push.
    void Push(const T& value, Deadline deadline) { publisher.Push(Codec<T>::Encode(value), deadline); }
    /// As Publisher::TryPush.
    [[nodiscard]] bool TryPush(const T& value) { return publisher.TryPush(Codec<T>::Encode(value)); }

    /// As Publisher::PushAll. All values are encoded first: one that cannot be sent stops those before it too.
    std::size_t PushAll(const T* values, std::size_t count) {
        const auto encoded = EncodeAll(values, count);
        return publisher.PushAll(encoded.data(), encoded.size());
    }
    /// As Publisher::PushAll. All values are encoded first: one that cannot be sent stops those before it too.
    std::size_t PushAll(const T* values, std::size_t count, Deadline deadline) {
        const auto encoded = EncodeAll(values, count);
        return publisher.PushAll(encoded.data(), encoded.size(), deadline);
    }
#if __cplusplus >= 202002L
    /// As Publisher::PushAll. All values are encoded first: one that cannot be sent stops those before it too.
    std::size_t PushAll(std::span<const T> values) {
        return PushAll(values.data(), values.size());
    }
    /// As Publisher::PushAll. All values are encoded first: one that cannot be sent stops those before it too.
    std::size_t PushAll(std::span<const T> values, Deadline deadline) {
        return PushAll(values.data(), values.size(), deadline);
    }
#endif

    /// As Publisher::Drain.
    [[nodiscard]] bool Drain(Deadline deadline) {
        return publisher.Drain(deadline);
    }
    /// As Publisher::Subscribers.
    std::size_t Subscribers() {
        return publisher.Subscribers();
    }
    /// As Publisher::Close.
    void Close() {
        publisher.Close();
    }
    /// As Publisher::Topic.
    const std::string& Topic() const noexcept {
        return publisher.Topic();
    }
    /// As Publisher::Id.
    std::int64_t Id() const noexcept {
        return publisher.Id();
    }

private:
    static Options WithDescription(Options options) {
        if (options.description.empty()) {
            options.description = Type().ToText();
        }
        return options;
    }

    static std::vector<std::int64_t> EncodeAll(const T* values, std::size_t count) {
        std::vector<std::int64_t> encoded;
        encoded.reserve(count);
        for (std::size_t i = 0; i < count; ++i) {
            encoded.push_back(Codec<T>::Encode(values[i]));
        }
        return encoded;
    }

    Publisher publisher;
};

/// A Subscriber to topics whose values are of type T.
template <typename T>
class SubscriberOf final {
public:
    class Iterator;
    using End = Subscriber::End; ///< where a loop ends

    /// `published`: what the topics carry, if the program knows it; it is checked before anything is sent.
    /// Throws: also TypeMismatchError, see CheckType.
    SubscriberOf(std::string name, std::vector<std::string> topics, Options options = {},
                 const std::optional<Description>& published = std::nullopt)
        : subscriber((CheckPublished(published), std::move(name)), std::move(topics), std::move(options)) {}

    /// Returns: what it expects.
    static Description Type() { return Codec<T>::Describe(); }

    /// As Subscriber::Next.
    std::optional<MessageOf<T>> Next() {
        auto message = subscriber.Next();
        if (!message) {
            return std::nullopt;
        }
        return Decode(std::move(*message));
    }

    /// As Subscriber::NextFor.
    ReceivedOf<T> NextFor(std::chrono::nanoseconds duration) { return Decode(subscriber.NextFor(duration)); }
    /// As Subscriber::NextUntil.
    ReceivedOf<T> NextUntil(Deadline deadline) { return Decode(subscriber.NextUntil(deadline)); }
    /// As Subscriber::TryNext.
    ReceivedOf<T> TryNext() { return Decode(subscriber.TryNext()); }
    /// As Subscriber::Descriptor.
    int Descriptor() { return subscriber.Descriptor(); }

    /// As Subscriber::begin.
    Iterator begin() { return Iterator(*this); }
    /// As Subscriber::end.
    End end() const noexcept { return {}; }

    /// As Subscriber::Cancel.
    void Cancel() noexcept { subscriber.Cancel(); }
    /// As Subscriber::Lost.
    Loss Lost() const { return subscriber.Lost(); }
    /// As Subscriber::Name.
    const std::string& Name() const noexcept { return subscriber.Name(); }
    /// As Subscriber::Id.
    std::int64_t Id() const { return subscriber.Id(); }

private:
    static void CheckPublished(const std::optional<Description>& published) {
        if (published) {
            CheckType(*published, Type());
        }
    }

    static MessageOf<T> Decode(Message&& message) {
        return MessageOf<T>{std::move(message.topic), Codec<T>::Decode(message.value)};
    }

    static ReceivedOf<T> Decode(Received&& received) {
        if (!received) {
            return {received.outcome, std::nullopt};
        }
        return {received.outcome, Decode(std::move(received.message))};
    }

    Subscriber subscriber;
};

/// An input iterator over the values that a subscriber receives.
template <typename T>
class SubscriberOf<T>::Iterator final {
public:
    using iterator_category = std::input_iterator_tag;
    using value_type = MessageOf<T>;
    using difference_type = std::ptrdiff_t;
    using pointer = const MessageOf<T>*;
    using reference = const MessageOf<T>&;

    explicit Iterator(SubscriberOf& source) : subscriber(&source), message(source.Next()) {}

    reference operator*() const noexcept { return *message; }
    pointer operator->() const noexcept { return &*message; }
    Iterator& operator++() {
        message = subscriber->Next();
        return *this;
    }
    void operator++(int) { ++*this; }

    friend bool operator==(const Iterator& iterator, End) noexcept { return !iterator.message; }
    friend bool operator!=(const Iterator& iterator, End) noexcept { return iterator.message.has_value(); }

private:
    SubscriberOf* subscriber;
    std::optional<MessageOf<T>> message;
};

} // namespace msgbus
