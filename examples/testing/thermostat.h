#pragma once

#include <msgbus/options.h>
#include <msgbus/publisher.h>
#include <msgbus/subscriber.h>

#include <cstdint>

/// The part of a program that is to be tested: switches a heater by the temperature of a room.
///
/// It takes the options of the bus from its caller, so that a test can put a bus of its own in place of the server.
class Thermostat final {
public:
    Thermostat(std::int64_t wanted, const msgbus::Options& options)
        : wantedTemperature(wanted), temperatures("thermostat", {"temperature"}, options), heater("heater", options) {}

    /// Publishes 1 or 0 on topic "heater" whenever the heater has to be switched.
    /// Blocks: until Stop is called.
    void Run() {
        for (const auto& [topic, temperature] : temperatures) {
            const bool on = temperature < wantedTemperature;
            if (on != isOn) {
                heater.Push(on ? 1 : 0);
                isOn = on;
            }
        }
    }

    /// Ends Run. Threads: any.
    void Stop() noexcept { temperatures.Cancel(); }

private:
    const std::int64_t wantedTemperature;
    msgbus::Subscriber temperatures;
    msgbus::Publisher heater;
    bool isOn = false;
};
