// Any requests, one after the other, through each of the three ways into the dispatch, to a bus of their own. Each has
// to get the reply that the model of the bus predicts, byte by byte.
//
// Input: a byte that chooses the way; then for each request the number of its bytes (16 bits) and these bytes, from the
// header on. The rest of a record is zeros.

#include "bos_connector.h"
#include "bos_dynamic_ipc_server.h"
#include "bus_model.h"
#include "fuzzing.h"
#include "ipc_handlers.h"
#include "ipc_server.h"
#include "kn/status.h"
#include "message_bus.h"
#include "stop_events_thread.h"
#include "support/scripted_platform.h"

#include <memory>
#include <semaphore>
#include <thread>
#include <vector>

namespace {

using fuzzing::BusModel;
using fuzzing::Input;
using fuzzing::Record;
using fuzzing::Reply;
using fuzzing::Require;
using message_bus::ConnectionType;

enum class Way { Static, Pool, DynamicServer };

constexpr std::size_t MostRequests = 256; ///< fewer than the inbound queue holds
constexpr KnHandle Channel = 7;
constexpr long UnknownPublisher = -99;

class FuzzedBus final : public message_bus::IConnector {
public:
    explicit FuzzedBus(Way wayIn)
        : way(wayIn), server(std::make_shared<bos_ipc::IpcServer>(wayIn == Way::Static ? ConnectionType::Static
                                                                                       : ConnectionType::Dynamic)),
          connector(std::make_unique<message_bus::BosConnector>(server)) {
        platform.SetQuiet(true);
        platform.receive.Always(
            [this](NkBosTransport*, nk_message* request, nk_arena* arena) { return Receive(request, arena); });
        platform.reply.Always([this](NkBosTransport*, const nk_message* response, const nk_arena* arena) {
            return TakeReply(response, arena);
        });
        Require(connector->Init(bus, bus, bus), "the connector is initialised");
        try {
            // Left by an exception that Run lets pass, with the events thread running and the connector kept.
            bus->Run(std::shared_ptr<IConnector>(std::shared_ptr<void>(), this));
        } catch (const Leave&) {
            static_cast<void>(0);
        }
    }
    FuzzedBus(const FuzzedBus&) = delete;
    FuzzedBus& operator=(const FuzzedBus&) = delete;
    ~FuzzedBus() override { msgbus_server::StopEventsThread(*bus); }

    void Serve(std::vector<Record> incoming) {
        requests = std::move(incoming);
        switch (way) {
        case Way::Static:
            while (next < requests.size()) {
                server->DispatchStatic();
            }
            break;
        case Way::Pool:
            server->RunIpcDispatcher(Channel);
            break;
        case Way::DynamicServer: {
            br_MessageBusComponent_component component{bos_connection::CreateBusImpl(connector.get()),
                                                       bos_connection::CreateCtlImpl(connector.get()),
                                                       bos_connection::CreateSubscriberImpl(connector.get())};
            br_MessageBus_component entity{&component};
            bos_ipc::DynamicServer dynamicServer;
            dynamicServer.AddIpcThread<br_MessageBus_component_req, 0, br_MessageBus_component_res, 0>(
                &entity, &br_MessageBus_entity_dispatch, Channel);
            lastReceived.acquire();
            break;
        }
        }
        Require(!owesReply, "the last request is answered");
        CompareWithModel();
    }

    cor::ResultCode RunServer() override { return cor::ResultCode::Success; }

    /// Comes between the look-up of a wait and its sleep. Nobody takes the caller's place; there is UnknownPublisher to
    /// serve.
    cor::ResultCode SwitchActiveIpcServer() override {
        if (!model.Subscribers().contains(waitingId)) {
            bus->UnregisterSubscriber(waitingId);
        }
        return cor::ResultCode::Success;
    }

    bool ShouldBeStopped() override { throw Leave{}; }

private:
    struct Leave {};

