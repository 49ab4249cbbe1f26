// Defends the C interface against a real server, from C. Usage: c_api_test CASE; tests/system/test_c_api.py starts the
// server, and does to it what a case asks for on stdout: "pause", "continue", "kill", "restart". The answer is a line
// on stdin.
#define _POSIX_C_SOURCE 200809L

#include <msgbus/msgbus_c.h>

#include <errno.h>
#include <math.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

enum { PATIENCE_MS = 60000 }; // a deadline for hangs only

static void Expect(bool condition, const char* text, int line) {
    if (!condition) {
        fprintf(stderr, "line %d: not so: %s\nlast error: %s\n", line, text, msgbus_last_error());
        exit(1);
    }
}
#define EXPECT(condition) Expect((condition), #condition, __LINE__)

static void ExpectCode(int code, int expected, const char* text, int line) {
    if (code != expected) {
        fprintf(stderr, "line %d: %s is %d (%s), not %d\nlast error: %s\n", line, text, code, msgbus_error_text(code),
                expected, msgbus_last_error());
        exit(1);
    }
}
#define EXPECT_CODE(call, expected) ExpectCode((call), (expected), #call, __LINE__)

/// Has the test do something to the server.
static void Ask(const char* what) {
    char line[16];
    printf("%s\n", what);
    fflush(stdout);
    EXPECT(fgets(line, sizeof line, stdin) != NULL);
}

static msgbus_publisher* MakePublisher(const char* topic, const msgbus_options* options) {
    msgbus_publisher* publisher = NULL;
    EXPECT_CODE(msgbus_publisher_create(&publisher, topic, options), MSGBUS_OK);
    return publisher;
}

static msgbus_subscriber* MakeSubscriber(const char* topic, const msgbus_options* options) {
    msgbus_subscriber* subscriber = NULL;
    EXPECT_CODE(msgbus_subscriber_create(&subscriber, "reader", &topic, 1, options), MSGBUS_OK);
    return subscriber;
}

static void ExpectNext(msgbus_subscriber* subscriber, const char* topic, int64_t value) {
    msgbus_message message;
    EXPECT_CODE(msgbus_subscriber_next(subscriber, &message, PATIENCE_MS), MSGBUS_OK);
    EXPECT(strcmp(message.topic, topic) == 0);
    EXPECT(message.topic_length == strlen(topic));
    EXPECT(message.value == value);
}

static bool IsReadable(int descriptor, int timeoutMs) {
    struct pollfd polled = {.fd = descriptor, .events = POLLIN};
    int count;
    do {
        count = poll(&polled, 1, timeoutMs);
    } while (count < 0 && errno == EINTR);
    return count == 1;
}

