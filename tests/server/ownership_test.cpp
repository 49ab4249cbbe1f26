// Defends that a process uses its own registrations only, also those of a process that goes while it registers. What
// the clients see of it is tested with real processes.
#include "ownership.h"

#include "clean_up.h"
#include "kn/handle.h"
#include "kn/status.h"
#include "service_locator.h"
#include "support/bus_test.h"
#include "support/in_process_callers.h"
#include "support/scripted_platform.h"

#include <atomic>
#include <functional>
#include <thread>
#include <utility>
#include <vector>

namespace {

using cor::ResultCode;
using msgbus_server::CallerAccounts;
using msgbus_server::CleanUp;
using msgbus_server::Kind;
using msgbus_server::Limits;
using msgbus_server::Ownership;
using testing::ElementsAre;
using testing::IsEmpty;

/// A bus that notes what reaches it.
class NotingBus final : public message_bus::IProvider,
                        public message_bus::IProviderControl,
                        public message_bus::IWorker {
public:
    ResultCode Push(long id, long value) override { return Note("push " + std::to_string(id), value); }
    ResultCode RegisterPublisher(const std::string&, long& id) override {
        id = ++lastId;
        return Note("publisher", 0);
    }
    ResultCode RegisterSubscriber(const std::string&, const std::set<std::string>&, long& id) override {
        id = ++lastId;
        return Note("subscriber", 0);
    }
    ResultCode UnregisterPublisher(long id) override { return Note("unpublish " + std::to_string(id), 0); }
    ResultCode UnregisterSubscriber(long id) override { return Note("unsubscribe " + std::to_string(id), 0); }
    ResultCode Wait(long id, std::string&, long&) override { return Note("wait " + std::to_string(id), 0); }

    std::vector<std::string> calls;
    ResultCode result = ResultCode::Success;
    std::function<void()> before;

private:
    ResultCode Note(std::string call, long) {
        if (before) {
            before();
        }
        calls.push_back(std::move(call));
        return result;
    }

    long lastId = 0;
};

/// A request of a process, which the calling thread serves while this exists.
class Serving final {
public:
    explicit Serving(std::int32_t pid, const char* channel = "line")
        : server(ServiceLocatorRegister(channel, nullptr, 0, nullptr)) {
        const test_support::ActingAs client(pid);
        EXPECT_EQ(ServiceLocatorConnect(channel, 1000, &connection), KnStatusOk);
        caller = std::thread([this] {
            NkBosTransport transport{};
            NkBosTransport_Init(&transport, connection, nullptr, 0);
            alignas(8) std::array<std::byte, NkRecordSize> record{};
            auto& request = reinterpret_cast<nk_message&>(record);
            NkSetSize(request, NkRecordSize);
            nk_arena none{};
            NkBosTransport_Call(&transport, &request, &none, &request, &none);
        });
        NkBosTransport transport{};
        NkBosTransport_Init(&transport, server, nullptr, 0);
        alignas(8) std::array<std::byte, NkRecordSize> record{};
        auto& request = reinterpret_cast<nk_message&>(record);
        NkSetSize(request, NkRecordSize);
        EXPECT_EQ(NkBosTransport_Receive(&transport, &request, nullptr), KnStatusOk);
    }
    Serving(const Serving&) = delete;
    Serving& operator=(const Serving&) = delete;
    ~Serving() {
        Leave();
        KnHandleClose(server);
        caller.join();
    }

    /// The process closes its only connection.
    void Leave() { KnHandleClose(std::exchange(connection, KnInvalidHandle)); }

private:
    const KnHandle server;
    KnHandle connection = KnInvalidHandle;
    std::thread caller;
};

constexpr std::int32_t One = 1001;
constexpr std::int32_t Two = 1002;

class OwnershipTest : public test_support::BusTest {
protected:
    long Publish(std::int32_t pid) {
        const Serving request(pid);
        long id = -1;
        EXPECT_EQ(ownership.RegisterPublisher("t", id), ResultCode::Success);
        return id;
    }

