// Defends the monitor as a whole: where it is offered and where not, that it leaves nothing behind, and that a stop
// ends everything that is under way.
#include "monitor/served_monitor.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <thread>

namespace {

using msgbus_monitor::LoopbackAddress;
using msgbus_monitor::Monitor;
using msgbus_monitor::MonitorError;
using testing::ElementsAre;
using testing::HasSubstr;
using namespace std::literals;

class MonitorTest : public ServedMonitor {};

TEST_F(MonitorTest, Socket_IsThereWhileItServes) {
    Serve();
    EXPECT_TRUE(monitor->HasUnixSocket());
    EXPECT_FALSE(monitor->Address());
    EXPECT_EQ(Connect().Get("/healthz").status, 200);

    monitor.reset();

    EXPECT_TRUE(std::filesystem::is_empty(directory));
    EXPECT_THAT(warnings, ElementsAre());
}

TEST_F(MonitorTest, SocketOfAnotherServer_IsLeftToIt) {
    Serve();
    FakeMonitored other;
    other.illness = "This is the other server.";
    {
        const Monitor second(other, options);
        EXPECT_FALSE(second.HasUnixSocket());
        EXPECT_THAT(warnings, ElementsAre(HasSubstr("not served on a Unix socket")));
    }

    EXPECT_EQ(Connect().Get("/healthz").body, "ok\n");
}

TEST_F(MonitorTest, SocketThatCannotBeMade_IsAWarning) {
    std::ofstream(*options.socketPath) << "something";

    Serve();

    EXPECT_FALSE(monitor->HasUnixSocket());
    EXPECT_THAT(warnings, ElementsAre(HasSubstr("monitor.sock")));
    EXPECT_EQ(std::filesystem::file_size(*options.socketPath), 9U);
}

TEST_F(MonitorTest, Address_GetsTheChosenPort) {
    ServeOnTcp("0123456789abcdef");

    ASSERT_TRUE(monitor->Address());
    EXPECT_NE(monitor->Address()->port, 0);
    EXPECT_EQ(monitor->Address()->host, "127.0.0.1");
}

TEST_F(MonitorTest, AddressInUse_IsAnError) {
    ServeOnTcp("0123456789abcdef");
    auto second = options;
    second.socketPath.reset();
    second.address = monitor->Address();

    EXPECT_THROW(Monitor(monitored, second), MonitorError);
}

TEST_F(MonitorTest, AddressWithoutAToken_IsAnError) {
    EXPECT_THROW(ServeOnTcp(""), MonitorError);
    EXPECT_TRUE(std::filesystem::is_empty(directory));
}

TEST_F(MonitorTest, Stop_SendsEventStreamsWhatTheyLack) {
    options.limits.pollTime = 1h;
    Serve();
    auto client = Connect();
    client.Send("GET /v1/events HTTP/1.1\r\nHost: x\r\n\r\n");
    client.ReceiveUntil(": keep-alive\n\n");
    monitored.AddEvent(7);

    monitor.reset();

    EXPECT_TRUE(client.ReceiveUntil("id: 7\n"));
    EXPECT_TRUE(client.ReceiveUntil("\n\n"));
    EXPECT_TRUE(client.AwaitEnd());
}

TEST_F(MonitorTest, Stop_EndsWhateverIsUnderWay) {
    Serve();
    auto idle = Connect();
    ASSERT_EQ(idle.Get("/healthz").status, 200);
    auto half = Connect();
    half.Send("GET /");
    monitored.Change([](FakeMonitored& fake) { fake.isHeld = true; });
    auto working = Connect();
    working.Send("GET /v1/state HTTP/1.1\r\nHost: x\r\n\r\n");
    monitored.AwaitRead();
    std::thread stopper([this] { monitor.reset(); });
    monitored.Change([](FakeMonitored& fake) { fake.isHeld = false; });
    stopper.join();

    EXPECT_TRUE(idle.AwaitEnd());
    EXPECT_TRUE(half.AwaitEnd());
}

TEST_F(MonitorTest, ManyReaders_ReadOneAccount) {
    options.limits.leastCacheTime = options.limits.mostCacheTime = 1h;
    Serve();
    std::vector<std::thread> readers;
    for (int i = 0; i < 4; ++i) {
        readers.emplace_back([this] {
            auto client = Connect();
            for (int k = 0; k < 100; ++k) {
                EXPECT_EQ(client.Get(k % 2 == 0 ? "/v1/state" : "/metrics").status, 200);
            }
        });
    }
    for (auto& reader : readers) {
        reader.join();
    }

    EXPECT_EQ(monitored.Reads(), 1);
}

} // namespace
