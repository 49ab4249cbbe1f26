#include "ipc_server.h"

#include "cor/result_code.h"
#include "diagnostics.h"
#include "kn/status.h"
#include "kn/task.h"
#include "service_locator.h"

#include <pthread.h>

#include <algorithm>
#include <array>
#include <cassert>
#include <cstring>
#include <utility>

namespace bos_ipc {

using cor::ResultCode;
using diagnostics::Check;
using diagnostics::Log;
using diagnostics::LogLevel;
using message_bus::ConnectionType;

namespace {

constexpr int Success = static_cast<int>(ResultCode::Success);
constexpr int NoDispatchHandle = static_cast<int>(ResultCode::DispatchFailed);
constexpr int InitFailed = static_cast<int>(ResultCode::InitFailed);
constexpr int OtherFailure = static_cast<int>(ResultCode::Failed);

constexpr auto SubscriberService = br_MessageBusComponent_subs_service;

// One for the process: guards the workers of every IpcServer.
std::mutex workersMutex;
// Counts removals, so that WaitAllThreads can sleep until the next one.
std::atomic<std::uint32_t> removals{0};

} // namespace

IpcServer::IpcServer(ConnectionType type) noexcept : connectionType(type) {
    threadAttributes.set_stack_size(DispatcherStackSize());
}

IpcServer::~IpcServer() {
    stopSignal.exchange(true);
    WaitAllThreads();
}

int IpcServer::Init(br_MessageBus_component&& newEntity, br_MessageBusComponent_component&& newComponent) {
    entity = newEntity;
    component = newComponent;
    try {
        // Contract: an unknown type counts as dynamic here, so its services are published; Run starts no worker for it.
        if (connectionType == ConnectionType::Static) {
            return InitStatic();
        }
        // Contract: not in the order of the interface ids, so after a failure it is ctl that may be missing alone.
        const std::vector<DynamicIpcDescriptor> descriptors{
            {br_MessageBusProvider_type, br_MessageBusComponent_provider_service, br_MessageBusComponent_provider_iid},
            {br_MessageBusSubs_type, SubscriberService, br_MessageBusComponent_subs_iid},
            {br_MessageBusCtl_type, br_MessageBusComponent_ctl_service, br_MessageBusComponent_ctl_iid},
        };
        std::array<char, 1024> name{};
        if (KnTaskGetName(name.data(), name.size()) != 0) {
            Log(LogLevel::Error, "Cannot get task name");
            return OtherFailure;
        }
        return InitDynamic(std::string(name.data(), strnlen(name.data(), name.size())), descriptors);
    } catch (...) {
        Log(LogLevel::Error, "Cannot init ipc server");
        return InitFailed;
    }
}

int IpcServer::InitStatic() {
    std::uint32_t iid = 0;
    const KnHandle handle = ServiceLocatorRegister(br_MessageBus_connection, nullptr, 0, &iid);
    if (handle == InvalidHandle) {
        Log(LogLevel::Error, "{}: ServiceLocatorRegister failed: Invalid handle", "InitStatic");
        return InitFailed;
    }
    NkBosTransport_Init(&transport, handle, nullptr, 0);
    return Success;
}

int IpcServer::InitDynamic(const std::string& serverName, const std::vector<DynamicIpcDescriptor>& descriptors) {
    try {
        dynamicServer.Init(serverName, descriptors);
        return Success;
    } catch (...) {
        Log(LogLevel::Error, "Error during {}", "InitDynamic");
        return InitFailed;
    }
}

int IpcServer::Run() {
    try {
        if (connectionType == ConnectionType::Dynamic) {
            CreateThread([this] { RunDynamicLoop(); });
        } else if (connectionType == ConnectionType::Static) {
            CreateThread([this] { RunStaticLoop(); });
        }
        return Success; // Contract: also when CreateThread failed, so the caller does not learn that no worker runs
    } catch (...) {
        Log(LogLevel::Error, "Error during {}", "Run");
        return OtherFailure;
    }
}

void IpcServer::SetStopSignal() {
    stopSignal.exchange(true);
}

bool IpcServer::ShouldBeStopped() {
    return stopSignal;
}

void IpcServer::CreateThread(std::function<void()> fn) {
    try {
        auto record = std::make_shared<WorkerThread>();
        // Held until the thread is stored, so that a worker which looks itself up always finds its record complete.
        const std::lock_guard lock(workersMutex);
        workers.push_back(std::move(record));
        workers.back()->thread = boost::thread(threadAttributes, [this, body = std::move(fn)] {
            body();
            // A worker cannot join itself.
            boost::thread remover(threadAttributes,
                                  [id = boost::this_thread::get_id(), this] { RemoveThread(id, this); });
            remover.detach();
        });
    } catch (...) {
        // Contract: a record that was listed before the failure stays, so WaitAllThreads does not return any more.
        Log(LogLevel::Error, "Error during {}", "CreateThread");
    }
}

void IpcServer::RemoveThread(boost::thread::id id, IpcServer* server) {
    // Contract: only a standard exception of the join is caught, so any other one ends the process.
    std::unique_lock lock(workersMutex);
    auto& workers = server->workers;
    const auto found = std::find_if(workers.begin(), workers.end(),
                                    [id](const auto& worker) { return worker->thread.get_id() == id; });
    if (found == workers.end()) {
        return;
    }
    try {
        if ((*found)->thread.joinable()) {
            (*found)->thread.join();
        }
    } catch (const std::exception& error) {
        lock.unlock();
        Log(LogLevel::Error, "Error during remove thread: {}", error.what());
        return;
    }
    workers.erase(found);
    ++removals;
    removals.notify_all();
}

std::shared_ptr<WorkerThread> IpcServer::GetCurrentIpcThread() const {
    try {
        const std::lock_guard lock(workersMutex);
        const pthread_t self = ::pthread_self();
        const auto found = std::find_if(workers.begin(), workers.end(), [self](const auto& worker) {
            return ::pthread_equal(worker->thread.native_handle(), self) != 0;
        });
        return found == workers.end() ? nullptr : *found;
    } catch (...) {
        Log(LogLevel::Error, "Error during {}", "GetCurrentIpcThread");
        return nullptr;
    }
}

int IpcServer::ShutdownIpcServer() {
    const auto worker = GetCurrentIpcThread();
    if (!worker) {
        try {
            Log(LogLevel::Error, "{}: Unable to find current worker thread. It seems that it is internal error.",
                "ShutdownIpcServer");
        } catch (...) {
            Log(LogLevel::Error, "Cannot shutdown current ipcServer!");
        }
        return OtherFailure;
    }
    worker->shutdownMarker.exchange(0);
    return Success;
}

void IpcServer::WaitAllThreads() {
    // Only the first worker joins here, so that the thread library refuses its wait for itself. Removers make all other
    // joins, because two threads must not join through one boost::thread object. They erase the records too, so the
    // other threads sleep here until that has happened.
    for (;;) {
        const std::uint32_t seen = removals;
        {
            const std::lock_guard lock(workersMutex);
            if (workers.empty()) {
                return;
            }
            auto& first = workers.front()->thread;
            if (first.joinable() && first.get_id() == boost::this_thread::get_id()) {
                first.join();
            }
        }
        removals.wait(seen);
    }
}

template <typename Cycle>
void IpcServer::Repeat(const Cycle& cycle) {
    const auto worker = GetCurrentIpcThread();
    while (!stopSignal) {
        cycle();
        if (worker && worker->shutdownMarker != WorkerThread::MayGoOn) {
            return;
        }
    }
}

void IpcServer::RunLoop(std::function<void()> fn) {
    try {
        Repeat(fn);
    } catch (...) {
        Log(LogLevel::Error, "Error during {}", "RunLoop");
    }
}

void IpcServer::RunStaticLoop() {
    try {
        Repeat([this] { DispatchStatic(); });
    } catch (...) {
        Log(LogLevel::Error, "Error during {}", "RunStaticLoop");
    }
}

int IpcServer::DispatchStatic() {
    constexpr auto self = "DispatchStatic";
    GuardedRecord<br_MessageBus_component_req> request;
    GuardedRecord<br_MessageBus_component_res> response;
    char nothing = 0;
    nk_arena requestArena{&nothing, &nothing, &nothing};
    nk_arena responseArena{&nothing, &nothing, &nothing};

    const std::int32_t received = NkBosTransport_Receive(&transport, request.Message(), &requestArena);
    if (received != 0) {
        Log(LogLevel::Error, "{}: NK transport received the error {}", self, received);
        return Success;
    }
    assert(request.guard == 0);
    const std::int32_t dispatched =
        br_MessageBus_entity_dispatch(&entity, request.Message(), &requestArena, response.Message(), &responseArena);
    if (dispatched == KnStatusNoReply) {
        return Success;
    }
    if (dispatched != 0) {
        Log(LogLevel::Error, "{}: br_MessageBus_entity_dispatch has error {}", self, dispatched);
    }
    const std::int32_t replied = NkBosTransport_Reply(&transport, response.Message(), &responseArena);
    if (replied != 0) {
        Log(LogLevel::Error, "{}: NK transport reply error {}", self, replied);
    }
    return Success;
}

void IpcServer::RunDynamicLoop() {
    try {
        Repeat([this] { DispatchDynamic(); });
    } catch (...) {
        Log(LogLevel::Error, "Error during {}", "RunDynamicLoop");
    }
}

int IpcServer::DispatchDynamic() {
    std::unordered_map<std::string, unsigned> accepted;
    {
        const std::lock_guard lock(connectionsMutex);
        accepted = connections;
    }
    const auto connection = dynamicServer.StartListenerThread(accepted);
    if (!connection) {
        return Success;
    }
    const auto& [service, handle] = *connection;
    {
        const std::lock_guard lock(connectionsMutex);
        connections[service] = handle;
    }
    // Contract: the snapshot decides, so two first accepts of one service that race may both start a dispatcher.
    if (accepted.contains(service)) {
        return Success;
    }
    Log(LogLevel::Debug, "MSB_CONNECT: Creating dispatch thread for new handle [{}], service [{}]", handle, service);
    if (service == SubscriberService) {
        CreateIpcDispatcher(handle);
    } else {
        dynamicServer.AddIpcThread<br_MessageBus_component_req, 0, br_MessageBus_component_res, 0>(
            &entity, &br_MessageBus_entity_dispatch, handle);
    }
    return Success;
}

void IpcServer::CreateIpcDispatcher(unsigned handle) {
    CreateThread([this, handle] { RunIpcDispatcher(handle); });
}

void IpcServer::RunIpcDispatcher(unsigned handle) {
    constexpr auto self = "RunIpcDispatcher";
    const auto worker = GetCurrentIpcThread();
    if (worker) {
        worker->handle = handle;
    }
    // A failing pass does not end the worker; only its marker and the stop signal do.
    while (!stopSignal) {
        try {
            ServeOnce(handle);
        } catch (const tua::Exception& error) {
            Log(LogLevel::Error, "{}: {}", self, diagnostics::Described{error});
        } catch (const std::exception& error) {
            Log(LogLevel::Error, "{}: {}", self, error.what());
        } catch (...) {
            Log(LogLevel::Error, "{}: Unknown exception", self);
        }
        if (worker && worker->shutdownMarker != WorkerThread::MayGoOn) {
            return;
        }
    }
}

void IpcServer::ServeOnce(unsigned handle) {
    Check(handle != InvalidHandle, "invalid handle");
    NkBosTransport channel{};
    NkBosTransport_Init(&channel, handle, nullptr, 0);
    const ArenaMapping<0> requestMemory;
    Check(static_cast<bool>(requestMemory), "reqBuffer is null");
    const ArenaMapping<0> responseMemory;
    Check(static_cast<bool>(responseMemory), "resBuffer is null");
    GuardedRecord<br_MessageBus_component_req> request;
    GuardedRecord<br_MessageBus_component_res> response;
    nk_arena requestArena = requestMemory.Empty();
    nk_arena responseArena = responseMemory.Empty();
    Check(NkBosTransport_Receive(&channel, request.Message(), &requestArena) == 0);
    assert(request.guard == 0);
    Check(br_MessageBus_entity_dispatch(&entity, request.Message(), &requestArena, response.Message(),
                                        &responseArena) == 0);
    Check(NkBosTransport_Reply(&channel, response.Message(), &responseArena) == 0);
}

int IpcServer::DispatchIpcServer() {
    try {
        if (connectionType == ConnectionType::Static) {
            // Contract: unlike RunStaticLoop this catches nothing, so a handler that throws ends the process.
            CreateThread([this] { Repeat([this] { DispatchStatic(); }); });
        } else if (connectionType == ConnectionType::Dynamic) {
            const auto worker = GetCurrentIpcThread();
            unsigned handle = worker ? worker->handle : InvalidHandle;
            if (handle == InvalidHandle) {
                const std::lock_guard lock(connectionsMutex);
                const auto found = connections.find(SubscriberService);
                if (found == connections.end()) {
                    // Contract: the line names the interface, not the service, so operators search for that.
                    Log(LogLevel::Error, "Cannot find handle for {}", br_MessageBusSubs_type);
                    return NoDispatchHandle;
                }
                handle = found->second;
            }
            CreateIpcDispatcher(handle);
        }
        return Success;
    } catch (...) {
        Log(LogLevel::Error, "Error during {}", "DispatchIpcServer");
        return OtherFailure;
    }
}

} // namespace bos_ipc
