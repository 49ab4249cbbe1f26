#include "bos_connector.h"
#include "diagnostics.h"
#include "ipc_handlers.h"
#include "ipc_server.h"
#include "subscribe_helper.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <string>
#include <utility>

using cor::ResultCode;
using diagnostics::Log;
using diagnostics::LogLevel;

namespace bos_connection {

using message_bus::BosConnector;

namespace {

struct BusObject : br_MessageBusProvider {
    BosConnector* connector;
};

struct CtlObject : br_MessageBusCtl {
    BosConnector* connector;
};

struct SubscriberObject : br_MessageBusSubs {
    BosConnector* connector;
};

constexpr long NoId = -1;
// Never writes the last byte of the topic array; the byte before it is always zero.
constexpr std::size_t WaitTopicLimit = sizeof(br_MessageBusSubs_Wait_res::topic) - 2;

// Contract: reads up to the first NUL, so a text that fills its array continues with what follows. The zeros behind the
// record end the scan (GuardedRecord).
std::string ReadString(const char* text) {
    return std::string(text);
}

std::int32_t br_MessageBusProvider_Push_fn(br_MessageBusProvider* self, const br_MessageBusProvider_Push_req* request,
                                           const nk_arena* /*requestArena*/,
                                           br_MessageBusProvider_Push_res* /*response*/, nk_arena* /*responseArena*/) {
    const auto& connector = *static_cast<BusObject*>(self)->connector;
    const auto provider = connector.GetProvider();
    return connector.ToIpcResultCode(provider->Push(request->publisherId, request->message));
}

std::int32_t br_MessageBusCtl_RegisterPublisher_fn(br_MessageBusCtl* self,
                                                   const br_MessageBusCtl_RegisterPublisher_req* request,
                                                   const nk_arena* /*requestArena*/,
                                                   br_MessageBusCtl_RegisterPublisher_res* response,
                                                   nk_arena* /*responseArena*/) {
    const auto& connector = *static_cast<CtlObject*>(self)->connector;
    const auto control = connector.GetProviderControl();
    long id = NoId;
    const auto result = control->RegisterPublisher(ReadString(request->topic), id);
    response->publisherId = id;
    return connector.ToIpcResultCode(result);
}

std::int32_t br_MessageBusCtl_StartSubs_fn(br_MessageBusCtl* self, const br_MessageBusCtl_StartSubs_req* request,
                                           const nk_arena* /*requestArena*/, br_MessageBusCtl_StartSubs_res* response,
                                           nk_arena* /*responseArena*/) {
    const auto& connector = *static_cast<CtlObject*>(self)->connector;
    const auto helper = connector.GetSubscribeHelper();
    long id = NoId;
    const auto result = helper->StartSubscribing(ReadString(request->name), id);
    if (result == ResultCode::Success) { // Contract: unlike every other id, so a failure leaves the field as it was
        response->registrationId = id;
    }
    return connector.ToIpcResultCode(result);
}

std::int32_t br_MessageBusCtl_Subscribe_fn(br_MessageBusCtl* self, const br_MessageBusCtl_Subscribe_req* request,
                                           const nk_arena* /*requestArena*/,
                                           br_MessageBusCtl_Subscribe_res* /*response*/, nk_arena* /*responseArena*/) {
    const auto& connector = *static_cast<CtlObject*>(self)->connector;
    const auto helper = connector.GetSubscribeHelper();
    return connector.ToIpcResultCode(helper->Subscribe(request->registrationId, ReadString(request->topic)));
}

std::int32_t br_MessageBusCtl_FinishSubs_fn(br_MessageBusCtl* self, const br_MessageBusCtl_FinishSubs_req* request,
                                            const nk_arena* /*requestArena*/, br_MessageBusCtl_FinishSubs_res* response,
                                            nk_arena* /*responseArena*/) {
    const auto& connector = *static_cast<CtlObject*>(self)->connector;
    const auto helper = connector.GetSubscribeHelper();
    long id = NoId;
    const auto result = helper->FinishSubscribing(request->registrationId, request->commit != 0, id);
    response->subscriberId = id;
    return connector.ToIpcResultCode(result);
}

std::int32_t br_MessageBusCtl_UnregisterPublisher_fn(br_MessageBusCtl* self,
                                                     const br_MessageBusCtl_UnregisterPublisher_req* request,
                                                     const nk_arena* /*requestArena*/,
                                                     br_MessageBusCtl_UnregisterPublisher_res* /*response*/,
                                                     nk_arena* /*responseArena*/) {
    const auto& connector = *static_cast<CtlObject*>(self)->connector;
    const auto control = connector.GetProviderControl();
    return connector.ToIpcResultCode(control->UnregisterPublisher(request->publisherId));
}

std::int32_t br_MessageBusCtl_UnregisterSubscriber_fn(br_MessageBusCtl* self,
                                                      const br_MessageBusCtl_UnregisterSubscriber_req* request,
                                                      const nk_arena* /*requestArena*/,
                                                      br_MessageBusCtl_UnregisterSubscriber_res* /*response*/,
                                                      nk_arena* /*responseArena*/) {
    const auto& connector = *static_cast<CtlObject*>(self)->connector;
    const auto control = connector.GetProviderControl();
    return connector.ToIpcResultCode(control->UnregisterSubscriber(request->subscriberId));
}

std::int32_t br_MessageBusSubs_Wait_fn(br_MessageBusSubs* self, const br_MessageBusSubs_Wait_req* request,
                                       const nk_arena* /*requestArena*/, br_MessageBusSubs_Wait_res* response,
                                       nk_arena* /*responseArena*/) {
    auto& connector = *static_cast<SubscriberObject*>(self)->connector;
    std::string topic;
    long message = -1;
    const auto result = connector.Wait(request->subscriberId, topic, message);
    const std::size_t length = std::min(topic.size(), WaitTopicLimit);
    std::memcpy(response->topic, topic.data(), length);
    std::memset(response->topic + length, 0, WaitTopicLimit + 1 - length);
    response->message = message;
    return connector.ToIpcResultCode(result);
}

} // namespace

br_MessageBusProvider* CreateBusImpl(BosConnector* connector) {
    static constexpr br_MessageBusProvider_ops ops{&br_MessageBusProvider_Push_fn};
    static BusObject object{{&ops}, nullptr};
    object.connector = connector;
    return &object;
}

br_MessageBusCtl* CreateCtlImpl(BosConnector* connector) {
    static constexpr br_MessageBusCtl_ops ops{
        &br_MessageBusCtl_RegisterPublisher_fn,   &br_MessageBusCtl_StartSubs_fn,
        &br_MessageBusCtl_Subscribe_fn,           &br_MessageBusCtl_FinishSubs_fn,
        &br_MessageBusCtl_UnregisterPublisher_fn, &br_MessageBusCtl_UnregisterSubscriber_fn,
    };
    static CtlObject object{{&ops}, nullptr};
    object.connector = connector;
    return &object;
}

br_MessageBusSubs* CreateSubscriberImpl(BosConnector* connector) {
    static constexpr br_MessageBusSubs_ops ops{&br_MessageBusSubs_Wait_fn};
    static SubscriberObject object{{&ops}, nullptr};
    object.connector = connector;
    return &object;
}

} // namespace bos_connection