    std::int32_t Receive(nk_message* request, const nk_arena* arena) {
        Require(!owesReply, "the request before is answered");
        Require(!hasEnded, "a dispatcher that has failed does not go on");
        Require(request->size == NkRecordSize && IsEmpty(arena), "there is room for one record");
        if (next == requests.size()) {
            server->SetStopSignal();
            lastReceived.release();
            return KnStatusClosed;
        }
        const Record& record = requests[next++];
        nk_message header{};
        std::memcpy(&header, record.data(), sizeof header);
        const bool isWait = header.iid == br_MessageBusComponent_subs_iid;
        if (isWait || (header.iid == br_MessageBusComponent_ctl_iid && header.mid == br_MessageBusCtl_FinishSubs_mid)) {
            Settle();
        }
        std::memcpy(&waitingId, record.data() + offsetof(br_MessageBusSubs_Wait_req, subscriberId), sizeof waitingId);
        hasPushed = hasPushed || header.iid == br_MessageBusComponent_provider_iid;
        expected = model.Apply(record);
        owesReply = expected.kind == Reply::Kind::FromHandler || way == Way::Static;
        if (!owesReply && way == Way::DynamicServer) {
            hasEnded = true;
            lastReceived.release();
        }
        std::memcpy(static_cast<void*>(request), record.data(), record.size());
        return KnStatusOk;
    }

    std::int32_t TakeReply(const nk_message* response, const nk_arena* arena) {
        Require(owesReply, "a reply belongs to a request");
        Require(IsEmpty(arena), "a reply carries nothing out of line");
        Require(std::memcmp(response, expected.start.data(), expected.start.size()) == 0, "the reply is the model's");
        owesReply = false;
        return KnStatusOk;
    }

    static bool IsEmpty(const nk_arena* arena) {
        return arena->start == arena->current && arena->current == arena->end;
    }

    /// Waits until all that was pushed is delivered: to whom depends on the moment otherwise.
    void Settle() {
        if (!hasPushed) {
            return;
        }
        hasPushed = false;
        const std::string topic("\0", 1); // no record can name it
        long publisher = 0;
        long subscriber = 0;
        bus->RegisterPublisher(topic, publisher);
        bus->RegisterSubscriber("", {topic}, subscriber);
        model.SkipIds(2);
        bus->Push(publisher, 0);
        const auto last = bus->GetSubscriberPtrById(subscriber);
        while (last->queue.Size() == 0) {
            bus->UnregisterPublisher(UnknownPublisher); // wakes the events thread, whose wake-ups may be lost
            std::this_thread::yield();
        }
        bus->UnregisterPublisher(publisher);
        bus->UnregisterSubscriber(subscriber);
        for (const auto& [id, subscribed] : model.Subscribers()) {
            const auto real = bus->GetSubscriberPtrById(id);
            Require(real && real->queue.Size() == subscribed.queue.size(), "each message came once to each subscriber");
        }
    }

    void CompareWithModel() {
        Settle();
        for (const auto& [id, subscriber] : model.Subscribers()) {
            const auto real = bus->GetSubscriberPtrById(id);
            for (const auto& [topic, value] : subscriber.queue) {
                std::shared_ptr<message_bus::Message> message;
                Require(real->queue.Pop(message, 1), "what was pushed is there");
                Require(message->topic == topic && message->value == value, "the messages come in their order");
            }
        }
        for (const auto& [topic, id] : model.Publishers()) {
            Require(bus->GetPublisherTopicById(id) == topic, "a publisher keeps its topic");
        }
    }

    const Way way;
    test_support::ScriptedPlatform platform;
    const std::shared_ptr<message_bus::MessageBus> bus = std::make_shared<message_bus::MessageBus>();
    const std::shared_ptr<bos_ipc::IpcServer> server;
    const std::unique_ptr<message_bus::BosConnector> connector;
    std::binary_semaphore lastReceived{0};

    // Of the one thread that serves.
    BusModel model;
    std::vector<Record> requests;
    std::size_t next = 0;
    Reply expected;
    bool owesReply = false;
    bool hasEnded = false;
    bool hasPushed = false;
    long waitingId = 0;
};

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // Every line is formatted, none is written.
    bos::logger::BOSLogger::SetThreshold(bos::logger::LogLevel::Debug);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Input input(data, size);
    FuzzedBus bus(static_cast<Way>(input.Below(3)));
    std::vector<Record> requests;
    while (!input.IsEmpty() && requests.size() < MostRequests) {
        const auto bytes = input.Bytes(input.Number<std::uint16_t>() % (NkRecordSize + 1));
        std::copy(bytes.begin(), bytes.end(), requests.emplace_back(Record{}).begin());
    }
    bus.Serve(std::move(requests));
    return 0;
}
