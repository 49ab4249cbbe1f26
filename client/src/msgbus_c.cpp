#include "msgbus/msgbus_c.h"

#include "msgbus/error.h"
#include "msgbus/options.h"
#include "msgbus/publisher.h"
#include "msgbus/stop_signals.h"
#include "msgbus/subscriber.h"

#include <pthread.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <exception>
#include <functional>
#include <memory>
#include <new>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// NOLINTBEGIN(readability-identifier-naming): names as C programs write them.

struct msgbus_publisher {
    msgbus_publisher(const char* topic, const msgbus::Options& options)
        : publisher(topic, options), callTimeout(options.callTimeout) {}

    msgbus::Publisher publisher;
    std::chrono::milliseconds callTimeout;
    bool closed = false;
};

struct msgbus_subscriber {
    msgbus_subscriber(const char* name, std::vector<std::string> topics, const msgbus::Options& options)
        : mostTaken(options.onPublisher ? 1 : LargestBatch), subscriber(name, std::move(topics), options) {}

    static constexpr std::size_t LargestBatch = 1024;

    const std::size_t mostTaken; ///< in one call
    msgbus::Subscriber subscriber;
    std::vector<msgbus::Message> taken; ///< what the last receiving call has handed out
    std::exception_ptr failure;         ///< that followed a value, for the next receiving call
    std::atomic<bool> canceled{false};
};

struct msgbus_stop_signals {
    explicit msgbus_stop_signals(std::function<void()> onStop) : signals(std::move(onStop)) {}

    msgbus::StopSignals signals;
};

namespace {

/// Longer times are as good as none, and a clock can be moved by this one without an overflow.
constexpr std::chrono::milliseconds LongestTime = std::chrono::hours(24 * 36500);

/// A sentence is cut rather than allocated: running out of memory is one of the things to report.
thread_local std::array<char, 2048> lastError{};

int Fail(int code, std::string_view sentence) noexcept {
    const std::size_t length = std::min(sentence.size(), lastError.size() - 1);
    std::memcpy(lastError.data(), sentence.data(), length);
    lastError[length] = '\0';
    return code;
}

int FailWithCurrentException() noexcept {
    try {
        throw;
    } catch (const msgbus::RefusedError& error) {
        return Fail(error.Code() > 0 ? error.Code() : MSGBUS_PLATFORM, error.what());
    } catch (const msgbus::NoServerError& error) {
        return Fail(MSGBUS_NO_SERVER, error.what());
    } catch (const msgbus::ServerGoneError& error) {
        return Fail(MSGBUS_SERVER_GONE, error.what());
    } catch (const msgbus::TimedOutError& error) {
        return Fail(MSGBUS_NO_ANSWER, error.what());
    } catch (const std::bad_alloc&) {
        return Fail(MSGBUS_NO_MEMORY, "out of memory");
    } catch (const std::logic_error& error) {
        return Fail(MSGBUS_INVALID, error.what());
    } catch (const std::exception& error) {
        return Fail(MSGBUS_PLATFORM, error.what());
    } catch (...) {
        return Fail(MSGBUS_PLATFORM, "an exception of unknown type");
    }
}

/// Cancelation of a thread unwinds its stack, which must not happen within the library.
class NoCancelation final {
public:
    NoCancelation() noexcept { ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &former); }
    NoCancelation(const NoCancelation&) = delete;
    NoCancelation& operator=(const NoCancelation&) = delete;
    ~NoCancelation() { ::pthread_setcancelstate(former, nullptr); }

private:
    int former = PTHREAD_CANCEL_ENABLE;
};

template <typename Work>
int Guarded(Work work) noexcept {
    const NoCancelation shield;
    try {
        return work();
    } catch (...) {
        return FailWithCurrentException();
    }
}

int FailOnNull(const char* what) noexcept {
    Fail(MSGBUS_INVALID, what);
    std::strncat(lastError.data(), " is a null pointer", lastError.size() - 1 - std::strlen(lastError.data()));
    return MSGBUS_INVALID;
}

int FailClosedPublisher() noexcept {
    return Fail(MSGBUS_CLOSED, "the publisher is closed");
}

int FailCanceledSubscriber() noexcept {
    return Fail(MSGBUS_CLOSED, "the subscriber is canceled");
}

std::chrono::milliseconds TimeOf(std::int64_t timeMs) noexcept {
    return std::min(std::chrono::milliseconds(timeMs), LongestTime);
}

msgbus::Deadline DeadlineIn(std::int64_t timeoutMs) {
    return std::chrono::steady_clock::now() + TimeOf(timeoutMs);
}

