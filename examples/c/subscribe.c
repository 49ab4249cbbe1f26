// A subscriber in C: prints the values of topic "temperature" until none has come for ten seconds, or until SIGINT or
// SIGTERM.
#include <msgbus/msgbus_c.h>

#include <inttypes.h>
#include <stdio.h>

static void Cancel(void* subscriber) {
    msgbus_subscriber_cancel(subscriber);
}

int main(void) {
    const char* const topics[] = {"temperature"};
    msgbus_subscriber* subscriber = NULL;
    msgbus_stop_signals* signals = NULL;
    int code = msgbus_subscriber_create(&subscriber, "example", topics, 1, NULL);
    if (code == MSGBUS_OK) {
        code = msgbus_stop_signals_install(&signals, Cancel, subscriber);
    }
    while (code == MSGBUS_OK) {
        msgbus_message message;
        code = msgbus_subscriber_next(subscriber, &message, 10000);
        if (code == MSGBUS_OK) {
            printf("%s %" PRId64 "\n", message.topic, message.value);
            fflush(stdout);
        }
    }
    const bool isExpected = code == MSGBUS_TIMED_OUT || code == MSGBUS_CLOSED;
    if (!isExpected) {
        fprintf(stderr, "%s\n", msgbus_last_error());
    }
    msgbus_stop_signals_remove(signals);
    msgbus_subscriber_destroy(subscriber);
    return isExpected ? 0 : 1;
}
