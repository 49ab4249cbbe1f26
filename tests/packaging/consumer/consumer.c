#include <msgbus/msgbus_c.h>

#include <inttypes.h>
#include <stdio.h>

/* Pushes one value and receives it. */
int main(void) {
    const char* const topics[] = {"temperature"};
    msgbus_subscriber* subscriber = NULL;
    msgbus_publisher* publisher = NULL;
    msgbus_message message;
    int code = msgbus_subscriber_create(&subscriber, "reader", topics, 1, NULL);
    if (code == 0) {
        code = msgbus_publisher_create(&publisher, topics[0], NULL);
    }
    if (code == 0) {
        code = msgbus_publisher_push(publisher, 21, -1);
    }
    if (code == 0) {
        code = msgbus_subscriber_next(subscriber, &message, -1);
    }
    if (code == 0) {
        printf("%s %" PRId64 "\n", message.topic, message.value);
    } else {
        fprintf(stderr, "%s\n", msgbus_error_text(code));
    }
    msgbus_publisher_destroy(publisher);
    msgbus_subscriber_destroy(subscriber);
    return code == 0 ? 0 : 1;
}
