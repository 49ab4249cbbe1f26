// A publisher in ten lines: publishes one value to the topic "temperature".
#include <msgbus/publisher.h>

#include <iostream>

int main() try {
    msgbus::Publisher publisher("temperature"); // finds the bus and registers; unregisters at the end
    publisher.Push(21);
    return 0;
} catch (const std::exception& error) {
    std::cerr << error.what() << '\n';
    return 1;
}
