// A subscriber: prints the values of topic "temperature" until the server is gone.
#include <msgbus/subscriber.h>

#include <iostream>

int main() try {
    msgbus::Subscriber subscriber("example", {"temperature"});
    while (const auto message = subscriber.Next()) {
        std::cout << message->topic << ' ' << message->value << std::endl;
    }
    return 0;
} catch (const std::exception& error) {
    std::cerr << error.what() << '\n';
    return 1;
}
