#include "instruments/read_account.h"

#include "instruments/account_layout.h"
#include "process_state.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

namespace instruments {

namespace {

using layout::Counter;
using layout::Header;
using layout::Region;

constexpr Nanoseconds Second = 1'000'000'000;

Nanoseconds Now() {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * Second + now.tv_nsec;
}

std::uint64_t Load(const Counter& counter) {
    return counter.load(std::memory_order_acquire);
}

template <std::size_t Size>
std::string TextIn(const std::array<char, Size>& bytes) {
    return {bytes.data(), ::strnlen(bytes.data(), Size)};
}

Process ProcessOf(const layout::Program& program) {
    return {static_cast<std::int32_t>(program.pid), program.startTime, TextIn(program.name)};
}

/// Repeats `attempt` until it has met one moment. What changes all the time leaves gaps of many times what an attempt
/// takes.
template <typename Attempt>
void AtOneMoment(const Attempt& attempt) {
    for (unsigned tries = 1; !attempt(); ++tries) {
        constexpr unsigned patience = 64;
        if (tries % patience == 0) {
            ::sched_yield();
        }
    }
}

/// Returns: how often it had happened at the beginning of a second.
std::uint64_t CountAt(const layout::RateHistory& history, std::int64_t second, std::uint64_t present) {
    const auto last = history.second.load(std::memory_order_acquire);
    return second > last ? present : Load(history.counts[static_cast<std::size_t>(second) % history.counts.size()]);
}

Rates RatesOf(const layout::RateHistory& history, std::uint64_t present, std::uint64_t base, Nanoseconds since,
              Nanoseconds now) {
    const std::int64_t second = now / Second;
    const auto last = history.second.load(std::memory_order_acquire);
    const auto over = [&](std::int64_t seconds) {
        const std::int64_t oldest =
            std::max(second, last) - static_cast<std::int64_t>(layout::RateHistory::Seconds) + 1;
        const std::uint64_t end = CountAt(history, second, present);
        const bool isYounger = since / Second > second - seconds;
        const std::uint64_t begin = isYounger ? base : CountAt(history, std::max(second - seconds, oldest), present);
        if (end <= begin) {
            return 0.0;
        }
        // Whole seconds, but for a client that has not lived that long.
        const double life = isYounger ? static_cast<double>(second * Second - since) / static_cast<double>(Second)
                                      : static_cast<double>(seconds);
        return static_cast<double>(end - begin) / std::max(1.0, life);
    };
    constexpr std::int64_t medium = 10;
    constexpr std::int64_t longest = 60;
    return {over(1), over(medium), over(longest)};
}

} // namespace

/// The account in memory, and how its parts are read. Nothing in it is trusted: what lies outside counts as empty.
class AccountReader::Mapping final {
public:
    explicit Mapping(std::span<const std::byte> bytes) : memory(bytes) { Check(); }

    explicit Mapping(const std::string& accountPath) : path(accountPath) {
        file = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
        struct stat status {};
        if (file < 0 || ::fstat(file, &status) != 0) {
            const int error = errno;
            Close();
            if (error == ENOENT) {
                throw NoAccountError("there is no account '" + path + "'");
            }
            throw AccountError("cannot read '" + path + "': " + std::strerror(error));
        }
        device = status.st_dev;
        node = status.st_ino;
        if (!S_ISREG(status.st_mode) || static_cast<std::size_t>(status.st_size) < sizeof(Header)) {
            Close();
            throw AccountError("'" + path + "' is not an account");
        }
        const auto size = static_cast<std::size_t>(status.st_size);
        void* const mapped = ::mmap(nullptr, size, PROT_READ, MAP_SHARED, file, 0);
        if (mapped == MAP_FAILED) {
            const int error = errno;
            Close();
            throw AccountError("cannot read '" + path + "': " + std::strerror(error));
        }
        memory = {static_cast<const std::byte*>(mapped), size};
        try {
            Check();
        } catch (...) {
            Close();
            throw;
        }
    }
    Mapping(const Mapping&) = delete;
    Mapping& operator=(const Mapping&) = delete;
    ~Mapping() { Close(); }

    Snapshot Read(Depth depth) const;
    std::vector<Event> EventsAfter(std::uint64_t after) const;

