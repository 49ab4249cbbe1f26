#pragma once

#include "diagnostics.h"
#include "kn/connection_manager.h"
#include "nk/transport.h"
#include "ns/name_server.h"

#include <boost/thread/thread.hpp>

#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cassert>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace bos_ipc {

inline constexpr unsigned InvalidHandle = KnInvalidHandle;
inline constexpr std::uint32_t ListenTimeoutMs = 5000;
inline constexpr std::uint32_t NsInfiniteTimeout = 0xFFFFFFFF;

/// Stack of every thread that serves: 1 MiB, rounded up to whole pages.
inline std::size_t DispatcherStackSize() {
    constexpr std::size_t wanted = 0x100000;
    const auto page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    return (wanted + page - 1) / page * page;
}

/// A record with zeros behind it, which end the scan of a string without terminator.
template <typename Record>
struct GuardedRecord {
    GuardedRecord() noexcept {
        std::memset(static_cast<void*>(this), 0, sizeof *this);
        PrepareForReceive();
    }

    nk_message* Message() noexcept { return reinterpret_cast<nk_message*>(&record); }

    void PrepareForReceive() noexcept { Message()->size = sizeof(Record); }

    Record record;
    std::uint64_t guard; ///< stays 0: no transport writes more than the record
};

/// Memory of a dispatcher's arena: an anonymous mapping that begins with its own length, with `UsableBytes` behind it.
template <std::size_t UsableBytes>
class ArenaMapping final {
public:
    ArenaMapping() noexcept {
        void* const mapping = ::mmap(nullptr, LengthBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (mapping != MAP_FAILED) {
            base = static_cast<std::uint64_t*>(mapping);
            *base = LengthBytes;
        }
    }
    ArenaMapping(const ArenaMapping&) = delete;
    ArenaMapping& operator=(const ArenaMapping&) = delete;
    ~ArenaMapping() {
        if (base != nullptr) {
            ::munmap(base, *base);
        }
    }

    explicit operator bool() const noexcept { return base != nullptr; }

    /// The arena with nothing in it. Requires: the mapping was made.
    nk_arena Empty() const noexcept {
        assert(base != nullptr);
        auto* const start = reinterpret_cast<char*>(base + 1);
        return {start, start, start + UsableBytes};
    }

private:
    static constexpr std::size_t LengthBytes = sizeof(std::uint64_t) + UsableBytes;

    std::uint64_t* base = nullptr; // owned: the mapping
};

/// One service to publish.
struct DynamicIpcDescriptor {
    std::string type;    ///< name of the interface, for the name server
    std::string service; ///< name by which clients connect
    std::uint32_t iid;   ///< index of the interface within the component
};

/// Publishes services, accepts their clients, and runs one dispatcher thread for each channel handed to AddIpcThread.
/// Threads: Init before anything else; StartListenerThread from any thread; AddIpcThread from one at a time.
class DynamicServer final {
public:
    DynamicServer() = default;
    DynamicServer(const DynamicServer&) = delete;
    DynamicServer& operator=(const DynamicServer&) = delete;

    /// Joins every dispatcher. Blocks: a dispatcher in receive ends with its next request or when its channel closes.
    ~DynamicServer() {
        shutdown.exchange(true);
        for (auto& [handle, thread] : threads) {
            try {
                if (thread.joinable()) {
                    thread.join();
                }
            } catch (const std::exception& error) {
                diagnostics::Log(LogLevel::Error, "Cannot join thread: {}", error.what());
            }
        }
    }

    /// Publishes every service in order. Services published before a failure stay published.
    /// Throws: tua::CheckFailedException.
    void Init(const std::string& serverName, const std::vector<DynamicIpcDescriptor>& descriptors) {
        using diagnostics::Check;
        Check(!serverName.empty());
        Check(!descriptors.empty());
        NsHandle nameServer = 0;
        const std::int32_t status = NsCreate(nullptr, NsInfiniteTimeout, &nameServer);
        diagnostics::Log(LogLevel::Debug, "Error code {}", status);
        Check(status == 0);
        for (const auto& [type, service, iid] : descriptors) {
            diagnostics::Log(LogLevel::Info, "Publishing service {}, type {}", service, type);
            Check(NsPublishService(nameServer, type.c_str(), serverName.c_str(), service.c_str()) == 0);
            services.emplace(service, iid);
        }
    }

