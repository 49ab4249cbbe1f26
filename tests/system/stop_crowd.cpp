// Clients for a server to stop under: `stop_crowd WAITING REGISTERED PUBLISHERS` has so many subscribers that wait, as
// many more that are registered only, and publishers that push without a pause, on a topic that the former take. It
// prints "ready" when all are at work, and ends when the server is gone. Exit status 0 if it told every client so.

#include "br_MessageBus_client.h"
#include "connect.h"
#include "kn/handle.h"
#include "msgbus/error.h"
#include "msgbus/options.h"
#include "msgbus/publisher.h"
#include "msgbus/subscriber.h"

#include <sys/resource.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <iostream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr auto FloodedTopic = "flood-0";

std::atomic<int> startedCount{0};
std::atomic<int> failedCount{0};

void RaiseDescriptorLimit() {
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
}

/// A thousand threads that all have something to do, with a sanitizer, keep a request waiting for seconds. What is
/// tested is the stop.
msgbus::Options Patient() {
    msgbus::Options options;
    options.callTimeout = std::chrono::minutes(1);
    return options;
}

void WaitUntilTheEnd(int number) {
    msgbus::Subscriber subscriber("waiting " + std::to_string(number), {FloodedTopic}, Patient());
    ++startedCount;
    while (subscriber.Next()) {
    }
}

void PushUntilTheEnd(int number) {
    msgbus::Publisher publisher("flood-" + std::to_string(number), Patient());
    ++startedCount;
    for (std::int64_t value = 0;; ++value) {
        static_cast<void>(publisher.TryPush(value));
    }
}

/// Registers subscribers of a topic without values, over one connection.
void Register(int count) {
    auto ctl = test_support::Connect(br_MessageBusComponent_ctl_service);
    for (int number = 0; number < count; ++number) {
        std::int64_t registration = -1;
        std::int64_t subscriber = -1;
        if (br_MessageBusCtl_StartSubs_call(&ctl, "registered", registration) != 0 ||
            br_MessageBusCtl_Subscribe_call(&ctl, registration, "idle") != 0 ||
            br_MessageBusCtl_FinishSubs_call(&ctl, registration, 1, subscriber) != 0) {
            throw std::runtime_error("cannot register");
        }
    }
    KnHandleClose(ctl.handle);
}

/// Runs `body`, which ends with the server.
void RunClient(const std::function<void()>& body) {
    try {
        body();
    } catch (const msgbus::ServerGoneError&) { // the expected ends
    } catch (const msgbus::RefusedError&) {
    } catch (const std::exception& error) {
        std::cerr << std::string("stop_crowd: ") + error.what() + "\n";
        ++failedCount;
        ++startedCount;
    }
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::cerr << "usage: stop_crowd WAITING REGISTERED PUBLISHERS\n";
        return 2;
    }
    const int waiting = std::atoi(argv[1]);
    const int publishers = std::atoi(argv[3]);
    RaiseDescriptorLimit();
    RunClient([&] { Register(std::atoi(argv[2])); });
    startedCount = 0;
    std::vector<std::thread> clients;
    const auto start = [&clients](void (*body)(int), int count) {
        for (int number = 0; number < count; ++number) {
            const int before = startedCount;
            clients.emplace_back([=] { RunClient([=] { body(number); }); });
            while (startedCount == before) { // a server lets a limited number wait to be accepted
                std::this_thread::yield();
            }
        }
    };
    start(WaitUntilTheEnd, waiting);
    start(PushUntilTheEnd, publishers);
    std::cout << "ready" << std::endl;
    for (auto& client : clients) {
        client.join();
    }
    return failedCount == 0 ? 0 : 1;
}