static void TestArguments(void) {
    msgbus_publisher* publisher = NULL;
    msgbus_subscriber* subscriber = NULL;
    msgbus_stop_signals* signals = NULL;
    msgbus_options options;
    msgbus_message message;
    msgbus_loss loss;
    size_t count = 7;
    int descriptor = 7;
    const char* const topics[] = {"t", NULL};
    char tooLong[1025];
    memset(tooLong, 'x', sizeof tooLong - 1);
    tooLong[sizeof tooLong - 1] = '\0';

    EXPECT(msgbus_last_error()[0] == '\0');
    EXPECT_CODE(msgbus_options_init(NULL, sizeof options), MSGBUS_INVALID);
    EXPECT(strcmp(msgbus_last_error(), "options is a null pointer") == 0);
    EXPECT_CODE(msgbus_options_init(&options, 0), MSGBUS_INVALID);
    EXPECT(strcmp(msgbus_last_error(), "the size is less than that of msgbus_options") == 0);
    EXPECT_CODE(msgbus_options_init(&options, sizeof options + 8), MSGBUS_INVALID);

    EXPECT_CODE(msgbus_publisher_create(NULL, "t", NULL), MSGBUS_INVALID);
    EXPECT_CODE(msgbus_publisher_create(&publisher, NULL, NULL), MSGBUS_INVALID);
    EXPECT_CODE(msgbus_publisher_create(&publisher, "", NULL), MSGBUS_INVALID);
    EXPECT(strstr(msgbus_last_error(), "empty") != NULL);
    EXPECT_CODE(msgbus_publisher_create(&publisher, tooLong, NULL), MSGBUS_INVALID);
    EXPECT(publisher == NULL);
    EXPECT_CODE(msgbus_subscriber_create(NULL, "n", topics, 1, NULL), MSGBUS_INVALID);
    EXPECT_CODE(msgbus_subscriber_create(&subscriber, NULL, topics, 1, NULL), MSGBUS_INVALID);
    EXPECT_CODE(msgbus_subscriber_create(&subscriber, "n", NULL, 1, NULL), MSGBUS_INVALID);
    EXPECT_CODE(msgbus_subscriber_create(&subscriber, "n", topics, 2, NULL), MSGBUS_INVALID);
    EXPECT_CODE(msgbus_subscriber_create(&subscriber, "", topics, 1, NULL), MSGBUS_INVALID);
    EXPECT(subscriber == NULL);

    int64_t* const times[] = {&options.connect_timeout_ms, &options.call_timeout_ms,  &options.wait_for_server_ms,
                              &options.wait_for_topic_ms,  &options.reconnect_for_ms, &options.full_queue_timeout_ms};
    for (size_t at = 0; at < sizeof times / sizeof times[0]; ++at) {
        EXPECT_CODE(msgbus_options_init(&options, sizeof options), MSGBUS_OK);
        EXPECT(*times[at] >= 0);
        *times[at] = -1;
        EXPECT_CODE(msgbus_publisher_create(&publisher, "t", &options), MSGBUS_INVALID);
        EXPECT(strstr(msgbus_last_error(), "negative") != NULL);
    }
    EXPECT_CODE(msgbus_options_init(&options, sizeof options), MSGBUS_OK);
    EXPECT(options.size == sizeof options && options.route == MSGBUS_ROUTE_AUTOMATIC && options.on_notice == NULL);
    EXPECT(options.connect_timeout_ms == 5000 && options.call_timeout_ms == 5000);
    EXPECT(options.wait_for_server_ms == 0 && options.wait_for_topic_ms == 0 && options.reconnect_for_ms == 0);
    EXPECT(options.full_queue_timeout_ms == 10000);
    options.route = 3;
    EXPECT_CODE(msgbus_subscriber_create(&subscriber, "n", topics, 1, &options), MSGBUS_INVALID);
    memset(&options, 0, sizeof options);
    EXPECT_CODE(msgbus_subscriber_create(&subscriber, "n", topics, 1, &options), MSGBUS_INVALID);

    EXPECT_CODE(msgbus_publisher_push(NULL, 1, -1), MSGBUS_INVALID);
    EXPECT_CODE(msgbus_publisher_push_all(NULL, &options.call_timeout_ms, 1, &count, -1), MSGBUS_INVALID);
    EXPECT_CODE(msgbus_publisher_push_all(NULL, NULL, 0, NULL, -1), MSGBUS_INVALID);
    EXPECT_CODE(msgbus_publisher_try_push(NULL, 1), MSGBUS_INVALID);
    EXPECT_CODE(msgbus_publisher_drain(NULL, 1), MSGBUS_INVALID);
    EXPECT_CODE(msgbus_publisher_close(NULL), MSGBUS_INVALID);
    EXPECT(msgbus_publisher_topic(NULL) == NULL && msgbus_publisher_id(NULL) == -1);
    msgbus_publisher_destroy(NULL);

    EXPECT_CODE(msgbus_subscriber_next(NULL, &message, -1), MSGBUS_INVALID);
    EXPECT_CODE(msgbus_subscriber_try_next(NULL, &message), MSGBUS_INVALID);
    EXPECT_CODE(msgbus_subscriber_take(NULL, &message, 1, &count, -1), MSGBUS_INVALID);
    EXPECT_CODE(msgbus_subscriber_descriptor(NULL, &descriptor), MSGBUS_INVALID);
    EXPECT_CODE(msgbus_subscriber_lost(NULL, &loss), MSGBUS_INVALID);
    EXPECT(msgbus_subscriber_name(NULL) == NULL && msgbus_subscriber_id(NULL) == -1);
    msgbus_subscriber_cancel(NULL);
    msgbus_subscriber_destroy(NULL);

    EXPECT_CODE(msgbus_stop_signals_install(NULL, NULL, NULL), MSGBUS_INVALID);
    EXPECT_CODE(msgbus_stop_signals_install(&signals, NULL, NULL), MSGBUS_INVALID);
    EXPECT(!msgbus_stop_signals_have_come(NULL));
    msgbus_stop_signals_remove(NULL);
}

