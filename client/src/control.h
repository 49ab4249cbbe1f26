#pragma once

#include "backend.h"
#include "common/mutex.h"
#include "common/thread_annotations.h"
#include "connection.h"
#include "failure.h"

#include <functional>
#include <memory>
#include <vector>

namespace msgbus {

/// Registrations over one connection, which all publishers and subscribers of a process share. A request that is not
/// answered in time stays under way; what it may have registered is unregistered once the reply is there.
///
/// Threads: any; requests take turns.
class Control final : public IControl, public std::enable_shared_from_this<Control> {
public:
    /// Returns: the control connection of this process to the server that `route` finds, see Connection.
    static std::shared_ptr<Control> Shared(Route& route, std::chrono::milliseconds timeout);

    Control(Route& route, std::chrono::milliseconds timeout);

    std::int32_t RegisterPublisher(const std::string& topic, std::chrono::milliseconds timeout,
                                   std::int64_t& id) override;
    std::int32_t RegisterSubscriber(const std::string& name, const std::vector<std::string>& topics,
                                    std::chrono::milliseconds timeout, std::int64_t& id, std::string& refused) override;
    std::int32_t UnregisterPublisher(std::int64_t id, std::chrono::milliseconds timeout) noexcept override;
    std::int32_t UnregisterSubscriber(std::int64_t id, std::chrono::milliseconds timeout) noexcept override;

    /// Returns: whether the server is gone or stops: a new registration needs another connection.
    bool IsLost() const noexcept EXCLUDES(mutex);

    /// Returns: whether there is nothing more to do for requests that were not answered in time.
    bool IsSettled() const noexcept EXCLUDES(mutex);

private:
    /// What a request registers, or a reply that is still to come.
    enum class Registered { Nothing, Publisher, Handshake, Subscriber };

    struct Registration {
        Registered kind;
        std::int64_t id;
    };

    /// The two steps of one request (br_MessageBus_begun.h), with their limits in milliseconds. The second sets the id
    /// of what is registered.
    using Begin = std::function<std::int32_t(std::uint32_t)>;
    using Finish = std::function<std::int32_t(std::int64_t&, std::uint32_t)>;

    std::int32_t Request(Registered registered, std::chrono::milliseconds timeout, const Begin& begin,
                         const Finish& finish, std::int64_t& id);
    std::int32_t Unregister(const Registration& registration, std::chrono::milliseconds timeout) noexcept;

    struct Leaving {
        void operator()(Control* control) const noexcept { control->Leave(); }
    };
    using Turn = std::unique_ptr<Control, Leaving>; ///< of a thread on the connection; null: none

    Turn Enter(Deadline deadline, bool isPatient) EXCLUDES(mutex);
    void Leave() noexcept EXCLUDES(mutex);
    std::int32_t TakeLateReply(Deadline deadline) EXCLUDES(mutex);
    std::int32_t Settle(Deadline deadline) EXCLUDES(mutex);
    std::int32_t Exchange(Registered registered, Deadline deadline, const Begin& begin, const Finish& finish,
                          std::int64_t& id);
    std::int32_t Undo(const Registration& registration, Deadline deadline);
    void NoteStatus(std::int32_t status) noexcept EXCLUDES(mutex);

    Connection connection;
    const unsigned forks = ForkCount();

    mutable common::Mutex mutex;
    common::ConditionVariable left;
    bool isBusy GUARDED_BY(mutex) = false; ///< a thread has the turn, and with it all below that is not guarded
    bool isLost GUARDED_BY(mutex) = false;
    bool isLate GUARDED_BY(mutex) = false;                ///< a reply is still to come
    std::vector<Registration> unwanted GUARDED_BY(mutex); ///< to be unregistered before the next request
    Finish lateFinish;                                    ///< of the request whose reply is still to come
    Registered late = Registered::Nothing;
};

} // namespace msgbus
