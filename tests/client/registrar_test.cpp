// Defends what publishers and subscribers do about registrations when the server is restarted, over a bus that is made
// of answers.
#include "backend.h"
#include "kn/status.h"
#include "msgbus/msgbus.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <vector>

namespace {

using namespace std::chrono_literals;

/// One server, as its clients see it.
struct Server final : msgbus::IControl {
    std::int32_t RegisterPublisher(const std::string&, std::chrono::milliseconds timeout, std::int64_t& id) override {
        limits.push_back(timeout);
        id = 1;
        return Status();
    }
    std::int32_t RegisterSubscriber(const std::string&, const std::vector<std::string>&,
                                    std::chrono::milliseconds timeout, std::int64_t& id, std::string&) override {
        limits.push_back(timeout);
        id = ++registered;
        if (onRegister) {
            onRegister();
        }
        return Status();
    }
    std::int32_t UnregisterPublisher(std::int64_t, std::chrono::milliseconds) noexcept override { return Status(); }
    std::int32_t UnregisterSubscriber(std::int64_t, std::chrono::milliseconds) noexcept override {
        ++unregistered;
        return Status();
    }
    std::int32_t Status() const { return isGone ? KnStatusClosed : 0; }

    bool isGone = false;
    int registered = 0;
    int unregistered = 0;
    std::vector<std::chrono::milliseconds> limits;
    std::function<void()> onRegister;
};

struct Pusher final : msgbus::IPusher {
    explicit Pusher(std::shared_ptr<Server> of) : server(std::move(of)) {}
    std::int32_t Push(std::int64_t, std::int64_t, std::uint32_t) noexcept override { return server->Status(); }
    std::int32_t Drain(std::uint32_t) noexcept override { return server->Status(); }

    const std::shared_ptr<Server> server;
};

/// Never has a value.
struct Receiver final : msgbus::IReceiver {
    explicit Receiver(std::shared_ptr<Server> of) : server(std::move(of)) {}
    std::int32_t Receive(std::int64_t, std::uint32_t, msgbus::Message&) override {
        return server->isGone ? KnStatusClosed : KnStatusTimedOut;
    }
    std::int32_t Descriptor(int&) noexcept override { return KnStatusUnimplemented; }
    std::int32_t TakeDescriptorOf(msgbus::IReceiver&) noexcept override { return KnStatusUnimplemented; }
    std::int32_t WakeDescriptor(std::uint32_t) noexcept override { return KnStatusUnimplemented; }
    msgbus::Loss Lost() noexcept override { return {}; }
    void Close() noexcept override {}

    const std::shared_ptr<Server> server;
};

class Bus final : public msgbus::Backend {
public:
    msgbus::PublisherLinks ConnectPublisher(std::chrono::milliseconds timeout) override {
        server->limits.push_back(timeout);
        return {server, std::make_unique<Pusher>(server)};
    }
    msgbus::SubscriberLinks ConnectSubscriber(std::chrono::milliseconds timeout) override {
        server->limits.push_back(timeout);
        return {server, std::make_unique<Receiver>(server)};
    }
    void Declare(const std::string&, const std::string&) noexcept override {}
    void Restart() {
        server->isGone = true;
        server = std::make_shared<Server>();
    }

    std::shared_ptr<Server> server = std::make_shared<Server>();
};

class RegistrarTest : public testing::Test {
protected:
    RegistrarTest() {
        options.backend = bus;
        options.reconnectFor = 1h;
        options.connectTimeout = 1h;
        options.callTimeout = 1h;
    }

    const std::shared_ptr<Bus> bus = std::make_shared<Bus>();
    msgbus::Options options;
};

TEST_F(RegistrarTest, ASubscriberThatIsCanceledWhileItRegistersAgain_LeavesNothing_AndIsNotRegisteredAnyMore) {
    msgbus::Subscriber subscriber("s", {"t"}, options);
    bus->Restart();
    bus->server->onRegister = [&] { subscriber.Cancel(); };
    EXPECT_EQ(msgbus::Outcome::Canceled, subscriber.TryNext().outcome);
    EXPECT_EQ(1, bus->server->registered);
    EXPECT_EQ(1, bus->server->unregistered);
    msgbus::Publisher publisher("t", options);
    bus->Restart();
    publisher.Push(1);
    EXPECT_EQ(0, bus->server->registered);
}

TEST_F(RegistrarTest, ASubscriberThatReadsNothing_IsRegisteredByItsProcess_AfterEachRestart) {
    msgbus::Subscriber subscriber("s", {"t"}, options);
    msgbus::Publisher publisher("t", options);
    for (int restart = 0; restart < 3; ++restart) {
        bus->Restart();
        publisher.Push(restart);
        EXPECT_EQ(1, bus->server->registered);
    }
    EXPECT_EQ(msgbus::Outcome::TimedOut, subscriber.TryNext().outcome);
    EXPECT_EQ(1, bus->server->registered) << "that registration is used";
    EXPECT_EQ(0, bus->server->unregistered);
    EXPECT_EQ(3U, subscriber.Lost().reconnections);
}

TEST_F(RegistrarTest, RequestsToARestartedServer_AreLimitedByTheDeadlineOfTheCall) {
    msgbus::Subscriber subscriber("s", {"t"}, options);
    msgbus::Publisher publisher("t", options);
    bus->Restart();
    publisher.Push(1, std::chrono::steady_clock::now() + 10min);
    bus->Restart();
    EXPECT_EQ(msgbus::Outcome::TimedOut, subscriber.NextFor(1ms).outcome);
    for (const auto limit : bus->server->limits) {
        EXPECT_LE(limit, 10min);
    }
    EXPECT_EQ(2U, bus->server->limits.size());
}

TEST_F(RegistrarTest, ADeadlineOfAPush_ReplacesTheTimeToReconnect) {
    options.reconnectFor = 1ms;
    msgbus::Publisher publisher("t", options);
    bus->Restart();
    bus->server->isGone = true; // that one as well
    EXPECT_THROW(publisher.Push(1, std::chrono::steady_clock::now() + 20ms), msgbus::TimedOutError);
    EXPECT_THROW(publisher.Push(2), msgbus::ServerGoneError);
    bus->server->isGone = false;
    publisher.Push(3);
}

} // namespace