msgbus_options DefaultOptions() {
    const msgbus::Options defaults;
    msgbus_options options{};
    options.size = sizeof options;
    options.route = MSGBUS_ROUTE_AUTOMATIC;
    options.connect_timeout_ms = defaults.connectTimeout.count();
    options.call_timeout_ms = defaults.callTimeout.count();
    options.wait_for_server_ms = defaults.waitForServer.count();
    options.wait_for_topic_ms = defaults.waitForTopic.count();
    options.reconnect_for_ms = defaults.reconnectFor.count();
    options.full_queue_timeout_ms = defaults.fullQueueTimeout.count();
    return options;
}

/// Of the first version of the record, to which later ones append.
constexpr std::size_t SmallestOptions = offsetof(msgbus_options, on_publisher);

bool IsKnownSize(std::size_t size) noexcept {
    return size >= SmallestOptions && size <= sizeof(msgbus_options);
}

msgbus::Route RouteOf(int route) {
    switch (route) {
    case MSGBUS_ROUTE_AUTOMATIC:
        return msgbus::Route::Automatic;
    case MSGBUS_ROUTE_DYNAMIC:
        return msgbus::Route::Dynamic;
    case MSGBUS_ROUTE_STATIC:
        return msgbus::Route::Static;
    default:
        throw std::invalid_argument("there is no route " + std::to_string(route));
    }
}

int NumberOf(msgbus::Notice notice) noexcept {
    switch (notice) {
    case msgbus::Notice::ServerLost:
        return MSGBUS_NOTICE_SERVER_LOST;
    case msgbus::Notice::RegisteredAgain:
        return MSGBUS_NOTICE_REGISTERED_AGAIN;
    case msgbus::Notice::WaitingForServer:
        return MSGBUS_NOTICE_WAITING_FOR_SERVER;
    case msgbus::Notice::WaitingForTopic:
        return MSGBUS_NOTICE_WAITING_FOR_TOPIC;
    }
    return -1;
}

int NumberOf(msgbus::PublisherState state) noexcept {
    switch (state) {
    case msgbus::PublisherState::None:
        return MSGBUS_PUBLISHER_NONE;
    case msgbus::PublisherState::Came:
        return MSGBUS_PUBLISHER_CAME;
    case msgbus::PublisherState::Left:
        return MSGBUS_PUBLISHER_LEFT;
    case msgbus::PublisherState::Died:
        return MSGBUS_PUBLISHER_DIED;
    case msgbus::PublisherState::Silent:
        return MSGBUS_PUBLISHER_SILENT;
    }
    return -1;
}

std::chrono::milliseconds OptionOf(std::int64_t timeMs, const char* name) {
    if (timeMs < 0) {
        throw std::invalid_argument(std::string(name) + " is negative");
    }
    return TimeOf(timeMs);
}

/// Sets the functions that `options` name.
void SetCallbacks(const msgbus_options& options, msgbus::Options& result) {
    if (const auto callback = options.on_notice; callback != nullptr) {
        result.onNotice = [callback, user = options.notice_user](msgbus::Notice notice, const std::string& sentence) {
            callback(NumberOf(notice), sentence.c_str(), user);
        };
    }
    if (const auto callback = options.on_publisher; callback != nullptr) {
        result.onPublisher = [callback, user = options.publisher_user](const msgbus::PublisherNotice& notice) {
            callback(notice.topic.c_str(), NumberOf(notice.state), notice.id, user);
        };
    }
    if (const auto callback = options.on_subscribers; callback != nullptr) {
        result.onSubscribers = [callback, user = options.subscribers_user](std::size_t count) {
            callback(count, user);
        };
    }
}

msgbus::Options OptionsOf(const msgbus_options* given) {
    msgbus_options options = DefaultOptions();
    if (given != nullptr) {
        if (!IsKnownSize(given->size)) {
            throw std::invalid_argument(
                "the options were not set by msgbus_options_init, or by that of a later version");
        }
        std::memcpy(&options, given, given->size);
    }
    msgbus::Options result;
    result.route = RouteOf(options.route);
    result.connectTimeout = OptionOf(options.connect_timeout_ms, "connect_timeout_ms");
    result.callTimeout = OptionOf(options.call_timeout_ms, "call_timeout_ms");
    result.waitForServer = OptionOf(options.wait_for_server_ms, "wait_for_server_ms");
    result.waitForTopic = OptionOf(options.wait_for_topic_ms, "wait_for_topic_ms");
    result.reconnectFor = OptionOf(options.reconnect_for_ms, "reconnect_for_ms");
    result.fullQueueTimeout = OptionOf(options.full_queue_timeout_ms, "full_queue_timeout_ms");
    result.staleAfter = OptionOf(options.stale_after_ms, "stale_after_ms");
    result.startWithLast = options.start_with_last != 0;
    result.description = options.description == nullptr ? "" : options.description;
    SetCallbacks(options, result);
    return result;
}