static void TestTexts(void) {
    const char* const unknown = msgbus_error_text(-1);
    EXPECT(unknown != NULL && strcmp(unknown, msgbus_error_text(11)) == 0);
    for (int code = MSGBUS_OK; code <= MSGBUS_FAILED; ++code) {
        EXPECT(strcmp(msgbus_error_text(code), unknown) != 0);
    }
    for (int code = MSGBUS_PLATFORM; code <= MSGBUS_NO_SERVER; ++code) {
        EXPECT(strcmp(msgbus_error_text(code), unknown) != 0);
    }
}

static void TestCodecs(void) {
    const double numbers[] = {0.0, -0.0, 1.5, -3.25e300, HUGE_VAL};
    for (size_t at = 0; at < sizeof numbers / sizeof numbers[0]; ++at) {
        const double back = msgbus_decode_double(msgbus_encode_double(numbers[at]));
        EXPECT(memcmp(&back, &numbers[at], sizeof back) == 0);
    }
    EXPECT(msgbus_encode_double(1.0) == INT64_C(0x3FF0000000000000));
    bool truth = false;
    EXPECT_CODE(msgbus_decode_bool(msgbus_encode_bool(true), &truth), MSGBUS_OK);
    EXPECT(truth);
    EXPECT_CODE(msgbus_decode_bool(msgbus_encode_bool(false), &truth), MSGBUS_OK);
    EXPECT(!truth);
    EXPECT_CODE(msgbus_decode_bool(2, &truth), MSGBUS_INVALID);
}

static void TestNoServer(void) {
    msgbus_publisher* publisher = NULL;
    msgbus_subscriber* subscriber = NULL;
    const char* const topic = "t";
    EXPECT_CODE(msgbus_publisher_create(&publisher, topic, NULL), MSGBUS_NO_SERVER);
    EXPECT_CODE(msgbus_subscriber_create(&subscriber, "n", &topic, 1, NULL), MSGBUS_NO_SERVER);
    EXPECT(publisher == NULL && subscriber == NULL);
    EXPECT(strlen(msgbus_last_error()) > 0);
}

