#pragma once

#include "fake_monitored.h"
#include "http_client.h"
#include "monitor.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

/// A monitor of a FakeMonitored, on a Unix socket in a directory of its own and, when Serve is given a token, on TCP.
class ServedMonitor : public testing::Test {
protected:
    ServedMonitor() {
        std::string name = (std::filesystem::temp_directory_path() / "borven-monitor-XXXXXX").string();
        directory = ::mkdtemp(name.data());
        options.socketPath = directory + "/monitor.sock";
        options.warn = [this](const std::string& sentence) { warnings.push_back(sentence); };
        options.limits.mostCacheTime = std::chrono::milliseconds(0);
        options.limits.pollTime = std::chrono::milliseconds(1);
    }
    ~ServedMonitor() override {
        monitored.Change([](FakeMonitored& fake) { fake.isHeld = false; });
        monitor.reset();
        std::filesystem::remove_all(directory);
    }

    void Serve() { monitor.emplace(monitored, options); }
    void ServeOnTcp(const std::string& token) {
        options.address = msgbus_monitor::LoopbackAddress::Parse("127.0.0.1:0");
        options.token = token;
        Serve();
    }

    HttpClient Connect() const { return HttpClient(*options.socketPath); }
    HttpClient ConnectOverTcp() const { return HttpClient(monitor->Address()->port); }

    FakeMonitored monitored;
    std::string directory;
    msgbus_monitor::MonitorOptions options;
    std::vector<std::string> warnings;
    std::optional<msgbus_monitor::Monitor> monitor;
};
