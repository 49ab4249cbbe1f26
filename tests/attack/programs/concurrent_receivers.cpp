// Several threads that receive on one channel, clients that scribble over their pages, and honest ones that require the
// reply to their own request, each with a value of its own: `concurrent_receivers MILLISECONDS`. Prints how many words
// were scribbled, how many calls of the honest clients were answered, and how many connections were ended.

#include "scribbling.h"

#include <iostream>
#include <stdexcept>
#include <vector>

namespace {

constexpr std::size_t Receivers = 4;
constexpr std::size_t Scribblers = 3;
constexpr std::size_t HonestClients = 2;
constexpr std::int64_t ValuesOfAClient = std::int64_t{1} << 40;

/// Returns: how many calls were answered. Throws when one was not, or with another client's reply.
std::int64_t CallHonestly(std::int64_t first, attack::Clock::time_point end) {
    const platform_test::Handle line = platform_test::ConnectStatic();
    std::int64_t value = first;
    for (; attack::Clock::now() < end; ++value) {
        std::int64_t returned = 0;
        if (platform_test::CallWith(line.Get(), value, &returned) != KnStatusOk || returned != value + 1) {
            throw std::runtime_error("call " + std::to_string(value) + " returned " + std::to_string(returned));
        }
    }
    return value - first;
}

} // namespace

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    GTEST_FLAG_SET(throw_on_failure, true); // a join that fails ends the program
    const auto end = attack::Clock::now() + std::chrono::milliseconds(argc > 1 ? std::stoll(argv[1]) : 1000);
    attack::ScribbleCounts counts;
    std::int64_t answered = 0;
    {
        const platform_test::Echoers receivers(ServiceLocatorRegister("line", nullptr, 0, nullptr), Receivers);
        std::vector<std::thread> scribblers;
        for (std::size_t number = 0; number < Scribblers; ++number) {
            scribblers.emplace_back([&, number] { attack::ScribbleOn("static/line", number, end, counts); });
        }
        std::vector<std::future<std::int64_t>> honest;
        for (std::size_t number = 0; number < HonestClients; ++number) {
            const auto first = static_cast<std::int64_t>(number) * ValuesOfAClient;
            honest.push_back(std::async(std::launch::async, [=] { return CallHonestly(first, end); }));
        }
        for (auto& client : honest) {
            answered += client.get();
        }
        for (auto& scribbler : scribblers) {
            scribbler.join();
        }
    }
    std::cout << counts.words << ' ' << answered << ' ' << counts.ended << std::endl;
    return 0;
}
