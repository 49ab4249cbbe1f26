// A subscriber: prints the values of topic "temperature" until the server is gone, or SIGINT or SIGTERM comes.
#include <msgbus/msgbus.h>

#include <iostream>

int main() try {
    msgbus::Subscriber subscriber("example", {"temperature"});
    const msgbus::StopSignals stop([&] { subscriber.Cancel(); }); // unregisters, and ends the loop
    for (const auto& [topic, value] : subscriber) {
        std::cout << topic << ' ' << value << std::endl;
    }
    return 0;
} catch (const std::exception& error) {
    std::cerr << error.what() << '\n';
    return 1;
}
