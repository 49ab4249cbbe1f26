#pragma once

#include "bos_connector.h"
#include "br_MessageBus_client.h"
#include "ipc_server.h"
#include "kn/handle.h"
#include "message_bus.h"
#include "support/scripted_platform.h"

#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <utility>

namespace test_support {

inline std::string ModeName(const testing::TestParamInfo<message_bus::ConnectionType>& mode) {
    return mode.param == message_bus::ConnectionType::Static ? "Static" : "Dynamic";
}

/// Gives every wake-up a successor, so that none that the bus may lose by intent keeps a value or a stop back.
inline void Nudge(message_bus::MessageBus& bus) {
    constexpr long nobody = -99;
    static_cast<void>(bus.UnregisterPublisher(nobody));
}

/// Stops the events thread for good: a stop request may come between the thread's test of its flag and its sleep, and
/// is lost then.
inline void StopEventsThread(message_bus::MessageBus& bus) {
    constexpr long nobody = -99;
    bus.Stop();
    static_cast<void>(bus.Push(nobody, 0)); // behind the lock that covers test and sleep
    bus.Stop();
}

/// The whole bus on the in-process platform: bus, connector and IPC server, wired as a server program does it. What
/// Run adds to that is one sleep, which no test wants.
class ServedBus final : public message_bus::IConnector {
public:
    explicit ServedBus(message_bus::ConnectionType type) : server(std::make_shared<bos_ipc::IpcServer>(type)) {
        connector = std::make_shared<message_bus::BosConnector>(server);
        isServing = connector->Init(bus, bus, bus);
        // Run stores its connector and starts the events thread; leaving it by an exception that it lets pass keeps
        // both.
        try {
            static_cast<void>(bus->Run(std::shared_ptr<IConnector>(std::shared_ptr<IConnector>(), this)));
        } catch (const Leave&) {
            isServing = isServing && connector->RunServer() == cor::ResultCode::Success;
        }
    }
    ~ServedBus() override { ShutDown(); }
    ServedBus(const ServedBus&) = delete;
    ServedBus& operator=(const ServedBus&) = delete;

    /// As a server program ends: stop signal, every subscriber unregistered, channels closed, workers gone.
    void ShutDown() {
        if (!server) {
            return;
        }
        server->SetStopSignal();
        for (const long subscriber : subscribers) {
            static_cast<void>(bus->UnregisterSubscriber(subscriber));
        }
        KnHandleCloseServerEnds();
        server->WaitAllThreads();
        connector.reset();
        server.reset();
        StopEventsThread(*bus);
    }

    /// ShutDown unregisters it.
    void Remember(long subscriber) {
        const std::lock_guard lock(mutex);
        subscribers.insert(subscriber);
    }

    cor::ResultCode RunServer() override { return cor::ResultCode::Success; }
    cor::ResultCode SwitchActiveIpcServer() override { return connector->SwitchActiveIpcServer(); }
    bool ShouldBeStopped() override { throw Leave{}; }

    std::shared_ptr<message_bus::MessageBus> bus = std::make_shared<message_bus::MessageBus>();
    std::shared_ptr<bos_ipc::IpcServer> server;
    std::shared_ptr<message_bus::BosConnector> connector;
    bool isServing = false;

private:
    struct Leave {};

    std::mutex mutex; // guards subscribers
    std::set<long> subscribers;
};

/// One connection of a client.
class Client final {
public:
    static Client ToStaticChannel() {
        Client client;
        EXPECT_EQ(ServiceLocatorConnect("msgbus_connection_id", patienceMs, &client.handle), KnStatusOk);
        NkBosTransport_Init(&client.transport, client.handle, nullptr, 0);
        return client;
    }
    static Client ToService(const char* service) {
        Client client;
        EXPECT_EQ(KnCmConnect(service, patienceMs, &client.handle), KnStatusOk);
        NkBosTransport_Init(&client.transport, client.handle, nullptr, 0);
        return client;
    }

    Client(Client&& other) noexcept
        : handle(std::exchange(other.handle, KnInvalidHandle)), transport(other.transport) {}
    ~Client() {
        if (handle != KnInvalidHandle) {
            KnHandleClose(handle);
        }
    }

    /// Returns: the id; the failure is the test's.
    long RegisterPublisher(const std::string& topic) {
        std::int64_t id = -1;
        EXPECT_EQ(br_MessageBusCtl_RegisterPublisher_call(&transport, topic, id), 0);
        return id;
    }
    long Subscribe(ServedBus& served, const std::string& name, const std::set<std::string>& topics) {
        std::int64_t registration = -1;
        std::int64_t id = -1;
        EXPECT_EQ(br_MessageBusCtl_StartSubs_call(&transport, name, registration), 0);
        for (const auto& topic : topics) {
            EXPECT_EQ(br_MessageBusCtl_Subscribe_call(&transport, registration, topic), 0);
        }
        EXPECT_EQ(br_MessageBusCtl_FinishSubs_call(&transport, registration, 1, id), 0);
        served.Remember(id);
        return id;
    }
    std::int32_t Push(long publisher, long value) {
        return br_MessageBusProvider_Push_call(&transport, publisher, value);
    }
    std::int32_t Unregister(long subscriber) {
        return br_MessageBusCtl_UnregisterSubscriber_call(&transport, subscriber);
    }
    /// Returns: status, topic, value.
    std::tuple<std::int32_t, std::string, long> Wait(long subscriber) {
        std::string topic;
        std::int64_t value = -1;
        const auto status = br_MessageBusSubs_Wait_call(&transport, subscriber, topic, value);
        return {status, topic, value};
    }

    NkBosTransport* Transport() { return &transport; }

private:
    static constexpr std::uint32_t patienceMs = 30000;

    Client() = default;

    KnHandle handle = KnInvalidHandle;
    NkBosTransport transport{};
};

/// For tests that run in the static and in the dynamic mode: clients that reach the bus the way the mode has it.
class EitherMode : public testing::WithParamInterface<message_bus::ConnectionType> {
protected:
    static Client Ctl() { return Connect("br.MessageBusComponent.ctl"); }
    static Client Subs() { return Connect("br.MessageBusComponent.subs"); }
    static Client Provider() { return Connect("br.MessageBusComponent.provider"); }

private:
    static Client Connect(const char* service) {
        return GetParam() == message_bus::ConnectionType::Static ? Client::ToStaticChannel()
                                                                 : Client::ToService(service);
    }
};

} // namespace test_support
