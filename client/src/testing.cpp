#include "msgbus/testing.h"

#include "backend.h"
#include "common/mutex.h"
#include "common/reserved_topics.h"
#include "common/thread_annotations.h"
#include "cor/result_code.h"
#include "kn/status.h"
#include "msgbus/error.h"
#include "pipe.h"

#include <algorithm>
#include <deque>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <thread>
#include <utility>

namespace msgbus::testing {

namespace {

using Clock = std::chrono::steady_clock;

constexpr auto NotRegistered = static_cast<std::int32_t>(cor::ResultCode::NotRegistered);
constexpr auto Conflict = static_cast<std::int32_t>(cor::ResultCode::Conflict);
constexpr auto TooManyValues = static_cast<std::int32_t>(cor::ResultCode::TooManyValues);
constexpr auto GreatestCode = static_cast<std::int32_t>(cor::ResultCode::Failed);

/// A topic arrives cut to its first bytes.
constexpr std::size_t LongestReceivedTopic = 1022;

/// A descriptor that is readable or not. Threads: any.
class Readiness final {
public:
    Readiness() : pipe(O_NONBLOCK) {}

    int Number() const noexcept { return pipe.ReadEnd(); }

    void Set() EXCLUDES(mutex) {
        const common::MutexLock lock(mutex);
        SetLocked();
    }

    /// Returns: what a later SetIfStill takes.
    std::uint64_t Clear() EXCLUDES(mutex) {
        const common::MutexLock lock(mutex);
        if (std::exchange(isSet, false)) {
            char byte = 0;
            static_cast<void>(!::read(pipe.ReadEnd(), &byte, 1));
        }
        return ++changes;
    }

    /// Sets it unless it was changed since that Clear.
    void SetIfStill(std::uint64_t change) EXCLUDES(mutex) {
        const common::MutexLock lock(mutex);
        if (changes == change) {
            SetLocked();
        }
    }

private:
    void SetLocked() REQUIRES(mutex) {
        ++changes;
        if (!std::exchange(isSet, true)) {
            const char byte = 0;
            static_cast<void>(!::write(pipe.WriteEnd(), &byte, 1));
        }
    }

    const Pipe pipe;
    common::Mutex mutex;
    bool isSet GUARDED_BY(mutex) = false;
    std::uint64_t changes GUARDED_BY(mutex) = 0;
};

/// Makes descriptors readable later. It has a thread from the first Add on. Threads: any.
class Alarms final {
public:
    Alarms() = default;
    Alarms(const Alarms&) = delete;
    Alarms& operator=(const Alarms&) = delete;
    ~Alarms() {
        {
            const common::MutexLock lock(mutex);
            ending = true;
            changed.NotifyAll();
        }
        if (thread.joinable()) {
            thread.join();
        }
    }

    /// Throws: std::system_error without a thread.
    void Add(Clock::time_point time, const std::shared_ptr<Readiness>& readiness, std::uint64_t change)
        EXCLUDES(mutex) {
        const common::MutexLock lock(mutex);
        if (!thread.joinable()) {
            thread = std::thread([this] { Run(); });
        }
        alarms.emplace(time, Alarm{readiness, change});
        changed.NotifyAll();
    }

private:
    struct Alarm {
        std::weak_ptr<Readiness> readiness;
        std::uint64_t change;
    };

    void Run() EXCLUDES(mutex) {
        common::MutexLock lock(mutex);
        while (!ending) {
            if (alarms.empty()) {
                changed.Wait(lock);
            } else if (const auto first = alarms.begin(); first->first > Clock::now()) {
                const auto time = first->first; // the alarm may be gone when the wait ends
                changed.WaitUntil(lock, time);
            } else {
                if (const auto readiness = first->second.readiness.lock()) {
                    readiness->SetIfStill(first->second.change);
                }
                alarms.erase(first);
            }
        }
    }

    common::Mutex mutex;
    common::ConditionVariable changed;
    bool ending GUARDED_BY(mutex) = false;
    std::multimap<Clock::time_point, Alarm> alarms GUARDED_BY(mutex);
    std::thread thread; ///< started under the mutex
};

/// One client's connection to one server. Guarded by the mutex of its bus.
struct Link {
    /// The server's number; 0 when the connection is lost though the server lives.
    std::uint64_t server;
    std::set<std::int64_t> registered{};
};

/// What a receiver has. Guarded by the mutex of its bus.
struct Waiter {
    bool isClosed = false;
    /// Its descriptor becomes readable at a certain time.
    bool isAsleep = false;
    /// As of the last Receive.
    std::optional<std::int64_t> id{};
    Loss loss{};
    std::shared_ptr<Readiness> readiness{};
};

/// How the next requests of a kind fail.
struct Failure {
    std::int32_t code;
    int times; ///< more than 0
};

struct Subscription {
    std::set<std::string> topics;
    std::deque<Message> unread{};

