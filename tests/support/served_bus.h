#pragma once

#include "br_MessageBus_client.h"
#include "bus_server.h"
#include "kn/handle.h"
#include "support/scripted_platform.h"

#include <gtest/gtest.h>

#include <future>
#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <utility>

namespace test_support {

inline std::string ModeName(const testing::TestParamInfo<message_bus::ConnectionType>& mode) {
    return mode.param == message_bus::ConnectionType::Static ? "Static" : "Dynamic";
}

/// Gives every wake-up a successor: the bus may lose one, and a value or a stop would wait for the next.
inline void Nudge(message_bus::MessageBus& bus) {
    constexpr long unknownPublisher = -99;
    static_cast<void>(bus.UnregisterPublisher(unknownPublisher));
}

/// The whole bus on the in-process platform, as the server program runs it.
class ServedBus final {
public:
    /// Bare: without what the server adds to the bus's answers.
    explicit ServedBus(message_bus::ConnectionType type)
        : ServedBus(msgbus_server::BusServerOptions{.connectionType = type,
                                                    .parkedWaits = false,
                                                    .flushWake = false,
                                                    .placement = false,
                                                    .ownership = false,
                                                    .limits = std::nullopt,
                                                    .registrationGate = false,
                                                    .intake = false,
                                                    .account = std::nullopt}) {}

    explicit ServedBus(const msgbus_server::BusServerOptions& options) : server(options) {
        std::promise<bool> started;
        runner = std::thread([this, &started] {
            bool hasStarted = false;
            try {
                stoppedInOrder = server.Run([&] {
                    hasStarted = true;
                    started.set_value(true);
                });
            } catch (const msgbus_server::OfferError& error) {
                ADD_FAILURE() << error.what();
            }
            if (!hasStarted) {
                started.set_value(false);
            }
        });
        isServing = started.get_future().get();
    }
    ~ServedBus() { ShutDown(); }
    ServedBus(const ServedBus&) = delete;
    ServedBus& operator=(const ServedBus&) = delete;

    void ShutDown() {
        if (runner.joinable()) {
            server.RequestStop();
            runner.join();
            EXPECT_TRUE(stoppedInOrder);
        }
    }

private:
    msgbus_server::BusServer server;
    std::thread runner;
    bool stoppedInOrder = false;

public:
    message_bus::MessageBus* const bus = &server.Bus();
    msgbus_server::AccountKeeper* const account = server.Account(); ///< null: none is kept
    bool isServing = false;
};

/// One connection of a client.
class Client final {
public:
    static Client ToStaticChannel() {
        Client client;
        EXPECT_EQ(ServiceLocatorConnect(br_MessageBus_connection, PatienceMs, &client.handle), KnStatusOk);
        NkBosTransport_Init(&client.transport, client.handle, nullptr, 0);
        return client;
    }
    static Client ToService(const char* service) {
        Client client;
        EXPECT_EQ(KnCmConnect(service, PatienceMs, &client.handle), KnStatusOk);
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
    long Subscribe(const std::string& name, const std::set<std::string>& topics) {
        std::int64_t registration = -1;
        std::int64_t id = -1;
        EXPECT_EQ(br_MessageBusCtl_StartSubs_call(&transport, name, registration), 0);
        for (const auto& topic : topics) {
            EXPECT_EQ(br_MessageBusCtl_Subscribe_call(&transport, registration, topic), 0);
        }
        EXPECT_EQ(br_MessageBusCtl_FinishSubs_call(&transport, registration, 1, id), 0);
        return id;
    }
    std::int32_t Push(long publisher, long value) {
        return br_MessageBusProvider_Push_call(&transport, publisher, value);
    }
    std::int32_t UnregisterPublisher(long publisher) {
        return br_MessageBusCtl_UnregisterPublisher_call(&transport, publisher);
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

    /// Ends a call that another thread has under way, and every later one.
    void Close() { KnHandleClose(handle); }

    NkBosTransport* Transport() { return &transport; }

private:
    static constexpr std::uint32_t PatienceMs = 30000;

    Client() = default;

    KnHandle handle = KnInvalidHandle;
    NkBosTransport transport{};
};

/// For tests that run in the static and in the dynamic mode: clients that reach the bus the way the mode has it.
class EitherMode : public testing::WithParamInterface<message_bus::ConnectionType> {
protected:
    static Client Ctl() { return Connect(br_MessageBusComponent_ctl_service); }
    static Client Subs() { return Connect(br_MessageBusComponent_subs_service); }
    static Client Provider() { return Connect(br_MessageBusComponent_provider_service); }

private:
    static Client Connect(const char* service) {
        return GetParam() == message_bus::ConnectionType::Static ? Client::ToStaticChannel()
                                                                 : Client::ToService(service);
    }
};

} // namespace test_support
