#include "support/scripted_platform.h"

#include "bos/logger.h"
#include "kn/policy.h"
#include "kn/runtime_directory.h"
#include "kn/task.h"
#include "nk/begun_call.h"
#include "support/in_process_callers.h"
#include "support/journal.h"

#include <atomic>
#include <cstdint>
#include <cstring>

using namespace test_support;

namespace {

std::atomic<ScriptedPlatform*> current{nullptr};

ScriptedPlatform& Platform() {
    return ScriptedPlatform::Current();
}

void Note(std::string call) {
    if (!Platform().IsQuiet()) {
        Journal::Instance().AddCall(std::move(call));
    }
}

std::string Text(const char* text) {
    return text == nullptr ? "null" : "\"" + std::string(text) + "\"";
}

std::string Pointer(const void* pointer, const char* name) {
    return pointer == nullptr ? "null" : std::string("&") + name;
}

/// Where log records go until a test sets a back end.
class NoLog final : public bos::logger::ILogBackEnd {
public:
    static NoLog& Instance() {
        static NoLog noLog;
        return noLog;
    }

    bool IsEnabled(bos::logger::LogLevel level) const override { return level >= threshold; }
    void Write(bos::logger::LogLevel, const char*, int, const char*, const std::string&) override {}

    std::atomic<bos::logger::LogLevel> threshold{bos::logger::LogLevel::Info};
};

bool IsEmpty(const nk_arena* arena) {
    return arena == nullptr || (arena->start == arena->current && arena->current == arena->end);
}

} // namespace

namespace test_support {

ScriptedPlatform::ScriptedPlatform() {
    current = this;
}

ScriptedPlatform::~ScriptedPlatform() {
    ScriptedPlatform* self = this;
    current.compare_exchange_strong(self, nullptr);
}

ScriptedPlatform& ScriptedPlatform::Current() {
    if (auto* platform = current.load()) {
        return *platform;
    }
    static ScriptedPlatform unscripted;
    return unscripted;
}

void ScriptedPlatform::SetQuiet(bool isQuiet) {
    quiet = isQuiet;
}

bool ScriptedPlatform::IsQuiet() const {
    return quiet;
}

} // namespace test_support

namespace bos::logger {

BOSLogger& BOSLogger::RootLogger() {
    static BOSLogger logger(NoLog::Instance());
    return logger;
}

void BOSLogger::SetThreshold(LogLevel lowest) noexcept {
    NoLog::Instance().threshold = lowest;
}

void BOSLogger::SetFormat(LogFormat) noexcept {}

LogFormat BOSLogger::Format() noexcept {
    return LogFormat::Text;
}

void BOSLogger::LogImpl(LogLevel level, const char* file, int line, const char* function, std::string& message) {
    backEnd.load(std::memory_order_acquire)->Write(level, file, line, function, message);
}

} // namespace bos::logger

KnHandle ServiceLocatorRegister(const char* connection, const ServiceLocatorDescriptor* services, std::uint32_t count,
                                std::uint32_t* iid) noexcept {
    Note("ServiceLocatorRegister(" + Text(connection) + ", " + std::to_string(count) + ", " + Pointer(iid, "iid") +
         ")");
    return Platform().serviceLocatorRegister.Run(
        [](auto... args) { return Platform().InProcess().RegisterStatic(args...); }, connection, services, count, iid);
}

std::int32_t ServiceLocatorConnect(const char* connection, std::uint32_t, KnHandle* handle) noexcept {
    return Platform().InProcess().ConnectStatic(connection, handle);
}

std::int32_t KnTaskGetName(char* buffer, std::size_t sizeBytes) noexcept {
    Note("KnTaskGetName(" + Pointer(buffer, "buffer") + ", " + std::to_string(sizeBytes) + ")");
    return Platform().taskGetName.Run(
        [](char* out, std::size_t room) -> std::int32_t {
            if (out == nullptr || room == 0) {
                return KnStatusInvalidArgument;
            }
            const std::string name = std::string(InProcessPlatform::TaskName).substr(0, room - 1);
            std::memcpy(out, name.c_str(), name.size() + 1);
            return KnStatusOk;
        },
        buffer, sizeBytes);
}

