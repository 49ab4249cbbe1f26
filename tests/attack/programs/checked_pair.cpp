// The pair that runs beside every attack, as two processes:
//   checked_pair push TOPIC RATE   pushes 0, 1, 2, ... RATE times a second until its standard input ends, then the end
//   mark checked_pair read TOPIC        requires each number once and in order, up to the end mark; then prints how
//   many there
//                                  were, and the longest time between two of them in microseconds
// The end mark is -1 - COUNT. Both print "ready" once they are registered. Exit status 0 if everything was as due.

#include "msgbus/error.h"
#include "msgbus/publisher.h"
#include "msgbus/subscriber.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <iostream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;

/// A push may meet a full queue for as long as an attack lasts.
msgbus::Options PatientOptions() {
    msgbus::Options options;
    options.fullQueueTimeout = std::chrono::minutes(1);
    options.connectTimeout = std::chrono::minutes(1);
    return options;
}

bool HasInputEnded() {
    pollfd input{STDIN_FILENO, POLLIN, 0};
    return ::poll(&input, 1, 0) != 0;
}

void Push(const std::string& topic, std::int64_t rate) {
    msgbus::Publisher publisher(topic, PatientOptions());
    std::cout << "ready" << std::endl;
    const auto pause = std::chrono::nanoseconds(std::chrono::seconds(1)) / rate;
    std::int64_t next = 0;
    for (auto due = Clock::now(); !HasInputEnded();
         due = std::max(due + pause, Clock::now() - std::chrono::seconds(1))) {
        std::this_thread::sleep_until(due);
        publisher.Push(next++);
    }
    publisher.Push(-1 - next);
}

void Read(const std::string& topic) {
    msgbus::Subscriber subscriber("checked", {topic}, PatientOptions());
    std::cout << "ready" << std::endl;
    std::int64_t due = 0;
    Clock::duration longest{0};
    Clock::time_point last{};
    while (true) {
        const auto message = subscriber.Next();
        const auto now = Clock::now();
        if (!message || message->topic != topic) {
            throw std::runtime_error("a wait returned no value of topic '" + topic + "'");
        }
        if (message->value == -1 - due) {
            break;
        }
        if (message->value != due) {
            throw std::runtime_error("got " + std::to_string(message->value) + ", due was " + std::to_string(due));
        }
        longest = due == 0 ? longest : std::max(longest, now - last);
        last = now;
        ++due;
    }
    std::cout << due << ' ' << std::chrono::duration_cast<std::chrono::microseconds>(longest).count() << std::endl;
}

} // namespace

int main(int argc, char** argv) {
    try {
        const std::string_view part = argc > 1 ? argv[1] : "";
        if (part == "push" && argc == 4) {
            Push(argv[2], std::stoll(argv[3]));
        } else if (part == "read" && argc == 3) {
            Read(argv[2]);
        } else {
            throw std::invalid_argument("usage: checked_pair push TOPIC RATE | read TOPIC");
        }
        return 0;
    } catch (const std::exception& error) {
        std::cerr << "checked_pair: " << error.what() << '\n';
        return 1;
    }
}
