#include "instruments/read_account.h"

#include "instruments/account_layout.h"
#include "instruments/process_state.h"
#include "mapped_account.h"
#include "slot_reader.h"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <vector>

namespace instruments {

namespace {

using layout::Header;
using layout::Region;

Nanoseconds Now() {
    constexpr Nanoseconds second = 1'000'000'000;
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * second + now.tv_nsec;
}

ServerAccount ReadServer(const Header& head, bool isOwn) {
    ServerAccount server;
    server.version = TextIn(head.programVersion);
    server.pid = static_cast<std::int32_t>(head.pid);
    server.startTime = head.startTime;
    if (isOwn) {
        server.isAlive = true; // also when it has no descriptor left to ask
    } else if (const auto process = StateOfProcess(head.pid); process && process->startTime == head.startTime) {
        server.isAlive = !process->hasEnded;
        server.isPaused = process->isPaused;
    }
    server.state = static_cast<ServerState>(Load(head.state));
    server.isStatic = head.isStatic != 0;
    server.startedAt = TimeIn(head.startedAt);
    server.clockOffset = Load(head.clockOffset);
    server.options = TextIn(head.options);
    const auto gauges = head.gauges.Read();
    server.workers = static_cast<std::uint32_t>(gauges.workers);
    server.threads = static_cast<std::uint32_t>(gauges.threads);
    server.descriptors = static_cast<std::uint32_t>(gauges.descriptors);
    server.memoryBytes = gauges.memoryBytes;
    server.gaugesAt = TimeIn(gauges.at);
    return server;
}

void ReadBus(const layout::Bus& source, BusAccount& bus) {
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

void ReadThreads(const MappedAccount& account, Snapshot& snapshot) {
    account.ForEach<layout::Thread>(account.Regions().threads, layout::ThreadCapacity, [&](const layout::Thread& slot) {
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
        thread.awaySince = Load(slot.awaySince);
        thread.longestAway = std::chrono::nanoseconds(Load(slot.longestAway));
        thread.longestAt = Load(slot.longestAt);
        snapshot.threads.push_back(std::move(thread));
    });
}

void ReadErrors(const MappedAccount& account, Snapshot& snapshot) {
    account.ForEach<Twin<layout::Error>>(
        account.Regions().errors, layout::ErrorCapacity, [&](const Twin<layout::Error>& slot) {
            const layout::Error error = slot.Read();
            if (error.count != 0) {
                snapshot.errors.push_back({error.isError != 0, TextIn(error.place), error.count, TimeIn(error.firstAt),
                                           TimeIn(error.lastAt), TextIn(error.text)});
            }
        });
}

std::vector<Event> ReadEvents(const MappedAccount& account, std::uint64_t after) {
    const Region& region = account.Regions().events;
    const std::uint64_t last = Load(account.Head().bus.lastEvent);
    std::vector<Event> events;
    const std::uint64_t kept = std::min<std::uint64_t>(region.count, last);
    const std::uint64_t before = std::max(after, last - kept);
    const std::uint64_t count = last - std::min(before, last); // `after` may be a number of another account
    for (std::uint64_t i = 0; i < count; ++i) {
        const std::uint64_t number = before + 1 + i;
        const layout::Event event = account.At<Twin<layout::Event>>(region, (number - 1) % region.count).Read();
        if (event.number != number) {
            continue; // overwritten by a newer one meanwhile
        }
        events.push_back({event.number, TimeIn(event.at), static_cast<EventKind>(event.kind), event.id, event.code,
                          event.lost, ProcessOf(event.program),
                          std::string(event.name.data(), std::min<std::size_t>(event.nameSize, event.name.size()))});
    }
    return events;
}

} // namespace

AccountReader::AccountReader(const std::string& path) : account(std::make_unique<MappedAccount>(path)) {}
AccountReader::AccountReader(std::span<const std::byte> memory) : account(std::make_unique<MappedAccount>(memory)) {}
AccountReader::AccountReader(AccountReader&&) noexcept = default;
AccountReader& AccountReader::operator=(AccountReader&&) noexcept = default;
AccountReader::~AccountReader() = default;

Snapshot AccountReader::Read(Depth depth) const {
    const Header& head = account->Head();
    Snapshot snapshot;
    snapshot.server = ReadServer(head, account->IsMemory());
    snapshot.readAt = Now();
    ReadBus(head.bus, snapshot.bus);
    SlotReader slots(*account, depth, snapshot);
    account->ForEach<layout::Publisher>(account->Regions().publishers, Load(head.publishersUsed),
                                        [&](const auto& slot) { slots.ReadPublisher(slot); });
    account->ForEach<layout::Subscriber>(account->Regions().subscribers, Load(head.subscribersUsed),
                                         [&](const auto& slot) { slots.ReadSubscriber(slot); });
    account->ForEach<layout::Client>(account->Regions().clients, Load(head.clientsUsed),
                                     [&](const auto& slot) { slots.ReadClient(slot); });
    if (depth == Depth::Everything) {
        snapshot.bus.latency = slots.ReadLatency(head.bus.latency);
    }
    ReadThreads(*account, snapshot);
    ReadErrors(*account, snapshot);
    snapshot.events = ReadEvents(*account, 0);
    const auto byTopic = [](const auto& a, const auto& b) { return a.topic < b.topic; };
    std::sort(snapshot.publishers.begin(), snapshot.publishers.end(), byTopic);
    std::sort(snapshot.descriptions.begin(), snapshot.descriptions.end(), byTopic);
    std::sort(snapshot.subscribers.begin(), snapshot.subscribers.end(),
              [](const auto& a, const auto& b) { return a.id < b.id; });
    return snapshot;
}

std::vector<Event> AccountReader::EventsAfter(std::uint64_t after) const {
    return ReadEvents(*account, after);
}

std::int64_t AccountReader::ClockOffset() const noexcept {
    return Load(account->Head().clockOffset);
}

bool AccountReader::IsReplaced() const {
    return account->IsReplaced();
}

} // namespace instruments
