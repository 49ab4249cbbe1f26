// A publisher in C: publishes the values of its command line to topic "temperature", or 21.
#include <msgbus/msgbus_c.h>

#include <inttypes.h>
#include <stdio.h>

int main(int count, char** arguments) {
    msgbus_publisher* publisher = NULL;
    int code = msgbus_publisher_create(&publisher, "temperature", NULL);
    for (int at = 1; code == MSGBUS_OK && at < count; ++at) {
        code = msgbus_publisher_push(publisher, strtoimax(arguments[at], NULL, 10), -1);
    }
    if (code == MSGBUS_OK && count < 2) {
        code = msgbus_publisher_push(publisher, 21, -1);
    }
    if (code != MSGBUS_OK) {
        fprintf(stderr, "%s\n", msgbus_last_error());
    }
    msgbus_publisher_destroy(publisher);
    return code == MSGBUS_OK ? 0 : 1;
}