msgbus::Received Receive(msgbus::Subscriber& subscriber, std::int64_t timeoutMs) {
    if (timeoutMs == 0) {
        return subscriber.TryNext();
    }
    if (timeoutMs > 0) {
        return subscriber.NextFor(TimeOf(timeoutMs));
    }
    auto message = subscriber.Next();
    if (!message) {
        return {msgbus::Outcome::Canceled, {}};
    }
    return {msgbus::Outcome::Value, *std::move(message)};
}

/// Takes 1 to `max` values into `handle.taken`.
int Take(msgbus_subscriber& handle, std::size_t max, std::int64_t timeoutMs) {
    handle.taken.clear();
    if (handle.failure) {
        std::rethrow_exception(std::exchange(handle.failure, nullptr));
    }
    // Before the first value: afterwards there is no place for one that cannot be stored.
    max = std::min(max, handle.mostTaken);
    handle.taken.reserve(max);
    msgbus::Received received = Receive(handle.subscriber, timeoutMs);
    switch (received.outcome) {
    case msgbus::Outcome::Value:
        break;
    case msgbus::Outcome::TimedOut:
        return Fail(MSGBUS_TIMED_OUT, "no value has come in time");
    case msgbus::Outcome::Canceled:
        return FailCanceledSubscriber();
    }
    handle.taken.push_back(std::move(received.message));
    try {
        while (handle.taken.size() < max) {
            received = handle.subscriber.TryNext();
            if (!received) {
                break;
            }
            handle.taken.push_back(std::move(received.message));
        }
    } catch (...) {
        handle.failure = std::current_exception();
    }
    return MSGBUS_OK;
}

msgbus_message ViewOf(const msgbus::Message& message) noexcept {
    return {message.topic.c_str(), message.topic.size(), message.value};
}

int TakeOne(msgbus_subscriber* subscriber, msgbus_message* message, std::int64_t timeoutMs) noexcept {
    if (subscriber == nullptr) {
        return FailOnNull("the subscriber");
    }
    if (message == nullptr) {
        return FailOnNull("message");
    }
    return Guarded([=] {
        const int code = Take(*subscriber, 1, timeoutMs);
        if (code == MSGBUS_OK) {
            *message = ViewOf(subscriber->taken.front());
        }
        return code;
    });
}

/// Runs `work` on a publisher that is not closed.
template <typename Work>
int WithOpen(msgbus_publisher* publisher, Work work) noexcept {
    if (publisher == nullptr) {
        return FailOnNull("the publisher");
    }
    if (publisher->closed) {
        return FailClosedPublisher();
    }
    return Guarded(work);
}

} // namespace

const char* msgbus_error_text(int code) {
    switch (code) {
    case MSGBUS_OK:
        return "success";
    case MSGBUS_NOT_REGISTERED:
        return "the id is not registered, or the request was canceled";
    case MSGBUS_FULL:
        return "the inbound queue of the bus is full";
    case MSGBUS_TOO_MANY_REGISTRATIONS:
        return "there are as many publishers or subscribers as the server allows";
    case MSGBUS_TOO_MANY_HANDSHAKES:
        return "there are as many unfinished registrations as the server allows";
    case MSGBUS_DISPATCH_FAILED:
        return "the bus has no connection to dispatch on";
    case MSGBUS_INIT_FAILED:
        return "the bus could not be initialised";
    case MSGBUS_TOO_MANY_BYTES:
        return "names and topics take as many bytes as the server allows";
    case MSGBUS_CONFLICT:
        return "already registered, or no such id";
    case MSGBUS_TOO_MANY_VALUES:
        return "the subscriber left more values unread than the server allows, and was cut";
    case MSGBUS_FAILED:
        return "internal error of the bus, or the bus is shutting down";
    case MSGBUS_NO_SERVER:
        return "no message bus server was found, or it did not accept the connection in time";
    case MSGBUS_SERVER_GONE:
        return "the message bus server is gone";
    case MSGBUS_NO_ANSWER:
        return "the message bus server did not answer in time";
    case MSGBUS_TIMED_OUT:
        return "it did not happen in time";
    case MSGBUS_INVALID:
        return "an argument cannot be used";
    case MSGBUS_CLOSED:
        return "closed or canceled";
    case MSGBUS_NO_MEMORY:
        return "out of memory";
    case MSGBUS_PLATFORM:
        return "the system could not do it";
    default:
        return "unknown code";
    }
}