namespace message_bus {

namespace {

constexpr auto Tag = "BosConnector";

} // namespace

BosConnector::BosConnector(std::shared_ptr<bos_ipc::IpcServer> server) : ipcServer(std::move(server)) {}

BosConnector::~BosConnector() = default;

bool BosConnector::Init(std::shared_ptr<IProviderControl> newControl, std::shared_ptr<IProvider> newProvider,
                        std::shared_ptr<IWorker> newWorker) {
    Log(LogLevel::Debug, "{}: started", Tag);
    providerControl = std::move(newControl);
    provider = std::move(newProvider);
    worker = std::move(newWorker);
    subscribeHelper.reset();
    subscribeHelper = std::make_shared<SubscribeHelper>(providerControl);

    component = {bos_connection::CreateBusImpl(this), bos_connection::CreateCtlImpl(this),
                 bos_connection::CreateSubscriberImpl(this)};
    entity = {&component};

    // Builds the table of codes while no worker exists: its first use is unguarded.
    ToIpcResultCode(ResultCode::Success);

    auto servedEntity = entity;
    auto servedComponent = component;
    const int result = ipcServer->Init(std::move(servedEntity), std::move(servedComponent));
    Log(LogLevel::Debug, "{}: done", Tag);
    return result == 0;
}

ResultCode BosConnector::RunServer() {
    return ipcServer->Run() == 0 ? ResultCode::Success : ResultCode::InitFailed;
}

ResultCode BosConnector::SwitchActiveIpcServer() {
    if (!ShouldBeStopped()) {
        const int result = ipcServer->DispatchIpcServer();
        if (result != 0) {
            Log(LogLevel::Error, "{}: DispatchIpcServer error: rc=[{}]", Tag, result);
        }
    }
    // Contract: the calling worker leaves even without a replacement, so the channel can be left without a worker.
    ipcServer->ShutdownIpcServer();
    return ResultCode::Success;
}

bool BosConnector::ShouldBeStopped() {
    return ipcServer->ShouldBeStopped();
}

ResultCode BosConnector::Wait(long subscriberId, std::string& topic, long& message) {
    Log(LogLevel::Debug, "{}: started", Tag);
    const auto result = worker->Wait(subscriberId, topic, message);
    Log(LogLevel::Debug, "{}: finished", Tag);
    return result;
}

std::int32_t BosConnector::ToIpcResultCode(ResultCode code) const {
    // Contract: no lock guards the first use (see CMakeLists.txt), so Init makes it before any worker exists.
    static const std::map<std::int32_t, std::uint16_t> table{{0, 0}, {1, 1}, {10, 10}, {2, 2}, {7, 7}, {3, 3},
                                                             {6, 6}, {9, 9}, {5, 5},   {8, 8}, {4, 4}};
    const auto wire = [](std::uint16_t value) { return value == 0 ? 0 : br_MessageBus_ErrorResult(value); };
    const auto found = table.find(static_cast<std::int32_t>(code));
    if (found == table.end()) {
        Log(LogLevel::Error, "{}: Undefined ResultCode: {}", Tag, static_cast<std::int32_t>(code));
        return wire(static_cast<std::uint16_t>(ResultCode::Failed));
    }
    return wire(found->second);
}

} // namespace message_bus
