// A test of a part of a program that uses the bus. It needs no server: the bus is an object of the test.
#include "thermostat.h"

#include <msgbus/testing.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <string>
#include <utility>

namespace {

using testing::ElementsAre;
using namespace std::chrono_literals;

class ThermostatTest : public testing::Test {
protected:
    ThermostatTest() {
        options = bus.MakeOptions();
        options.reconnectFor = 60s;
    }

    msgbus::testing::Bus bus;
    msgbus::Options options;
};

TEST_F(ThermostatTest, SwitchesTheHeaterWhenTheTemperatureCrossesTheWantedOne) {
    msgbus::Subscriber heater("test", {"heater"}, options);
    Thermostat thermostat(20, options);
    auto running = std::async(std::launch::async, [&] { thermostat.Run(); });

    bus.Push("temperature", 18);
    EXPECT_EQ(heater.Next()->value, 1);
    bus.Push("temperature", 19); // is on
    bus.Push("temperature", 20);
    EXPECT_EQ(heater.Next()->value, 0);

    thermostat.Stop();
    running.get();
    EXPECT_THAT(bus.Pushed("heater"), ElementsAre(1, 0));
}

TEST_F(ThermostatTest, TriesAgainWhileTheBusIsFull) {
    msgbus::Subscriber heater("test", {"heater"}, options);
    Thermostat thermostat(20, options);
    auto running = std::async(std::launch::async, [&] { thermostat.Run(); });

    bus.FailNext(msgbus::testing::Request::Push, 2, 3);
    bus.Push("temperature", 18);
    EXPECT_EQ(heater.Next()->value, 1);

    thermostat.Stop();
    running.get();
}

TEST_F(ThermostatTest, GoesOnWithARestartedServer) {
    std::promise<void> registered;
    bool isFirst = true;
    auto watched = options;
    watched.onNotice = [&](msgbus::Notice notice, const std::string&) {
        if (notice == msgbus::Notice::RegisteredAgain && std::exchange(isFirst, false)) {
            registered.set_value();
        }
    };
    Thermostat thermostat(20, watched);
    auto running = std::async(std::launch::async, [&] { thermostat.Run(); });

    bus.Restart();
    registered.get_future().wait(); // the subscriber, which waits; the publisher is with its next value
    msgbus::Subscriber heater("test", {"heater"}, options);
    bus.Push("temperature", 18);
    EXPECT_EQ(heater.Next()->value, 1);

    thermostat.Stop();
    running.get();
}

TEST_F(ThermostatTest, SaysThatAnotherThermostatIsThere) {
    const Thermostat first(20, options);
    EXPECT_THROW(Thermostat(21, options), msgbus::RefusedError);
    EXPECT_EQ(bus.RegisteredCount(), 2U); // the refused one has left nothing behind
}

} // namespace
