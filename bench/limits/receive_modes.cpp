// How fast one program receives, by the way it waits:
//
//     receive_modes next|descriptor SUBSCRIBERS VALUES
//
// next: a thread for each subscriber, blocked in Next. descriptor: one thread with one epoll instance for all of them.
// A child process pushes VALUES values to one topic. Prints the deliveries per second, from the first to the last.

#include "msgbus/msgbus.h"

#include <sys/epoll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* Topic = "modes";

/// Throws unless the values come once and in order.
class Count final {
public:
    explicit Count(std::int64_t values) : last(values) {}

    /// Returns: whether it was the last one.
    bool Take(std::int64_t value) {
        if (value != next++) {
            throw std::runtime_error("a value is missing");
        }
        return next == last;
    }

private:
    std::int64_t next = 0;
    std::int64_t last;
};

Clock::time_point ReceiveByThreads(std::vector<msgbus::Subscriber>& subscribers, std::int64_t values) {
    std::atomic<Clock::rep> first{0};
    std::vector<std::thread> threads;
    for (auto& subscriber : subscribers) {
        threads.emplace_back([&] {
            Count count(values);
            bool isLast = count.Take(subscriber.Next()->value);
            Clock::rep unset = 0;
            first.compare_exchange_strong(unset, Clock::now().time_since_epoch().count());
            while (!isLast) {
                isLast = count.Take(subscriber.Next()->value);
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    return Clock::time_point(Clock::duration(first.load()));
}

Clock::time_point ReceiveByDescriptors(std::vector<msgbus::Subscriber>& subscribers, std::int64_t values) {
    const int epoll = ::epoll_create1(EPOLL_CLOEXEC);
    for (std::size_t i = 0; i < subscribers.size(); ++i) {
        epoll_event event{EPOLLIN, {.u64 = i}};
        ::epoll_ctl(epoll, EPOLL_CTL_ADD, subscribers[i].Descriptor(), &event);
    }
    std::vector<Count> counts(subscribers.size(), Count(values));
    Clock::time_point first{};
    std::size_t open = subscribers.size();
    while (open != 0) {
        std::array<epoll_event, 64> events{};
        const int ready = ::epoll_wait(epoll, events.data(), events.size(), -1);
        for (int i = 0; i < ready; ++i) {
            const auto which = events[static_cast<std::size_t>(i)].data.u64;
            while (const auto received = subscribers[which].TryNext()) {
                if (first == Clock::time_point{}) {
                    first = Clock::now();
                }
                open -= counts[which].Take(received->value) ? 1 : 0;
            }
        }
    }
    ::close(epoll);
    return first;
}

} // namespace

int main(int argc, char** argv) try {
    if (argc != 4) {
        throw std::invalid_argument("usage: receive_modes next|descriptor SUBSCRIBERS VALUES");
    }
    const std::string mode = argv[1];
    const auto values = static_cast<std::int64_t>(std::atoll(argv[3]));
    std::array<int, 2> go{};
    if (::pipe(go.data()) != 0) {
        throw std::runtime_error("no pipe");
    }
    const pid_t child = ::fork();
    if (child == 0) {
        char byte = 0;
        if (::read(go[0], &byte, 1) == 1) {
            msgbus::Publisher publisher(Topic);
            for (std::int64_t value = 0; value < values; ++value) {
                publisher.Push(value);
            }
        }
        ::_exit(0);
    }
    std::vector<msgbus::Subscriber> subscribers;
    for (int i = 0; i < std::atoi(argv[2]); ++i) {
        subscribers.emplace_back("modes", std::vector<std::string>{Topic});
    }
    if (::write(go[1], "x", 1) != 1) {
        throw std::runtime_error("no publisher");
    }
    const auto first =
        mode == "next" ? ReceiveByThreads(subscribers, values) : ReceiveByDescriptors(subscribers, values);
    const std::chrono::duration<double> took = Clock::now() - first;
    ::waitpid(child, nullptr, 0);
    std::printf("%.0f\n", static_cast<double>(values) * static_cast<double>(subscribers.size()) / took.count());
    return 0;
} catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
}
