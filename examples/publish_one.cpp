// A publisher: publishes one value to topic "temperature".
#include <msgbus/msgbus.h>

#include <iostream>

int main() try {
    msgbus::Publisher publisher("temperature"); // connects and registers; the destructor unregisters
    publisher.Push(21);
    return 0;
} catch (const std::exception& error) {
    std::cerr << error.what() << '\n';
    return 1;
}
