#pragma once

#include "bos/logger.h"
#include "bus_server.h"
#include "log_threshold.h"
#include "msgbusd/monitoring.h"
#include "server_limits.h"

#include <sys/types.h>

#include <optional>

namespace msgbusd {

/// What the command line, the environment and a file choose.
struct Settings {
    msgbus_server::BusServerOptions server; ///< but for its limits and its account
    msgbus_server::Limits limits;
    std::optional<gid_t> group; ///< beside this user
    bool isLimited = true;
    bool arenaPool = true;
    bool logLimit = true;
    bool nameWatch = true;
    bool failStop = true;
    msgbus_server::LogThresholds logLevels;
    bos::logger::LogFormat logFormat = bos::logger::LogFormat::Auto;
    bool account = true;
    MonitorSettings monitor;
    std::optional<int> readyDescriptor;
};

} // namespace msgbusd
