// Many subscribers in one thread: each has a descriptor that an event loop can wait for. Prints the values of the
// topics that are named on the command line, each by a subscriber of its own.
#include <msgbus/msgbus.h>

#include <sys/epoll.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <iostream>
#include <system_error>
#include <vector>

int main(int argc, char** argv) try {
    if (argc < 2) {
        std::cerr << "usage: " << argv[0] << " TOPIC...\n";
        return 2;
    }
    std::vector<msgbus::Subscriber> subscribers;
    for (int i = 1; i < argc; ++i) {
        subscribers.emplace_back("event-loop", std::vector<std::string>{argv[i]});
    }
    const int epoll = ::epoll_create1(EPOLL_CLOEXEC);
    for (std::size_t i = 0; i < subscribers.size(); ++i) {
        epoll_event event{EPOLLIN, {.u64 = i}};
        if (::epoll_ctl(epoll, EPOLL_CTL_ADD, subscribers[i].Descriptor(), &event) != 0) {
            throw std::system_error(errno, std::generic_category(), "epoll_ctl");
        }
    }
    const msgbus::StopSignals stop([&] {
        for (auto& subscriber : subscribers) {
            subscriber.Cancel(); // its descriptor becomes readable
        }
    });
    std::size_t open = subscribers.size();
    while (open != 0) {
        std::array<epoll_event, 64> events{};
        const int count = ::epoll_wait(epoll, events.data(), events.size(), -1);
        for (int i = 0; i < count; ++i) {
            auto& subscriber = subscribers[events[static_cast<std::size_t>(i)].data.u64];
            auto received = subscriber.TryNext();
            for (; received; received = subscriber.TryNext()) {
                std::cout << received->topic << ' ' << received->value << std::endl;
            }
            if (received.outcome == msgbus::Outcome::Canceled) {
                ::epoll_ctl(epoll, EPOLL_CTL_DEL, subscriber.Descriptor(), nullptr);
                --open;
            }
        }
    }
    ::close(epoll);
    return 0;
} catch (const std::exception& error) {
    std::cerr << error.what() << '\n';
    return 1;
}
