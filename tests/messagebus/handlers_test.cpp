// Defends the method handlers: what each calls, which response fields it writes on which path, and how it reads and
// cuts strings. Every client gets these bytes.
#include "bos_connector.h"
#include "ipc_handlers.h"
#include "subscribe_helper.h"
#include "support/bus_harness.h"
#include "support/ipc_harness.h"

#include <algorithm>
#include <array>
#include <stdexcept>

namespace {

using cor::ResultCode;
using message_bus::BosConnector;
using test_support::Gate;
using test_support::IpcTest;
using testing::ElementsAre;
using testing::IsEmpty;
namespace fault_points = test_support::fault_points;

/// A bus that does what a test scripts, and records its calls.
class FakeBus final : public message_bus::IProvider, public message_bus::IProviderControl, public message_bus::IWorker {
public:
    ResultCode Push(long publisherId, long message) override {
        return Answer("Push " + std::to_string(publisherId) + " " + std::to_string(message));
    }
    ResultCode RegisterPublisher(const std::string& topic, long& publisherId) override {
        return Answer("RegisterPublisher " + topic + " " + std::to_string(publisherId), &publisherId);
    }
    ResultCode RegisterSubscriber(const std::string& name, const std::set<std::string>& topics,
                                  long& subscriberId) override {
        return Answer("RegisterSubscriber " + name + " " + std::to_string(topics.size()) + " " +
                          std::to_string(subscriberId),
                      &subscriberId);
    }
    ResultCode UnregisterPublisher(long publisherId) override {
        return Answer("UnregisterPublisher " + std::to_string(publisherId));
    }
    ResultCode UnregisterSubscriber(long subscriberId) override {
        return Answer("UnregisterSubscriber " + std::to_string(subscriberId));
    }
    ResultCode Wait(long subscriberId, std::string& topic, long& message) override {
        const auto answer =
            Answer("Wait " + std::to_string(subscriberId) + " [" + topic + "] " + std::to_string(message));
        if (answer == ResultCode::Success) {
            topic = waitTopic;
            message = 99;
        }
        return answer;
    }

    ResultCode result = ResultCode::Success;
    std::function<void()> action;
    std::string waitTopic = "heat";
    std::vector<std::string> calls;

private:
    ResultCode Answer(const std::string& call, long* id = nullptr) {
        calls.push_back(call);
        if (const auto run = action) { // may replace itself
            run();
        }
        if (id != nullptr && result == ResultCode::Success) {
            *id = 42;
        }
        return result;
    }
};

class HandlersTest : public IpcTest {
protected:
    HandlersTest() {
        EXPECT_TRUE(connector.Init(bus, bus, bus));
        journal.Clear();
        std::memset(response.record, 0xAA, sizeof response.record);
    }

    template <std::size_t Size>
    static void Put(char (&field)[Size], const std::string& text) {
        std::memset(field, 0x7E, Size); // the bytes behind the terminator have no effect
        std::memcpy(field, text.c_str(), text.size() + 1);
    }

    // Handlers ignore both arenas, so they get none here.
    std::int32_t Push(long id, long value) {
        request.provider_Push.publisherId = id;
        request.provider_Push.message = value;
        return provider->ops->Push(provider, &request.provider_Push, nullptr, &response.provider_Push, nullptr);
    }
    std::int32_t RegisterPublisher(const std::string& topic) {
        Put(request.ctl_RegisterPublisher.topic, topic);
        return ctl->ops->RegisterPublisher(ctl, &request.ctl_RegisterPublisher, nullptr,
                                           &response.ctl_RegisterPublisher, nullptr);
    }
    std::int32_t StartSubs(const std::string& name) {
        Put(request.ctl_StartSubs.name, name);
        return ctl->ops->StartSubs(ctl, &request.ctl_StartSubs, nullptr, &response.ctl_StartSubs, nullptr);
    }
    std::int32_t Subscribe(long id, const std::string& topic) {
        Put(request.ctl_Subscribe.topic, topic);
        request.ctl_Subscribe.registrationId = id;
        return ctl->ops->Subscribe(ctl, &request.ctl_Subscribe, nullptr, &response.ctl_Subscribe, nullptr);
    }
    std::int32_t FinishSubs(long id, std::uint8_t flag) {
        request.ctl_FinishSubs.registrationId = id;
        request.ctl_FinishSubs.commit = flag;
        return ctl->ops->FinishSubs(ctl, &request.ctl_FinishSubs, nullptr, &response.ctl_FinishSubs, nullptr);
    }
    std::int32_t Unregister(long publisher) {
        request.ctl_UnregisterPublisher.publisherId = publisher;
        return ctl->ops->UnregisterPublisher(ctl, &request.ctl_UnregisterPublisher, nullptr,
                                             &response.ctl_UnregisterPublisher, nullptr);
    }
    std::int32_t UnregisterSubscriber(long id) {
        request.ctl_UnregisterSubscriber.subscriberId = id;
        return ctl->ops->UnregisterSubscriber(ctl, &request.ctl_UnregisterSubscriber, nullptr,
                                              &response.ctl_UnregisterSubscriber, nullptr);
    }
    std::int32_t Wait(long id) {
        request.subs_Wait.subscriberId = id;
        return subs->ops->Wait(subs, &request.subs_Wait, nullptr, &response.subs_Wait, nullptr);
    }
    bool IsUntouched(std::size_t from = 0) const {
        return std::all_of(response.record + from, response.record + NkRecordSize,
                           [](auto byte) { return byte == 0xAA; });
    }
    std::int64_t Field() const {
        std::int64_t value = 0;
        std::memcpy(&value, response.record + 24, sizeof value);
        return value;
    }