    bool IsForNoticesOnly() const {
        return !topics.empty() && std::all_of(topics.begin(), topics.end(), common::IsReserved);
    }
};

std::chrono::milliseconds Milliseconds(std::uint32_t count) {
    return std::chrono::milliseconds(count);
}

/// The bus, and the servers that follow each other on it.
class Host : public Backend, public std::enable_shared_from_this<Host> {
public:
    // For the clients.

    PublisherLinks ConnectPublisher(std::chrono::milliseconds timeout) override;
    SubscriberLinks ConnectSubscriber(std::chrono::milliseconds timeout) override;
    void Declare(const std::string& topic, const std::string& description) noexcept override EXCLUDES(mutex) {
        const common::MutexLock lock(mutex);
        if (FindPublisher(topic) != publishers.end()) {
            descriptions[topic] = description;
        }
    }

    std::int32_t RegisterPublisher(Link& link, const std::string& topic, std::int64_t& id) EXCLUDES(mutex) {
        const common::MutexLock lock(mutex);
        if (const std::int32_t status = Admit(link, Request::RegisterPublisher); status != 0) {
            return status;
        }
        const bool isTaken = std::any_of(publishers.begin(), publishers.end(),
                                         [&](const auto& publisher) { return publisher.second == topic; });
        if (isTaken || common::IsReserved(topic)) {
            return Conflict;
        }
        id = ++lastId;
        publishers.emplace(id, topic);
        link.registered.insert(id);
        ReportPresence(topic, {common::Presence::Came, id});
        return 0;
    }

    std::int32_t RegisterSubscriber(Link& link, const std::vector<std::string>& topics, std::int64_t& id,
                                    std::string& refused) EXCLUDES(mutex) {
        const common::MutexLock lock(mutex);
        if (const std::int32_t status = Admit(link, Request::RegisterSubscriber); status != 0) {
            return status;
        }
        Subscription subscription;
        for (const auto& topic : topics) {
            if (!subscription.topics.insert(topic).second) {
                refused = topic;
                return Conflict;
            }
        }
        id = ++lastId;
        auto& added = subscriptions.emplace(id, std::move(subscription)).first->second;
        link.registered.insert(id);
        ReportCounts(added);
        PutFirst(added);
        return 0;
    }

    std::int32_t Unregister(Link& link, std::int64_t id) EXCLUDES(mutex) {
        const common::MutexLock lock(mutex);
        const std::int32_t status = Admit(link, Request::Unregister);
        if (status == KnStatusTimedOut) {
            unanswered.push_back(id);
        }
        if (status != 0) {
            return status;
        }
        return Remove(id) ? 0 : Conflict;
    }

    std::int32_t Push(Link& link, std::int64_t id, std::int64_t value) EXCLUDES(mutex) {
        const common::MutexLock lock(mutex);
        if (const std::int32_t status = Admit(link, Request::Push); status != 0) {
            return status;
        }
        // A publisher that is not registered does not learn that its value is dropped.
        if (const auto publisher = publishers.find(id); publisher != publishers.end()) {
            Deliver(publisher->second, value);
        }
        return 0;
    }

    std::int32_t Receive(Link& link, Waiter& waiter, std::int64_t id, std::uint32_t timeoutMs, Message& message)
        EXCLUDES(mutex) {
        const auto deadline = Clock::now() + Milliseconds(timeoutMs);
        common::MutexLock lock(mutex);
        waiter.id = id;
        while (true) {
            if (const auto outcome = TryReceive(link, waiter, id, message)) {
                return *outcome;
            }
            if (timeoutMs == Forever) {
                changed.Wait(lock);
            } else if (Clock::now() < deadline) {
                changed.WaitUntil(lock, deadline);
            } else {
                if (waiter.readiness) {
                    waiter.readiness->Clear();
                }
                return KnStatusTimedOut;
            }
        }
    }

    int MakeDescriptor(const Link& link, Waiter& waiter) EXCLUDES(mutex) {
        const common::MutexLock lock(mutex);
        if (!waiter.readiness) {
            waiter.readiness = std::make_shared<Readiness>();
            if (HasSomething(link, waiter)) {
                waiter.readiness->Set();
            }
        }
        return waiter.readiness->Number();
    }

