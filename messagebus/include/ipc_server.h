#pragma once

#include "bos_dynamic_ipc_server.h"
#include "br_MessageBus.h"

#include <boost/thread/thread.hpp>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

namespace message_bus {

/// How clients reach the bus.
enum class ConnectionType : std::int32_t {
    Static = 0,  ///< one channel, registered as br_MessageBus_connection
    Dynamic = 1, ///< services published by name, clients accepted at run time
};

} // namespace message_bus

namespace bos_ipc {

/// One thread of the pool. Shared by the pool and the workers that look themselves up.
struct WorkerThread {
    static constexpr std::uint32_t MayGoOn = 0xFFFFFFFF;

    boost::thread thread;                               // guarded by the pool's mutex
    std::atomic<std::uint32_t> shutdownMarker{MayGoOn}; // any other value: end after the current cycle
    unsigned handle = InvalidHandle;                    // channel served in dynamic mode; used by the worker only
};

/// Publishes the bus on the platform's IPC and serves it on a pool of workers. The pool starts with one worker and
/// grows by one whenever a worker is about to block. A short-lived detached thread joins and removes each worker that
/// ends.
///
/// Threads: construction, Init and Run on the hosting thread, in that order; see docs/threading.md for the rest.
class [[gnu::visibility("default")]] IpcServer final {
public:
    /// Calls nothing of the platform. A failure ends the process.
    explicit IpcServer(message_bus::ConnectionType type) noexcept;
    IpcServer(const IpcServer&) = delete;
    IpcServer& operator=(const IpcServer&) = delete;

    /// Sets the stop signal and waits for every worker.
    /// Blocks: a worker in receive ends with its next request or when its channel closes, one that listens within
    /// ListenTimeoutMs.
    ~IpcServer();

    /// Stores the records to serve, then registers the static channel or publishes the services.
    /// Returns: 0; 6; 10 when the task has no name.
    int Init(br_MessageBus_component && newEntity, br_MessageBusComponent_component && newComponent);
    int InitStatic();
    int InitDynamic(const std::string& serverName, const std::vector<DynamicIpcDescriptor>& descriptors);

    /// Starts the first worker and returns. Contract: does not check that Init succeeded, so a static worker may serve
    /// a transport without a channel.
    /// Returns: 0; 10.
    int Run();

    /// Makes every worker loop end before its next cycle. Cannot be undone. Threads: any.
    void SetStopSignal();
    bool ShouldBeStopped();

    /// Starts a worker in place of the calling one, on the same connection.
    /// Returns: 0; 5 when no subscriber connection is known; 10.
    /// Threads: workers.
    int DispatchIpcServer();

    /// Marks the calling worker to end after its current cycle.
    /// Returns: 0; 10 when the calling thread is no worker.
    int ShutdownIpcServer();

    // The pool.

    /// Starts one worker that runs `fn`. Contract: an exception that leaves `fn` ends the process. A failure to start
    /// is logged, and the record that it may leave behind keeps WaitAllThreads from returning.
    void CreateThread(std::function<void()> fn);

    /// Returns: the calling worker's record; empty for any other thread.
    std::shared_ptr<WorkerThread> GetCurrentIpcThread() const;

    /// Repeats `fn` until the stop signal is set, tested before each call, or the worker's marker, tested after it.
    void RunLoop(std::function<void()> fn);

    /// Joins the worker `id` of `server` and erases its record; does nothing when the pool does not list it.
    static void RemoveThread(boost::thread::id id, IpcServer * server);

    /// Blocks until the pool is empty.
    /// Throws: boost::thread_resource_error when the calling thread is the first worker.
    void WaitAllThreads();

    // The loops of the workers and their cycles.

    void RunStaticLoop();
    int DispatchStatic();
    void RunDynamicLoop();
    int DispatchDynamic();
    void CreateIpcDispatcher(unsigned handle);
    void RunIpcDispatcher(unsigned handle);

private:
    template <typename Cycle>
    void Repeat(const Cycle& cycle);
    void ServeOnce(unsigned handle);

    message_bus::ConnectionType connectionType;
    std::mutex connectionsMutex;
    std::unordered_map<std::string, unsigned> connections; // service to channel; guarded by connectionsMutex
    std::vector<std::shared_ptr<WorkerThread>> workers;    // creation order; guarded by the process-wide workersMutex
    DynamicServer dynamicServer;
    NkBosTransport transport{};
    br_MessageBus_component entity{};
    br_MessageBusComponent_component component{};
    std::atomic<bool> stopSignal{false};
    boost::thread::attributes threadAttributes;
};

} // namespace bos_ipc