    std::shared_ptr<FakeBus> bus = std::make_shared<FakeBus>();
    BosConnector connector{std::make_shared<bos_ipc::IpcServer>(message_bus::ConnectionType::Static)};
    br_MessageBusProvider* provider = bos_connection::CreateBusImpl(&connector);
    br_MessageBusCtl* ctl = bos_connection::CreateCtlImpl(&connector);
    br_MessageBusSubs* subs = bos_connection::CreateSubscriberImpl(&connector);
    br_MessageBus_component_req request = test_support::Request(0, 0);
    br_MessageBus_component_res response;
};

TEST_F(HandlersTest, Push_PassesIdAndValueOnAndWritesNothing) {
    EXPECT_EQ(Push(3, -9), 0);
    EXPECT_THAT(bus->calls, ElementsAre("Push 3 -9"));
    EXPECT_TRUE(IsUntouched());
}

TEST_F(HandlersTest, Handlers_TranslateTheResultsOfTheBus) {
    bus->result = ResultCode::Exhausted;
    EXPECT_EQ(Push(3, 1), -81920);
    bus->result = ResultCode::Conflict;
    EXPECT_EQ(RegisterPublisher("heat"), -278528);
    EXPECT_EQ(Unregister(3), -278528);
    bus->result = ResultCode::NotRegistered;
    EXPECT_EQ(Wait(3), -49152);
    EXPECT_EQ(StartSubs("reader"), 0);
    EXPECT_EQ(FinishSubs(0, 0), -49152);
    EXPECT_EQ(FinishSubs(0, 0), -278528);
    EXPECT_EQ(Subscribe(0, "heat"), -344064);
}

TEST_F(HandlersTest, RegisterPublisher_WritesTheIdOnSuccess) {
    EXPECT_EQ(RegisterPublisher("heat"), 0);
    EXPECT_THAT(bus->calls, ElementsAre("RegisterPublisher heat -1"));
    EXPECT_EQ(Field(), 42);
    EXPECT_TRUE(IsUntouched(32));
}

TEST_F(HandlersTest, RegisterPublisher_ThatFails_WritesMinusOne) {
    bus->result = ResultCode::Conflict;
    EXPECT_NE(RegisterPublisher("heat"), 0);
    EXPECT_EQ(Field(), -1);
}

TEST_F(HandlersTest, StartSubs_WritesTheRegistrationId) {
    EXPECT_EQ(StartSubs("reader"), 0);
    EXPECT_EQ(Field(), 0);
    EXPECT_EQ(StartSubs("reader"), 0);
    EXPECT_EQ(Field(), 1);
    EXPECT_TRUE(IsUntouched(32));
}

TEST_F(HandlersTest, StartSubs_ThatThrows_LeavesItsFieldUntouched) {
    Put(request.ctl_StartSubs.name, "reader");
    fault_points::FailAllocation(std::this_thread::get_id());
    EXPECT_THROW(ctl->ops->StartSubs(ctl, &request.ctl_StartSubs, nullptr, &response.ctl_StartSubs, nullptr),
                 std::bad_alloc);
    EXPECT_TRUE(IsUntouched());
}

TEST_F(HandlersTest, Subscribe_PassesIdAndTopicOnAndWritesNothing) {
    EXPECT_EQ(StartSubs("reader"), 0);
    std::memset(response.record, 0xAA, sizeof response.record);
    EXPECT_EQ(Subscribe(0, "heat"), 0);
    EXPECT_EQ(Subscribe(0, "heat"), -278528);
    EXPECT_TRUE(IsUntouched());
    EXPECT_EQ(FinishSubs(0, 1), 0);
    EXPECT_THAT(bus->calls, ElementsAre("RegisterSubscriber reader 1 -1"));
}

TEST_F(HandlersTest, FinishSubs_CommitsForEveryFlagButZero) {
    for (const auto flag : std::initializer_list<std::uint8_t>{1, 2, 255}) {
        EXPECT_EQ(StartSubs("reader"), 0);
        const auto id = Field();
        EXPECT_EQ(FinishSubs(id, flag), 0);
        EXPECT_EQ(Field(), 42);
    }
    EXPECT_EQ(bus->calls.size(), 3U);
    EXPECT_TRUE(IsUntouched(32));
}

TEST_F(HandlersTest, FinishSubs_WithoutASubscriber_WritesMinusOne) {
    EXPECT_EQ(StartSubs("reader"), 0);
    EXPECT_NE(FinishSubs(0, 0), 0); // cancels
    EXPECT_EQ(Field(), -1);
    EXPECT_NE(FinishSubs(0, 1), 0); // the id is unknown now
    EXPECT_EQ(Field(), -1);
    EXPECT_THAT(bus->calls, IsEmpty());
}

TEST_F(HandlersTest, Unregister_PassesTheIdToItsOwnOperationAndWritesNothing) {
    EXPECT_EQ(Unregister(7), 0);
    EXPECT_EQ(UnregisterSubscriber(8), 0);
    EXPECT_THAT(bus->calls, ElementsAre("UnregisterPublisher 7", "UnregisterSubscriber 8"));
    EXPECT_TRUE(IsUntouched());
}

TEST_F(HandlersTest, Wait_WritesTopicAndMessageThroughTheConnector) {
    EXPECT_EQ(Wait(5), 0);
    EXPECT_THAT(bus->calls, ElementsAre("Wait 5 [] -1"));
    EXPECT_STREQ(response.subs_Wait.topic, "heat");
    EXPECT_EQ(response.subs_Wait.message, 99);
    EXPECT_THAT(journal.Logs(), ElementsAre("1 Wait: BosConnector: started", "1 Wait: BosConnector: finished"));
}

TEST_F(HandlersTest, Wait_ZeroFillsTheTopicButNeverWritesItsLastByte) {
    EXPECT_EQ(Wait(5), 0);
    const auto* topic = response.subs_Wait.topic;
    EXPECT_TRUE(std::all_of(topic + 4, topic + 1023, [](char c) { return c == '\0'; }));
    EXPECT_EQ(response.record[24 + 1023], 0xAA);
}

TEST_F(HandlersTest, Wait_CutsALongTopicToItsFirst1022Characters) {
    for (const std::size_t length : {1022U, 1023U, 1500U}) {
        bus->waitTopic.assign(length, 'x');
        std::memset(response.record, 0xAA, sizeof response.record);
        EXPECT_EQ(Wait(5), 0);
        EXPECT_EQ(std::string(response.subs_Wait.topic), std::string(1022, 'x')) << length;
        EXPECT_EQ(response.record[24 + 1022], 0) << length;
        EXPECT_EQ(response.record[24 + 1023], 0xAA) << length;
        EXPECT_EQ(response.subs_Wait.message, 99) << length;
    }
}

TEST_F(HandlersTest, Wait_ThatDeliversNothing_WritesAnEmptyTopicAndMinusOne) {
    bus->result = ResultCode::NotRegistered;
    EXPECT_NE(Wait(5), 0);
    EXPECT_TRUE(
        std::all_of(response.subs_Wait.topic, response.subs_Wait.topic + 1023, [](char c) { return c == '\0'; }));
    EXPECT_EQ(response.subs_Wait.message, -1);
}

TEST_F(HandlersTest, Wait_ThroughTheDispatch_GivesTheRecordThatItsReplyFunctionWrites) {
    br_MessageBusComponent_component component{provider, ctl, subs};
    br_MessageBus_component entity{&component};
    const auto asked = test_support::Request(test_support::SubsIid, 0);
    for (int code = 0; code <= 11; ++code) { // 11 is no code of the bus
        for (const std::size_t length : {0U, 1U, 1021U, 1022U, 1023U}) {
            bus->result = static_cast<ResultCode>(code);
            bus->waitTopic.assign(length, 'x');
            const nk_arena requestArena{};
            nk_arena responseArena{};
            EXPECT_EQ(
                br_MessageBus_entity_dispatch(&entity, &asked.header, &requestArena, &response.header, &responseArena),
                0);
            br_MessageBus_component_res written;
            std::memset(written.record, 0xAA, sizeof written.record);
            const bool isValue = bus->result == ResultCode::Success;
            br_MessageBusSubs_Wait_reply(connector.ToIpcResultCode(bus->result), isValue ? bus->waitTopic : "",
                                         isValue ? 99 : -1, &written.header);
            EXPECT_EQ(std::memcmp(written.record, response.record, NkRecordSize), 0) << code << ", " << length;
        }
    }
}

TEST_F(HandlersTest, Handlers_LetExceptionsPassAndWriteNothing) {
    bus->action = [] { throw std::runtime_error("broken"); };
    EXPECT_THROW(Push(1, 1), std::runtime_error);
    EXPECT_THROW(RegisterPublisher("heat"), std::runtime_error);
    EXPECT_THROW(Unregister(1), std::runtime_error);
    EXPECT_THROW(Wait(1), std::runtime_error);
    EXPECT_TRUE(IsUntouched());
    EXPECT_EQ(bus.use_count(), 1 + 3 + 1); // this test's, the connector's three, the handshake's
}

TEST_F(HandlersTest, Handlers_ReadAStringUpToItsFirstNul) {
    Put(request.ctl_RegisterPublisher.topic, "a");
    request.ctl_RegisterPublisher.topic[2] = 'b';
    EXPECT_EQ(ctl->ops->RegisterPublisher(ctl, &request.ctl_RegisterPublisher, nullptr, &response.ctl_RegisterPublisher,
                                          nullptr),
              0);
    EXPECT_EQ(RegisterPublisher(""), 0);
    EXPECT_THAT(bus->calls, ElementsAre("RegisterPublisher a -1", "RegisterPublisher  -1"));
}

TEST_F(HandlersTest, Handlers_DoNotBoundAStringByItsArray) {
    Put(request.ctl_RegisterPublisher.topic, "");
    std::memset(request.record + 24, 'x', 1024 + 4);
    std::memset(request.record + 24 + 1024 + 4, 0, 4);
    EXPECT_EQ(ctl->ops->RegisterPublisher(ctl, &request.ctl_RegisterPublisher, nullptr, &response.ctl_RegisterPublisher,
                                          nullptr),
              0);
    EXPECT_THAT(bus->calls, ElementsAre("RegisterPublisher " + std::string(1028, 'x') + " -1"));
}

TEST_F(HandlersTest, Handlers_OfTheBus_HoldItForTheLengthOfTheCall) {
    const std::vector<std::function<std::int32_t()>> calls{
        [&] { return Push(1, 1); }, [&] { return RegisterPublisher("heat"); }, [&] { return Unregister(1); },
        [&] { return UnregisterSubscriber(1); }};
    for (const auto& call : calls) {
        bus = std::make_shared<FakeBus>();
        connector.Init(bus, bus, bus);
        const std::weak_ptr<FakeBus> target = bus;
        bool wasAlive = false;
        bus->action = [&] {
            connector.Init(nullptr, nullptr, nullptr); // releases the connector's references
            wasAlive = !target.expired();
        };
        bus.reset();
        EXPECT_EQ(call(), 0);
        EXPECT_TRUE(wasAlive);
        EXPECT_TRUE(target.expired());
    }
}

TEST_F(HandlersTest, Handlers_OfTheHandshake_HoldItForTheLengthOfTheCall) {
    const std::weak_ptr<message_bus::SubscribeHelper> target = connector.GetSubscribeHelper();
    // Each call has its own thread and records: Subscribe holds the handshake's lock, the others wait for it.
    const auto call = [this](auto method) {
        return [this, method] {
            auto ownRequest = test_support::Request(test_support::CtlIid, 0);
            br_MessageBus_component_res ownResponse;
            method(ctl, ownRequest, ownResponse);
        };
    };
    Gate gate;
    log.Before("4 Subscribe", [&] { gate.Pass(); });
    std::thread subscribing(call([](auto* self, auto& in, auto& out) {
        self->ops->Subscribe(self, &in.ctl_Subscribe, nullptr, &out.ctl_Subscribe, nullptr);
    }));
    gate.AwaitReached();
    std::thread starting(call([](auto* self, auto& in, auto& out) {
        self->ops->StartSubs(self, &in.ctl_StartSubs, nullptr, &out.ctl_StartSubs, nullptr);
    }));
    std::thread finishing(call([](auto* self, auto& in, auto& out) {
        self->ops->FinishSubs(self, &in.ctl_FinishSubs, nullptr, &out.ctl_FinishSubs, nullptr);
    }));
    EXPECT_TRUE(fault_points::AwaitBlockedOnMutex(starting.get_id()));
    EXPECT_TRUE(fault_points::AwaitBlockedOnMutex(finishing.get_id()));
    const auto kept = target.lock(); // for a handler that holds no reference
    connector.Init(bus, bus, bus);   // releases the connector's reference
    EXPECT_EQ(target.use_count(), 1 + 3);
    gate.Open();
    for (auto* thread : {&subscribing, &starting, &finishing}) {
        thread->join();
    }
    EXPECT_EQ(target.use_count(), 1);
}

TEST_F(HandlersTest, Handlers_LeaveBothArenasAlone) {
    br_MessageBusComponent_component component{provider, ctl, subs};
    br_MessageBus_component entity{&component};
    const std::vector<std::pair<std::uint16_t, std::uint16_t>> methods{{0, 0}, {1, 0}, {1, 1}, {1, 2},
                                                                       {1, 3}, {1, 4}, {1, 5}, {2, 0}};
    for (const auto& [iid, mid] : methods) {
        std::array<char, 64> memory{};
        nk_arena requestArena{memory.data(), memory.data() + 8, memory.data() + 32};
        nk_arena responseArena{memory.data() + 32, memory.data() + 32, memory.data() + 64};
        const auto asked = test_support::Request(iid, mid);
        EXPECT_EQ(
            br_MessageBus_entity_dispatch(&entity, &asked.header, &requestArena, &response.header, &responseArena), 0);
        EXPECT_EQ(requestArena.current, memory.data() + 8);
        EXPECT_EQ(responseArena.current, memory.data() + 32);
        EXPECT_EQ(responseArena.end, memory.data() + 64);
        EXPECT_EQ(memory, (std::array<char, 64>{})) << iid << ", " << mid;
    }
}

TEST_F(HandlersTest, InterfaceObjects_AreOnePerProcessAndLeadToTheLastConnector) {
    const auto otherBus = std::make_shared<FakeBus>();
    BosConnector other(std::make_shared<bos_ipc::IpcServer>(message_bus::ConnectionType::Static));
    platform.serviceLocatorRegister.Once(8);
    EXPECT_TRUE(other.Init(otherBus, otherBus, otherBus));
    EXPECT_EQ(bos_connection::CreateBusImpl(&other), provider);
    EXPECT_EQ(bos_connection::CreateCtlImpl(&other), ctl);
    EXPECT_EQ(bos_connection::CreateSubscriberImpl(&other), subs);
    EXPECT_EQ(Push(1, 1), 0);
    EXPECT_THAT(bus->calls, IsEmpty());
    EXPECT_THAT(otherBus->calls, ElementsAre("Push 1 1"));
}

/// A string without terminator ends at the zeros that the dispatcher keeps behind the record.
TEST_F(HandlersTest, StaticDispatch_OfAStringWithoutTerminator_EndsItBehindTheRecord) {
    bos_ipc::IpcServer server(message_bus::ConnectionType::Static);
    platform.serviceLocatorRegister.Once(8);
    br_MessageBusComponent_component component{provider, ctl, subs};
    EXPECT_EQ(server.Init({&component}, br_MessageBusComponent_component(component)), 0);
    auto endless = test_support::Request(test_support::CtlIid, 0);
    std::memset(endless.record + 24, 'x', NkRecordSize - 24);
    Receives(endless);
    EXPECT_EQ(server.DispatchStatic(), 0);
    EXPECT_THAT(bus->calls, ElementsAre("RegisterPublisher " + std::string(NkRecordSize - 24, 'x') + " -1"));
}

} // namespace