    test_support::ScriptedPlatform platform;
    NotingBus bus;
    CallerAccounts accounts{Limits{}};
    std::vector<std::int32_t> ended;
    Ownership ownership{
        {bus, bus, bus}, accounts, true, [this](const KnCaller& caller) { ended.push_back(caller.pid); }};
};

TEST_F(OwnershipTest, APush_WithTheIdOfAnother_ReachesTheBusWithAnUnknownOne) {
    const KnHandle keepsOne = [] { // the caller is the same as long as one of its connections is open
        const test_support::ActingAs client(One);
        KnHandle server = ServiceLocatorRegister("keeps", nullptr, 0, nullptr);
        KnHandle connection = KnInvalidHandle;
        EXPECT_EQ(ServiceLocatorConnect("keeps", 1000, &connection), KnStatusOk);
        return server;
    }();
    const long id = Publish(One);
    bus.calls.clear();
    for (int times = 0; times < 2; ++times) { // the second time from the cache of the thread
        {
            const Serving request(One);
            ownership.Push(id, 5);
        }
        const Serving request(Two);
        ownership.Push(id, 5);
    }
    EXPECT_THAT(bus.calls, ElementsAre("push 1", "push 0", "push 1", "push 0"));
    KnHandleClose(keepsOne);
}

TEST_F(OwnershipTest, TheServersOwnCalls_PassAsTheyAre) {
    long id = -1;
    std::string topic;
    EXPECT_EQ(ownership.RegisterPublisher("t", id), ResultCode::Success);
    ownership.Push(id, 1);
    ownership.Wait(7, topic, id);
    ownership.UnregisterPublisher(1);
    ownership.UnregisterSubscriber(7);
    EXPECT_THAT(bus.calls, ElementsAre("publisher", "push 1", "wait 7", "unpublish 1", "unsubscribe 7"));
    EXPECT_EQ(accounts.OwnerOf({Kind::Publisher, 1}).id, 0U);
}

TEST_F(OwnershipTest, ARegistrationThatFails_CostsNothing) {
    bus.result = ResultCode::Conflict;
    const Serving request(One);
    long id = -1;
    for (std::size_t times = 0; times <= Limits{}.publishersPerProcess; ++times) {
        ASSERT_EQ(ownership.RegisterPublisher("t", id), ResultCode::Conflict);
    }
}

TEST_F(OwnershipTest, ARegistrationBeyondALimit_DoesNotReachTheBus) {
    const Serving request(One);
    const std::string huge(Limits{}.nameBytesPerProcess + 1, 'x');
    long id = -1;
    EXPECT_EQ(ownership.RegisterPublisher(huge, id), ResultCode::TooManyBytes);
    EXPECT_EQ(ownership.RegisterSubscriber("reader", {huge}, id), ResultCode::TooManyBytes);
    EXPECT_THAT(bus.calls, IsEmpty());
}

TEST_F(OwnershipTest, ARegistrationOfAProcessThatGoesMeanwhile_Ends) {
    Serving request(One);
    bus.before = [&] { request.Leave(); };
    long id = -1;
    EXPECT_EQ(ownership.RegisterSubscriber("reader", {"t"}, id), ResultCode::Success);
    EXPECT_THAT(ended, ElementsAre(One)) << "its end was reported before it had anything";
    KnCaller gone;
    EXPECT_EQ(KnCallerOfRequest(&gone), KnStatusPeerGone);
    EXPECT_THAT(accounts.AllOf(gone.id), testing::SizeIs(1));
}

TEST_F(OwnershipTest, ASubscriberThatTheBusKnowsAlready_IsUnknownToOthers_BeforeItsOwnerKnowsIt) {
    const Serving request(One);
    bus.before = [&] { // the bus has given it the id 1
        bus.before = nullptr;
        std::thread([&] {
            const Serving another(Two, "second line");
            std::string topic;
            long value = -1;
            ownership.Wait(1, topic, value);
        }).join();
    };
    long id = -1;
    EXPECT_EQ(ownership.RegisterSubscriber("reader", {"t"}, id), ResultCode::Success);
    EXPECT_THAT(bus.calls, ElementsAre("wait 0", "subscriber"));
}

TEST_F(OwnershipTest, CleanUp_EndsWhatACallerHas_AndCancelsItsHandshakes) {
    KnCaller caller;
    {
        const Serving request(One);
        long id = -1;
        ownership.RegisterPublisher("t", id);
        ownership.RegisterSubscriber("reader", {"t"}, id);
        KnCallerOfRequest(&caller);
        accounts.Charge(caller, Kind::Handshake, 0);
        accounts.Add(caller, {Kind::Handshake, 7}, 0);
    }
    bus.calls.clear();
    std::atomic<long> cancelled{-1};
    CleanUp cleanUp(accounts, bus, [&](long id) {
        cancelled = id;
        cancelled.notify_all();
    });
    cleanUp.EndAllOf(caller);
    cancelled.wait(-1);
    cleanUp.Stop();
    EXPECT_EQ(cancelled, 7);
    EXPECT_THAT(bus.calls, ElementsAre("unpublish 1", "unsubscribe 2"));
    EXPECT_THAT(accounts.AllOf(caller.id), IsEmpty());
    EXPECT_THAT(journal.Logs(),
                ElementsAre("2 EndNow: publisher 1 of process 1001 (scripted), which is gone, is unregistered",
                            "2 EndNow: subscriber 2 of process 1001 (scripted), which is gone, is unregistered",
                            "2 EndNow: unfinished registration 7 of process 1001 (scripted), which is gone, is "
                            "cancelled"));
    cleanUp.EndAllOf(caller); // of no effect any more
}

} // namespace
