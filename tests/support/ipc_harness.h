#pragma once

#include "br_MessageBus.h"
#include "ipc_server.h"
#include "support/bus_test.h"
#include "support/fault_points.h"
#include "support/scripted_platform.h"

#include <boost/thread/thread.hpp>

#include <cstring>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace test_support {

inline constexpr std::uint16_t ProviderIid = 0;
inline constexpr std::uint16_t CtlIid = 1;
inline constexpr std::uint16_t SubsIid = 2;

/// A request record for method `mid` of interface `iid`, zero behind its header.
inline br_MessageBus_component_req Request(std::uint16_t iid, std::uint16_t mid) {
    br_MessageBus_component_req request;
    std::memset(request.record, 0, sizeof request.record);
    request.header.iid = iid;
    request.header.mid = mid;
    request.header.size = NkRecordSize;
    return request;
}

/// An entity whose methods do what a test says and note their calls: "Push", "ctl 3", "Wait".
class FakeEntity final {
public:
    using Handler = std::function<std::int32_t(const void* request, const nk_arena* requestArena, void* response,
                                               nk_arena* responseArena)>;

    Handler onPush;
    Handler onCtl;
    Handler onWait;

    br_MessageBusComponent_component Component() { return {&provider, &ctl, &subs}; }
    br_MessageBus_component Entity() { return {&component}; }

private:
    struct Provider : br_MessageBusProvider {
        FakeEntity* owner;
    };
    struct Ctl : br_MessageBusCtl {
        FakeEntity* owner;
    };
    struct Subs : br_MessageBusSubs {
        FakeEntity* owner;
    };

    static std::int32_t Run(const std::string& name, const Handler& handler, const void* request,
                            const nk_arena* requestArena, void* response, nk_arena* responseArena) {
        Journal::Instance().AddCall(name);
        return handler ? handler(request, requestArena, response, responseArena) : 0;
    }
    template <typename Request, typename Response>
    static std::int32_t RunCtl(br_MessageBusCtl* self, const Request* request, const nk_arena* requestArena,
                               Response* response, nk_arena* responseArena) {
        return Run("ctl", static_cast<Ctl*>(self)->owner->onCtl, request, requestArena, response, responseArena);
    }

    static const br_MessageBusProvider_ops ProviderOps;
    static const br_MessageBusCtl_ops CtlOps;
    static const br_MessageBusSubs_ops SubsOps;

    Provider provider{{&ProviderOps}, this};
    Ctl ctl{{&CtlOps}, this};
    Subs subs{{&SubsOps}, this};
    br_MessageBusComponent_component component{&provider, &ctl, &subs};
};

// Outside the class, which has to be complete here.
inline const br_MessageBusProvider_ops FakeEntity::ProviderOps{
    [](br_MessageBusProvider* self, const br_MessageBusProvider_Push_req* request, const nk_arena* requestArena,
       br_MessageBusProvider_Push_res* response, nk_arena* responseArena) {
        return Run("Push", static_cast<Provider*>(self)->owner->onPush, request, requestArena, response, responseArena);
    }};
inline const br_MessageBusCtl_ops FakeEntity::CtlOps{&RunCtl, &RunCtl, &RunCtl, &RunCtl, &RunCtl, &RunCtl};
inline const br_MessageBusSubs_ops FakeEntity::SubsOps{
    [](br_MessageBusSubs* self, const br_MessageBusSubs_Wait_req* request, const nk_arena* requestArena,
       br_MessageBusSubs_Wait_res* response, nk_arena* responseArena) {
        return Run("Wait", static_cast<Subs*>(self)->owner->onWait, request, requestArena, response, responseArena);
    }};

/// What a reply carried.
struct Reply {
    br_MessageBus_component_res record;
    bool arenaIsEmpty = false;
};

/// Base of the tests of the IPC server: a scripted platform, an entity of the test's own, and the replies it gave.
class IpcTest : public BusTest {
protected:
    IpcTest() {
        platform.reply.Always([this](NkBosTransport*, const nk_message* response, const nk_arena* arena) {
            Reply reply;
            std::memcpy(reply.record.record, response, NkRecordSize);
            reply.arenaIsEmpty = arena->start == arena->current && arena->current == arena->end;
            const std::lock_guard lock(repliesMutex);
            replies.push_back(reply);
            return KnStatusOk;
        });
    }

    /// The next receive gives `request`, after `before` has run on the receiving thread.
    void Receives(const br_MessageBus_component_req& request, std::function<void()> before = {}) {
        platform.receive.Once([request, before](NkBosTransport*, nk_message* out, nk_arena*) {
            if (before) {
                before();
            }
            std::memcpy(static_cast<void*>(out), request.record, NkRecordSize);
            return KnStatusOk;
        });
    }

    int Init(bos_ipc::IpcServer& server) { return server.Init(fake.Entity(), fake.Component()); }

    /// Runs `body` as a worker of `server` and waits until the worker is gone.
    static void RunAsWorker(bos_ipc::IpcServer& server, const std::function<void()>& body) {
        server.CreateThread(body);
        server.WaitAllThreads();
    }

    std::vector<Reply> Replies() {
        const std::lock_guard lock(repliesMutex);
        return replies;
    }

    const fault_points::Disarmer disarmer;
    ScriptedPlatform platform;
    FakeEntity fake;

private:
    std::mutex repliesMutex; // guards replies
    std::vector<Reply> replies;
};

} // namespace test_support
