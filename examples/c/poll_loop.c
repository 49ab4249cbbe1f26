// One loop for several things at once, without a thread for each: prints the values of topics "temperature" and
// "pressure", and publishes the numbers on its standard input to topic "setpoint" until that ends.
#define _POSIX_C_SOURCE 200809L

#include <msgbus/msgbus_c.h>

#include <errno.h>
#include <inttypes.h>
#include <poll.h>
#include <stdio.h>
#include <unistd.h>

/// Prints what has arrived. Returns: 0, or a code.
static int PrintAll(msgbus_subscriber* subscriber) {
    msgbus_message message;
    int code;
    // To the end of what has arrived: the descriptor stays readable until then.
    while ((code = msgbus_subscriber_try_next(subscriber, &message)) == MSGBUS_OK) {
        printf("%s %" PRId64 "\n", message.topic, message.value);
        fflush(stdout);
    }
    return code == MSGBUS_TIMED_OUT ? MSGBUS_OK : code;
}

/// Publishes the next line of the standard input. Returns: 0, MSGBUS_CLOSED at its end, or another code.
static int PublishLine(msgbus_publisher* publisher) {
    char text[32];
    size_t length = 0;
    ssize_t count;
    // Byte by byte: what stdio keeps in a buffer of its own, poll does not see.
    while ((count = read(STDIN_FILENO, &text[length], 1)) == 1 && text[length] != '\n' && length < sizeof text - 1) {
        ++length;
    }
    text[length] = '\0';
    if (count != 1) {
        return MSGBUS_CLOSED;
    }
    return msgbus_publisher_push(publisher, strtoimax(text, NULL, 10), -1);
}

int main(void) {
    const char* const topics[] = {"temperature", "pressure"};
    msgbus_subscriber* subscriber = NULL;
    msgbus_publisher* publisher = NULL;
    struct pollfd polled[2] = {{.fd = STDIN_FILENO, .events = POLLIN}, {.events = POLLIN}};
    int code = msgbus_subscriber_create(&subscriber, "panel", topics, 2, NULL);
    if (code == MSGBUS_OK) {
        code = msgbus_publisher_create(&publisher, "setpoint", NULL);
    }
    if (code == MSGBUS_OK) {
        code = msgbus_subscriber_descriptor(subscriber, &polled[1].fd);
    }
    while (code == MSGBUS_OK) {
        if (poll(polled, 2, -1) < 0) {
            if (errno == EINTR) {
                continue;
            }
            perror("poll");
            break;
        }
        if (polled[1].revents != 0) {
            code = PrintAll(subscriber);
        }
        if (code == MSGBUS_OK && polled[0].revents != 0) {
            code = PublishLine(publisher);
        }
    }
    if (code != MSGBUS_OK && code != MSGBUS_CLOSED) {
        fprintf(stderr, "%s\n", msgbus_last_error());
    }
    msgbus_publisher_destroy(publisher);
    msgbus_subscriber_destroy(subscriber);
    return code == MSGBUS_CLOSED ? 0 : 1;
}
