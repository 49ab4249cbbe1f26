#pragma once

// The client library for C11, and for what calls C. Links with -lmsgbus.
//
// A call that can fail returns 0, or one of the codes below. No exception leaves a call. Calls may be made on any
// thread, as each handle allows, but not from a signal handler. A handler that returns does not end a call, and a
// thread is not canceled (pthread_cancel) within one; only msgbus_subscriber_cancel ends a wait for a value.
//
// Times are in milliseconds. In a child made by fork, calls on a handle of the parent return MSGBUS_SERVER_GONE, and
// destroying it leaves the parent's registration alone; new handles work.

// NOLINTBEGIN(readability-identifier-naming, modernize-*): C, with names as C programs write them.

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#define MSGBUS_API __attribute__((visibility("default")))

#ifdef __cplusplus
extern "C" {
#endif

/// What a call returns. Positive: the bus rejected the request. Negative: the library could not make it.
enum msgbus_code {
    MSGBUS_OK = 0, ///< done

    MSGBUS_NOT_REGISTERED = 1,         ///< the id is not registered, or another client has unregistered it
    MSGBUS_FULL = 2,                   ///< the inbound queue of the bus is full
    MSGBUS_TOO_MANY_REGISTRATIONS = 3, ///< a limit of the server on publishers or subscribers
    MSGBUS_TOO_MANY_HANDSHAKES = 4,    ///< a limit of the server on unfinished registrations
    MSGBUS_DISPATCH_FAILED = 5,        ///< the bus has no connection to dispatch on
    MSGBUS_INIT_FAILED = 6,            ///< the bus could not be initialised
    MSGBUS_TOO_MANY_BYTES = 7,         ///< a limit of the server on the bytes of names and topics
    MSGBUS_CONFLICT = 8,               ///< the topic has a publisher already, or was named twice
    MSGBUS_TOO_MANY_VALUES = 9,        ///< the subscriber left too many values unread, and was cut
    MSGBUS_FAILED = 10,                ///< internal error of the bus, or the bus is shutting down

    MSGBUS_NO_SERVER = -101,   ///< no server was found, or it did not accept the connection in time
    MSGBUS_SERVER_GONE = -102, ///< the server died or closed the connection; it may have handled the last request
    MSGBUS_NO_ANSWER = -103,   ///< a request was not answered in time: its outcome is unknown if it was sent
    MSGBUS_TIMED_OUT = -104,   ///< what the call waited for did not happen in time; nothing is lost
    MSGBUS_INVALID = -105,     ///< an argument cannot be used; nothing was done
    MSGBUS_CLOSED = -106,      ///< after msgbus_publisher_close or msgbus_subscriber_cancel
    MSGBUS_NO_MEMORY = -107,   ///< out of memory
    MSGBUS_PLATFORM = -108     ///< another failure of the system, for example no descriptors are left
};

/// Returns: what `code` means, whatever the call was; a text for unknown codes too. Never null; static storage.
/// Threads: any.
MSGBUS_API const char* msgbus_error_text(int code);

/// Returns: a sentence about the last call that failed on this thread, with names and numbers; empty when none has. A
/// call that succeeds leaves it as it is. Never null; valid until the next failure on this thread. Threads: any.
MSGBUS_API const char* msgbus_last_error(void);

/// How to connect to the bus.
enum msgbus_route {
    MSGBUS_ROUTE_AUTOMATIC = 0, ///< the mode in BORVEN_BUS; if unset, dynamic, then static if nothing is found
    MSGBUS_ROUTE_DYNAMIC = 1,   ///< the services that a server publishes
    MSGBUS_ROUTE_STATIC = 2     ///< the channel that a server opens under a fixed name
};

/// What a notice reports.
enum msgbus_notice {
    MSGBUS_NOTICE_SERVER_LOST = 0,        ///< the server is gone; the library looks for a restarted one
    MSGBUS_NOTICE_REGISTERED_AGAIN = 1,   ///< with a restarted server; the sentence names what may be lost
    MSGBUS_NOTICE_WAITING_FOR_SERVER = 2, ///< there is none yet
    MSGBUS_NOTICE_WAITING_FOR_TOPIC = 3   ///< the topic has another publisher
};

/// Called within a call of the library, on its thread. `sentence` is for people, and valid during the call. Must not
/// call the publisher or subscriber, nor throw or jump out.
typedef void (*msgbus_notice_callback)(int notice, const char* sentence, void* user);

/// How it stands with the publisher of a topic.
enum msgbus_publisher_state {
    MSGBUS_PUBLISHER_NONE = 0,  ///< there is none: at first, or since the server was restarted
    MSGBUS_PUBLISHER_CAME = 1,  ///< there is one, from now on or since before
    MSGBUS_PUBLISHER_LEFT = 2,  ///< it was unregistered, by its program
    MSGBUS_PUBLISHER_DIED = 3,  ///< its process has ended, or closed its connections, without that
    MSGBUS_PUBLISHER_SILENT = 4 ///< there is one, and no value of it was received for stale_after_ms
};

/// Called within a receiving call, on its thread, in order with the values. `state`: of enum msgbus_publisher_state;
/// `id`: of the publisher, 0 when there is none. `topic` ends with a NUL and is valid during the call. May call
/// msgbus_subscriber_cancel, must not call the subscriber otherwise, nor throw or jump out.
typedef void (*msgbus_publisher_callback)(const char* topic, int state, int64_t id, void* user);

/// Called within a call on a publisher, on its thread, with the number of its topic's subscribers. Must not call the
/// publisher, nor throw or jump out.
typedef void (*msgbus_subscribers_callback)(size_t count, void* user);

/// Settings of one publisher or subscriber, to be set by msgbus_options_init and then changed.
typedef struct msgbus_options {
    size_t size; ///< of the record that the program was compiled with

    int route; ///< of enum msgbus_route

    /// How long a running server may take to accept one connection. Default: 5000.
    int64_t connect_timeout_ms;
    /// How long a running server may take to answer one request, other than the wait for a value; then the call returns
    /// MSGBUS_NO_ANSWER. Default: 5000.
    int64_t call_timeout_ms;
    /// How long msgbus_..._create looks for a server before it returns MSGBUS_NO_SERVER. Default: 0.
    int64_t wait_for_server_ms;
    /// How long msgbus_publisher_create waits while the topic has another publisher. Default: 0.
    int64_t wait_for_topic_ms;
    /// How long to look for a restarted server after the server is gone, and to register with it. What was published
    /// meanwhile is lost to a subscriber; a value of a publisher may arrive twice. Default: 0, do not look.
    int64_t reconnect_for_ms;
    /// How long msgbus_publisher_push retries while the bus is full. Default: 10000.
    int64_t full_queue_timeout_ms;

    msgbus_notice_callback on_notice; ///< may be null
    void* notice_user;                ///< passed to on_notice

    /// Of a subscriber: reports each change of a topic's publisher, and first how it stands. A publisher that registers
    /// again within two seconds of the subscriber after a restart of the server is not reported. May be null.
    msgbus_publisher_callback on_publisher;
    void* publisher_user; ///< passed to on_publisher
    /// Of a subscriber with on_publisher: after how long without a value a publisher is reported as silent, once until
    /// the next value. Default: 0, never.
    int64_t stale_after_ms;
    /// Of a subscriber: not 0: it gets the last value of each topic first, if the server remembers one. Default: 0.
    int32_t start_with_last;
    /// Of a publisher: reports the number of subscribers first when it is created, then, behind a push, whenever it has
    /// become 0 or 1. May be null.
    msgbus_subscribers_callback on_subscribers;
    void* subscribers_user; ///< passed to on_subscribers
    /// Of a publisher: what the values of its topic mean, for those who look at the bus, as the text of a
    /// msgbus::Description (msgbus/codec.h): for example "fixed;step=1/10;unit=V". Sent behind each registration,
    /// without waiting for an answer; a server with `--no-monitor` does not take it. Null: nothing is known.
    const char* description;
} msgbus_options;

/// Sets every member to its default: `msgbus_options_init(&options, sizeof options)`. `size` lets a program work with a
/// library that has more options than the program knows.
/// Returns: 0; MSGBUS_INVALID when `options` is null, or `size` is none of this library or an earlier one.
/// Threads: any.
MSGBUS_API int msgbus_options_init(msgbus_options* options, size_t size);

/// The only publisher of a topic.
/// Threads: one call at a time. Different publishers are independent.
typedef struct msgbus_publisher msgbus_publisher;

/// Connects to the bus and registers as the publisher of `topic`: 1 to 1023 bytes. Subscribers receive at most its
/// first 1022 bytes. `options`: null for the defaults; not needed afterwards.
/// Returns: 0 and `*publisher`, for msgbus_publisher_destroy. Else `*publisher` is null: MSGBUS_CONFLICT when the topic
/// has a publisher, another code of the bus, MSGBUS_INVALID, MSGBUS_NO_SERVER, MSGBUS_SERVER_GONE, MSGBUS_NO_ANSWER,
/// MSGBUS_NO_MEMORY, MSGBUS_PLATFORM.
/// Blocks: as the options allow. Threads: any.
MSGBUS_API int msgbus_publisher_create(msgbus_publisher** publisher, const char* topic, const msgbus_options* options);

/// Unregisters, ignoring failures, and frees. Null is allowed. Blocks: up to call_timeout_ms.
MSGBUS_API void msgbus_publisher_destroy(msgbus_publisher* publisher);

/// Publishes `value`: returns when the bus has queued it for delivery. Retries while the bus is full.
/// `timeout_ms`: a limit on the whole call, in place of those of the options; 0 gives the bus one try, which is not
/// waited for if it is not answered at once; negative: as the options say.
/// Returns: 0; MSGBUS_FULL when the bus stayed full; another code of the bus; MSGBUS_NO_ANSWER; MSGBUS_SERVER_GONE;
/// MSGBUS_CLOSED; MSGBUS_INVALID; MSGBUS_NO_MEMORY; MSGBUS_PLATFORM. With reconnect_for_ms also what
/// msgbus_publisher_create returns.
/// Blocks: until the answer, at most `timeout_ms`; else as call_timeout_ms, full_queue_timeout_ms and reconnect_for_ms
/// allow.
MSGBUS_API int msgbus_publisher_push(msgbus_publisher* publisher, int64_t value, int64_t timeout_ms);

/// Publishes `count` values, each as msgbus_publisher_push does; `timeout_ms` is for all of them together.
/// Returns: 0 and `*pushed`, how many the bus has queued: always the first ones, in order. They are fewer than `count`
/// when the bus stayed full or when another failure followed the first value: call again for the others, and that
/// call returns the failure if it lasts. Else `*pushed` is 0, and it returns what msgbus_publisher_push returns for the
/// first value.
/// Blocks: as msgbus_publisher_push, for each value.
MSGBUS_API int msgbus_publisher_push_all(msgbus_publisher* publisher, const int64_t* values, size_t count,
                                         size_t* pushed, int64_t timeout_ms);

/// Publishes `value` unless the bus is full.
/// Returns: 0; MSGBUS_FULL, at once; otherwise as msgbus_publisher_push.
/// Blocks: until the answer, up to call_timeout_ms, and as reconnect_for_ms allows.
MSGBUS_API int msgbus_publisher_try_push(msgbus_publisher* publisher, int64_t value);

/// Waits until no push of this publisher is unanswered: one that ended with MSGBUS_NO_ANSWER may still be under way.
/// `timeout_ms`: negative for call_timeout_ms.
/// Returns: 0; MSGBUS_TIMED_OUT; MSGBUS_SERVER_GONE, and then the outcome is not known; MSGBUS_CLOSED; MSGBUS_INVALID;
/// MSGBUS_PLATFORM.
MSGBUS_API int msgbus_publisher_drain(msgbus_publisher* publisher, int64_t timeout_ms);

/// Asks how many subscribers the topic has. The first call, without on_subscribers, makes a connection and a
/// registration for this; later ones take what has arrived meanwhile.
/// Returns: 0 and `*count`; else 0 there, and what msgbus_publisher_create returns, MSGBUS_PLATFORM also when the
/// server does not count subscribers; MSGBUS_CLOSED. Blocks: the first call as msgbus_publisher_create; later ones
/// while reconnect_for_ms looks for a restarted server, up to 0.1 s.
MSGBUS_API int msgbus_publisher_subscribers(msgbus_publisher* publisher, size_t* count);

/// Unregisters. Afterwards the other calls return MSGBUS_CLOSED; a second close does nothing. The handle remains, for
/// msgbus_publisher_destroy.
/// Returns: 0; MSGBUS_CONFLICT when another client has unregistered this publisher; another code of the bus;
/// MSGBUS_NO_ANSWER; MSGBUS_SERVER_GONE; MSGBUS_INVALID; MSGBUS_PLATFORM. Blocks: up to call_timeout_ms.
MSGBUS_API int msgbus_publisher_close(msgbus_publisher* publisher);

/// Returns: the topic, which lives as long as the publisher; null for null.
MSGBUS_API const char* msgbus_publisher_topic(const msgbus_publisher* publisher);

/// Returns: the id on the bus, a new one after a reconnection; -1 when not registered.
MSGBUS_API int64_t msgbus_publisher_id(const msgbus_publisher* publisher);

/// A named receiver of the values of some topics. While it is registered, the bus queues every value of its topics
/// until it is received, up to the limits of the server.
/// Threads: the receiving calls (next, take, try_next, descriptor) on one thread at a time; cancel, lost and id on any
/// thread meanwhile. Different subscribers are independent.
typedef struct msgbus_subscriber msgbus_subscriber;

/// One published value.
typedef struct msgbus_message {
    const char* topic;   ///< ends with a NUL; valid until the next receiving call on the subscriber
    size_t topic_length; ///< in bytes, without the NUL
    int64_t value;       ///< what was published
} msgbus_message;

/// Values that a subscriber has missed, as far as the server has counted them.
typedef struct msgbus_loss {
    uint64_t values;        ///< how many
    uint64_t reconnections; ///< how often it registered with a restarted server, which loses values uncounted
    int32_t reason;         ///< 0, or MSGBUS_TOO_MANY_VALUES when the server has cut the subscriber
} msgbus_loss;

/// Connects to the bus and registers for `topic_count` topics. `name`, which need not be unique, and each topic: 1 to
/// 1023 bytes. `options`: null for the defaults; not needed afterwards.
/// Returns: 0 and `*subscriber`, for msgbus_subscriber_destroy. Else `*subscriber` is null: MSGBUS_CONFLICT when a
/// topic is named twice, otherwise as msgbus_publisher_create. Blocks: as the options allow. Threads: any.
MSGBUS_API int msgbus_subscriber_create(msgbus_subscriber** subscriber, const char* name, const char* const* topics,
                                        size_t topic_count, const msgbus_options* options);

/// Unregisters, ignoring failures, and frees. Null is allowed. Requires: no call in progress on another thread.
/// Blocks: up to call_timeout_ms.
MSGBUS_API void msgbus_subscriber_destroy(msgbus_subscriber* subscriber);

/// Takes the next value. `timeout_ms`: how long to wait for one; 0: do not wait; negative: no limit.
/// Returns: 0 and `*message`; MSGBUS_TIMED_OUT, and a value that arrives later is not lost; MSGBUS_CLOSED after
/// msgbus_subscriber_cancel; MSGBUS_NOT_REGISTERED when another client has unregistered this subscriber;
/// MSGBUS_TOO_MANY_VALUES when the server has cut it; another code of the bus; MSGBUS_SERVER_GONE; MSGBUS_INVALID;
/// MSGBUS_NO_MEMORY; MSGBUS_PLATFORM. With reconnect_for_ms also what msgbus_subscriber_create returns.
/// Blocks: until a value arrives, msgbus_subscriber_cancel is called or the server is gone, at most `timeout_ms`;
/// without limit, then as reconnect_for_ms allows.
MSGBUS_API int msgbus_subscriber_next(msgbus_subscriber* subscriber, msgbus_message* message, int64_t timeout_ms);

/// Waits for a value as msgbus_subscriber_next does, and takes with it those that have arrived: together at most `max`,
/// and at most 1,024; with on_publisher one, so that each report comes between two values. One call then costs as much
/// as it does for a single value, which matters to interpreters. Returns: 0 and `*count`, at least 1. Else `*count` is
/// 0, and it returns what msgbus_subscriber_next returns. After a failure behind the first value it returns 0 with the
/// values; the next receiving call returns the failure. Blocks: for the first value, as msgbus_subscriber_next.
MSGBUS_API int msgbus_subscriber_take(msgbus_subscriber* subscriber, msgbus_message* messages, size_t max,
                                      size_t* count, int64_t timeout_ms);

/// The same as msgbus_subscriber_next with 0: takes the next value if it has arrived.
/// Blocks: not for a value; while reconnect_for_ms looks for a restarted server, up to 0.1 s per attempt.
MSGBUS_API int msgbus_subscriber_try_next(msgbus_subscriber* subscriber, msgbus_message* message);

/// Gives a descriptor for poll, epoll or an event loop. It is readable when msgbus_subscriber_try_next would return
/// anything but MSGBUS_TIMED_OUT, and stays readable until it, or a msgbus_subscriber_take that found fewer than it
/// may, has come to the end of what had arrived. It may be readable without a reason. It stays the same over
/// reconnections. It must not be read, written or closed, and lives as long as the subscriber. Returns: 0 and
/// `*descriptor`; else -1 there, and what msgbus_subscriber_try_next returns.
MSGBUS_API int msgbus_subscriber_descriptor(msgbus_subscriber* subscriber, int* descriptor);

/// Unregisters, drops the values that were not taken, and ends a blocked receiving call. Cannot be undone. The handle
/// remains, for msgbus_subscriber_destroy. Null is allowed.
/// Blocks: until the answer, up to call_timeout_ms. Threads: any.
MSGBUS_API void msgbus_subscriber_cancel(msgbus_subscriber* subscriber);

/// Returns: 0 and what this subscriber has missed, as far as the last value that it has received shows;
/// MSGBUS_INVALID. Threads: any.
MSGBUS_API int msgbus_subscriber_lost(const msgbus_subscriber* subscriber, msgbus_loss* loss);

/// Returns: the name, which lives as long as the subscriber; null for null.
MSGBUS_API const char* msgbus_subscriber_name(const msgbus_subscriber* subscriber);

/// Returns: the id on the bus, a new one after a reconnection; -1 after msgbus_subscriber_cancel.
/// Blocks: while msgbus_subscriber_cancel does. Threads: any.
MSGBUS_API int64_t msgbus_subscriber_id(const msgbus_subscriber* subscriber);

/// Calls a function when the program is asked to end by SIGINT or SIGTERM, so that it can unregister.
typedef struct msgbus_stop_signals msgbus_stop_signals;

/// Takes over the handlers of SIGINT and SIGTERM. `on_stop` is called once, at the first signal, on a thread of the
/// library; it may call msgbus_subscriber_cancel, and must not throw or jump out. A second signal ends the program at
/// once. A signal that the program ignored before stays ignored.
/// Returns: 0 and `*signals`, for msgbus_stop_signals_remove. Else `*signals` is null: MSGBUS_INVALID, also when they
/// are installed already; MSGBUS_NO_MEMORY; MSGBUS_PLATFORM. Threads: any.
MSGBUS_API int msgbus_stop_signals_install(msgbus_stop_signals** signals, void (*on_stop)(void* user), void* user);

/// Restores the handlers, and frees. Null is allowed. Must not be called by `on_stop`.
/// Blocks: while `on_stop` runs.
MSGBUS_API void msgbus_stop_signals_remove(msgbus_stop_signals* signals);

/// Returns: whether a signal has come; false for null. Threads: any.
MSGBUS_API bool msgbus_stop_signals_have_come(const msgbus_stop_signals* signals);

#ifdef __cplusplus
}
#endif

/// Returns: the value that carries the bits of `number`, as every other language binding of the bus does.
static inline int64_t msgbus_encode_double(double number) {
    int64_t value = 0;
    memcpy(&value, &number, sizeof value);
    return value;
}

/// Returns: the number whose bits `value` carries.
static inline double msgbus_decode_double(int64_t value) {
    double number = 0;
    memcpy(&number, &value, sizeof number);
    return number;
}

/// Returns: 0 or 1.
static inline int64_t msgbus_encode_bool(bool truth) {
    return truth ? 1 : 0;
}

/// Returns: 0 and `*truth`; MSGBUS_INVALID when `value` is neither 0 nor 1.
static inline int msgbus_decode_bool(int64_t value, bool* truth) {
    if (value != 0 && value != 1) {
        return MSGBUS_INVALID;
    }
    *truth = value == 1;
    return MSGBUS_OK;
}

// NOLINTEND(readability-identifier-naming, modernize-*)