    /// Returns: the descriptor of a receiver that has lost its server; empty when it has none.
    std::shared_ptr<Readiness> GiveDescriptor(const Link& link, Waiter& waiter) EXCLUDES(mutex) {
        const common::MutexLock lock(mutex);
        return waiter.isClosed || IsLost(link) ? std::move(waiter.readiness) : nullptr;
    }

    bool HasDescriptor(const Waiter& waiter) EXCLUDES(mutex) {
        const common::MutexLock lock(mutex);
        return waiter.readiness != nullptr;
    }

    void TakeDescriptor(Waiter& waiter, std::shared_ptr<Readiness> readiness) EXCLUDES(mutex) {
        const common::MutexLock lock(mutex);
        readiness->Set();
        waiter.readiness = std::move(readiness);
    }

    std::int32_t WakeDescriptor(const Link& link, Waiter& waiter, std::uint32_t afterMs) EXCLUDES(mutex) {
        const auto time = Clock::now() + Milliseconds(afterMs);
        const common::MutexLock lock(mutex);
        if (!waiter.readiness || !IsLost(link)) {
            return KnStatusInvalidArgument;
        }
        if (!waiter.isClosed) { // else it stays readable
            waiter.isAsleep = true;
            alarms.Add(time, waiter.readiness, waiter.readiness->Clear());
        }
        return 0;
    }

    Loss LossOf(const Waiter& waiter) EXCLUDES(mutex) {
        const common::MutexLock lock(mutex);
        return waiter.loss;
    }

    void Close(Waiter& waiter) EXCLUDES(mutex) {
        const common::MutexLock lock(mutex);
        waiter.isClosed = true;
        Announce();
    }

    void Add(const Link& link, Waiter& waiter) EXCLUDES(mutex) {
        const common::MutexLock lock(mutex);
        waiters.emplace(&waiter, &link);
    }

    void Remove(Waiter& waiter) EXCLUDES(mutex) {
        const common::MutexLock lock(mutex);
        waiters.erase(&waiter);
    }

    // For the test.

    void Publish(const std::string& topic, std::int64_t value) EXCLUDES(mutex) {
        const common::MutexLock lock(mutex);
        if (isRunning) {
            Deliver(topic, value);
        }
    }

    void KillPublisher(const std::string& topic) EXCLUDES(mutex) {
        const common::MutexLock lock(mutex);
        if (const auto publisher = FindPublisher(topic); publisher != publishers.end()) {
            Remove(publisher->first, common::Presence::Died);
        }
    }

    void FailNext(Request request, std::int32_t code, int times) EXCLUDES(mutex) {
        if (times < 1 || code == 0 || code > GreatestCode || (code > 0 && request == Request::Connect)) {
            throw std::invalid_argument("a request cannot fail with code " + std::to_string(code) + ", " +
                                        std::to_string(times) + " times");
        }
        const common::MutexLock lock(mutex);
        failures[request].push_back({code, times});
        Announce();
    }

    void Stop(bool isRestarted) EXCLUDES(mutex) {
        const common::MutexLock lock(mutex);
        ++server;
        isRunning = isRestarted;
        lastValues.clear();
        publishers.clear();
        descriptions.clear();
        subscriptions.clear();
        unanswered.clear();
        Announce();
    }

    void Start() EXCLUDES(mutex) {
        const common::MutexLock lock(mutex);
        isRunning = true;
    }

    std::string DescriptionOf(const std::string& topic) const EXCLUDES(mutex) {
        const common::MutexLock lock(mutex);
        const auto found = descriptions.find(topic);
        return found == descriptions.end() ? "" : found->second;
    }

    std::vector<std::int64_t> Pushed(const std::string& topic) const EXCLUDES(mutex) {
        const common::MutexLock lock(mutex);
        const auto found = pushed.find(topic);
        return found == pushed.end() ? std::vector<std::int64_t>() : found->second;
    }

    std::size_t RegisteredCount() const EXCLUDES(mutex) {
        const common::MutexLock lock(mutex);
        const auto watching = std::count_if(subscriptions.begin(), subscriptions.end(),
                                            [](const auto& entry) { return entry.second.IsForNoticesOnly(); });
        return publishers.size() + subscriptions.size() - static_cast<std::size_t>(watching);
    }

private:
    std::shared_ptr<Link> Connect() EXCLUDES(mutex);