static void TestDelivery(void) {
    const char* const topics[] = {"heat", "rain"};
    msgbus_subscriber* subscriber = NULL;
    EXPECT_CODE(msgbus_subscriber_create(&subscriber, "display", topics, 2, NULL), MSGBUS_OK);
    msgbus_publisher* const heat = MakePublisher("heat", NULL);
    msgbus_publisher* const rain = MakePublisher("rain", NULL);
    EXPECT(strcmp(msgbus_publisher_topic(heat), "heat") == 0);
    EXPECT(strcmp(msgbus_subscriber_name(subscriber), "display") == 0);
    EXPECT(msgbus_publisher_id(heat) >= 0 && msgbus_publisher_id(heat) != msgbus_publisher_id(rain));
    EXPECT(msgbus_subscriber_id(subscriber) >= 0);

    msgbus_message message;
    EXPECT_CODE(msgbus_subscriber_try_next(subscriber, &message), MSGBUS_TIMED_OUT);
    EXPECT_CODE(msgbus_subscriber_next(subscriber, &message, 1), MSGBUS_TIMED_OUT);
    EXPECT_CODE(msgbus_publisher_push(heat, INT64_MIN, -1), MSGBUS_OK);
    ExpectNext(subscriber, "heat", INT64_MIN);
    EXPECT_CODE(msgbus_publisher_push(rain, INT64_MAX, PATIENCE_MS), MSGBUS_OK);
    ExpectNext(subscriber, "rain", INT64_MAX);
    EXPECT_CODE(msgbus_publisher_try_push(rain, 7), MSGBUS_OK);
    EXPECT_CODE(msgbus_subscriber_next(subscriber, &message, -1), MSGBUS_OK);
    EXPECT(message.value == 7);

    const int64_t values[] = {1, 2, 3};
    size_t pushed = 0;
    EXPECT_CODE(msgbus_publisher_push_all(heat, values, 3, &pushed, -1), MSGBUS_OK);
    EXPECT(pushed == 3);
    EXPECT_CODE(msgbus_publisher_push_all(heat, values, 3, &pushed, PATIENCE_MS), MSGBUS_OK);
    EXPECT(pushed == 3);
    EXPECT_CODE(msgbus_publisher_push_all(heat, NULL, 0, &pushed, -1), MSGBUS_OK);
    EXPECT(pushed == 0);
    EXPECT_CODE(msgbus_publisher_drain(heat, -1), MSGBUS_OK);
    for (int64_t value = 0; value < 6; ++value) {
        ExpectNext(subscriber, "heat", 1 + value % 3);
    }
    msgbus_loss loss = {7, 7, 7};
    EXPECT_CODE(msgbus_subscriber_lost(subscriber, &loss), MSGBUS_OK);
    EXPECT(loss.values == 0 && loss.reason == 0 && loss.reconnections == 0);
    EXPECT_CODE(msgbus_subscriber_lost(subscriber, NULL), MSGBUS_INVALID);
    EXPECT_CODE(msgbus_subscriber_next(subscriber, NULL, 0), MSGBUS_INVALID);

    msgbus_publisher_destroy(heat);
    msgbus_publisher_destroy(rain);
    msgbus_subscriber_destroy(subscriber);
}

static void TestTake(void) {
    enum { COUNT = 20000, CHUNK = 500 };
    msgbus_subscriber* const subscriber = MakeSubscriber("t", NULL);
    msgbus_publisher* const publisher = MakePublisher("t", NULL);
    static int64_t values[CHUNK];
    static msgbus_message messages[64];
    size_t count = 7;
    EXPECT_CODE(msgbus_subscriber_take(subscriber, messages, 64, &count, 0), MSGBUS_TIMED_OUT);
    EXPECT(count == 0);
    EXPECT_CODE(msgbus_subscriber_take(subscriber, messages, 0, &count, 0), MSGBUS_INVALID);
    EXPECT_CODE(msgbus_subscriber_take(subscriber, NULL, 1, &count, 0), MSGBUS_INVALID);
    EXPECT_CODE(msgbus_subscriber_take(subscriber, messages, 1, NULL, 0), MSGBUS_INVALID);
    int64_t expected = 0;
    for (int64_t sent = 0; sent < COUNT; sent += CHUNK) {
        for (size_t at = 0; at < CHUNK; ++at) {
            values[at] = sent + (int64_t)at;
        }
        size_t pushed = 0;
        EXPECT_CODE(msgbus_publisher_push_all(publisher, values, CHUNK, &pushed, -1), MSGBUS_OK);
        EXPECT(pushed == CHUNK);
        while (expected < sent + CHUNK) {
            EXPECT_CODE(msgbus_subscriber_take(subscriber, messages, 64, &count, PATIENCE_MS), MSGBUS_OK);
            EXPECT(count >= 1 && count <= 64);
            for (size_t at = 0; at < count; ++at) {
                EXPECT(strcmp(messages[at].topic, "t") == 0 && messages[at].topic_length == 1);
                EXPECT(messages[at].value == expected);
                ++expected;
            }
        }
    }
    msgbus_publisher_destroy(publisher);
    msgbus_subscriber_destroy(subscriber);
}

