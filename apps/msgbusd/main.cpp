// The server program of the bus: options, start-up, stop.

#include "bos_connector.h"
#include "connector_link.h"
#include "diagnostics.h"
#include "fast_wait.h"
#include "flush_wake.h"
#include "ipc_server.h"
#include "keep_together.h"
#include "log_threshold.h"
#include "message_bus.h"
#include "signal_watch.h"
#include "standard_descriptors.h"
#include "subscriber_ledger.h"

#include "br_MessageBus.h"
#include "kn/handle.h"
#include "kn/policy.h"
#include "kn/status.h"
#include "ns/name_server.h"
#include "service_locator.h"

#include <CLI/CLI.hpp>

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstring>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

namespace {

using diagnostics::Log;
using diagnostics::LogLevel;
using message_bus::ConnectionType;

constexpr int exitFailed = 1;
constexpr int exitUsage = 2;
constexpr const char* staticConnection = "msgbus_connection_id";

struct Settings {
    ConnectionType connectionType = ConnectionType::Dynamic;
    int logLevel = static_cast<int>(LogLevel::Info);
    bool fastWait = true;
    bool flushWake = true;
    bool keepTogether = true;
    std::optional<int> readyDescriptor;
};

int Fail(std::string_view sentence) {
    std::cerr << "msgbusd: " << sentence << '\n';
    return exitFailed;
}

const char* ModeName(ConnectionType type) {
    return type == ConnectionType::Static ? "static" : "dynamic";
}

/// Every client connection takes descriptors; the usual soft limit is meant for programs that select().
void RaiseDescriptorLimit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

void TellReady(int descriptor) {
    constexpr std::string_view line = "READY\n";
    if (write(descriptor, line.data(), line.size()) < 0) {
        Log(LogLevel::Warning, "cannot tell readiness on descriptor {}: {}", descriptor, std::strerror(errno));
    }
    close(descriptor);
}

/// Why the bus could not be offered. Requires: no server end of our own is open.
std::string ReasonOfFailure(ConnectionType type) {
    constexpr std::uint32_t probeTimeoutMs = 1000;
    std::int32_t status = 0;
    bool taken = false;
    if (type == ConnectionType::Static) {
        KnHandle other = KnInvalidHandle;
        status = ServiceLocatorConnect(staticConnection, probeTimeoutMs, &other);
        taken = status == 0;
        if (taken) {
            KnHandleClose(other);
        }
    } else {
        NsHandle nameServer = 0;
        status = NsCreate(nullptr, probeTimeoutMs, &nameServer);
        if (status == 0) {
            for (const auto& interface : br_MessageBus_interfaces) {
                taken = taken || NsLookupService(nameServer, interface.service) == 0;
            }
        }
    }
    if (taken) {
        return std::string("another msgbusd is already serving in ") + ModeName(type) +
               " mode (BORVEN_RUNTIME_DIR chooses where)";
    }
    const bool told = status != 0 && status != KnStatusNotFound;
    return "cannot offer the bus" + (told ? std::string(": ") + KnStatusText(status) : std::string()) +
           "; is the runtime directory (BORVEN_RUNTIME_DIR) writable and yours alone?";
}

/// A pointer for those who share; main owns all.
template <typename Interface>
std::shared_ptr<Interface> Lend(Interface& object) {
    return {std::shared_ptr<void>(), &object};
}

int Serve(const Settings& settings) {
    msgbus_server::LogThreshold logThreshold(settings.logLevel);

    // Each object is used by those that follow it. The connector's workers use them all, and it goes first.
    message_bus::MessageBus bus;
    msgbus_server::SubscriberLedger control(bus);
    std::optional<msgbus_server::FlushWake> flushWake;
    if (settings.flushWake) {
        flushWake.emplace(bus, bus);
    }
    std::optional<msgbus_server::FastWait> fastWait;
    if (settings.fastWait) {
        using Linger = msgbus_server::FastWait::Linger;
        // The workers of the static channel serve publishers too.
        fastWait.emplace(bus, bus,
                         settings.connectionType == ConnectionType::Dynamic ? Linger::InAStream : Linger::Never);
    }
    message_bus::IProvider* provider = flushWake ? static_cast<message_bus::IProvider*>(&*flushWake) : &bus;
    std::optional<msgbus_server::KeepTogether> keepTogether;
    // The workers of the static channel share one poller. With several processors they do better by themselves.
    const bool hasOneProcessor = std::thread::hardware_concurrency() == 1;
    if (settings.keepTogether && (settings.connectionType == ConnectionType::Dynamic || hasOneProcessor)) {
        provider = &keepTogether.emplace(*provider);
    }
    message_bus::IWorker& worker = fastWait ? static_cast<message_bus::IWorker&>(*fastWait) : bus;

    auto server = std::make_shared<bos_ipc::IpcServer>(settings.connectionType);
    const msgbus_server::SignalWatch signals([stopping = std::weak_ptr(server)](int number) {
        Log(LogLevel::Info, "msgbusd: {}: stopping, within 5 seconds; once more ends at once", strsignal(number));
        if (const auto running = stopping.lock()) {
            running->SetStopSignal();
        }
    });

    message_bus::BosConnector connector(server);
    for (const auto& interface : br_MessageBus_interfaces) {
        KnPolicySetMethodCount(interface.type, interface.methodCount);
    }
    if (!connector.Init(Lend<message_bus::IProviderControl>(control), Lend(*provider), Lend(worker))) {
        KnHandleCloseServerEnds();
        return Fail(ReasonOfFailure(settings.connectionType));
    }

    bool stoppedInOrder = false;
    try {
        stoppedInOrder = bus.Run(std::make_shared<msgbus_server::ConnectorLink>(connector, [&] {
            Log(LogLevel::Info, "msgbusd: serving in {} mode", ModeName(settings.connectionType));
            if (settings.readyDescriptor) {
                TellReady(*settings.readyDescriptor);
            }
        }));
    } catch (const std::exception& error) {
        Fail(std::string("cannot run the bus: ") + error.what());
    }

    server->SetStopSignal();
    control.StopAndUnregisterAll();
    if (settings.logLevel > static_cast<int>(LogLevel::Debug)) {
        // Every receive fails now, as it shall, and each would be reported as an error.
        logThreshold.Set(msgbus_server::LogThreshold::Off);
    }
    KnHandleCloseServerEnds();
    server->WaitAllThreads();
    server.reset(); // the connector's is the last one: it joins the other threads while what they use is still there
    // The events thread may have missed the request to stop, as any wake-up (docs/threading.md), and the bus waits for
    // it. A push, even of nobody's, takes its lock: after that it sleeps where it can be woken, or has ended.
    bus.Push(-1, 0);
    bus.Stop();
    return stoppedInOrder ? 0 : exitFailed;
}

} // namespace