    bool IsLost(const Link& link) const REQUIRES(mutex) { return link.server != server; }

    /// Returns: the next failure that the test has ordered for this request.
    std::optional<std::int32_t> TakeFailure(Request request) REQUIRES(mutex) {
        auto& ordered = failures[request];
        if (ordered.empty()) {
            return std::nullopt;
        }
        const std::int32_t code = ordered.front().code;
        if (--ordered.front().times == 0) {
            ordered.pop_front();
        }
        return code;
    }

    /// What comes before every request. Returns: 0, or how the request fails.
    std::int32_t Admit(Link& link, Request request) REQUIRES(mutex) {
        if (IsLost(link)) {
            return KnStatusClosed;
        }
        for (const std::int64_t id : std::exchange(unanswered, {})) {
            Remove(id);
        }
        const std::int32_t status = TakeFailure(request).value_or(0);
        if (status == KnStatusClosed) {
            Lose(link);
        }
        return status;
    }

    void Lose(Link& link) REQUIRES(mutex) {
        link.server = 0;
        for (const std::int64_t id : std::exchange(link.registered, {})) {
            Remove(id, common::Presence::Died);
        }
        Announce();
    }

    /// Returns: whether the id was registered. `end`: of a publisher.
    bool Remove(std::int64_t id, common::Presence end = common::Presence::Left) REQUIRES(mutex) {
        if (const auto publisher = publishers.find(id); publisher != publishers.end()) {
            const std::string topic = publisher->second;
            publishers.erase(publisher);
            descriptions.erase(topic);
            ReportPresence(topic, {end, id});
        } else if (const auto subscription = subscriptions.find(id); subscription != subscriptions.end()) {
            const Subscription removed = std::move(subscription->second);
            subscriptions.erase(subscription);
            ReportCounts(removed);
        } else {
            return false;
        }
        Announce();
        return true;
    }

    std::map<std::int64_t, std::string>::const_iterator FindPublisher(std::string_view topic) const REQUIRES(mutex) {
        return std::find_if(publishers.begin(), publishers.end(),
                            [topic](const auto& publisher) { return publisher.second == topic; });
    }

    std::int64_t CountSubscribers(std::string_view topic) const REQUIRES(mutex) {
        return std::count_if(subscriptions.begin(), subscriptions.end(),
                             [topic](const auto& entry) { return entry.second.topics.contains(std::string(topic)); });
    }

    void ReportPresence(const std::string& topic, common::PresenceValue value) REQUIRES(mutex) {
        Put(common::MakeReserved(common::ReservedTopic::Presence, topic), value.Encode());
    }

    /// A subscriber of these topics has come or gone.
    void ReportCounts(const Subscription& concerned) REQUIRES(mutex) {
        for (const auto& topic : concerned.topics) {
            Put(common::MakeReserved(common::ReservedTopic::SubscriberCount, topic), CountSubscribers(topic));
        }
    }

    /// Gives a new subscriber what it asks for with reserved topics.
    void PutFirst(Subscription& added) REQUIRES(mutex) {
        added.unread.clear(); // it is itself not news to it
        for (const auto& topic : added.topics) {
            const auto reserved = common::ParseReserved(topic);
            if (!reserved) {
                continue;
            }
            const auto publisher = FindPublisher(reserved->topic);
            const auto last = lastValues.find(std::string(reserved->topic));
            if (reserved->kind == common::ReservedTopic::SubscriberCount) {
                added.unread.push_back({topic, CountSubscribers(reserved->topic)});
            } else if (reserved->kind == common::ReservedTopic::Presence) {
                const auto value = publisher == publishers.end()
                                       ? common::PresenceValue{}
                                       : common::PresenceValue{common::Presence::Came, publisher->first};
                added.unread.push_back({topic, value.Encode()});
            } else if (last != lastValues.end()) {
                added.unread.push_back({last->first, last->second});
            }
        }
    }

    void Deliver(const std::string& topic, std::int64_t value) REQUIRES(mutex) {
        pushed[topic].push_back(value);
        lastValues[topic] = value;
        Put(topic, value);
    }

    /// Puts a value into the queues of those who have subscribed to the topic.
    void Put(const std::string& topic, std::int64_t value) REQUIRES(mutex) {
        for (auto& [id, subscription] : subscriptions) {
            if (subscription.topics.count(topic) != 0) {
                subscription.unread.push_back({topic.substr(0, LongestReceivedTopic), value});
            }
        }
        Announce();
    }