static void TestDescriptor(void) {
    msgbus_subscriber* const subscriber = MakeSubscriber("t", NULL);
    msgbus_publisher* const publisher = MakePublisher("t", NULL);
    msgbus_message message;
    int descriptor = -1;
    EXPECT_CODE(msgbus_subscriber_descriptor(subscriber, NULL), MSGBUS_INVALID);
    EXPECT_CODE(msgbus_subscriber_descriptor(subscriber, &descriptor), MSGBUS_OK);
    EXPECT(descriptor >= 0);
    for (int64_t value = 0; value < 100; ++value) {
        EXPECT_CODE(msgbus_publisher_push(publisher, value, -1), MSGBUS_OK);
        for (int code = MSGBUS_TIMED_OUT; code == MSGBUS_TIMED_OUT;) {
            EXPECT(IsReadable(descriptor, PATIENCE_MS));
            code = msgbus_subscriber_try_next(subscriber, &message);
            EXPECT(code == MSGBUS_TIMED_OUT || (code == MSGBUS_OK && message.value == value));
        }
    }
    do {
        EXPECT_CODE(msgbus_subscriber_try_next(subscriber, &message), MSGBUS_TIMED_OUT);
    } while (IsReadable(descriptor, 0));
    msgbus_subscriber_cancel(subscriber);
    EXPECT(IsReadable(descriptor, PATIENCE_MS));
    EXPECT_CODE(msgbus_subscriber_try_next(subscriber, &message), MSGBUS_CLOSED);
    msgbus_publisher_destroy(publisher);
    msgbus_subscriber_destroy(subscriber);
}

struct Waiter {
    msgbus_subscriber* subscriber;
    int code;
    atomic_bool waits;
};

static void* Wait(void* argument) {
    struct Waiter* const waiter = argument;
    msgbus_message message;
    atomic_store(&waiter->waits, true);
    waiter->code = msgbus_subscriber_next(waiter->subscriber, &message, -1);
    return NULL;
}

static void TestCancel(void) {
    for (int round = 0; round < 50; ++round) {
        struct Waiter waiter = {.subscriber = MakeSubscriber("t", NULL)};
        pthread_t thread;
        EXPECT(pthread_create(&thread, NULL, Wait, &waiter) == 0);
        while (!atomic_load(&waiter.waits)) {
        }
        msgbus_subscriber_cancel(waiter.subscriber);
        EXPECT(pthread_join(thread, NULL) == 0);
        EXPECT_CODE(waiter.code, MSGBUS_CLOSED);
        EXPECT(msgbus_subscriber_id(waiter.subscriber) == -1);
        int descriptor = 7;
        EXPECT_CODE(msgbus_subscriber_descriptor(waiter.subscriber, &descriptor), MSGBUS_CLOSED);
        EXPECT(descriptor == -1);
        msgbus_subscriber_cancel(waiter.subscriber);
        msgbus_subscriber_destroy(waiter.subscriber);
    }
}

static void* WaitAndTest(void* argument) {
    Wait(argument);
    pthread_testcancel();
    return NULL;
}

/// A canceled thread ends behind its call, not within it.
static void TestThreadCancelation(void) {
    struct Waiter waiter = {.subscriber = MakeSubscriber("t", NULL)};
    pthread_t thread;
    EXPECT(pthread_create(&thread, NULL, WaitAndTest, &waiter) == 0);
    while (!atomic_load(&waiter.waits)) {
    }
    msgbus_publisher* const publisher = MakePublisher("t", NULL);
    EXPECT(pthread_cancel(thread) == 0);
    EXPECT_CODE(msgbus_publisher_push(publisher, 1, -1), MSGBUS_OK);
    void* result = NULL;
    EXPECT(pthread_join(thread, &result) == 0);
    EXPECT(result == PTHREAD_CANCELED);
    EXPECT_CODE(waiter.code, MSGBUS_OK);
    msgbus_publisher_destroy(publisher);
    msgbus_subscriber_destroy(waiter.subscriber);
}