    /// Waits for one connection request and accepts it; a service in `accepted` keeps the channel it has there.
    /// Returns: service and channel; nothing when no request came in time or the client could not be accepted.
    /// Throws: tua::CheckFailedException for a service that was not published.
    /// Blocks: up to ListenTimeoutMs.
    std::optional<std::pair<std::string, unsigned>>
    StartListenerThread(const std::unordered_map<std::string, unsigned>& accepted) const {
        std::array<char, KnCmNameSize> clientBuffer{};
        std::array<char, KnCmNameSize> serviceBuffer{};
        unsigned handle = InvalidHandle;
        if (KnCmListen(nullptr, ListenTimeoutMs, clientBuffer.data(), serviceBuffer.data()) != 0) {
            return std::nullopt;
        }
        const auto text = [](const auto& buffer) {
            return std::string(buffer.data(), strnlen(buffer.data(), buffer.size()));
        };
        const std::string client = text(clientBuffer);
        std::string service = text(serviceBuffer);
        diagnostics::Log(LogLevel::Debug, "dyn ipc: client {}, service {}", client, service);

        const auto published = services.find(service);
        diagnostics::Check(published != services.end());
        const std::uint32_t iid = published->second;
        diagnostics::Log(LogLevel::Debug, "dyn ipc: iid = {}", iid);

        const auto existing = accepted.find(service);
        const unsigned known = existing == accepted.end() ? InvalidHandle : existing->second;
        const std::int32_t status = KnCmAccept(client.c_str(), service.c_str(), iid, known, &handle);
        if (known != InvalidHandle) {
            handle = known;
        }
        if (status != 0) {
            diagnostics::Log(LogLevel::Warning, "bos_ipc: accept failed, drop client = {} ; service = {}", client,
                             service);
            return std::nullopt;
        }
        diagnostics::Log(LogLevel::Info, "Accept finished. Handle = {}", handle);
        return std::pair(std::move(service), handle);
    }

    /// Starts a thread that serves `handle` for `entity` through `dispatch`, unless `handle` ever had one. The thread
    /// ends when receive, dispatch or reply fails, or after the first reply that follows the start of the destructor.
    /// Throws: boost::thread_resource_error.
    template <typename Request, std::size_t RequestArenaSize, typename Response, std::size_t ResponseArenaSize,
              typename Entity, typename DispatchFunction>
    void AddIpcThread(Entity* entity, DispatchFunction dispatch, unsigned handle) {
        if (threads.contains(handle)) {
            return;
        }
        boost::thread::attributes attributes;
        attributes.set_stack_size(DispatcherStackSize());
        threads.emplace(handle, boost::thread(attributes, [entity, dispatch, handle, stop = &shutdown] {
                            using diagnostics::Check;
                            using diagnostics::Log;
                            constexpr auto self = "operator()";
                            try {
                                Check(handle != InvalidHandle, "invalid handle");
                                Check(!stop->load(), "shutdown is true");
                                Check(entity != nullptr, "nullptr entity");
                                NkBosTransport transport{};
                                NkBosTransport_Init(&transport, handle, nullptr, 0);
                                const ArenaMapping<RequestArenaSize> requestMemory;
                                Check(static_cast<bool>(requestMemory), "reqBuffer is null");
                                const ArenaMapping<ResponseArenaSize> responseMemory;
                                Check(static_cast<bool>(responseMemory), "resBuffer is null");
                                GuardedRecord<Request> request;
                                GuardedRecord<Response> response;
                                do {
                                    request.PrepareForReceive();
                                    response.PrepareForReceive();
                                    nk_arena requestArena = requestMemory.Empty();
                                    nk_arena responseArena = responseMemory.Empty();
                                    Check(NkBosTransport_Receive(&transport, request.Message(), &requestArena) == 0);
                                    assert(request.guard == 0);
                                    Check(dispatch(entity, request.Message(), &requestArena, response.Message(),
                                                   &responseArena) == 0);
                                    Check(NkBosTransport_Reply(&transport, response.Message(), &responseArena) == 0);
                                } while (!stop->load());
                            } catch (const tua::Exception& error) {
                                Log(LogLevel::Error, "{}: {}", self, diagnostics::Described{error});
                            } catch (const std::exception& error) {
                                Log(LogLevel::Error, "{}: {}", self, error.what());
                            } catch (...) {
                                Log(LogLevel::Error, "{}: Unknown exception", self);
                            }
                        }));
    }

private:
    using LogLevel = bos::logger::LogLevel;

    std::atomic<bool> shutdown{false};
    std::unordered_map<std::string, std::uint32_t> services; // name to iid; fixed after Init
    std::unordered_map<unsigned, boost::thread> threads;     // by channel; used by AddIpcThread and the destructor only
};

} // namespace bos_ipc
