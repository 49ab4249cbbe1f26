#include <msgbus/publisher.h>
#include <msgbus/subscriber.h>

#include <iostream>

// Pushes one value and receives it.
int main() {
    msgbus::Subscriber subscriber("reader", {"temperature"});
    msgbus::Publisher publisher("temperature");
    publisher.Push(21);
    const auto message = subscriber.Next();
    std::cout << message->topic << ' ' << message->value << '\n';
}
