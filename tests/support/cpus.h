#pragma once

#include <gtest/gtest.h>

#include <sched.h>
#include <unistd.h>

#include <chrono>
#include <cstddef>
#include <ostream>
#include <thread>

namespace test_support {

/// A set of CPUs.
struct Cpus {
    cpu_set_t set{};

    /// Those that a thread may use; 0: the calling one.
    static Cpus Of(pid_t thread = 0) {
        Cpus cpus;
        EXPECT_EQ(0, ::sched_getaffinity(thread, sizeof cpus.set, &cpus.set));
        return cpus;
    }

    static Cpus Only(int cpu) {
        Cpus cpus;
        CPU_SET(static_cast<std::size_t>(cpu), &cpus.set);
        return cpus;
    }

    Cpus Without(int cpu) const {
        Cpus cpus = *this;
        CPU_CLR(static_cast<std::size_t>(cpu), &cpus.set);
        return cpus;
    }

    void GiveTo(pid_t thread) const { EXPECT_EQ(0, ::sched_setaffinity(thread, sizeof set, &set)); }

    int Count() const { return CPU_COUNT(&set); }

    bool operator==(const Cpus& other) const { return CPU_EQUAL(&set, &other.set) != 0; }

    friend std::ostream& operator<<(std::ostream& stream, const Cpus& cpus) {
        for (std::size_t cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
            if (CPU_ISSET(cpu, &cpus.set)) {
                stream << cpu << ' ';
            }
        }
        return stream;
    }
};

/// A test that changes the CPUs and the policy of its own thread, and leaves both as they were. It uses CPUs 0 and 1.
class CpusTest : public testing::Test {
protected:
    void SetUp() override {
        if (all.Count() < 2 || all.Count() != ::sysconf(_SC_NPROCESSORS_ONLN)) {
            GTEST_SKIP() << "threads are confined only where they may use every CPU, of two or more";
        }
    }

    ~CpusTest() override {
        constexpr sched_param noPriority{};
        EXPECT_EQ(0, ::sched_setscheduler(0, SCHED_OTHER, &noPriority));
        all.GiveTo(0);
    }

    const Cpus all = Cpus::Of();
};

/// Waits for what another thread does, up to a deadline for hangs. Returns: whether `condition` became true.
template <typename Condition>
bool Await(const Condition& condition) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

} // namespace test_support
