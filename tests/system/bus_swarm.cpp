// Many client processes at once, and the account of every value:
//   bus_swarm churn CLIENTS    clients register, wait, leave and come again in random order while values flow
//   bus_swarm wait CLIENTS     all wait, and after a line on standard input one value is pushed, which each must get
//   once;
//                              then they wait until the server is gone
// Publishers count up and tell in shared memory which value comes next: a subscriber that registered earlier must get
// that one, and from its first value on each following one. Ends with status 0 when all is accounted for.

#include "msgbus/error.h"
#include "msgbus/publisher.h"
#include "msgbus/subscriber.h"

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <map>
#include <new>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace {

const std::vector<std::string> topics{"even", "odd", "third"};
constexpr std::chrono::milliseconds timeBetweenValues{1};

/// What the processes share.
struct Shared {
    std::atomic<std::int64_t> next[3]{}; // per topic: the value that is pushed next, or just now
    std::atomic<bool> ending{false};
};

Shared* MapShared() {
    void* const memory = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        throw std::runtime_error("no shared memory");
    }
    return new (memory) Shared;
}

void Require(bool condition, const std::string& what) {
    if (!condition) {
        throw std::runtime_error(what);
    }
}

pid_t Fork(const std::string& name, const std::function<void()>& body) {
    const pid_t child = fork();
    Require(child >= 0, "cannot fork");
    if (child == 0) {
        int status = 0;
        try {
            body();
        } catch (const std::exception& error) {
            std::cerr << name + ": " + error.what() + "\n";
            status = 1;
        }
        _exit(status);
    }
    return child;
}

/// Returns: true when every one of them ended well.
bool WaitFor(const std::vector<pid_t>& children) {
    bool good = true;
    for (const pid_t child : children) {
        int status = 0;
        good = waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0 && good;
    }
    return good;
}

void PublishUntilEnd(Shared& shared, std::size_t topic) {
    msgbus::Publisher publisher(topics[topic]);
    while (!shared.ending) {
        publisher.Push(shared.next[topic]);
        ++shared.next[topic];
        // While its inbound queue never runs empty, the bus lets nobody come or go.
        std::this_thread::sleep_for(timeBetweenValues);
    }
}

/// One stay on the bus: registers for some topics, takes some values, leaves in one of three ways.
void Stay(Shared& shared, std::mt19937& random, const std::string& name) {
    std::vector<std::string> chosen;
    std::map<std::string, std::int64_t> due; // nothing yet: the upper bound of the first value; later: the next value
    std::map<std::string, bool> begun;
    for (const auto& topic : topics) {
        if (chosen.empty() || random() % 2 == 0) {
            chosen.push_back(topic);
        }
    }
    msgbus::Subscriber subscriber(name, chosen);
    for (std::size_t topic = 0; topic < topics.size(); ++topic) {
        due[topics[topic]] = shared.next[topic] + 1; // the one that is told may have left before the registration
    }
    const auto takeOne = [&] {
        const auto message = subscriber.Next();
        if (!message) {
            return false;
        }
        auto& expected = due.at(message->topic);
        auto& hasBegun = begun[message->topic];
        Require(hasBegun ? message->value == expected : message->value <= expected,
                "topic " + message->topic + ": got " + std::to_string(message->value) + ", due was " +
                    (hasBegun ? "" : "at most ") + std::to_string(expected));
        hasBegun = true;
        expected = message->value + 1;
        return true;
    };
    const auto count = random() % 20;
    for (unsigned taken = 0; taken < count; ++taken) {
        Require(takeOne(), "canceled by nobody");
    }
    if (random() % 3 == 0) {
        subscriber.Cancel();
        Require(!takeOne(), "got a value after leaving");
    } else if (random() % 2 == 0) {
        std::thread canceler([&] { subscriber.Cancel(); });
        while (takeOne()) {
        }
        canceler.join();
    }
}

bool Churn(int clients) {
    constexpr int staysEach = 3;
    Shared& shared = *MapShared();
    std::vector<pid_t> publishers;
    for (std::size_t topic = 0; topic < topics.size(); ++topic) {
        publishers.push_back(Fork("publisher of " + topics[topic], [&] { PublishUntilEnd(shared, topic); }));
    }
    std::vector<pid_t> subscribers;
    for (int number = 0; number < clients; ++number) {
        const std::string name = "client " + std::to_string(number);
        subscribers.push_back(Fork(name, [&] {
            std::mt19937 random(static_cast<unsigned>(number));
            for (int stay = 0; stay < staysEach; ++stay) {
                Stay(shared, random, name);
            }
        }));
    }
    const bool subscribersGood = WaitFor(subscribers);
    shared.ending = true;
    const bool publishersGood = WaitFor(publishers);
    std::cout << clients << " clients, " << clients * staysEach << " stays";
    for (std::size_t topic = 0; topic < topics.size(); ++topic) {
        std::cout << ", " << shared.next[topic] << " values of " << topics[topic];
    }
    std::cout << std::endl;
    return subscribersGood && publishersGood;
}

/// A pipe on which children report one byte each.
class Reports final {
public:
    Reports() { Require(pipe(descriptors) == 0, "no pipe"); }

    void Send(char report) const { Require(write(descriptors[1], &report, 1) == 1, "cannot report"); }

    void Await(int count, char wanted) const {
        for (int seen = 0; seen < count; ++seen) {
            char report = 0;
            Require(read(descriptors[0], &report, 1) == 1 && report == wanted, "a client failed");
        }
    }

private:
    int descriptors[2]{};
};

void WaitOnce(const Reports& reports) {
    try {
        msgbus::Subscriber subscriber("waiter", {"once"});
        reports.Send('r');
        const auto message = subscriber.Next();
        Require(message && message->value == 42, "got something else");
        reports.Send('v');
        Require(!subscriber.Next(), "got the value twice");
    } catch (const msgbus::ServerGoneError&) { // how it shall end
    } catch (const std::exception&) {
        reports.Send('x');
        throw;
    }
}

bool WaitAll(int clients) {
    const Reports reports;
    std::vector<pid_t> subscribers;
    for (int number = 0; number < clients; ++number) {
        subscribers.push_back(Fork("client " + std::to_string(number), [&] { WaitOnce(reports); }));
    }
    reports.Await(clients, 'r');
    std::cout << "registered" << std::endl;
    std::cin.get();
    msgbus::Publisher("once").Push(42);
    reports.Await(clients, 'v');
    std::cout << "received" << std::endl;
    return WaitFor(subscribers);
}

} // namespace

int main(int argc, char** argv) {
    try {
        Require(argc == 3, "usage: bus_swarm churn|wait CLIENTS");
        const int clients = std::stoi(argv[2]);
        if (std::string_view(argv[1]) == "churn") {
            return Churn(clients) ? 0 : 1;
        }
        if (std::string_view(argv[1]) == "wait") {
            return WaitAll(clients) ? 0 : 1;
        }
        throw std::invalid_argument("want churn or wait");
    } catch (const std::exception& error) {
        std::cerr << "bus_swarm: " << error.what() << '\n';
        return 2;
    }
}