    /// Returns: how a receive ends; nothing when it has to wait.
    std::optional<std::int32_t> TryReceive(Link& link, Waiter& waiter, std::int64_t id, Message& message)
        REQUIRES(mutex) {
        if (waiter.isClosed) {
            return KnStatusClosed;
        }
        if (const std::int32_t status = Admit(link, Request::Receive); status != 0) {
            Settle(waiter, id, status);
            return status;
        }
        const auto found = subscriptions.find(id);
        if (found == subscriptions.end()) {
            return NotRegistered;
        }
        auto& unread = found->second.unread;
        if (unread.empty()) {
            return std::nullopt;
        }
        message = std::move(unread.front());
        unread.pop_front();
        return 0;
    }

    /// Does what the bus did before it answered a receive with this status.
    void Settle(Waiter& waiter, std::int64_t id, std::int32_t status) REQUIRES(mutex) {
        if (status == TooManyValues) {
            const auto found = subscriptions.find(id);
            waiter.loss.values += found == subscriptions.end() ? 0 : found->second.unread.size();
            waiter.loss.reason = TooManyValues;
        }
        if (status == TooManyValues || status == NotRegistered) {
            Remove(id);
        }
    }

    /// Returns: whether a Receive would not have to wait.
    bool HasSomething(const Link& link, const Waiter& waiter) const REQUIRES(mutex) {
        if (waiter.isClosed || IsLost(link) || !waiter.id) {
            return true;
        }
        const auto ordered = failures.find(Request::Receive);
        const auto found = subscriptions.find(*waiter.id);
        return (ordered != failures.end() && !ordered->second.empty()) || found == subscriptions.end() ||
               !found->second.unread.empty();
    }

    /// Wakes who may have something to receive.
    void Announce() REQUIRES(mutex) {
        changed.NotifyAll();
        for (const auto& [waiter, link] : waiters) {
            const bool mayBeSet = waiter->readiness && (!waiter->isAsleep || waiter->isClosed);
            if (mayBeSet && HasSomething(*link, *waiter)) {
                waiter->readiness->Set();
            }
        }
    }

    mutable common::Mutex mutex;
    common::ConditionVariable changed;
    std::uint64_t server GUARDED_BY(mutex) = 1;
    bool isRunning GUARDED_BY(mutex) = true;
    std::int64_t lastId GUARDED_BY(mutex) = 0;
    std::map<std::int64_t, std::string> publishers GUARDED_BY(mutex);
    std::map<std::string, std::string> descriptions GUARDED_BY(mutex); ///< of the publishers' topics
    std::map<std::int64_t, Subscription> subscriptions GUARDED_BY(mutex);
    std::vector<std::int64_t> unanswered GUARDED_BY(mutex); ///< to be unregistered before the next request
    std::map<Request, std::deque<Failure>> failures GUARDED_BY(mutex);
    std::map<std::string, std::vector<std::int64_t>> pushed GUARDED_BY(mutex);
    std::map<std::string, std::int64_t> lastValues GUARDED_BY(mutex); ///< since the server has started
    std::map<Waiter*, const Link*> waiters GUARDED_BY(mutex);
    Alarms alarms;
};

class Control final : public IControl {
public:
    Control(std::shared_ptr<Host> bus, std::shared_ptr<Link> connection)
        : host(std::move(bus)), link(std::move(connection)) {}

    std::int32_t RegisterPublisher(const std::string& topic, std::chrono::milliseconds, std::int64_t& id) override {
        return host->RegisterPublisher(*link, topic, id);
    }
    std::int32_t RegisterSubscriber(const std::string&, const std::vector<std::string>& topics,
                                    std::chrono::milliseconds, std::int64_t& id, std::string& refused) override {
        return host->RegisterSubscriber(*link, topics, id, refused);
    }
    std::int32_t UnregisterPublisher(std::int64_t id, std::chrono::milliseconds) noexcept override {
        return host->Unregister(*link, id);
    }
    std::int32_t UnregisterSubscriber(std::int64_t id, std::chrono::milliseconds) noexcept override {
        return host->Unregister(*link, id);
    }

private:
    const std::shared_ptr<Host> host;
    const std::shared_ptr<Link> link;
};

class Pusher final : public IPusher {
public:
    Pusher(std::shared_ptr<Host> bus, std::shared_ptr<Link> connection)
        : host(std::move(bus)), link(std::move(connection)) {}

