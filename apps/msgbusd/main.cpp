// The server program of the bus: options in, exit status out.

#include "bus_server.h"
#include "common/escape.h"
#include "diagnostics.h"
#include "fail_stop.h"
#include "health_beat.h"
#include "instruments/read_account.h"
#include "kn/policy.h"
#include "kn/runtime_directory.h"
#include "kn/status.h"
#include "log_threshold.h"
#include "msgbusd/arena_mappings.h"
#include "msgbusd/monitoring.h"
#include "msgbusd/options/options.h"
#include "msgbusd/start_check.h"
#include "service_manager.h"
#include "signal_watch.h"
#include "standard_descriptors.h"
#include "status_line.h"
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
#include <filesystem>
#include <iostream>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

namespace {

using diagnostics::Log;
using diagnostics::LogLevel;
using msgbusd::ExitUsage;
using msgbusd::Settings;

constexpr int ExitFailed = 1;

constexpr int BeatsInAWatchdogPeriod = 2; // as sd_watchdog_enabled(3) recommends

/// Prints why the server does not serve, whatever is logged, and as a record where the log is made for a program.
int Fail(const std::string& sentence) {
    using bos::logger::BOSLogger;
    if (BOSLogger::Format() == bos::logger::LogFormat::Text) {
        std::cerr << "msgbusd: " << common::Escaped(sentence) << '\n' << std::flush;
    } else {
        std::string message = sentence;
        BOSLogger::RootLogger().LogImpl(LogLevel::Error, __builtin_FILE(), __builtin_LINE(), "Fail", message);
    }
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
    Log(LogLevel::Info, "Stopping (SIG{}); another signal more than {} s from now ends the server at once",
        ::sigabbrev_np(number), msgbus_server::SignalWatch::SameRequest.count());
}

/// Returns: the runtime directory; nothing when there is none any more, which the offer of the bus then reports.
std::optional<std::string> RuntimeDirectory() {
    std::array<char, PATH_MAX> path{};
    const auto status = KnRuntimeDirectory(KnMissingDirectory::IsCreated, path.data(), path.size());
    return status == KnStatusOk ? std::optional<std::string>(path.data()) : std::nullopt;
}

/// An account that is left by the server before would be taken for this one's: a healthy server for one that is gone.
void SetAccountAside() {
    try {
        std::filesystem::rename(instruments::AccountPath(), instruments::PreviousAccountPath());
    } catch (const std::exception&) { // Justified: there was none.
    }
}

void LogServing(const msgbusd::ChosenOptions& options, const std::optional<std::string>& directory) {
    const bool isStatic = options.settings.server.connectionType == message_bus::ConnectionType::Static;
    Log(LogLevel::Info, "Serving in {} mode in {}: msgbusd {}, process {}{}{}", isStatic ? "static" : "dynamic",
        directory.value_or("an unknown directory"), BORVEN_VERSION, ::getpid(),
        options.configFile.empty() ? "" : ", options from ", options.configFile);
}

void LogEnd(const std::optional<instruments::AccountReader>& account, std::chrono::steady_clock::time_point since) {
    const auto served = std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - since);
    std::string totals = "served for " + msgbus_server::DurationText(served);
    try {
        if (account) {
            totals =
                msgbus_server::TotalsLine(account->Read(instruments::AccountReader::Depth::WithoutLatency), served);
        }
    } catch (const instruments::AccountError& error) {
        Log(LogLevel::Warning, "The account cannot be read: {}", error.what());
    }
    Log(LogLevel::Info, "Ended, {}", totals);
}

/// Returns: whether it ended as it was asked to. Throws: what keeps it from serving.
bool Serve(const msgbusd::ChosenOptions& options, const std::optional<std::string>& directory) {
    const Settings& settings = options.settings;
    const msgbus_server::LogThreshold logThreshold(settings.logLevels);
    for (const auto& warning : options.warnings) {
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
        monitoring.emplace(server, settings.monitor, directory);
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
    std::optional<std::chrono::steady_clock::time_point> servingSince;
    const bool isInOrder = server.Run([&] {
        servingSince = std::chrono::steady_clock::now();
        LogServing(options, directory);
        if (!settings.account) {
            SetAccountAside();
        }
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
    if (servingSince) {
        LogEnd(account, *servingSince);
    }
    return isInOrder;
}
/// The platform reads its variables when it needs them; there is no other thread yet.
void SetPlatformSwitch(const char* variable, bool isOn) {
    if (isOn) {
        ::unsetenv(variable); // another source may have overridden it
    } else {
        ::setenv(variable, "off", 1);
    }
}

/// Returns: a sentence. What the start was checked for may have come true since: another server may have been faster.
std::string WhyNotOffered(message_bus::ConnectionType type, const msgbus_server::OfferError& error) {
    try {
        msgbusd::CheckStart(type);
    } catch (const msgbusd::StartError& reason) {
        return reason.what();
    }
    return error.what();
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
    if (settings.group) {
        if (const auto status = KnPolicyAllowGroup(*settings.group); status != KnStatusOk) {
            return Fail("the group " + std::to_string(*settings.group) + " cannot be let in: " +
                        (status == KnStatusInvalidArgument ? "it stands for all groups that are not known here"
                                                           : "this server's user is not one of its members"));
        }
    }
    try {
        msgbusd::CheckStart(settings.server.connectionType);
        const auto directory = RuntimeDirectory();
        settings.server.limits = settings.isLimited ? std::optional(settings.limits) : std::nullopt;
        settings.server.notices = settings.server.notices && settings.account;
        settings.server.account.reset();
        if (settings.account) {
            settings.server.account = msgbus_server::AccountOptions{directory, BORVEN_VERSION, options.asCommandLine};
        }
        return Serve(options, directory) ? 0 : Fail("the bus stopped without a request; the log has the reason");
    } catch (const msgbus_server::OfferError& error) {
        return Fail(WhyNotOffered(settings.server.connectionType, error));
    } catch (const std::system_error& error) {
        return Fail(std::string("cannot start: ") + error.what());
    } catch (const std::exception& error) {
        return Fail(error.what());
    }
}
