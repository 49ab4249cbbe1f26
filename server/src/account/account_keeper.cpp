#include "account/account_keeper.h"

#include "account/probes.h"
#include "diagnostics.h"
#include "instruments/process_state.h"
#include "kn/policy.h"
#include "kn/status.h"
#include "text_heap.h"

#include <fmt/format.h>

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <ctime>
#include <iterator>
#include <utility>

namespace msgbus_server {

using namespace instruments::layout;
using instruments::EventKind;
using instruments::LatencyBuckets;
using instruments::Twin;

namespace {

std::atomic<std::uint64_t> instances{0};

constexpr std::int64_t Second = 1'000'000'000;

std::int64_t TimeOf(clockid_t clock) {
    timespec now{};
    ::clock_gettime(clock, &now);
    return now.tv_sec * Second + now.tv_nsec;
}

bool IsAlive(pid_t thread) noexcept {
    return ::tgkill(::getpid(), thread, 0) == 0;
}

template <std::size_t Size>
void CopyText(std::array<char, Size>& target, std::string_view text) {
    target = {};
    const std::size_t size = std::min(text.size(), Size - 1);
    std::copy_n(text.data(), size, target.data());
}

Program OwnProgram() {
    Program program;
    program.pid = ::getpid();
    CopyText(program.name, program_invocation_short_name);
    return program;
}

Program ProgramOf(const KnCaller& caller) {
    Program program;
    program.startTime = caller.startTime;
    program.pid = caller.pid;
    CopyText(program.name, static_cast<const char*>(caller.program));
    return program;
}

/// Returns: the process of the request that the calling thread serves; without one, this process.
Program ProgramOfRequest() {
    KnCaller caller;
    return KnCallerOfRequest(&caller) == KnStatusInvalidArgument ? OwnProgram() : ProgramOf(caller);
}

std::string Join(const std::string& name, const std::set<std::string>& topics) {
    std::string text;
    const auto append = [&text](const std::string& part) {
        const auto size = static_cast<std::uint32_t>(part.size());
        text.append(reinterpret_cast<const char*>(&size), sizeof size);
        text += part;
    };
    append(name);
    for (const auto& topic : topics) {
        append(topic);
    }
    return text;
}

} // namespace

AccountKeeper::AccountKeeper(const std::optional<std::string>& directory,
                             const instruments::AccountCapacities& capacities, const ServerIdentity& server)
    : file(directory, capacities), instance(++instances), texts(std::make_unique<TextHeap>(file)),
      gauges([this] { RefreshGauges(); }) {
    Header& header = file.Head();
    header.pid = ::getpid();
    if (const auto process = instruments::StateOfProcess(header.pid)) {
        header.startTime = process->startTime;
    }
    header.startedAt = TimeOf(CLOCK_MONOTONIC);
    header.clockOffset = TimeOf(CLOCK_REALTIME) - header.startedAt;
    header.isStatic = server.isStatic ? 1 : 0;
    CopyText(header.programVersion, server.version);
    CopyText(header.options, server.options);
    file.MarkReadable();
}

AccountKeeper::~AccountKeeper() = default;

void AccountKeeper::SetState(instruments::ServerState state) noexcept {
    file.Head().state.store(static_cast<std::uint64_t>(state), std::memory_order_release);
    const auto kind = state == instruments::ServerState::Serving    ? EventKind::Serving
                      : state == instruments::ServerState::Draining ? EventKind::Draining
                      : state == instruments::ServerState::Stopping ? EventKind::Stopping
                                                                    : EventKind{};
    if (kind != EventKind{}) {
        NoteEvent(kind, 0, OwnProgram(), "");
    }
}

void AccountKeeper::RefreshGauges() {
    // The clock may have been set.
    file.Head().clockOffset.store(TimeOf(CLOCK_REALTIME) - TimeOf(CLOCK_MONOTONIC), std::memory_order_release);
    if (const auto read = ReadGauges()) {
        file.Head().gauges.Write(*read); // otherwise the last ones stay, with their time
    }
    Bus().refusedConnections.store(KnPolicyRefusedConnections(), std::memory_order_release);
}

/// Returns: the slot that remembers the topic, else a free one, else the one that was left longest ago; none: no room.
std::optional<AccountKeeper::PublisherPlace> AccountKeeper::PublisherSlotFor(const std::string& topic) {
    const auto take = [this](const std::string& name) {
        std::erase(rememberedOrder, name);
        return remembered.extract(name).mapped();
    };
    if (remembered.contains(topic)) {
        return PublisherPlace{take(topic), true};
    }
    if (!freePublishers.empty()) {
        const std::size_t slot = freePublishers.back();
        freePublishers.pop_back();
        return PublisherPlace{slot, false};
    }
    const std::size_t used = publishers.size();
    if (remembered.size() < MostRemembered && file.Commit(file.Regions().publishers, used + 1)) {
        auto* const slot = new (&file.At<Publisher>(file.Regions().publishers, used)) Publisher;
        publishers.push_back(std::make_unique<PublisherEntry>(*slot));
        file.Head().publishersUsed.store(used + 1, std::memory_order_release);
        return PublisherPlace{used, false};
    }
    return rememberedOrder.empty() ? std::nullopt
                                   : std::optional(PublisherPlace{take(std::string(rememberedOrder.front())), false});
}

PublisherEntry* AccountKeeper::AddPublisher(long id, const std::string& topic) {
    const auto place = PublisherSlotFor(topic);
    if (!place) {
        Bus().unlisted.fetch_add(1, std::memory_order_relaxed);
        return nullptr;
    }
    PublisherEntry& entry = *publishers[place->slot];
    Publisher& slot = entry.Slot();
    const PublisherIdentity last = slot.identity.Read();
    slot.identity.Write({}); // free for a moment: the numbers of the one must not be read as those of the other
    texts->Remove(last.topic);
    texts->Remove(last.description);
    const auto text = texts->Add(topic);
    if (!text) {
        freePublishers.push_back(place->slot);
        Bus().unlisted.fetch_add(1, std::memory_order_relaxed);
        return nullptr;
    }
    PublisherIdentity identity;
    identity.id = id;
    identity.topic = *text;
    identity.program = ProgramOfRequest();
    identity.since = TimeOf(CLOCK_MONOTONIC);
    if (place->isOfTopic) {
        identity.acceptedBefore = last.acceptedBefore + entry.Flow().accepted - last.acceptedBase;
    }
    entry.Begin(identity.since, place->isOfTopic);
    identity.acceptedBase = entry.Flow().accepted;
    identity.withoutBase = entry.Flow().withoutSubscriber;
    identity.refusedBase = slot.refusedFull.load(std::memory_order_relaxed);
    slot.identity.Write(identity);
    probes::Registered("publisher", id, static_cast<std::int32_t>(identity.program.pid));
    NoteEvent(EventKind::PublisherRegistered, id, identity.program, topic);
    return &entry;
}

void AccountKeeper::EndPublisher(PublisherEntry& ended, const std::string& topic, bool hasDied) {
    Publisher& slot = ended.Slot();
    PublisherIdentity identity = slot.identity.Read();
    identity.leftAt = TimeOf(CLOCK_MONOTONIC);
    const Text description = std::exchange(identity.description, Text{});
    slot.identity.Write(identity);
    texts->Remove(description);
    const auto index = static_cast<std::size_t>(&slot - &file.At<Publisher>(file.Regions().publishers, 0));
    remembered[topic] = index;
    rememberedOrder.push_back(topic);
    NoteEvent(hasDied ? EventKind::PublisherDied : EventKind::PublisherGone, identity.id, identity.program, topic);
}

bool AccountKeeper::Describe(PublisherEntry& publisher, std::string_view text) {
    const auto added = texts->Add(text);
    if (!added) {
        return false;
    }
    PublisherIdentity identity = publisher.Slot().identity.Read();
    const Text old = std::exchange(identity.description, *added);
    publisher.Slot().identity.Write(identity);
    texts->Remove(old);
    return true;
}

std::shared_ptr<SubscriberEntry> AccountKeeper::AddSubscriber(long id, const std::string& name,
                                                              const std::set<std::string>& topics,
                                                              const FanOutRing& ring) {
    const Region& region = file.Regions().subscribers;
    std::size_t index = subscribersUsed;
    if (!freeSubscribers.empty()) {
        index = freeSubscribers.back();
        freeSubscribers.pop_back();
    } else if (file.Commit(region, index + 1)) {
        new (&file.At<Subscriber>(region, index)) Subscriber;
        file.Head().subscribersUsed.store(++subscribersUsed, std::memory_order_release);
    } else {
        Bus().unlisted.fetch_add(1, std::memory_order_relaxed);
        return nullptr;
    }
    auto& slot = file.At<Subscriber>(region, index);
    const auto text = texts->Add(Join(name, topics));
    if (!text) {
        freeSubscribers.push_back(index);
        Bus().unlisted.fetch_add(1, std::memory_order_relaxed);
        return nullptr;
    }
    auto entry = std::make_shared<SubscriberEntry>(id, slot, ring, *this);
    ClearLatency(slot);
    SubscriberIdentity identity;
    identity.id = id;
    identity.text = *text;
    identity.program = ProgramOfRequest();
    identity.since = TimeOf(CLOCK_MONOTONIC);
    identity.dueBase = slot.due.load(std::memory_order_relaxed);
    identity.takenBase = entry->Flow().taken;
    identity.droppedBase = entry->Flow().dropped;
    slot.identity.Write(identity);
    probes::Registered("subscriber", id, static_cast<std::int32_t>(identity.program.pid));
    NoteEvent(EventKind::SubscriberRegistered, id, identity.program, name);
    return entry;
}

void AccountKeeper::EndSubscriber(SubscriberEntry& ended, const std::string& name, std::optional<EventKind> kind,
                                  std::uint64_t lost) {
    Subscriber& slot = ended.Slot();
    const SubscriberIdentity identity = slot.identity.Read();
    slot.identity.Write({});
    texts->Remove(identity.text);
    freeSubscribers.push_back(static_cast<std::size_t>(&slot - &file.At<Subscriber>(file.Regions().subscribers, 0)));
    if (kind) {
        NoteEvent(*kind, identity.id, identity.program, name, 0, lost);
    }
}

void AccountKeeper::NoteEvent(EventKind kind, std::int64_t id, const Program& program, std::string_view name,
                              std::int32_t code, std::uint64_t lost) noexcept {
    Event event;
    event.at = TimeOf(CLOCK_MONOTONIC);
    event.kind = static_cast<std::uint32_t>(kind);
    event.code = code;
    event.id = id;
    event.lost = lost;
    event.program = program;
    event.nameSize = std::min(name.size(), event.name.size());
    std::copy_n(name.data(), event.nameSize, event.name.data());
    const common::MutexLock lock(eventsMutex);
    event.number = Bus().lastEvent.load(std::memory_order_relaxed) + 1;
    file.At<Twin<Event>>(file.Regions().events, (event.number - 1) % EventCapacityInFile).Write(event);
    Bus().lastEvent.store(event.number, std::memory_order_release);
    gauges.Note();
}

void AccountKeeper::NoteDiscrepancy(std::string_view what) noexcept {
    Bus().discrepancies.fetch_add(1, std::memory_order_relaxed);
    try {
        diagnostics::Log(diagnostics::LogLevel::Error, "The account does not add up: {}", what);
    } catch (...) {
        // The count says it.
    }
}

// -- clients

/// Returns: the record of a process, a new one if there is none yet; null when there is no room.
AccountKeeper::ClientRecord* AccountKeeper::RecordOf(const KnCaller& caller) noexcept {
    if (const auto found = clients.find(caller.id); found != clients.end()) {
        return &found->second;
    }
    try {
        const Region& region = file.Regions().clients;
        std::size_t index = clientsUsed;
        if (!freeClients.empty()) {
            index = freeClients.back();
            freeClients.pop_back();
        } else if (file.Commit(region, index + 1)) {
            new (&file.At<Client>(region, index)) Client;
            file.Head().clientsUsed.store(++clientsUsed, std::memory_order_release);
        } else {
            return nullptr;
        }
        auto& slot = file.At<Client>(region, index);
        ClientIdentity identity;
        identity.caller = caller.id;
        identity.program = ProgramOf(caller);
        identity.since = TimeOf(CLOCK_MONOTONIC);
        identity.unknownPushesBase = slot.unknownPushes.load(std::memory_order_relaxed);
        identity.unknownWaitsBase = slot.unknownWaits.load(std::memory_order_relaxed);
        identity.refusedRegistrationsBase = slot.refusedRegistrations.load(std::memory_order_relaxed);
        slot.identity.Write(identity);
        return &clients.emplace(caller.id, ClientRecord{index}).first->second;
    } catch (...) {
        return nullptr; // there is no memory
    }
}

/// Calls `action` with the record of a process and its slot, if there is room for them.
template <typename Action>
void AccountKeeper::WithClient(const KnCaller& caller, Action action) noexcept {
    {
        const common::MutexLock lock(clientsMutex);
        if (auto* const record = RecordOf(caller)) {
            action(*record, file.At<Client>(file.Regions().clients, record->slot));
        }
    }
    // The end of the process may have been reported before its record was made, which would then stay for ever. Asked
    // afterwards and without a lock, because the platform may report an end with its own.
    KnCaller present;
    if (KnCallerOfRequest(&present) == KnStatusPeerGone && present.id == caller.id) {
        EndClient(caller);
    }
}

void AccountKeeper::CountForRequest(Counter Client::*counter) noexcept {
    KnCaller caller;
    if (KnCallerOfRequest(&caller) == KnStatusOk) {
        WithClient(caller, [counter](auto&, Client& slot) { (slot.*counter).fetch_add(1, std::memory_order_relaxed); });
    }
}

void AccountKeeper::NoteUnknownPush() noexcept {
    CountForRequest(&Client::unknownPushes);
}

void AccountKeeper::NoteUnknownWait() noexcept {
    CountForRequest(&Client::unknownWaits);
}

void AccountKeeper::NoteRefusal(const KnCaller& caller, cor::ResultCode code, std::string_view name) noexcept {
    bool isEvent = false;
    WithClient(caller, [&isEvent](ClientRecord& record, Client& slot) {
        slot.refusedRegistrations.fetch_add(1, std::memory_order_relaxed);
        const std::int64_t now = TimeOf(CLOCK_MONOTONIC);
        // One a second: a client that goes on must not push the other events out.
        isEvent = now >= record.nextRefusalEvent;
        if (isEvent) {
            record.nextRefusalEvent = now + Second;
        }
    });
    if (isEvent) {
        NoteEvent(EventKind::Refused, 0, ProgramOf(caller), name, static_cast<std::int32_t>(code));
    }
}

void AccountKeeper::EndClient(const KnCaller& caller) noexcept {
    const common::MutexLock lock(clientsMutex);
    const auto found = clients.find(caller.id);
    if (found == clients.end()) {
        return;
    }
    file.At<Client>(file.Regions().clients, found->second.slot).identity.Write({});
    try {
        freeClients.push_back(found->second.slot);
    } catch (...) {
        // The slot is lost.
    }
    clients.erase(found);
}

// -- threads and times

Thread* AccountKeeper::ThisThread() noexcept {
    struct Known {
        std::uint64_t instance = 0;
        Thread* slot = nullptr;
    };
    static constinit thread_local Known known;
    if (known.instance == instance) {
        return known.slot;
    }
    std::array<char, sizeof(Thread::name)> name{};
    ::pthread_getname_np(::pthread_self(), name.data(), name.size());
    std::array<std::uint64_t, 2> words{};
    std::memcpy(words.data(), name.data(), name.size());
    known = {instance, nullptr};
    const common::MutexLock lock(threadsMutex);
    for (std::size_t i = 0; i < ThreadCapacity; ++i) {
        auto& slot = file.At<Thread>(file.Regions().threads, i);
        const bool isFree = threadIds[i] == 0;
        if (isFree) {
            slot.name[1].store(words[1], std::memory_order_release);
            slot.name[0].store(words[0], std::memory_order_release);
        }
        const bool isOfThisName = slot.name[0].load(std::memory_order_relaxed) == words[0] &&
                                  slot.name[1].load(std::memory_order_relaxed) == words[1];
        // One that lives may hang, which another one of its name must not hide.
        if (isFree || (isOfThisName && !IsAlive(threadIds[i]))) {
            threadIds[i] = ::gettid();
            slot.awaySince.store(NoTime, std::memory_order_release);
            known.slot = &slot;
            break;
        }
    }
    return known.slot;
}

/// Returns: the place in which such a duration is counted; null when there is no room for it.
std::atomic<std::uint32_t>* AccountKeeper::BucketOf(OctavePages& pages, std::uint64_t nanoseconds) {
    const std::size_t bucket = LatencyBuckets::Of(nanoseconds);
    auto& page = pages[bucket / LatencyBuckets::PerPage];
    std::uint32_t number = page.load(std::memory_order_relaxed);
    const Region& region = file.Regions().latencyPages;
    if (number == 0) {
        if (!file.Commit(region, std::size_t{pagesUsed} + 1)) {
            return nullptr;
        }
        new (&file.At<LatencyPage>(region, pagesUsed)) LatencyPage{};
        number = ++pagesUsed;
        page.store(number, std::memory_order_release);
    }
    if (number > pagesUsed) {
        return nullptr; // another program has written there
    }
    return &file.At<LatencyPage>(region, number - 1)[bucket % LatencyBuckets::PerPage];
}

void AccountKeeper::NoteGivenUp(long subscriberId) noexcept {
    try {
        NoteDiscrepancy(fmt::format("a value left the queue of subscriber {} that had not come there", subscriberId));
    } catch (...) {
        NoteDiscrepancy("a value left a subscriber's queue that had not come there");
    }
}

void AccountKeeper::ClearLatency(Subscriber& slot) {
    const common::MutexLock lock(pagesMutex);
    for (const auto& page : slot.latency) {
        if (const std::uint32_t number = page.load(std::memory_order_relaxed); number != 0 && number <= pagesUsed) {
            for (auto& count : file.At<LatencyPage>(file.Regions().latencyPages, number - 1)) {
                count.store(0, std::memory_order_relaxed);
            }
        }
    }
}

void AccountKeeper::Note(Subscriber& slot, std::uint64_t nanoseconds) noexcept {
    const common::MutexLock lock(pagesMutex);
    for (auto* const pages : {&slot.latency, &Bus().latency}) {
        if (auto* const bucket = BucketOf(*pages, nanoseconds)) {
            bucket->fetch_add(1, std::memory_order_relaxed);
        }
    }
}

void AccountKeeper::Put(std::size_t index, const instruments::ErrorAccount& entry) noexcept {
    Error error;
    error.isError = entry.isError ? 1 : 0;
    error.count = entry.count;
    error.firstAt = entry.firstAt;
    error.lastAt = entry.lastAt;
    CopyText(error.place, entry.place);
    CopyText(error.text, entry.text);
    file.At<Twin<Error>>(file.Regions().errors, index).Write(error);
    gauges.Note();
}

} // namespace msgbus_server