const char* msgbus_last_error() {
    return lastError.data();
}

int msgbus_options_init(msgbus_options* options, std::size_t size) {
    if (options == nullptr) {
        return FailOnNull("options");
    }
    if (!IsKnownSize(size)) {
        return Fail(MSGBUS_INVALID, size < SmallestOptions
                                        ? "the size is less than that of msgbus_options"
                                        : "the program was compiled for a later version of the library: it has "
                                          "options that this one does not know");
    }
    return Guarded([=] {
        msgbus_options defaults = DefaultOptions();
        defaults.size = size;
        std::memcpy(options, &defaults, size);
        return MSGBUS_OK;
    });
}

int msgbus_publisher_create(msgbus_publisher** publisher, const char* topic, const msgbus_options* options) {
    if (publisher == nullptr) {
        return FailOnNull("publisher");
    }
    *publisher = nullptr;
    if (topic == nullptr) {
        return FailOnNull("the topic");
    }
    return Guarded([=] {
        *publisher = std::make_unique<msgbus_publisher>(topic, OptionsOf(options)).release();
        return MSGBUS_OK;
    });
}

void msgbus_publisher_destroy(msgbus_publisher* publisher) {
    const NoCancelation shield;
    const std::unique_ptr<msgbus_publisher> owner(publisher);
}

int msgbus_publisher_push(msgbus_publisher* publisher, std::int64_t value, std::int64_t timeout_ms) {
    return WithOpen(publisher, [=] {
        if (timeout_ms < 0) {
            publisher->publisher.Push(value);
        } else {
            publisher->publisher.Push(value, DeadlineIn(timeout_ms));
        }
        return MSGBUS_OK;
    });
}

int msgbus_publisher_push_all(msgbus_publisher* publisher, const std::int64_t* values, std::size_t count,
                              std::size_t* pushed, std::int64_t timeout_ms) {
    if (pushed == nullptr) {
        return FailOnNull("pushed");
    }
    *pushed = 0;
    if (values == nullptr && count > 0) {
        return FailOnNull("values");
    }
    return WithOpen(publisher, [=] {
        if (timeout_ms < 0) {
            *pushed = publisher->publisher.PushAll(values, count);
        } else {
            *pushed = publisher->publisher.PushAll(values, count, DeadlineIn(timeout_ms));
        }
        return MSGBUS_OK;
    });
}

int msgbus_publisher_try_push(msgbus_publisher* publisher, std::int64_t value) {
    return WithOpen(publisher, [=] {
        return publisher->publisher.TryPush(value) ? MSGBUS_OK
                                                   : Fail(MSGBUS_FULL, "the inbound queue of the bus is full");
    });
}

int msgbus_publisher_drain(msgbus_publisher* publisher, std::int64_t timeout_ms) {
    return WithOpen(publisher, [=] {
        const auto limit = timeout_ms < 0 ? publisher->callTimeout : TimeOf(timeout_ms);
        return publisher->publisher.Drain(std::chrono::steady_clock::now() + limit)
                   ? MSGBUS_OK
                   : Fail(MSGBUS_TIMED_OUT, "a push of the publisher is still unanswered");
    });
}

int msgbus_publisher_subscribers(msgbus_publisher* publisher, std::size_t* count) {
    if (count == nullptr) {
        return FailOnNull("count");
    }
    *count = 0;
    return WithOpen(publisher, [=] {
        *count = publisher->publisher.Subscribers();
        return MSGBUS_OK;
    });
}

int msgbus_publisher_close(msgbus_publisher* publisher) {
    if (publisher == nullptr) {
        return FailOnNull("the publisher");
    }
    publisher->closed = true;
    return Guarded([=] {
        publisher->publisher.Close();
        return MSGBUS_OK;
    });
}

const char* msgbus_publisher_topic(const msgbus_publisher* publisher) {
    return publisher == nullptr ? nullptr : publisher->publisher.Topic().c_str();
}

std::int64_t msgbus_publisher_id(const msgbus_publisher* publisher) {
    return publisher == nullptr ? -1 : publisher->publisher.Id();
}

