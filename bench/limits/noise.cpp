// What other guests and other programs take from the CPUs: one thread on each CPU reads the clock without pause, and a
// gap between two readings is time in which the CPU did something else. Prints one JSON object.
//
//   bench_noise spin [--seconds S] [--threshold-us T]
//
// Gaps up to the threshold (default: 20 µs) are not counted: the kernel's own tick takes a few µs.
#include "options.h"
#include "samples.h"

#include <pthread.h>
#include <sched.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <iostream>
#include <stdexcept>
#include <thread>
#include <vector>

namespace {

struct Gaps {
    std::int64_t longestNs = 0;
    std::int64_t lostNs = 0;
    std::int64_t spunNs = 0;
};

bool MoveTo(std::size_t cpu) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(cpu, &set);
    return pthread_setaffinity_np(pthread_self(), sizeof(set), &set) == 0;
}

Gaps Spin(std::int64_t durationNs, std::int64_t thresholdNs) {
    Gaps gaps;
    const auto startNs = bench::NowNs();
    for (auto before = startNs; gaps.spunNs < durationNs; gaps.spunNs = before - startNs) {
        const auto now = bench::NowNs();
        const auto gap = now - before;
        before = now;
        if (gap > thresholdNs) {
            gaps.longestNs = std::max(gaps.longestNs, gap);
            gaps.lostNs += gap;
        }
    }
    return gaps;
}

std::vector<std::size_t> Cpus() {
    cpu_set_t set;
    if (sched_getaffinity(0, sizeof(set), &set) != 0) {
        throw std::runtime_error("cannot read the set of CPUs");
    }
    std::vector<std::size_t> cpus;
    for (std::size_t cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
        if (CPU_ISSET(cpu, &set)) {
            cpus.push_back(cpu);
        }
    }
    return cpus;
}

} // namespace

int main(int argc, char** argv) {
    try {
        const bench::Options options(argc, argv);
        if (options.Verb() != "spin") {
            std::fprintf(stderr, "usage: %s spin [--seconds S] [--threshold-us T]\n", program_invocation_short_name);
            return 1;
        }
        const auto durationNs = static_cast<std::int64_t>(options.Real("seconds", 0.1) * 1e9);
        const auto thresholdNs = static_cast<std::int64_t>(options.Number("threshold-us", 20)) * 1000;
        const auto cpus = Cpus();
        std::vector<Gaps> all(cpus.size());
        {
            std::vector<std::jthread> threads;
            for (std::size_t i = 0; i < cpus.size(); ++i) {
                threads.emplace_back([&, i] {
                    if (MoveTo(cpus[i])) {
                        all[i] = Spin(durationNs, thresholdNs);
                    }
                });
            }
        }
        Gaps total;
        for (const auto& gaps : all) {
            total.longestNs = std::max(total.longestNs, gaps.longestNs);
            total.lostNs += gaps.lostNs;
            total.spunNs += gaps.spunNs;
        }
        if (total.spunNs == 0) {
            throw std::runtime_error("no thread could move to its CPU");
        }
        std::cout << R"({"longestNs":)" << total.longestNs << ",\"lostNs\":" << total.lostNs
                  << ",\"spunNs\":" << total.spunNs << "}" << std::endl;
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s: %s\n", program_invocation_short_name, error.what());
        return 1;
    }
}