std::int32_t NsCreate(const char* name, std::uint32_t timeoutMs, NsHandle* nameServer) noexcept {
    Note("NsCreate(" + Text(name) + ", " + std::to_string(timeoutMs) + ", " + Pointer(nameServer, "handle") + ")");
    return Platform().nsCreate.Run(
        [](const char* wanted, std::uint32_t, NsHandle* out) -> std::int32_t {
            if (out == nullptr) {
                return KnStatusInvalidArgument;
            }
            if (wanted != nullptr) {
                return KnStatusNotFound;
            }
            *out = InProcessPlatform::TheNameServer;
            return KnStatusOk;
        },
        name, timeoutMs, nameServer);
}

std::int32_t KnRuntimeDirectory(KnMissingDirectory, char* path, std::size_t size) noexcept {
    return Platform().runtimeDirectory.Run([](char*, std::size_t) { return KnStatusNotFound; }, path, size);
}

std::int32_t NsPublishService(NsHandle nameServer, const char* type, const char* serverName,
                              const char* service) noexcept {
    Note("NsPublishService(" + std::to_string(nameServer) + ", " + Text(type) + ", " + Text(serverName) + ", " +
         Text(service) + ")");
    return Platform().nsPublishService.Run([](auto... args) { return Platform().InProcess().Publish(args...); },
                                           nameServer, type, serverName, service);
}

void NsOnNameLost(NsNameLostHandler handler, void* context) noexcept {
    Platform().InProcess().OnNameLost(handler, context);
}

std::int32_t NsLookupService(NsHandle nameServer, const char* service) noexcept {
    return Platform().InProcess().Lookup(nameServer, service);
}

std::int32_t KnCmListen(const char* filter, std::uint32_t timeoutMs, char* clientName, char* serviceName) noexcept {
    Note("KnCmListen(" + Text(filter) + ", " + std::to_string(timeoutMs) + ")");
    return Platform().cmListen.Run([](auto... args) { return Platform().InProcess().Listen(args...); }, filter,
                                   timeoutMs, clientName, serviceName);
}

std::int32_t KnCmAccept(const char* clientName, const char* serviceName, std::uint32_t iid, KnHandle channel,
                        KnHandle* handle) noexcept {
    Note("KnCmAccept(" + Text(clientName) + ", " + Text(serviceName) + ", " + std::to_string(iid) + ", " +
         std::to_string(channel) + ")");
    return Platform().cmAccept.Run([](auto... args) { return Platform().InProcess().Accept(args...); }, clientName,
                                   serviceName, iid, channel, handle);
}

std::int32_t KnCmConnect(const char* service, std::uint32_t timeoutMs, KnHandle* handle) noexcept {
    return Platform().InProcess().Connect(service, timeoutMs, handle);
}

std::int32_t KnPolicySetMethodCount(const char* type, std::uint32_t methodCount) noexcept {
    return Platform().InProcess().SetMethodCount(type, methodCount);
}

std::int32_t KnPolicySetConnectionLimits(std::uint32_t perCaller, std::uint32_t perChannel) noexcept {
    return Platform().InProcess().SetConnectionLimits(perCaller, perChannel);
}

std::uint64_t KnPolicyRefusedConnections() noexcept {
    return Platform().InProcess().RefusedConnections();
}

std::int32_t KnCallerOfRequest(KnCaller* caller) noexcept {
    return Platform().InProcess().CallerOfRequest(caller);
}

std::uint64_t KnCallerId() noexcept {
    KnCaller caller;
    return KnCallerOfRequest(&caller) == KnStatusInvalidArgument ? 0 : caller.id;
}

std::int32_t KnObserveRequests(KnIRequestObserver* observer, std::uint16_t iid) noexcept {
    test_support::InProcessCallers::Instance().SetObserver(observer, iid);
    return KnStatusOk;
}

std::int32_t KnHandleClose(KnHandle handle) noexcept {
    return Platform().InProcess().Close(handle);
}

void KnHandleStopReceiving() noexcept {
    Platform().InProcess().StopReceiving();
}

void KnHandleCloseServerEnds() noexcept {
    Platform().InProcess().CloseServerEnds();
}

