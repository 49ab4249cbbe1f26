// The server program of the bus: options in, exit status out.

#include "bus_server.h"
#include "diagnostics.h"
#include "fail_stop.h"
#include "health_beat.h"
#include "instruments/read_account.h"
#include "kn/runtime_directory.h"
#include "kn/status.h"
#include "log_threshold.h"
#include "msgbusd/arena_mappings.h"
#include "msgbusd/monitoring.h"
#include "msgbusd/options/options.h"
#include "service_manager.h"
#include "signal_watch.h"
#include "standard_descriptors.h"
#include "status_reports.h"

#include <fcntl.h>
#include <malloc.h>
#include <sys/resource.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

namespace {

using diagnostics::Log;
using diagnostics::LogLevel;
using msgbusd::ExitUsage;
using msgbusd::Settings;

constexpr int ExitFailed = 1;

constexpr int BeatsInAWatchdogPeriod = 2; // as sd_watchdog_enabled(3) recommends

int Fail(std::string_view sentence) {
    std::cerr << "msgbusd: " << sentence << '\n';
    return ExitFailed;
}

/// Every client connection takes descriptors; the usual soft limit is meant for programs that call select().
void RaiseDescriptorLimit() {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        ::setrlimit(RLIMIT_NOFILE, &limit);
    }
}

/// The allocator gives freed memory back only from its first arena; in others, what a crowd of clients took would stay
/// for good. A value passes several threads, so arenas of their own would spare them few locks.
void UseOneArena() {
    if (std::getenv("MALLOC_ARENA_MAX") == nullptr && std::getenv("GLIBC_TUNABLES") == nullptr) {
        ::mallopt(M_ARENA_MAX, 1);
    }
}

void ReportReady(int descriptor) {
    constexpr std::string_view line = "READY\n";
    if (::write(descriptor, line.data(), line.size()) < 0) {
        Log(LogLevel::Warning, "Cannot report readiness on descriptor {}: {}", descriptor, std::strerror(errno));
    }
    ::close(descriptor);
}

void LogSignal(int number) {
    Log(LogLevel::Info, "SIG{} received; a signal more than {} s later ends the server at once", ::sigabbrev_np(number),
        msgbus_server::SignalWatch::SameRequest.count());
}

/// Returns: the directory for the account; nothing when there is none, which the offer of the bus then reports.
std::optional<std::string> AccountDirectory() {
    std::array<char, PATH_MAX> path{};
    const auto status = KnRuntimeDirectory(KnMissingDirectory::IsCreated, path.data(), path.size());
    return status == KnStatusOk ? std::optional<std::string>(path.data()) : std::nullopt;
}

int Serve(const Settings& settings, const std::vector<std::string>& warnings) {
    const msgbus_server::LogThreshold logThreshold(settings.logLevels);
    for (const auto& warning : warnings) {
        Log(LogLevel::Warning, "{}", warning);
    }
    std::optional<msgbus_server::FaultWatch> faultWatch;
    if (settings.failStop) {
        faultWatch.emplace(msgbus_server::FailStop);
    }
    const msgbus_server::ServiceManager manager;
    msgbus_server::BusServer server(settings.server);
    msgbus_server::HealthBeat health(settings.server.connectionType, [&] { manager.Report("WATCHDOG=1"); });
    std::optional<instruments::AccountReader> account;
    std::optional<msgbus_server::StatusReports> status;
    if (server.Account() != nullptr) {
        account.emplace(server.Account()->File().Memory());
        status.emplace(manager, [&] { return account->Read(instruments::AccountReader::Depth::WithoutLatency); });
    }
    // Its threads start here, since none is to start while the bus serves.
    std::optional<msgbusd::Monitoring> monitoring;
    if (settings.monitor.isOn && server.Account() != nullptr) {
        monitoring.emplace(server, settings.monitor, settings.server.account->directory);
    }
    const auto stopStatus = [&] {
        if (status) {
            status->Stop();
        }
    };
    const msgbus_server::SignalWatch signals(
        [&](int number) {
            LogSignal(number);
            stopStatus();
            manager.Report("STOPPING=1\nSTATUS=Stopping");
            server.RequestStop();
        },
        [&] {
            stopStatus();
            manager.Report("STATUS=Draining, then stopping");
            health.Relax();
            server.RequestDrain();
        });
    const bool isInOrder = server.Run([&] {
        if (const auto period = msgbus_server::ServiceManager::WatchdogPeriod()) {
            health.Start(*period / BeatsInAWatchdogPeriod);
        }
        manager.Report("READY=1\nSTATUS=Serving");
        if (status) {
            status->Start();
        }
        if (settings.readyDescriptor) {
            ReportReady(*settings.readyDescriptor);
        }
    });
    return isInOrder ? 0 : Fail("the bus stopped without a request; the log has the reason");
}
/// The platform reads its variables when it needs them; there is no other thread yet.
void SetPlatformSwitch(const char* variable, bool isOn) {
    if (isOn) {
        ::unsetenv(variable); // another source may have overridden it
    } else {
        ::setenv(variable, "off", 1);
    }
}

} // namespace

int main(int argc, char** argv) {
    msgbusd::ChosenOptions options;
    if (const auto status = msgbusd::ReadOptions(argc, argv, options)) {
        return *status;
    }
    Settings& settings = options.settings;
    OccupyStandardDescriptors();
    if (settings.readyDescriptor && ::fcntl(*settings.readyDescriptor, F_GETFD) < 0) {
        std::cerr << "msgbusd: --ready-fd " << *settings.readyDescriptor << ": " << std::strerror(errno) << '\n';
        return ExitUsage;
    }
    SetPlatformSwitch("BORVEN_PLACEMENT", settings.server.placement);
    // A log of every step has every line.
    SetPlatformSwitch("BORVEN_LOG_LIMIT", settings.logLimit && !settings.logLevels.IsEnabled(LogLevel::Debug));
    SetPlatformSwitch("BORVEN_NAME_WATCH", settings.nameWatch);
    bos::logger::BOSLogger::SetFormat(settings.logFormat);
    RaiseDescriptorLimit();
    UseOneArena();
    ::signal(SIGPIPE, SIG_IGN);
    msgbus_server::SignalWatch::BlockSignals();
    if (settings.failStop) {
        msgbus_server::FailStopOnFaults();
    }
    if (settings.arenaPool) {
        msgbusd::PoolArenaMappings();
    }
    try {
        settings.server.limits = settings.isLimited ? std::optional(settings.limits) : std::nullopt;
        settings.server.notices = settings.server.notices && settings.account;
        settings.server.account.reset();
        if (settings.account) {
            settings.server.account =
                msgbus_server::AccountOptions{AccountDirectory(), BORVEN_VERSION, options.asCommandLine};
        }
        return Serve(settings, options.warnings);
    } catch (const std::system_error& error) {
        return Fail(std::string("cannot start: ") + error.what());
    } catch (const std::exception& error) {
        return Fail(error.what());
    }
}
