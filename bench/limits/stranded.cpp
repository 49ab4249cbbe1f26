// How often the bus loses a wake-up at the end of a burst. Publishes bursts of acknowledged values at full speed with
// one subscriber, and waits after each burst until all values have arrived. A value that has not arrived within
// `Patience` was left in the inbound queue by a lost wake-up; the first push of the next burst delivers it.
//
//     bench_stranded count --address RUNTIME_DIR --bursts 1000 --values 100
#include "msgbus/publisher.h"
#include "msgbus/subscriber.h"
#include "options.h"

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <new>
#include <stdexcept>
#include <thread>

namespace {

constexpr auto Topic = "burst";
constexpr std::chrono::milliseconds Patience{50};

struct Progress {
    std::atomic<std::int64_t> received; ///< -1 before the subscriber is registered
};

int Receive(Progress& progress, std::int64_t count) {
    msgbus::Subscriber subscriber("stranded", {Topic});
    progress.received = 0;
    for (std::int64_t i = 0; i < count; ++i) {
        if (const auto message = subscriber.Next(); !message || message->value != i) {
            return 1;
        }
        progress.received = i + 1;
    }
    return 0;
}

/// Waits for `count` values. Returns: false when no value arrived for as long as `Patience`.
bool Arrive(const Progress& progress, std::int64_t count) {
    using Clock = std::chrono::steady_clock;
    auto seen = progress.received.load();
    for (auto since = Clock::now(); seen < count; std::this_thread::sleep_for(std::chrono::microseconds(100))) {
        if (const auto now = progress.received.load(); now != seen) {
            seen = now;
            since = Clock::now();
        } else if (Clock::now() - since > Patience) {
            return false;
        }
    }
    return true;
}

} // namespace

int main(int argc, char** argv) {
    try {
        const bench::Options options(argc, argv);
        setenv("BORVEN_RUNTIME_DIR", options.Text("address", "").c_str(), 1);
        const std::int64_t bursts = options.Number("bursts", 1000);
        const std::int64_t values = options.Number("values", 100);

        void* const memory = mmap(nullptr, sizeof(Progress), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED) {
            throw std::bad_alloc();
        }
        auto& progress = *new (memory) Progress{-1};
        const pid_t child = fork();
        if (child == 0) {
            _exit(Receive(progress, bursts * values));
        }
        int status = 0;
        while (progress.received < 0) {
            if (waitpid(child, &status, WNOHANG) != 0) {
                throw std::runtime_error("the subscriber has ended");
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        msgbus::Publisher publisher(Topic);
        std::int64_t pushed = 0;
        std::int64_t stranded = 0;
        for (std::int64_t burst = 0; burst < bursts; ++burst) {
            for (std::int64_t i = 0; i < values; ++i) {
                while (!publisher.TryPush(pushed)) {
                }
                ++pushed;
            }
            stranded += Arrive(progress, pushed) ? 0 : 1;
        }
        // Extra values deliver what the last burst left behind. The subscriber does not wait for them.
        while (!Arrive(progress, pushed)) {
            static_cast<void>(publisher.TryPush(pushed));
        }
        waitpid(child, &status, 0);
        std::cout << R"({"bursts": )" << bursts << R"(, "values": )" << values << R"(, "stranded": )" << stranded
                  << R"(, "inOrder": )" << (status == 0 ? "true" : "false") << "}\n";
        return status == 0 ? 0 : 1;
    } catch (const std::exception& error) {
        std::cerr << "bench_stranded: " << error.what() << '\n';
        return 1;
    }
}
