#pragma once

#include "backend.h"
#include "common/mutex.h"
#include "common/thread_annotations.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace msgbus {

/// One registration of a subscriber with one server.
/// Threads: any.
class Registration final {
public:
    Registration(SubscriberLinks connected, std::int64_t given, std::chrono::milliseconds timeout)
        : links(std::move(connected)), callTimeout(timeout), id(given) {}
    Registration(const Registration&) = delete;
    Registration& operator=(const Registration&) = delete;
    ~Registration() { Unregister(); }

    /// Returns: the status of the request; 0 when not registered.
    std::int32_t Unregister() noexcept;

    /// Ends a wait that the server does not end.
    void EndWait() noexcept { links.receiver->Close(); }

    const SubscriberLinks& Links() const noexcept { return links; }
    std::int64_t Id() const noexcept { return id; }

    /// How many restarts of the server it follows, because others were never used. Set before it is in use.
    std::uint64_t Restarts() const noexcept { return restarts; }
    void Follow(const Registration& unused) noexcept { restarts += unused.restarts; }

private:
    SubscriberLinks links;
    const std::chrono::milliseconds callTimeout;
    std::atomic<std::int64_t> id; ///< -1: not registered
    std::uint64_t restarts = 1;
};

/// Registers one subscriber, and again with a restarted server. A publisher of the same process that finds the server
/// restarted first has the subscribers registered, so that they miss none of its values.
/// Threads: any.
class Registrar final {
public:
    /// Makes one that publishers of this process find.
    static std::shared_ptr<Registrar> Make(std::string name, std::vector<std::string> topics, const Options& options,
                                           std::shared_ptr<Backend> backend);

    /// Registers. `longest`: of what the options allow for one request. Throws: as the constructor of Subscriber.
    std::shared_ptr<Registration> Register(std::chrono::milliseconds longest = std::chrono::milliseconds::max());

    /// Returns: a registration in place of the lost one; null while another thread makes it. Throws: as Register.
    std::shared_ptr<Registration> RegisterAgain(std::chrono::milliseconds longest = std::chrono::milliseconds::max())
        EXCLUDES(mutex);

    /// The subscriber has `registration` from now on; null: it needs none any more.
    void SetCurrent(const std::shared_ptr<Registration>& registration) EXCLUDES(mutex);

    /// Registers every subscriber of this process that was registered over `lost` and reconnects.
    /// Throws: NoServerError. Blocks: as Register, for each of them, and little longer than `deadline`.
    static void RegisterAllOf(const std::shared_ptr<IControl>& lost, Deadline deadline);

private:
    Registrar(std::string subscriberName, std::vector<std::string> subscriberTopics, const Options& subscriberOptions,
              std::shared_ptr<Backend> bus);

    void Prepare(const std::shared_ptr<IControl>& lost, Deadline deadline) EXCLUDES(mutex);
    void EndRegistering() REQUIRES(mutex);
    bool IsRegisteredOver(const std::shared_ptr<IControl>& lost) const REQUIRES(mutex);

    const std::string name;
    const std::vector<std::string> topics;
    const std::chrono::milliseconds connectTimeout;
    const std::chrono::milliseconds callTimeout;
    const bool reconnects;
    const std::shared_ptr<Backend> backend;

    common::Mutex mutex;
    common::ConditionVariable registeringEnded;
    bool isRegistering GUARDED_BY(mutex) = false;        ///< a thread makes a registration
    std::shared_ptr<IControl> current GUARDED_BY(mutex); ///< of the registration in use; null: none
    std::shared_ptr<Registration> prepared GUARDED_BY(mutex);
};

} // namespace msgbus
