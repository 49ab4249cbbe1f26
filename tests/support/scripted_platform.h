#pragma once

#include "kn/connection_manager.h"
#include "kn/handle.h"
#include "kn/status.h"
#include "nk/deferred_reply.h"
#include "nk/transport.h"
#include "ns/name_server.h"
#include "service_locator.h"
#include "support/in_process_platform.h"

#include <atomic>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace test_support {

/// What one platform call does: what a test has queued, one behaviour per call, then what it has set for all further
/// calls, else what the in-process platform does. Threads: any.
template <typename Signature>
class Script;

template <typename Result, typename... Args>
class Script<Result(Args...)> final {
public:
    using Behaviour = std::function<Result(Args...)>;

    void Once(Behaviour behaviour) {
        const std::lock_guard lock(mutex);
        queued.push_back(std::move(behaviour));
    }
    /// Returns `result` and writes no output.
    void Once(Result result) {
        Once([result](Args...) { return result; });
    }
    void Always(Behaviour behaviour) {
        const std::lock_guard lock(mutex);
        always = std::move(behaviour);
    }
    void Always(Result result) {
        Always([result](Args...) { return result; });
    }

    template <typename Otherwise>
    Result Run(const Otherwise& otherwise, Args... args) {
        Behaviour behaviour;
        {
            const std::lock_guard lock(mutex);
            if (!queued.empty()) {
                behaviour = std::move(queued.front());
                queued.pop_front();
            } else {
                behaviour = always;
            }
        }
        return behaviour ? behaviour(args...) : otherwise(args...);
    }

private:
    std::mutex mutex; // guards all below
    std::deque<Behaviour> queued;
    Behaviour always;
};

/// The platform of a test program. Every call goes to the journal with its arguments before anything else happens:
///   ServiceLocatorRegister("msgbus_connection_id", 0, &iid)     KnTaskGetName(&buffer, 1024)
///   NsCreate(null, 4294967295, &handle)                         NsPublishService(1, "type", "server", "service")
///   KnCmListen(null, 5000)     KnCmAccept("client", "service", 2, 4294967295)
///   NkBosTransport_Init(&transport, 7, null, 0)     Receive(7, room 1056)     Reply(7)
/// Calls of clients leave no entry, nor do deferred replies: what answers them runs beside the threads that serve.
/// Lifetime: the script of one test; one at a time.
class ScriptedPlatform final {
public:
    ScriptedPlatform();
    ~ScriptedPlatform();
    ScriptedPlatform(const ScriptedPlatform&) = delete;
    ScriptedPlatform& operator=(const ScriptedPlatform&) = delete;

    Script<KnHandle(const char*, const ServiceLocatorDescriptor*, std::uint32_t, std::uint32_t*)>
        serviceLocatorRegister;
    Script<std::int32_t(char*, std::size_t)> taskGetName;
    Script<std::int32_t(const char*, std::uint32_t, NsHandle*)> nsCreate;
    Script<std::int32_t(NsHandle, const char*, const char*, const char*)> nsPublishService;
    Script<std::int32_t(const char*, std::uint32_t, char*, char*)> cmListen;
    Script<std::int32_t(const char*, const char*, std::uint32_t, KnHandle, KnHandle*)> cmAccept;
    Script<std::int32_t(NkBosTransport*, nk_message*, nk_arena*)> receive;
    Script<std::int32_t(NkBosTransport*, const nk_message*, const nk_arena*)> reply;
    Script<std::int32_t(NkDeferredReply*)> deferReply;
    Script<std::int32_t(const NkDeferredReply&, const nk_message*, const NkOffers&, std::size_t*)> replyDeferred;
    Script<std::int32_t(const NkDeferredReply&, std::size_t*)> takeBackOffers;
    Script<std::int32_t(const NkDeferredReply&, const NkLoss&)> noteLoss;

    /// Without a script there is no directory. Leaves no entry: it is no call of the bus.
    Script<std::int32_t(char*, std::size_t)> runtimeDirectory;

    /// Without entries in the journal: for tests with much traffic.
    void SetQuiet(bool isQuiet);
    bool IsQuiet() const;

    /// The one that a test has made; one without a script where there is none, as in the platform battery.
    static ScriptedPlatform& Current();

    InProcessPlatform& InProcess() { return inProcess; }

private:
    std::atomic<bool> quiet{false};
    InProcessPlatform inProcess;
};

} // namespace test_support