int main(int argc, char** argv) {
    CLI::App app("The server program of the message bus: serves until SIGTERM or SIGINT.", "msgbusd");
    app.set_version_flag("--version", "msgbusd " BORVEN_VERSION);
    bool isStatic = false;
    bool isDynamic = false;
    auto* const staticFlag = app.add_flag("--static", isStatic, "offer the bus on one channel that is known by name");
    app.add_flag("--dynamic", isDynamic, "offer the bus as services that clients connect to (the default)")
        ->excludes(staticFlag);
    Settings settings;
    const std::map<std::string, int> levels{
        {"debug", 1}, {"info", 2}, {"warning", 3}, {"error", 4}, {"off", msgbus_server::LogThreshold::Off}};
    app.add_option("--log-level", settings.logLevel, "least level that is written to stderr; 1 to 4 do too")
        ->transform(CLI::CheckedTransformer(levels, CLI::ignore_case).description("debug|info|warning|error|off"))
        ->default_str("info");
    app.add_flag("!--no-fast-wait", settings.fastWait, "replace the worker for every wait, values queued or not");
    app.add_flag("!--no-flush-wake", settings.flushWake,
                 "leave the last value of a burst to the next push when its wake-up was lost");
    app.add_flag("!--no-keep-together", settings.keepTogether,
                 "leave the threads to the scheduler, however many values come");
    app.add_option("--ready-fd", settings.readyDescriptor, "write READY to this descriptor when serving, and close it")
        ->type_name("FD");
    app.failure_message([](const CLI::App*, const CLI::Error& error) {
        return std::string("msgbusd: ") + error.what() + "\nmsgbusd --help tells the options.\n";
    });
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : exitUsage;
    }
    settings.connectionType = isStatic ? ConnectionType::Static : ConnectionType::Dynamic;

    OccupyStandardDescriptors();
    if (settings.readyDescriptor && fcntl(*settings.readyDescriptor, F_GETFD) < 0) {
        std::cerr << "msgbusd: --ready-fd " << *settings.readyDescriptor << ": " << std::strerror(errno) << '\n';
        return exitUsage;
    }
    RaiseDescriptorLimit();
    signal(SIGPIPE, SIG_IGN);
    msgbus_server::SignalWatch::BlockSignals();
    try {
        return Serve(settings);
    } catch (const std::exception& error) {
        return Fail(error.what());
    }
}
