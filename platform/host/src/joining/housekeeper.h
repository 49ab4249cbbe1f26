#pragma once

#include "base/deadline.h"
#include "common/mutex.h"
#include "joining/admission.h"
#include "joining/poller.h"
#include "joining/visitors.h"
#include "ns/name_loss.h"
#include "records/channel.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace borven_host {

/// Admits clients to the server ends of this process, and notices when they die: one thread, which runs while the
/// process has server ends, and the operations that other threads call. Receivers neither accept nor watch anything.
///
/// Threads: any. What they share stands behind `mutex`; no operation waits for a client while it holds it.
class Housekeeper final {
public:
    /// Never destroyed: threads may come here until the process has exited.
    static Housekeeper& Instance();

    /// Lets every client that connects to the static connection `name` join `channel`.
    /// Returns: 0 or what NamedSocket::Create returns.
    std::int32_t Offer(std::string_view name, std::shared_ptr<Channel> channel) EXCLUDES(lifeMutex, mutex);

    /// Returns: 0 or what NamedSocket::Create returns.
    std::int32_t Publish(std::string_view service, std::string_view type) EXCLUDES(lifeMutex, mutex);

    /// See KnCmListen; the buffers are KnCmNameSize bytes.
    std::int32_t Listen(std::optional<std::string_view> task, Deadline deadline, char* clientName, char* serviceName)
        EXCLUDES(mutex);

    /// See KnCmAccept. With no channel, `refusal` goes to the client and to the caller.
    std::int32_t Accept(std::string_view clientName, std::string_view service, std::uint16_t iid,
                        const std::shared_ptr<Channel>& channel, std::int32_t refusal) EXCLUDES(mutex);

    /// See NsOnNameLost.
    void OnNameLost(NsNameLostHandler handler, void* context) EXCLUDES(mutex);

    /// Makes every KnCmListen return KnStatusClosed, and KnCmAccept refuse, until a service is published again.
    void StopListening() EXCLUDES(mutex);

    /// Removes the channel's name, if it has one, and closes it.
    void Close(const std::shared_ptr<Channel>& channel) EXCLUDES(lifeMutex, mutex);

    /// The same for all `channels`, and for every published service; stops listening.
    void CloseAll(const std::vector<std::shared_ptr<Channel>>& channels) EXCLUDES(lifeMutex, mutex);

private:
    Housekeeper();

    static void BeforeFork();
    static void AfterForkInParent();
    static void AfterForkInChild();
    void LeaveToParent() REQUIRES(lifeMutex, mutex);

    void Add(Admission::Listener listener) EXCLUDES(lifeMutex, mutex);
    void Start() REQUIRES(lifeMutex, mutex);
    void StopWhenIdle() REQUIRES(lifeMutex) EXCLUDES(mutex);
    void CloseChannel(Channel& channel) REQUIRES(mutex);
    void EndListening() REQUIRES(mutex);

    void Run(int waitsOn) EXCLUDES(mutex);
    void Handle(const Poller::Event& event) REQUIRES(mutex);
    void ReportLostNames(const std::vector<std::string>& names) EXCLUDES(mutex);

    /// Held while the thread starts or stops, and while names are released.
    common::Mutex lifeMutex ACQUIRED_BEFORE(mutex);
    std::thread thread GUARDED_BY(lifeMutex);

    common::Mutex mutex;
    common::ConditionVariable asked; ///< notified when a visitor asks, and when listening stops
    Poller poller GUARDED_BY(mutex);
    Visitors visitors GUARDED_BY(mutex){poller, asked};
    Admission admission GUARDED_BY(mutex){poller, visitors};
    bool isStopping GUARDED_BY(mutex) = false;
    bool isListening GUARDED_BY(mutex) = true; ///< false from StopListening until a service is published again
    std::uint64_t listeningStops GUARDED_BY(mutex) = 0;
    NsNameLostHandler nameLostHandler GUARDED_BY(mutex) = nullptr;
    void* nameLostContext GUARDED_BY(mutex) = nullptr;
    bool isReportingLoss GUARDED_BY(mutex) = false; ///< the handler is being called
    common::ConditionVariable lossReported;
};

} // namespace borven_host
