#include "names/server_process.h"

#include "common/mutex.h"
#include "common/thread_annotations.h"

#include <pthread.h>

#include <map>
#include <utility>

namespace borven_host {

namespace {

/// The servers to which this process has connections. Never destroyed: threads may connect until the process has
/// exited.
class Servers final {
public:
    static Servers& Instance() {
        static Servers& servers = *new Servers;
        return servers;
    }

    std::shared_ptr<const UniqueFd> Share(Peer& server) EXCLUDES(mutex) {
        const common::MutexLock lock(mutex);
        std::erase_if(processes, [](const auto& entry) { return entry.second.expired(); });
        auto& known = processes[{server.pid, server.startTime}];
        auto process = known.lock();
        if (!process) {
            process = std::make_shared<const UniqueFd>(std::move(server.process));
            known = process;
        }
        return process;
    }

private:
    Servers() {
        ::pthread_atfork([] { Instance().BeforeFork(); }, [] { Instance().AfterFork(); },
                         [] { Instance().AfterFork(); });
    }

    // The lock is held from one of these functions to the other, which the analysis cannot follow.
    void BeforeFork() NO_THREAD_SAFETY_ANALYSIS { mutex.Lock(); }
    void AfterFork() NO_THREAD_SAFETY_ANALYSIS { mutex.Unlock(); }

    common::Mutex mutex;
    std::map<std::pair<pid_t, std::uint64_t>, std::weak_ptr<const UniqueFd>> processes GUARDED_BY(mutex);
};

// Made before any thread, which another one could fork in the middle of.
[[maybe_unused]] const Servers& madeEarly = Servers::Instance();

} // namespace

std::shared_ptr<const UniqueFd> ShareProcess(Peer& server) {
    if (!server.process ||
        server.startTime == 0) { // without the start time, the number alone may be a younger process's
        return std::make_shared<const UniqueFd>(std::move(server.process));
    }
    return Servers::Instance().Share(server);
}

} // namespace borven_host
