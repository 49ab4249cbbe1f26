// The limits of the machine: round trips of a record between two processes over a socket pair and over shared memory,
// a cache line's way from one CPU to another and back, a value through a chain of processes, and the cost of a thread.
// Every record is checked. Prints one JSON object.
//
//   bench_limits seqpacket|shared-spin|shared-sleep|thread [--seconds S] [--apart 1]
//   bench_limits cache-line [--seconds S]
//   bench_limits relay [--hops N] [--values N] [--interval-us US]
//
// `--apart 1` puts the two processes on CPUs 0 and 1; without it the scheduler may run both on one. The two of
// `cache-line` are always apart.

#include "chain.h"
#include "options.h"
#include "samples.h"

#include <linux/futex.h>
#include <pthread.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iostream>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <system_error>

namespace {

using bench::NowNs;
using bench::Samples;

constexpr std::size_t RecordSizeBytes = 1056;
constexpr std::size_t ThreadStackBytes = std::size_t{1} << 20;
constexpr std::uint64_t LastRecord = UINT64_MAX;

/// As large as a request or response record of the bus. The number makes every record different.
struct Record {
    std::uint64_t number = 0;
    std::array<std::byte, RecordSizeBytes - sizeof(std::uint64_t)> rest{};
};
static_assert(sizeof(Record) == RecordSizeBytes);

[[noreturn]] void Fail(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

/// One end of a bidirectional channel of records.
class ILine {
public:
    virtual ~ILine() = default;
    virtual void Send(const Record& record) = 0;
    virtual void Receive(Record& record) = 0;
};

class SocketLine final : public ILine {
public:
    explicit SocketLine(int socketDescriptor) : descriptor(socketDescriptor) {}

    void Send(const Record& record) override {
        if (send(descriptor, &record, sizeof(record), MSG_NOSIGNAL) != sizeof(record)) {
            Fail("send");
        }
    }
    void Receive(Record& record) override {
        if (recv(descriptor, &record, sizeof(record), 0) != sizeof(record)) {
            Fail("recv");
        }
    }

private:
    const int descriptor;
};

/// One direction in shared memory. The sequence word counts the records. Each direction has its own cache lines.
struct alignas(64) Cell {
    std::atomic<std::uint32_t> sequence{0};
    alignas(64) Record record;
};
struct Region {
    Cell there;
    Cell back;
};

enum class Waiting { Spin, Sleep };

class SharedLine final : public ILine {
public:
    SharedLine(Cell& sendTo, Cell& receiveFrom, Waiting how) : out(sendTo), in(receiveFrom), waiting(how) {}

    void Send(const Record& record) override {
        out.record = record;
        out.sequence.fetch_add(1, std::memory_order_release);
        if (waiting == Waiting::Sleep) {
            Futex(out.sequence, FUTEX_WAKE, 1);
        }
    }
    void Receive(Record& record) override {
        std::uint32_t now = 0;
        while ((now = in.sequence.load(std::memory_order_acquire)) == seen) {
            if (waiting == Waiting::Sleep) {
                Futex(in.sequence, FUTEX_WAIT, seen);
            } else {
                __builtin_ia32_pause();
            }
        }
        seen = now;
        record = in.record;
    }

private:
    static void Futex(std::atomic<std::uint32_t>& word, int operation, std::uint32_t value) {
        syscall(SYS_futex, &word, operation, value, nullptr, nullptr, 0);
    }

    Cell& out;
    Cell& in;
    const Waiting waiting;
    std::uint32_t seen = 0;
};

void Echo(ILine& line) {
    Record record;
    do {
        line.Receive(record);
        line.Send(record);
    } while (record.number != LastRecord);
}

Samples PingPong(ILine& line, double seconds) {
    constexpr std::uint64_t warmUp = 1000;
    Samples samples(4'000'000);
    Record request;
    Record answer;
    const auto roundTrip = [&] {
        line.Send(request);
        line.Receive(answer);
        if (answer.number != request.number) {
            throw std::runtime_error("a record came back changed");
        }
        ++request.number;
    };
    while (request.number < warmUp) {
        roundTrip();
    }
    const auto startNs = NowNs();
    for (auto before = startNs; before - startNs < static_cast<std::int64_t>(seconds * 1e9);) {
        roundTrip();
        const auto after = NowNs();
        samples.Add(after - before);
        before = after;
    }
    request.number = LastRecord;
    line.Send(request);
    line.Receive(answer);
    return samples;
}

enum class Placement { Scheduler, Apart };

void RunOnCpu(std::size_t cpu) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(cpu, &set);
    if (sched_setaffinity(0, sizeof(set), &set) != 0) {
        Fail("sched_setaffinity");
    }
}

/// Runs `body` in a child process while `work` runs here.
template <typename Work>
Samples WithChild(Placement placement, const std::function<void()>& body, Work work) {
    if (placement == Placement::Apart) {
        RunOnCpu(1); // here first: a child that fails is not noticed
        RunOnCpu(0);
    }
    const pid_t child = fork();
    if (child < 0) {
        Fail("fork");
    }
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL); // it may spin, and would do so for ever
        if (placement == Placement::Apart) {
            RunOnCpu(1);
        }
        body();
        std::_Exit(0);
    }
    auto samples = work();
    if (waitpid(child, nullptr, 0) != child) {
        Fail("waitpid");
    }
    return samples;
}