static void TestConflicts(void) {
    msgbus_publisher* const publisher = MakePublisher("heat", NULL);
    msgbus_publisher* second = NULL;
    EXPECT_CODE(msgbus_publisher_create(&second, "heat", NULL), MSGBUS_CONFLICT);
    EXPECT(second == NULL);
    EXPECT(strstr(msgbus_last_error(), "heat") != NULL);
    const char* const twice[] = {"heat", "heat"};
    msgbus_subscriber* subscriber = NULL;
    EXPECT_CODE(msgbus_subscriber_create(&subscriber, "n", twice, 2, NULL), MSGBUS_CONFLICT);
    EXPECT(subscriber == NULL);

    EXPECT_CODE(msgbus_publisher_close(publisher), MSGBUS_OK);
    EXPECT_CODE(msgbus_publisher_close(publisher), MSGBUS_OK);
    EXPECT(msgbus_publisher_id(publisher) == -1);
    EXPECT_CODE(msgbus_publisher_push(publisher, 1, -1), MSGBUS_CLOSED);
    EXPECT_CODE(msgbus_publisher_try_push(publisher, 1), MSGBUS_CLOSED);
    EXPECT_CODE(msgbus_publisher_drain(publisher, 1), MSGBUS_CLOSED);
    second = MakePublisher("heat", NULL);
    msgbus_publisher_destroy(second);
    msgbus_publisher_destroy(publisher);
}

static void TestServerGone(void) {
    msgbus_publisher* const publisher = MakePublisher("t", NULL);
    msgbus_subscriber* const subscriber = MakeSubscriber("t", NULL);
    struct Waiter waiter = {.subscriber = subscriber};
    pthread_t thread;
    EXPECT(pthread_create(&thread, NULL, Wait, &waiter) == 0);
    Ask("kill");
    EXPECT(pthread_join(thread, NULL) == 0);
    EXPECT_CODE(waiter.code, MSGBUS_SERVER_GONE);
    EXPECT_CODE(msgbus_publisher_push(publisher, 1, -1), MSGBUS_SERVER_GONE);
    EXPECT(strlen(msgbus_last_error()) > 0);
    msgbus_publisher_destroy(publisher);
    msgbus_subscriber_destroy(subscriber);
}

static void TestNoAnswer(void) {
    msgbus_subscriber* const subscriber = MakeSubscriber("t", NULL);
    msgbus_publisher* const publisher = MakePublisher("t", NULL);
    msgbus_options options;
    EXPECT_CODE(msgbus_options_init(&options, sizeof options), MSGBUS_OK);
    options.call_timeout_ms = 50;
    msgbus_publisher* const impatient = MakePublisher("u", &options);
    msgbus_message message;
    Ask("pause");
    EXPECT_CODE(msgbus_publisher_push(publisher, 1, 50), MSGBUS_NO_ANSWER);
    EXPECT_CODE(msgbus_publisher_drain(publisher, 10), MSGBUS_TIMED_OUT);
    EXPECT_CODE(msgbus_publisher_push(impatient, 1, -1), MSGBUS_NO_ANSWER);
    EXPECT_CODE(msgbus_publisher_drain(impatient, -1), MSGBUS_TIMED_OUT);
    EXPECT_CODE(msgbus_subscriber_next(subscriber, &message, 10), MSGBUS_TIMED_OUT);
    Ask("continue");
    EXPECT_CODE(msgbus_publisher_drain(publisher, PATIENCE_MS), MSGBUS_OK);
    ExpectNext(subscriber, "t", 1);
    msgbus_publisher_destroy(publisher);
    msgbus_publisher_destroy(impatient);
    msgbus_subscriber_destroy(subscriber);
}

struct Notices {
    int lost;
    int again;
};

static void Count(int notice, const char* sentence, void* user) {
    struct Notices* const notices = user;
    EXPECT(strlen(sentence) > 0);
    notices->lost += notice == MSGBUS_NOTICE_SERVER_LOST;
    notices->again += notice == MSGBUS_NOTICE_REGISTERED_AGAIN;
}

static void TestReconnect(void) {
    struct Notices notices = {0, 0};
    msgbus_options options;
    EXPECT_CODE(msgbus_options_init(&options, sizeof options), MSGBUS_OK);
    options.reconnect_for_ms = PATIENCE_MS;
    options.on_notice = Count;
    options.notice_user = &notices;
    msgbus_subscriber* const subscriber = MakeSubscriber("t", &options);
    msgbus_publisher* const publisher = MakePublisher("t", &options);
    EXPECT_CODE(msgbus_publisher_push(publisher, 1, -1), MSGBUS_OK);
    ExpectNext(subscriber, "t", 1);
    Ask("restart");
    EXPECT_CODE(msgbus_publisher_push(publisher, 2, -1), MSGBUS_OK);
    ExpectNext(subscriber, "t", 2);
    EXPECT(notices.lost == 2 && notices.again == 2);
    msgbus_loss loss;
    EXPECT_CODE(msgbus_subscriber_lost(subscriber, &loss), MSGBUS_OK);
    EXPECT(loss.reconnections == 1);
    msgbus_publisher_destroy(publisher);
    msgbus_subscriber_destroy(subscriber);
}

