// Many client processes at once; each received value is checked:
//   bus_swarm churn CLIENTS    clients register, wait, unregister and register again in random order during publishing
//   bus_swarm wait CLIENTS     all clients wait; a line on standard input starts the push of one value, which each must
//                              receive once; then they wait until the server is gone
//   bus_swarm visit CLIENTS    clients register, receive 100 values each and leave; publishers come and go
// Publishers count up and store in shared memory which value is next: a subscriber that registered before must receive
// that value, and from its first value on each following one. Exit status 0 if every value was received as due.

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

const std::vector<std::string> Topics{"even", "odd", "third"};

/// Returns: the time between values, longer where a sanitizer makes the bus slower.
std::chrono::milliseconds TimeBetweenValues() {
    static const char* const slowness = std::getenv("BORVEN_TEST_SLOWNESS");
    static const std::chrono::milliseconds time(slowness == nullptr ? 1 : std::stoi(slowness));
    return time;
}

/// Memory that all processes share.
struct Shared {
    std::atomic<std::int64_t> next[3]{}; // per topic: the value that is pushed next or now
    std::atomic<bool> ending{false};
};

Shared* MapShared() {
    void* const memory = ::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
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
    const pid_t child = ::fork();
    Require(child >= 0, "cannot fork");
    if (child == 0) {
        int status = 0;
        try {
            body();
        } catch (const std::exception& error) {
            std::cerr << name + ": " + error.what() + "\n";
            status = 1;
        }
        ::_exit(status);
    }
    return child;
}

/// Returns: true when every child exited with status 0.
bool WaitFor(const std::vector<pid_t>& children) {
    bool good = true;
    for (const pid_t child : children) {
        int status = 0;
        good = ::waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0 && good;
    }
    return good;
}

void PublishUntilEnd(Shared& shared, std::size_t topic) {
    msgbus::Publisher publisher(Topics[topic]);
    while (!shared.ending) {
        publisher.Push(shared.next[topic]);
        ++shared.next[topic];
        // While its inbound queue is never empty, the bus registers and unregisters no subscriber.
        std::this_thread::sleep_for(TimeBetweenValues());
    }
}

/// Registers for some topics, takes some values, and unregisters in one of three ways.
void Stay(Shared& shared, std::mt19937& random, const std::string& name) {
    std::vector<std::string> chosen;
    std::map<std::string, std::int64_t> due; // the next value; before the first one its upper bound
    std::map<std::string, bool> begun;
    for (const auto& topic : Topics) {
        if (chosen.empty() || random() % 2 == 0) {
            chosen.push_back(topic);
        }
    }
    msgbus::Subscriber subscriber(name, chosen);
    for (std::size_t topic = 0; topic < Topics.size(); ++topic) {
        due[Topics[topic]] = shared.next[topic] + 1; // `next` itself may be delivered before the registration
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
        Require(takeOne(), "Next returned nothing without a Cancel");
    }
    if (random() % 3 == 0) {
        subscriber.Cancel();
        Require(!takeOne(), "got a value after Cancel");
    } else if (random() % 2 == 0) {
        std::thread canceler([&] { subscriber.Cancel(); });
        while (takeOne()) {
        }
        canceler.join();
    }
}

/// As PublishUntilEnd, by many publishers that follow each other.
void TakeTurnsUntilEnd(Shared& shared, std::size_t topic) {
    constexpr int valuesEach = 20;
    while (!shared.ending) {
        msgbus::Publisher publisher(Topics[topic]);
        for (int count = 0; count < valuesEach; ++count) {
            publisher.Push(shared.next[topic]);
            ++shared.next[topic];
            std::this_thread::sleep_for(TimeBetweenValues());
        }
    }
}

void Visit(Shared& shared, const std::string& name, std::size_t topic) {
    constexpr int values = 100;
    msgbus::Subscriber subscriber(name, {Topics[topic]});
    std::int64_t due = shared.next[topic] + 1; // at most: `next` itself may be delivered before the registration
    for (int count = 0; count < values; ++count) {
        const auto message = subscriber.Next();
        Require(message.has_value(), "Next returned nothing without a Cancel");
        Require(count == 0 ? message->value <= due : message->value == due,
                "got " + std::to_string(message->value) + ", due was " + std::to_string(due));
        due = message->value + 1;
    }
}

bool VisitAll(int clients) {
    Shared& shared = *MapShared();
    std::vector<pid_t> publishers;
    for (std::size_t topic = 0; topic < Topics.size(); ++topic) {
        publishers.push_back(Fork("publishers of " + Topics[topic], [&] { TakeTurnsUntilEnd(shared, topic); }));
    }
    std::vector<pid_t> subscribers;
    for (int number = 0; number < clients; ++number) {
        const std::string name = "client " + std::to_string(number);
        subscribers.push_back(
            Fork(name, [&] { Visit(shared, name, static_cast<std::size_t>(number) % Topics.size()); }));
    }
    const bool subscribersGood = WaitFor(subscribers);
    shared.ending = true;
    return WaitFor(publishers) && subscribersGood;
}

bool Churn(int clients) {
    constexpr int staysEach = 3;
    Shared& shared = *MapShared();
    std::vector<pid_t> publishers;
    for (std::size_t topic = 0; topic < Topics.size(); ++topic) {
        publishers.push_back(Fork("publisher of " + Topics[topic], [&] { PublishUntilEnd(shared, topic); }));
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
    for (std::size_t topic = 0; topic < Topics.size(); ++topic) {
        std::cout << ", " << shared.next[topic] << " values of " << Topics[topic];
    }
    std::cout << std::endl;
    return subscribersGood && publishersGood;
}

/// A pipe through which children report, one byte each.
class Reports final {
public:
    Reports() { Require(::pipe(descriptors) == 0, "no pipe"); }

    void Send(char report) const { Require(::write(descriptors[1], &report, 1) == 1, "cannot report"); }

    void Await(int count, char wanted) const {
        for (int seen = 0; seen < count; ++seen) {
            char report = 0;
            Require(::read(descriptors[0], &report, 1) == 1 && report == wanted, "a client failed");
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
        Require(message && message->value == 42, "got another value");
        reports.Send('v');
        Require(!subscriber.Next(), "got the value twice");
    } catch (const msgbus::ServerGoneError&) { // the expected end
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
        Require(argc == 3, "usage: bus_swarm churn|wait|visit CLIENTS");
        const int clients = std::stoi(argv[2]);
        if (std::string_view(argv[1]) == "churn") {
            return Churn(clients) ? 0 : 1;
        }
        if (std::string_view(argv[1]) == "wait") {
            return WaitAll(clients) ? 0 : 1;
        }
        if (std::string_view(argv[1]) == "visit") {
            return VisitAll(clients) ? 0 : 1;
        }
        throw std::invalid_argument("the mode must be churn, wait or visit");
    } catch (const std::exception& error) {
        std::cerr << "bus_swarm: " << error.what() << '\n';
        return 2;
    }
}