Samples Seqpacket(Placement placement, double seconds) {
    std::array<int, 2> ends{};
    if (socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends.data()) != 0) {
        Fail("socketpair");
    }
    SocketLine here(ends[0]);
    SocketLine there(ends[1]);
    return WithChild(
        placement, [&] { Echo(there); }, [&] { return PingPong(here, seconds); });
}

/// Returns: an object that this process and the children that it makes later share.
template <typename Object>
auto MakeShared() {
    void* const memory =
        mmap(nullptr, sizeof(Object), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS | MAP_POPULATE, -1, 0);
    if (memory == MAP_FAILED) {
        Fail("mmap");
    }
    const auto unmap = [](Object* object) { munmap(object, sizeof(Object)); };
    return std::unique_ptr<Object, decltype(unmap)>(new (memory) Object, unmap);
}

Samples SharedMemory(Waiting waiting, Placement placement, double seconds) {
    const auto region = MakeShared<Region>();
    SharedLine here(region->there, region->back, waiting);
    SharedLine there(region->back, region->there, waiting);
    return WithChild(
        placement, [&] { Echo(there); }, [&] { return PingPong(here, seconds); });
}

/// A word that two processes write in turn: what one cache line costs, without a record.
Samples CacheLine(double seconds) {
    constexpr std::uint32_t tripsPerSample = 100; // reading the clock costs as much as a trip between close CPUs
    constexpr std::uint32_t last = UINT32_MAX;
    const auto word = MakeShared<std::atomic<std::uint32_t>>();
    const auto echo = [&] {
        for (std::uint32_t awaited = 1;; awaited += 2) {
            std::uint32_t now = 0;
            while ((now = word->load(std::memory_order_acquire)) != awaited) {
                if (now == last) {
                    return;
                }
            }
            word->store(awaited + 1, std::memory_order_release);
        }
    };
    return WithChild(Placement::Apart, echo, [&] {
        Samples samples(1'000'000);
        const auto endNs = NowNs() + static_cast<std::int64_t>(seconds * 1e9);
        std::uint32_t number = 0;
        for (auto before = NowNs(); before < endNs && number < last - 2 * tripsPerSample;) {
            for (std::uint32_t trip = 0; trip < tripsPerSample; ++trip) {
                word->store(++number, std::memory_order_release);
                ++number;
                while (word->load(std::memory_order_acquire) != number) {
                }
            }
            const auto after = NowNs();
            samples.Add((after - before) / tripsPerSample);
            before = after;
        }
        word->store(last, std::memory_order_release);
        return samples;
    });
}

/// Creates and joins threads with the stack size of a worker of the bus.
Samples ThreadHandOver(double seconds) {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, ThreadStackBytes);
    Samples samples(1'000'000);
    const auto startNs = NowNs();
    for (auto before = startNs; before - startNs < static_cast<std::int64_t>(seconds * 1e9);) {
        pthread_t thread{};
        errno = pthread_create(
            &thread, &attributes, [](void*) -> void* { return nullptr; }, nullptr);
        if (errno != 0) {
            Fail("pthread_create");
        }
        pthread_join(thread, nullptr);
        const auto after = NowNs();
        samples.Add(after - before);
        before = after;
    }
    pthread_attr_destroy(&attributes);
    return samples;
}

Samples Measure(const bench::Options& options) {
    const auto& what = options.Verb();
    const auto placement = options.Number("apart", 0) != 0 ? Placement::Apart : Placement::Scheduler;
    const auto seconds = options.Real("seconds", 1);
    if (what == "relay") {
        return bench::PassThroughChain(static_cast<std::size_t>(options.Number("hops", 3)),
                                       static_cast<std::uint32_t>(options.Number("values", 500)),
                                       options.Number("interval-us", 2000));
    }
    if (what == "seqpacket") {
        return Seqpacket(placement, seconds);
    }
    if (what == "shared-spin") {
        return SharedMemory(Waiting::Spin, placement, seconds);
    }
    if (what == "shared-sleep") {
        return SharedMemory(Waiting::Sleep, placement, seconds);
    }
    if (what == "cache-line") {
        return CacheLine(seconds);
    }
    if (what == "thread") {
        return ThreadHandOver(seconds);
    }
    throw std::invalid_argument("unknown measure '" + what + "'");
}

} // namespace

int main(int argc, char** argv) {
    try {
        auto samples = Measure(bench::Options(argc, argv));
        std::cout << "{\"count\":" << samples.Count() << "," << samples.Json() << "}" << std::endl;
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s: %s\n", program_invocation_short_name, error.what());
        return 1;
    }
}
