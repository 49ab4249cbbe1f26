// Clients of topic "t" that are killed at random moments: `dying_waiters own|shared DEATHS`. Each has a subscriber of
// its own, or they share a few, which are unregistered at the end: for a server without ownership. Exit status 0 when
// no client failed by itself.

#include "br_MessageBus_client.h"
#include "connect.h"
#include "nk/transport.h"

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <functional>
#include <iostream>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>

namespace {

using test_support::Connect;

constexpr std::size_t SubscriberCount = 3;
constexpr std::size_t AliveCount = 6; // so that dead and living clients wait with the same id
constexpr unsigned LongestPauseUs = 1500;

using SubscriberIds = std::array<std::int64_t, SubscriberCount>;

void Require(bool condition, const std::string& what) {
    if (!condition) {
        throw std::runtime_error(what);
    }
}

/// Runs `body` in a process of its own: the parent has no connection that its children could inherit.
pid_t Fork(const std::function<void()>& body) {
    const pid_t child = ::fork();
    Require(child >= 0, "cannot fork");
    if (child == 0) {
        int status = 0;
        try {
            body();
        } catch (const std::exception& error) {
            std::cerr << std::string("dying_waiters: ") + error.what() + "\n";
            status = 1;
        }
        ::_exit(status);
    }
    return child;
}

void RunToItsEnd(const std::function<void()>& body) {
    const pid_t child = Fork(body);
    int status = 0;
    Require(::waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0, "a step failed");
}

std::int64_t Register(NkBosTransport& ctl) {
    std::int64_t registration = -1;
    std::int64_t id = -1;
    Require(br_MessageBusCtl_StartSubs_call(&ctl, "victim", registration) == 0 &&
                br_MessageBusCtl_Subscribe_call(&ctl, registration, "t") == 0 &&
                br_MessageBusCtl_FinishSubs_call(&ctl, registration, 1, id) == 0,
            "cannot register");
    return id;
}

void Register(SubscriberIds& ids) {
    auto ctl = Connect(br_MessageBusComponent_ctl_service);
    for (auto& id : ids) {
        id = Register(ctl);
    }
}

void Unregister(const SubscriberIds& ids) {
    auto ctl = Connect(br_MessageBusComponent_ctl_service);
    for (const auto id : ids) {
        Require(br_MessageBusCtl_UnregisterSubscriber_call(&ctl, id) == 0, "cannot unregister");
    }
}

void WaitForEver(std::int64_t id) {
    auto subs = Connect(br_MessageBusComponent_subs_service);
    std::string topic;
    std::int64_t value = 0;
    while (true) {
        const std::int32_t status = br_MessageBusSubs_Wait_call(&subs, id, topic, value);
        Require(status == 0 && topic == "t", "a wait failed: " + std::to_string(status));
    }
}

void Kill(pid_t client) {
    int status = 0;
    ::kill(client, SIGKILL);
    Require(::waitpid(client, &status, 0) == client && WIFSIGNALED(status), "a client ended by itself");
}

void RegisterAndWaitForEver() {
    auto ctl = Connect(br_MessageBusComponent_ctl_service);
    WaitForEver(Register(ctl));
}

void Run(bool isShared, int deaths) {
    void* const memory = ::mmap(nullptr, sizeof(SubscriberIds), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1,
                                0); // filled by a child
    Require(memory != MAP_FAILED, "no shared memory");
    auto& ids = *new (memory) SubscriberIds{};
    if (isShared) {
        RunToItsEnd([&] { Register(ids); });
    }
    std::minstd_rand random(static_cast<unsigned>(deaths));
    std::array<pid_t, AliveCount> alive{};
    const auto start = [&](std::size_t place) {
        alive[place] =
            isShared ? Fork([&] { WaitForEver(ids[place % SubscriberCount]); }) : Fork(RegisterAndWaitForEver);
    };
    for (std::size_t place = 0; place < AliveCount; ++place) {
        start(place);
    }
    for (int death = 0; death < deaths; ++death) {
        std::this_thread::sleep_for(std::chrono::microseconds(random() % LongestPauseUs));
        const std::size_t place = random() % AliveCount;
        Kill(alive[place]);
        start(place);
    }
    for (const pid_t client : alive) {
        Kill(client);
    }
    if (isShared) {
        RunToItsEnd([&] { Unregister(ids); });
    }
}

} // namespace

int main(int argc, char** argv) {
    try {
        Require(argc == 3, "usage: dying_waiters own|shared DEATHS");
        Run(std::string_view(argv[1]) == "shared", std::stoi(argv[2]));
        return 0;
    } catch (const std::exception& error) {
        std::cerr << "dying_waiters: " << error.what() << '\n';
        return 1;
    }
}