    std::int32_t Push(std::int64_t id, std::int64_t value, std::uint32_t) noexcept override {
        return host->Push(*link, id, value);
    }
    std::int32_t Drain(std::uint32_t) noexcept override { return 0; } // a push that fails is over

private:
    const std::shared_ptr<Host> host;
    const std::shared_ptr<Link> link;
};

class Receiver final : public IReceiver {
public:
    Receiver(std::shared_ptr<Host> bus, std::shared_ptr<Link> connection)
        : host(std::move(bus)), link(std::move(connection)) {
        host->Add(*link, waiter);
    }
    Receiver(const Receiver&) = delete;
    Receiver& operator=(const Receiver&) = delete;
    ~Receiver() override { host->Remove(waiter); }

    std::int32_t Receive(std::int64_t id, std::uint32_t timeoutMs, Message& message) override {
        return host->Receive(*link, waiter, id, timeoutMs, message);
    }

    std::int32_t Descriptor(int& descriptor) noexcept override {
        try {
            descriptor = host->MakeDescriptor(*link, waiter);
            return 0;
        } catch (const std::exception&) {
            return KnStatusNoResources;
        }
    }

    std::int32_t TakeDescriptorOf(IReceiver& former) noexcept override {
        auto* const other = dynamic_cast<Receiver*>(&former);
        if (other == nullptr || other == this || host->HasDescriptor(waiter)) {
            return KnStatusInvalidArgument;
        }
        auto readiness = other->host->GiveDescriptor(*other->link, other->waiter);
        if (!readiness) {
            return KnStatusInvalidArgument;
        }
        host->TakeDescriptor(waiter, std::move(readiness));
        return 0;
    }

    std::int32_t WakeDescriptor(std::uint32_t afterMs) noexcept override {
        try {
            return host->WakeDescriptor(*link, waiter, afterMs);
        } catch (const std::exception&) {
            return KnStatusNoResources;
        }
    }

    Loss Lost() noexcept override { return host->LossOf(waiter); }
    void Close() noexcept override { host->Close(waiter); }

private:
    const std::shared_ptr<Host> host;
    const std::shared_ptr<Link> link;
    Waiter waiter;
};

std::shared_ptr<Link> Host::Connect() {
    const common::MutexLock lock(mutex);
    const std::int32_t status = TakeFailure(Request::Connect).value_or(isRunning ? 0 : KnStatusNotFound);
    switch (status) {
    case 0:
        return std::make_shared<Link>(Link{server});
    case KnStatusNotFound:
        throw NoServerError(status, "no message bus server is running");
    case KnStatusTimedOut:
        throw NoServerError(status, "the message bus server did not accept the connection in time");
    case KnStatusClosed:
        throw ServerGoneError(status, "the message bus server closed the connection during the handshake");
    default:
        throw PlatformError(status, std::string("cannot connect to the message bus: ") + KnStatusText(status));
    }
}

PublisherLinks Host::ConnectPublisher(std::chrono::milliseconds) {
    const auto link = Connect();
    return {std::make_shared<Control>(shared_from_this(), link), std::make_unique<Pusher>(shared_from_this(), link)};
}

SubscriberLinks Host::ConnectSubscriber(std::chrono::milliseconds) {
    const auto link = Connect();
    return {std::make_shared<Control>(shared_from_this(), link), std::make_unique<Receiver>(shared_from_this(), link)};
}

} // namespace

class __attribute__((visibility("hidden"))) Bus::State final : public Host {};

Bus::Bus() : state(std::make_shared<State>()) {}

Bus::~Bus() {
    state->Stop(false);
}

Options Bus::MakeOptions(Options options) const {
    options.backend = state;
    return options;
}

void Bus::Push(const std::string& topic, std::int64_t value) {
    state->Publish(topic, value);
}

void Bus::KillPublisher(const std::string& topic) {
    state->KillPublisher(topic);
}

void Bus::FailNext(Request request, std::int32_t code, int times) {
    state->FailNext(request, code, times);
}

void Bus::Restart() {
    state->Stop(true);
}

void Bus::Stop() {
    state->Stop(false);
}

void Bus::Start() {
    state->Start();
}

std::string Bus::DescriptionOf(const std::string& topic) const {
    return state->DescriptionOf(topic);
}

std::vector<std::int64_t> Bus::Pushed(const std::string& topic) const {
    return state->Pushed(topic);
}

std::size_t Bus::RegisteredCount() const {
    return state->RegisteredCount();
}

} // namespace msgbus::testing