    bool IsReplaced() const {
        struct stat status {};
        return file >= 0 && (::stat(path.c_str(), &status) != 0 || status.st_ino != node || status.st_dev != device);
    }

private:
    void Close() {
        if (file >= 0) {
            if (!memory.empty()) {
                ::munmap(const_cast<std::byte*>(memory.data()), memory.size());
            }
            ::close(file);
            file = -1;
        }
    }

    void Check() const {
        if (memory.size() < sizeof(Header) || Head().magic.load(std::memory_order_acquire) != layout::Magic) {
            throw AccountError(path.empty() ? "the memory is not an account" : "'" + path + "' is not an account");
        }
        const Header& head = Head();
        if (head.version != layout::Version || head.headerSize != sizeof(Header)) {
            throw AccountError("the account '" + path + "' was written by another version of the server");
        }
        const auto fits = [this](const Region& region, std::size_t elementSize) {
            return region.elementSize == elementSize && region.offset % alignof(std::uint64_t) == 0 &&
                   region.offset <= memory.size() && region.count <= (memory.size() - region.offset) / elementSize;
        };
        const auto& regions = head.regions;
        if (!fits(regions.threads, sizeof(layout::Thread)) || !fits(regions.errors, sizeof(Twin<layout::Error>)) ||
            !fits(regions.events, sizeof(Twin<layout::Event>)) ||
            !fits(regions.publishers, sizeof(layout::Publisher)) ||
            !fits(regions.subscribers, sizeof(layout::Subscriber)) || !fits(regions.clients, sizeof(layout::Client)) ||
            !fits(regions.text, sizeof(std::uint64_t)) || !fits(regions.latencyPages, layout::LatencyPageSize)) {
            throw AccountError("the account '" + path + "' is damaged");
        }
    }

    const Header& Head() const { return *reinterpret_cast<const Header*>(memory.data()); }

    template <typename Element>
    const Element& At(const Region& region, std::size_t index) const {
        return *reinterpret_cast<const Element*>(memory.data() + region.offset + index * region.elementSize);
    }

    template <typename Element, typename Function>
    void ForEach(const Region& region, std::uint64_t used, const Function& function) const {
        for (std::size_t i = 0; i < std::min(used, region.count); ++i) {
            function(At<Element>(region, i));
        }
    }

    std::string Copy(layout::Text text) const {
        const auto& region = Head().regions.text;
        const std::size_t words = (std::size_t{text.size} + sizeof(std::uint64_t) - 1) / sizeof(std::uint64_t);
        if (text.offset > region.count || words > region.count - text.offset) {
            return {};
        }
        std::string bytes(words * sizeof(std::uint64_t), '\0');
        for (std::size_t i = 0; i < words; ++i) {
            const std::uint64_t word = At<Counter>(region, text.offset + i).load(std::memory_order_acquire);
            std::memcpy(bytes.data() + i * sizeof word, &word, sizeof word);
        }
        bytes.resize(text.size);
        return bytes;
    }

    Latency LatencyIn(const std::array<std::atomic<std::uint32_t>, LatencyBuckets::Pages>& pages) const {
        Latency latency;
        for (std::size_t octave = 0; octave < pages.size(); ++octave) {
            const std::uint32_t page = pages[octave].load(std::memory_order_acquire);
            if (page == 0 || page > Head().regions.latencyPages.count) {
                continue;
            }
            const auto& counts = At<layout::LatencyPage>(Head().regions.latencyPages, page - 1);
            for (std::size_t i = 0; i < counts.size(); ++i) {
                latency.Append(octave * LatencyBuckets::PerPage + i, counts[i].load(std::memory_order_relaxed));
            }
        }
        return latency;
    }

    ServerAccount ReadServer() const;
    void ReadBus(BusAccount& bus) const;
    void ReadPublisher(const layout::Publisher& slot, Snapshot& snapshot) const;
    void ReadSubscriber(const layout::Subscriber& slot, Depth depth, Snapshot& snapshot) const;
    static void ReadClient(const layout::Client& slot, Snapshot& snapshot);
    void ReadThreads(Snapshot& snapshot) const;
    void ReadErrors(Snapshot& snapshot) const;