std::int32_t NkBosTransport_Init(NkBosTransport* transport, KnHandle handle, void* arena,
                                 std::uint64_t arenaSize) noexcept {
    Note("NkBosTransport_Init(" + Pointer(transport, "transport") + ", " + std::to_string(handle) + ", " +
         Pointer(arena, "arena") + ", " + std::to_string(arenaSize) + ")");
    if (transport == nullptr) {
        return KnStatusInvalidArgument;
    }
    *transport = {handle, 1, arena, arenaSize};
    return KnStatusOk;
}

std::int32_t NkBosTransport_Receive(NkBosTransport* transport, nk_message* request, nk_arena* requestArena) noexcept {
    if (!Platform().IsQuiet() && transport != nullptr && request != nullptr) {
        Note("Receive(" + std::to_string(transport->handle) + ", room " + std::to_string(request->size) + ")");
    }
    return Platform().receive.Run(
        [](const NkBosTransport* view, nk_message* record, nk_arena*) -> std::int32_t {
            return Platform().InProcess().Receive(view, record);
        },
        transport, request, requestArena);
}

std::int32_t NkBosTransport_Reply(NkBosTransport* transport, const nk_message* response,
                                  const nk_arena* responseArena) noexcept {
    if (!Platform().IsQuiet() && transport != nullptr) {
        Note("Reply(" + std::to_string(transport->handle) + ")");
    }
    return Platform().reply.Run(
        [](const NkBosTransport* view, const nk_message* record, const nk_arena* arena) -> std::int32_t {
            return IsEmpty(arena) ? Platform().InProcess().Reply(view, record) : KnStatusInvalidArgument;
        },
        transport, response, responseArena);
}

std::int32_t NkBosTransport_Call(NkBosTransport* transport, const nk_message* request, const nk_arena* requestArena,
                                 nk_message* response, nk_arena*) noexcept {
    if (!IsEmpty(requestArena)) {
        return KnStatusInvalidArgument;
    }
    return Platform().InProcess().Call(transport, request, response);
}

std::int32_t NkBeginCall(NkBosTransport* transport, const nk_message* request, std::uint32_t timeoutMs) noexcept {
    return Platform().InProcess().BeginCall(transport, request, timeoutMs);
}

std::int32_t NkFinishCall(NkBosTransport* transport, nk_message* response, std::uint32_t timeoutMs) noexcept {
    return Platform().InProcess().FinishCall(transport, response, timeoutMs);
}

std::int32_t NkAbandonCall(NkBosTransport* transport) noexcept {
    return Platform().InProcess().AbandonCall(transport);
}

std::int32_t NkEndCalls(KnHandle connection) noexcept {
    return Platform().InProcess().EndCalls(connection);
}

std::int32_t NkCallDescriptor(KnHandle connection, int* descriptor) noexcept {
    return Platform().InProcess().CallDescriptor(connection, descriptor);
}

std::int32_t NkMoveCallDescriptor(KnHandle connection, KnHandle former) noexcept {
    return Platform().InProcess().MoveCallDescriptor(connection, former);
}

std::int32_t NkWakeCallDescriptor(KnHandle connection, std::uint32_t afterMs) noexcept {
    return Platform().InProcess().WakeCallDescriptor(connection, afterMs);
}

std::int32_t NkDeferReply(NkDeferredReply* deferred) noexcept {
    return Platform().deferReply.Run([](auto* out) { return Platform().InProcess().DeferReply(out); }, deferred);
}

std::int32_t NkReplyDeferred(const NkDeferredReply& deferred, const nk_message* response, const NkOffers& offers,
                             std::size_t* offered) noexcept {
    return Platform().replyDeferred.Run(
        [](const auto&... args) { return Platform().InProcess().ReplyDeferred(args...); }, deferred, response, offers,
        offered);
}

std::int32_t NkTakeBackOffers(const NkDeferredReply& deferred, std::size_t* taken) noexcept {
    return Platform().takeBackOffers.Run(
        [](const auto&... args) { return Platform().InProcess().TakeBackOffers(args...); }, deferred, taken);
}

std::int32_t NkNoteLoss(const NkDeferredReply& deferred, const NkLoss& loss) noexcept {
    return Platform().noteLoss.Run([](const auto&... args) { return Platform().InProcess().NoteLoss(args...); },
                                   deferred, loss);
}

std::int32_t NkReadLoss(KnHandle connection, NkLoss* loss) noexcept {
    return Platform().InProcess().ReadLoss(connection, loss);
}