static void Cancel(void* user) {
    msgbus_subscriber_cancel(user);
}

static void TestStopSignals(void) {
    msgbus_subscriber* const subscriber = MakeSubscriber("t", NULL);
    msgbus_stop_signals* signals = NULL;
    msgbus_stop_signals* second = NULL;
    EXPECT_CODE(msgbus_stop_signals_install(&signals, Cancel, subscriber), MSGBUS_OK);
    EXPECT_CODE(msgbus_stop_signals_install(&second, Cancel, subscriber), MSGBUS_INVALID);
    EXPECT(second == NULL && !msgbus_stop_signals_have_come(signals));
    struct Waiter waiter = {.subscriber = subscriber};
    pthread_t thread;
    EXPECT(pthread_create(&thread, NULL, Wait, &waiter) == 0);
    EXPECT(kill(getpid(), SIGTERM) == 0);
    EXPECT(pthread_join(thread, NULL) == 0);
    EXPECT_CODE(waiter.code, MSGBUS_CLOSED);
    EXPECT(msgbus_stop_signals_have_come(signals));
    msgbus_stop_signals_remove(signals);
    EXPECT_CODE(msgbus_stop_signals_install(&signals, Cancel, subscriber), MSGBUS_OK);
    msgbus_stop_signals_remove(signals);
    msgbus_subscriber_destroy(subscriber);
}

static void TestFork(void) {
    msgbus_subscriber* subscriber = MakeSubscriber("t", NULL);
    msgbus_publisher* publisher = MakePublisher("t", NULL);
    const pid_t child = fork();
    EXPECT(child >= 0);
    if (child == 0) {
        msgbus_message message;
        EXPECT_CODE(msgbus_publisher_push(publisher, 7, -1), MSGBUS_SERVER_GONE);
        EXPECT_CODE(msgbus_subscriber_next(subscriber, &message, -1), MSGBUS_SERVER_GONE);
        msgbus_publisher_destroy(publisher);
        msgbus_subscriber_destroy(subscriber);
        subscriber = MakeSubscriber("u", NULL);
        publisher = MakePublisher("u", NULL);
        EXPECT_CODE(msgbus_publisher_push(publisher, 8, -1), MSGBUS_OK);
        ExpectNext(subscriber, "u", 8);
        msgbus_publisher_destroy(publisher);
        msgbus_subscriber_destroy(subscriber);
        _exit(0);
    }
    int status = 0;
    EXPECT(waitpid(child, &status, 0) == child);
    EXPECT(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_CODE(msgbus_publisher_push(publisher, 9, -1), MSGBUS_OK);
    ExpectNext(subscriber, "t", 9);
    msgbus_publisher_destroy(publisher);
    msgbus_subscriber_destroy(subscriber);
}

int main(int count, char** arguments) {
    static const struct {
        const char* name;
        void (*run)(void);
    } cases[] = {
        {"arguments", TestArguments},
        {"texts", TestTexts},
        {"codecs", TestCodecs},
        {"no_server", TestNoServer},
        {"delivery", TestDelivery},
        {"take", TestTake},
        {"descriptor", TestDescriptor},
        {"cancel", TestCancel},
        {"thread", TestThreadCancelation},
        {"conflicts", TestConflicts},
        {"server_gone", TestServerGone},
        {"no_answer", TestNoAnswer},
        {"reconnect", TestReconnect},
        {"stop_signals", TestStopSignals},
        {"fork", TestFork},
    };
    for (size_t at = 0; count == 2 && at < sizeof cases / sizeof cases[0]; ++at) {
        if (strcmp(cases[at].name, arguments[1]) == 0) {
            cases[at].run();
            return 0;
        }
    }
    fprintf(stderr, "usage: c_api_test CASE\n");
    return 2;
}