int msgbus_subscriber_create(msgbus_subscriber** subscriber, const char* name, const char* const* topics,
                             std::size_t topic_count, const msgbus_options* options) {
    if (subscriber == nullptr) {
        return FailOnNull("subscriber");
    }
    *subscriber = nullptr;
    if (name == nullptr) {
        return FailOnNull("the name");
    }
    if (topics == nullptr && topic_count > 0) {
        return FailOnNull("topics");
    }
    const std::span<const char* const> all(topics, topic_count);
    if (std::find(all.begin(), all.end(), nullptr) != all.end()) {
        return FailOnNull("a topic");
    }
    return Guarded([=] {
        *subscriber = std::make_unique<msgbus_subscriber>(name, std::vector<std::string>(all.begin(), all.end()),
                                                          OptionsOf(options))
                          .release();
        return MSGBUS_OK;
    });
}

void msgbus_subscriber_destroy(msgbus_subscriber* subscriber) {
    const NoCancelation shield;
    const std::unique_ptr<msgbus_subscriber> owner(subscriber);
}

int msgbus_subscriber_next(msgbus_subscriber* subscriber, msgbus_message* message, std::int64_t timeout_ms) {
    return TakeOne(subscriber, message, timeout_ms);
}

int msgbus_subscriber_take(msgbus_subscriber* subscriber, msgbus_message* messages, std::size_t max, std::size_t* count,
                           std::int64_t timeout_ms) {
    if (count == nullptr) {
        return FailOnNull("count");
    }
    *count = 0;
    if (subscriber == nullptr) {
        return FailOnNull("the subscriber");
    }
    if (messages == nullptr) {
        return FailOnNull("messages");
    }
    if (max == 0) {
        return Fail(MSGBUS_INVALID, "there is no room for a message");
    }
    return Guarded([=] {
        const int code = Take(*subscriber, max, timeout_ms);
        std::transform(subscriber->taken.begin(), subscriber->taken.end(), messages, ViewOf);
        *count = subscriber->taken.size();
        return code;
    });
}

int msgbus_subscriber_try_next(msgbus_subscriber* subscriber, msgbus_message* message) {
    return TakeOne(subscriber, message, 0);
}

int msgbus_subscriber_descriptor(msgbus_subscriber* subscriber, int* descriptor) {
    if (descriptor == nullptr) {
        return FailOnNull("descriptor");
    }
    *descriptor = -1;
    if (subscriber == nullptr) {
        return FailOnNull("the subscriber");
    }
    return Guarded([=] {
        try {
            *descriptor = subscriber->subscriber.Descriptor();
            return static_cast<int>(MSGBUS_OK);
        } catch (const msgbus::PlatformError&) {
            if (!subscriber->canceled) {
                throw;
            }
            return FailCanceledSubscriber();
        }
    });
}

void msgbus_subscriber_cancel(msgbus_subscriber* subscriber) {
    const NoCancelation shield;
    if (subscriber != nullptr) {
        subscriber->canceled = true;
        subscriber->subscriber.Cancel();
    }
}

int msgbus_subscriber_lost(const msgbus_subscriber* subscriber, msgbus_loss* loss) {
    if (subscriber == nullptr) {
        return FailOnNull("the subscriber");
    }
    if (loss == nullptr) {
        return FailOnNull("loss");
    }
    return Guarded([=] {
        const msgbus::Loss lost = subscriber->subscriber.Lost();
        *loss = {lost.values, lost.reconnections, lost.reason};
        return MSGBUS_OK;
    });
}

const char* msgbus_subscriber_name(const msgbus_subscriber* subscriber) {
    return subscriber == nullptr ? nullptr : subscriber->subscriber.Name().c_str();
}

std::int64_t msgbus_subscriber_id(const msgbus_subscriber* subscriber) {
    if (subscriber == nullptr) {
        return -1;
    }
    std::int64_t id = -1;
    Guarded([&] {
        id = subscriber->subscriber.Id();
        return MSGBUS_OK;
    });
    return id;
}

int msgbus_stop_signals_install(msgbus_stop_signals** signals, void (*on_stop)(void* user), void* user) {
    if (signals == nullptr) {
        return FailOnNull("signals");
    }
    *signals = nullptr;
    if (on_stop == nullptr) {
        return FailOnNull("on_stop");
    }
    return Guarded([=] {
        *signals = std::make_unique<msgbus_stop_signals>([=] { on_stop(user); }).release();
        return MSGBUS_OK;
    });
}

void msgbus_stop_signals_remove(msgbus_stop_signals* signals) {
    const NoCancelation shield;
    const std::unique_ptr<msgbus_stop_signals> owner(signals);
}

bool msgbus_stop_signals_have_come(const msgbus_stop_signals* signals) {
    return signals != nullptr && signals->signals.HasCome();
}

// NOLINTEND(readability-identifier-naming)
