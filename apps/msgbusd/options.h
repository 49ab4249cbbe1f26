#pragma once

#include "bos/logger.h"
#include "bus_server.h"
#include "log_threshold.h"
#include "msgbusd/monitoring.h"

#include <optional>

namespace msgbusd {

constexpr int ExitUsage = 2;

/// What the command line chooses.
struct Settings {
    msgbus_server::BusServerOptions server;
    bool arenaPool = true;
    bool logLimit = true;
    bool nameWatch = true;
    bool failStop = true;
    msgbus_server::LogThresholds logLevels;
    bos::logger::LogFormat logFormat = bos::logger::LogFormat::Auto;
    std::optional<int> readyDescriptor;
    bool account = true;
    MonitorSettings monitor;
};

/// Reads the command line, and prints what it asks for or what is wrong with it.
/// Returns: nothing to go on with `settings`, or the exit status.
std::optional<int> ReadOptions(int argc, char** argv, Settings& settings);

} // namespace msgbusd
