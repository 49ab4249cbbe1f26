#include "chain.h"

#include <linux/futex.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <new>
#include <span>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <vector>

namespace bench {
namespace {

constexpr std::size_t Places = 1024; // two seconds of values: a process that is not scheduled for a while loses none

/// What one process passes to the next. The sequence word counts the values.
struct alignas(64) Hop {
    std::atomic<std::uint32_t> sequence{0};
    std::array<std::atomic<std::int64_t>, Places> values{};
};

void Futex(std::atomic<std::uint32_t>& word, int operation, std::uint32_t value) {
    ::syscall(SYS_futex, &word, operation, value, nullptr, nullptr, 0);
}

/// Passes value number `number`.
void Pass(Hop& hop, std::uint32_t number, std::int64_t value) {
    hop.values[number % Places].store(value, std::memory_order_relaxed);
    hop.sequence.store(number + 1, std::memory_order_release); // publishes the value
    Futex(hop.sequence, FUTEX_WAKE, 1);
}

/// Returns: value number `number`. Blocks: until it is there.
std::int64_t Receive(Hop& hop, std::uint32_t number) {
    for (auto passed = hop.sequence.load(std::memory_order_acquire); passed <= number;
         passed = hop.sequence.load(std::memory_order_acquire)) {
        Futex(hop.sequence, FUTEX_WAIT, passed);
    }
    return hop.values[number % Places].load(std::memory_order_relaxed);
}

void SendAll(Hop& first, std::uint32_t values, long intervalUs) {
    auto due = std::chrono::steady_clock::now();
    for (std::uint32_t i = 0; i < values; ++i) {
        due += std::chrono::microseconds(intervalUs);
        std::this_thread::sleep_until(due);
        Pass(first, i, NowNs());
    }
}

/// Runs `body` in a child process. Returns: its id.
template <typename Body>
pid_t InChild(Body body) {
    const pid_t child = ::fork();
    if (child < 0) {
        throw std::system_error(errno, std::generic_category(), "fork");
    }
    if (child == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL); // it would wait for ever
        body();
        std::_Exit(0);
    }
    return child;
}

} // namespace

Samples PassThroughChain(std::size_t hops, std::uint32_t values, long intervalUs) {
    if (hops == 0) {
        throw std::invalid_argument("a relay has at least one hop");
    }
    const std::size_t sizeBytes = hops * sizeof(Hop);
    void* const memory =
        ::mmap(nullptr, sizeBytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS | MAP_POPULATE, -1, 0);
    if (memory == MAP_FAILED) {
        throw std::system_error(errno, std::generic_category(), "mmap");
    }
    const auto unmap = [sizeBytes](void* region) { ::munmap(region, sizeBytes); };
    const std::unique_ptr<void, decltype(unmap)> region(memory, unmap);
    const std::span<Hop> chain(new (memory) Hop[hops], hops);

    std::vector<pid_t> children;
    for (std::size_t i = 0; i + 1 < hops; ++i) {
        children.push_back(InChild([&, i] {
            for (std::uint32_t number = 0; number < values; ++number) {
                Pass(chain[i + 1], number, Receive(chain[i], number));
            }
        }));
    }
    children.push_back(InChild([&] { SendAll(chain.front(), values, intervalUs); }));

    Samples samples(values);
    for (std::uint32_t number = 0; number < values; ++number) {
        const auto sentNs = Receive(chain.back(), number);
        samples.Add(NowNs() - sentNs);
    }
    for (const auto child : children) {
        int status = 0;
        if (::waitpid(child, &status, 0) != child || status != 0) {
            throw std::runtime_error("a process of the relay failed");
        }
    }
    return samples;
}

} // namespace bench
