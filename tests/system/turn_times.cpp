// How long one client waits for its turns: `turn_times push|register RATE SECONDS` makes so many calls a second and
// prints their number and the median, the 99th percentile and the longest of their times in microseconds. With RATE 0
// it makes as many as it can. register: a subscriber with one topic, and its unregistration; the time is that of each
// of the two.

#include "br_MessageBus_client.h"
#include "connect.h"
#include "msgbus/publisher.h"
#include "nk/transport.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <functional>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace {

using test_support::Connect;

using Clock = std::chrono::steady_clock;

/// Registers and unregisters in turns.
class Registrations final {
public:
    void Call() {
        if (id != -1) {
            Require(br_MessageBusCtl_UnregisterSubscriber_call(&ctl, std::exchange(id, -1)));
            return;
        }
        std::int64_t handshake = -1;
        Require(br_MessageBusCtl_StartSubs_call(&ctl, "turn", handshake));
        Require(br_MessageBusCtl_Subscribe_call(&ctl, handshake, "turn"));
        Require(br_MessageBusCtl_FinishSubs_call(&ctl, handshake, 1, id));
    }

private:
    static void Require(std::int32_t status) {
        if (status != 0) {
            throw std::runtime_error("a call failed: " + std::to_string(status));
        }
    }

    NkBosTransport ctl = Connect(br_MessageBusComponent_ctl_service);
    std::int64_t id = -1;
};

std::vector<double> Times(const std::function<void()>& call, int rate, int seconds) {
    const std::chrono::nanoseconds period(rate == 0 ? 0 : 1'000'000'000 / rate);
    std::vector<double> times;
    auto next = Clock::now();
    const auto end = next + std::chrono::seconds(seconds);
    while (Clock::now() < end) {
        next += period;
        std::this_thread::sleep_until(next);
        const auto before = Clock::now();
        call();
        times.push_back(std::chrono::duration<double, std::micro>(Clock::now() - before).count());
    }
    std::sort(times.begin(), times.end());
    return times;
}

} // namespace

int main(int argc, char** argv) {
    try {
        if (argc != 4) {
            throw std::runtime_error("usage: turn_times push|register RATE SECONDS");
        }
        std::function<void()> call;
        if (std::string_view(argv[1]) == "push") {
            const auto publisher =
                std::make_shared<msgbus::Publisher>("turns-" + std::to_string(::getpid()), msgbus::Options{});
            call = [publisher] { publisher->Push(1); };
        } else {
            call = [registrations = std::make_shared<Registrations>()] { registrations->Call(); };
        }
        const auto times = Times(call, std::stoi(argv[2]), std::stoi(argv[3]));
        const auto at = [&](double share) {
            return times[static_cast<std::size_t>(share * static_cast<double>(times.size() - 1))];
        };
        std::cout << times.size() << ' ' << at(0.5) << ' ' << at(0.99) << ' ' << times.back() << std::endl;
        return 0;
    } catch (const std::exception& error) {
        std::cerr << "turn_times: " << error.what() << '\n';
        return 1;
    }
}