    std::string path;
    int file = -1;
    dev_t device = 0;
    ino_t node = 0;
    std::span<const std::byte> memory;
};

ServerAccount AccountReader::Mapping::ReadServer() const {
    const Header& head = Head();
    ServerAccount server;
    server.version = TextIn(head.programVersion);
    server.pid = static_cast<std::int32_t>(head.pid);
    server.startTime = head.startTime;
    if (const auto process = StateOfProcess(head.pid); process && process->startTime == head.startTime) {
        server.isAlive = !process->hasEnded;
        server.isPaused = process->isPaused;
    }
    server.state = static_cast<ServerState>(Load(head.state));
    server.isStatic = head.isStatic != 0;
    server.startedAt = head.startedAt;
    server.clockOffset = head.clockOffset;
    server.options = TextIn(head.options);
    const auto gauges = head.gauges.Read();
    server.workers = static_cast<std::uint32_t>(gauges.workers);
    server.threads = static_cast<std::uint32_t>(gauges.threads);
    server.descriptors = static_cast<std::uint32_t>(gauges.descriptors);
    server.memoryBytes = gauges.memoryBytes;
    server.gaugesAt = gauges.at;
    return server;
}

void AccountReader::Mapping::ReadBus(BusAccount& bus) const {
    const layout::Bus& source = Head().bus;
    layout::PushTotals pushes;
    layout::FanOutTotals fanOut;
    AtOneMoment([&] {
        const auto pushVersion = source.pushes.Version();
        const auto fanOutVersion = source.fanOut.Version();
        source.pushes.Copy(pushVersion, pushes);
        source.fanOut.Copy(fanOutVersion, fanOut);
        return source.pushes.IsStill(pushVersion) && source.fanOut.IsStill(fanOutVersion);
    });
    bus.accepted = pushes.accepted;
    bus.withoutSubscriber = pushes.withoutSubscriber;
    bus.fannedOut = fanOut.fannedOut;
    bus.inbound = pushes.entered - fanOut.left;
    bus.refusedFull = Load(source.refusedFull);
    bus.mostInbound = Load(source.mostInbound);
    bus.refusedConnections = Load(source.refusedConnections);
    bus.rescued = Load(source.rescued);
    bus.discrepancies = Load(source.discrepancies);
    bus.unlisted = Load(source.unlisted);
}

void AccountReader::Mapping::ReadPublisher(const layout::Publisher& slot, Snapshot& snapshot) const {
    layout::PublisherIdentity identity;
    layout::PublisherFlow flow;
    PublisherAccount publisher;
    std::string description;
    AtOneMoment([&] {
        const auto identityVersion = slot.identity.Version();
        const auto flowVersion = slot.flow.Version();
        slot.identity.Copy(identityVersion, identity);
        slot.flow.Copy(flowVersion, flow);
        publisher.refusedFull = Load(slot.refusedFull);
        if (!slot.identity.IsStill(identityVersion) || !slot.flow.IsStill(flowVersion)) {
            return false;
        }
        publisher.topic = Copy(identity.topic);
        description = Copy(identity.description);
        return slot.identity.IsStill(identityVersion);
    });
    if (identity.id == 0) {
        return;
    }
    publisher.id = identity.id;
    publisher.process = ProcessOf(identity.program);
    publisher.since = identity.since;
    publisher.leftAt = identity.leftAt;
    publisher.accepted = flow.accepted - identity.acceptedBase;
    publisher.withoutSubscriber = flow.withoutSubscriber - identity.withoutBase;
    publisher.refusedFull -= std::min(publisher.refusedFull, identity.refusedBase);
    publisher.acceptedBefore = identity.acceptedBefore;
    if (flow.lastAt != layout::NoTime) {
        publisher.lastValue = flow.lastValue;
        publisher.lastAt = flow.lastAt;
    }
    if (flow.largestGap >= 0) {
        publisher.smallestGap = flow.smallestGap;
        publisher.largestGap = flow.largestGap;
    }
    publisher.rates = RatesOf(slot.rates, flow.accepted, identity.acceptedBase, identity.since, snapshot.readAt);
    if (!description.empty() && identity.leftAt == layout::NoTime) {
        snapshot.descriptions.push_back({publisher.topic, std::move(description)});
    }
    snapshot.publishers.push_back(std::move(publisher));
}

void AccountReader::Mapping::ReadSubscriber(const layout::Subscriber& slot, Depth depth, Snapshot& snapshot) const {
    layout::SubscriberIdentity identity;
    layout::SubscriberFlow flow;
    std::uint64_t due = 0;
    Nanoseconds nonEmptySince = 0;
    std::string text;
    AtOneMoment([&] {
        const auto identityVersion = slot.identity.Version();
        const auto flowVersion = slot.flow.Version();
        due = Load(slot.due);
        nonEmptySince = slot.nonEmptySince.load(std::memory_order_acquire);
        slot.identity.Copy(identityVersion, identity);
        slot.flow.Copy(flowVersion, flow);
        if (Load(slot.due) != due || !slot.flow.IsStill(flowVersion) || !slot.identity.IsStill(identityVersion)) {
            return false;
        }
        text = Copy(identity.text);
        return slot.identity.IsStill(identityVersion);
    });
    const auto drops = [](const layout::DropCounts& counts, const layout::DropCounts& base) {
        const auto of = [&](layout::Drop drop) {
            return counts[static_cast<std::size_t>(drop)] - base[static_cast<std::size_t>(drop)];
        };
        using enum layout::Drop;
        return Drops{of(Oldest), of(Newest), of(Cut), of(Unregistered), of(Undelivered)};
    };
    const std::uint64_t queued = due - flow.left;
    Flows& sum = snapshot.bus.flows;
    const Drops all = drops(flow.dropped, {});
    sum.due += due;
    sum.taken += flow.taken;
    sum.offered += flow.offered;
    sum.queued += queued;
    sum.handedOver += flow.handedOver;
    sum.dropped.oldest += all.oldest;
    sum.dropped.newest += all.newest;
    sum.dropped.cut += all.cut;
    sum.dropped.unregistered += all.unregistered;
    sum.dropped.undelivered += all.undelivered;
    if (identity.id == 0) {
        return;
    }
    SubscriberAccount subscriber;
    subscriber.id = identity.id;
    std::string_view rest = text;
    const auto nextText = [&rest] {
        std::uint32_t size = 0;
        if (rest.size() < sizeof size) {
            rest = {};
            return std::string();
        }
        std::memcpy(&size, rest.data(), sizeof size);
        rest.remove_prefix(sizeof size);
        std::string part(rest.substr(0, size));
        rest.remove_prefix(part.size());
        return part;
    };
    subscriber.name = nextText();
    while (!rest.empty()) {
        subscriber.topics.push_back(nextText());
    }
    subscriber.process = ProcessOf(identity.program);
    subscriber.since = identity.since;
    subscriber.isWaiting = flow.waiting != 0;
    subscriber.isCut = flow.isCut != 0;
    subscriber.flows = {due - identity.dueBase, flow.taken - identity.takenBase,          flow.offered, queued,
                        flow.handedOver,        drops(flow.dropped, identity.droppedBase)};
    if (queued != 0) {
        subscriber.oldestSince = std::max(nonEmptySince, flow.oldestFloor);
    }
    subscriber.rates =
        RatesOf(slot.rates, flow.taken + flow.offered, identity.takenBase, identity.since, snapshot.readAt);
    if (depth == Depth::Everything) {
        subscriber.latency = LatencyIn(slot.latency);
    }
    snapshot.subscribers.push_back(std::move(subscriber));
}

void AccountReader::Mapping::ReadClient(const layout::Client& slot, Snapshot& snapshot) {
    ClientAccount client;
    layout::ClientIdentity identity;
    std::uint64_t pushes = 0;
    std::uint64_t waits = 0;
    std::uint64_t refusals = 0;
    AtOneMoment([&] {
        const auto version = slot.identity.Version();
        slot.identity.Copy(version, identity);
        pushes = Load(slot.unknownPushes);
        waits = Load(slot.unknownWaits);
        refusals = Load(slot.refusedRegistrations);
        return slot.identity.IsStill(version);
    });
    snapshot.bus.unknownPushes += pushes;
    snapshot.bus.unknownWaits += waits;
    snapshot.bus.refusedRegistrations += refusals;
    if (identity.caller == 0) {
        return;
    }
    client.process = ProcessOf(identity.program);
    client.since = identity.since;
    client.unknownPushes = pushes - identity.unknownPushesBase;
    client.unknownWaits = waits - identity.unknownWaitsBase;
    client.refusedRegistrations = refusals - identity.refusedRegistrationsBase;
    snapshot.clients.push_back(std::move(client));
}

void AccountReader::Mapping::ReadThreads(Snapshot& snapshot) const {
    ForEach<layout::Thread>(Head().regions.threads, layout::ThreadCapacity, [&](const layout::Thread& slot) {
        std::array<char, sizeof slot.name> name{};
        for (std::size_t i = 0; i < slot.name.size(); ++i) {
            const std::uint64_t word = slot.name[i].load(std::memory_order_acquire);
            std::memcpy(name.data() + i * sizeof word, &word, sizeof word);
        }
        if (name.front() == '\0') {
            return;
        }
        ThreadAccount thread;
        thread.name = TextIn(name);
        thread.awaySince = slot.awaySince.load(std::memory_order_acquire);
        thread.longestAway = std::chrono::nanoseconds(slot.longestAway.load(std::memory_order_acquire));
        thread.longestAt = slot.longestAt.load(std::memory_order_acquire);
        snapshot.threads.push_back(std::move(thread));
    });
}

void AccountReader::Mapping::ReadErrors(Snapshot& snapshot) const {
    ForEach<Twin<layout::Error>>(Head().regions.errors, layout::ErrorCapacity, [&](const Twin<layout::Error>& slot) {
        const layout::Error error = slot.Read();
        if (error.count != 0) {
            snapshot.errors.push_back({error.isError != 0, TextIn(error.place), error.count, error.firstAt,
                                       error.lastAt, TextIn(error.text)});
        }
    });
}

std::vector<Event> AccountReader::Mapping::EventsAfter(std::uint64_t after) const {
    const Region& region = Head().regions.events;
    const std::uint64_t last = Load(Head().bus.lastEvent);
    std::vector<Event> events;
    const std::uint64_t kept = std::min<std::uint64_t>(region.count, last);
    for (std::uint64_t number = std::max(after, last - kept) + 1; number <= last; ++number) {
        const layout::Event event = At<Twin<layout::Event>>(region, (number - 1) % region.count).Read();
        if (event.number != number) {
            continue; // overwritten by a newer one meanwhile
        }
        events.push_back({event.number, event.at, static_cast<EventKind>(event.kind), event.id, event.code, event.lost,
                          ProcessOf(event.program),
                          std::string(event.name.data(), std::min<std::size_t>(event.nameSize, event.name.size()))});
    }
    return events;
}

Snapshot AccountReader::Mapping::Read(Depth depth) const {
    const Header& head = Head();
    Snapshot snapshot;
    snapshot.server = ReadServer();
    snapshot.readAt = Now();
    ReadBus(snapshot.bus);
    ForEach<layout::Publisher>(head.regions.publishers, Load(head.publishersUsed),
                               [&](const auto& slot) { ReadPublisher(slot, snapshot); });
    ForEach<layout::Subscriber>(head.regions.subscribers, Load(head.subscribersUsed),
                                [&](const auto& slot) { ReadSubscriber(slot, depth, snapshot); });
    ForEach<layout::Client>(head.regions.clients, Load(head.clientsUsed),
                            [&](const auto& slot) { ReadClient(slot, snapshot); });
    if (depth == Depth::Everything) {
        snapshot.bus.latency = LatencyIn(head.bus.latency);
    }
    ReadThreads(snapshot);
    ReadErrors(snapshot);
    snapshot.events = EventsAfter(0);
    const auto byTopic = [](const auto& a, const auto& b) { return a.topic < b.topic; };
    std::sort(snapshot.publishers.begin(), snapshot.publishers.end(), byTopic);
    std::sort(snapshot.descriptions.begin(), snapshot.descriptions.end(), byTopic);
    std::sort(snapshot.subscribers.begin(), snapshot.subscribers.end(),
              [](const auto& a, const auto& b) { return a.id < b.id; });
    return snapshot;
}

AccountReader::AccountReader(const std::string& path) : mapping(std::make_unique<Mapping>(path)) {}
AccountReader::AccountReader(std::span<const std::byte> memory) : mapping(std::make_unique<Mapping>(memory)) {}
AccountReader::AccountReader(AccountReader&&) noexcept = default;
AccountReader& AccountReader::operator=(AccountReader&&) noexcept = default;
AccountReader::~AccountReader() = default;

Snapshot AccountReader::Read(Depth depth) const {
    return mapping->Read(depth);
}

std::vector<Event> AccountReader::EventsAfter(std::uint64_t after) const {
    return mapping->EventsAfter(after);
}

bool AccountReader::IsReplaced() const {
    return mapping->IsReplaced();
}

} // namespace instruments
