#include "msgbusd/options.h"

#include "help_and_errors.h"
#include "log_threshold.h"
#include "server_limits.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <iostream>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

namespace {

using msgbusd::ExitUsage;
using msgbusd::Settings;

constexpr const char* Footer =
    "Environment:\n"
    "  BORVEN_RUNTIME_DIR          directory for the server's sockets; if unset, $XDG_RUNTIME_DIR/borven, else a\n"
    "                              directory of the user's own in /tmp\n"
    "  BORVEN_LOG_LIMIT=off        log every record, however many a client causes\n"
    "  BORVEN_NAME_WATCH=off       do not restore sockets that are removed\n"
    "  BORVEN_PLACEMENT=off        do not choose a CPU for any thread\n"
    "  BORVEN_THREAD_NAMES=off     do not name the threads that serve\n"
    "  MALLOC_ARENA_MAX, GLIBC_TUNABLES\n"
    "                              of the C library; if neither is set, all threads allocate from one arena, which "
    "gives\n"
    "                              freed memory back\n"
    "  NOTIFY_SOCKET, WATCHDOG_USEC, WATCHDOG_PID\n"
    "                              of a service manager, see sd_notify(3); while it watches, every beat is a value "
    "that\n"
    "                              went through the bus\n"
    "\n"
    "Signals:\n"
    "  SIGTERM, SIGINT             stop; one that comes more than a second after the first ends the server at once\n"
    "  SIGUSR1                     drain: refuse registrations and pushes until all is read, then stop\n"
    "\n"
    "Exit status:\n"
    "  0 stopped by a signal, 1 could not serve, 2 usage error, 5 could not go on for all clients and ended at once, "
    "to\n"
    "  be started again";
const std::map<std::string, bos::logger::LogFormat> LogFormats{{"auto", bos::logger::LogFormat::Auto},
                                                               {"text", bos::logger::LogFormat::Text},
                                                               {"journal", bos::logger::LogFormat::Journal},
                                                               {"json", bos::logger::LogFormat::Json}};

/// Returns: empty, or what is wrong.
std::string CheckLevels(const std::string& text) {
    return msgbus_server::LogThresholds().Set(text);
}

/// Sets the limit that "NAME=NUMBER" names. Returns: empty, or what is wrong.
std::string SetLimit(msgbus_server::Limits& limits, const std::string& text) {
    const auto equals = text.find('=');
    const auto names = msgbus_server::LimitNames();
    const auto found = std::find_if(names.begin(), names.end(),
                                    [&](const auto& limit) { return limit.name == text.substr(0, equals); });
    if (equals == std::string::npos || found == names.end()) {
        return "'" + text + "' is not NAME=NUMBER with a name that 'msgbusd --limits' lists";
    }
    std::size_t number = 0;
    const char* const end = text.data() + text.size();
    const auto parsed = std::from_chars(text.data() + equals + 1, end, number);
    if (parsed.ec != std::errc{} || parsed.ptr != end || number < found->lowest || number > found->highest) {
        return "'" + text + "': the number must be from " + std::to_string(found->lowest) + " to " +
               std::to_string(found->highest);
    }
    limits.*found->value = number;
    return {};
}

int RefuseOptions(std::string_view sentence) {
    std::cerr << "msgbusd: " << sentence << "\nSee 'msgbusd --help'.\n";
    return ExitUsage;
}

/// Returns: empty, or what is wrong.
std::string CheckMonitorAddress(const std::string& text) {
    try {
        msgbus_monitor::LoopbackAddress::Parse(text);
        return {};
    } catch (const std::invalid_argument& error) {
        return error.what();
    }
}

/// Refuses options of the monitor that exclude each other. Returns: empty, or what is wrong.
std::string CheckMonitor(const Settings& settings) {
    if (settings.monitor.address && !(settings.monitor.isOn && settings.account)) {
        return "--monitor needs what --no-monitor, --no-account or --bare switches off";
    }
    if (!settings.monitor.tokenFile.empty() && !settings.monitor.address) {
        return "--monitor-token-file needs --monitor";
    }
    return {};
}

/// Sets the limits and rules that the options name, and refuses options that exclude each other. Returns: nothing, or
/// the exit status.
std::optional<int> CompleteOptions(const std::vector<std::string>& limits, const std::vector<std::string>& queueRules,
                                   msgbus_server::BusServerOptions& server) {
    if (!server.limits && !(limits.empty() && queueRules.empty())) {
        return RefuseOptions("--limit and --slow-subscriber need the limits, which --no-limits or --bare switches off");
    }
    if (!server.intake && server.holdPushes.count() != 0) {
        return RefuseOptions("--hold-pushes needs what --no-intake or --bare switches off");
    }
    if (!server.notices && !server.retain.empty()) {
        return RefuseOptions("--retain needs what --no-notices, --no-account or --bare switches off");
    }
    for (const auto& text : limits) {
        if (const std::string wrong = SetLimit(*server.limits, text); !wrong.empty()) {
            return RefuseOptions("--limit: " + wrong);
        }
    }
    for (const auto& text : queueRules) {
        auto rule = msgbus_server::QueueRule::Parse(text);
        if (!rule) {
            return RefuseOptions("--slow-subscriber: '" + text +
                                 "' is not PATTERN=POLICY or PATTERN=POLICY:VALUES with the policy cut, drop-oldest or "
                                 "drop-newest");
        }
        if (!server.parkedWaits && rule->policy != msgbus_server::SlowSubscriber::Cut) {
            return RefuseOptions("--slow-subscriber: with --no-parked-waits a subscriber can only be cut");
        }
        server.queueRules.push_back(std::move(*rule));
    }
    return std::nullopt;
}

void PrintLimits() {
    const msgbus_server::Limits defaults;
    for (const auto& limit : msgbus_server::LimitNames()) {
        std::cout << limit.name << '=' << defaults.*limit.value << "\n    " << limit.meaning << '\n';
    }
}

} // namespace

std::optional<int> msgbusd::ReadOptions(int argc, char** argv, Settings& settings) {
    using message_bus::ConnectionType;
    CLI::App app("The server program of the message bus. It serves until SIGTERM or SIGINT.", "msgbusd");
    app.formatter(std::make_shared<HelpFormatter>());
    app.footer(Footer);
    app.set_version_flag("--version", "msgbusd " BORVEN_VERSION);
    const auto mode = [&](ConnectionType type) { return [&settings, type] { settings.server.connectionType = type; }; };
    const auto switchOff = [](bool& part) { return [&part] { part = false; }; };
    auto* const staticFlag =
        app.add_flag_callback("--static", mode(ConnectionType::Static),
                              "offer the bus on one channel with a fixed name (not with --dynamic)");
    app.add_flag_callback("--dynamic", mode(ConnectionType::Dynamic),
                          "offer the bus as services that clients connect to (default; not with --static)")
        ->excludes(staticFlag);
    app.add_option_function<std::string>(
           "--log-level", [&](const std::string& text) { settings.logLevels.Set(text); },
           "minimum level to log to stderr: debug, info, warning, error or off; bus=LEVEL and server=LEVEL for the "
           "lines "
           "of the bus's library and all others (default: bus=warning,server=info)")
        ->check(CLI::Validator(CheckLevels, ""))
        ->type_name("LEVEL");
    app.add_option("--log-format", settings.logFormat,
                   "text, journal (priorities and no time) or json (an object a line); default: journal where stderr "
                   "goes to the system's journal, else text")
        ->transform(CLI::Transformer(LogFormats).description(""))
        ->type_name("FORMAT");
    app.add_option("--ready-fd", settings.readyDescriptor,
                   "when the bus is served, write READY to this descriptor and close it")
        ->type_name("FD");
    app.add_flag_callback("--no-parked-waits", switchOff(settings.server.parkedWaits),
                          "block a thread of the bus for every waiting subscriber");
    app.add_flag_callback("--no-flush-wake", switchOff(settings.server.flushWake),
                          "do not deliver values left behind by a lost wake-up until the next push");
    app.add_flag_callback("--no-placement", switchOff(settings.server.placement),
                          "do not choose a CPU for any thread; the same as BORVEN_PLACEMENT=off");
    app.add_flag_callback("--no-arena-pool", switchOff(settings.arenaPool),
                          "map new arenas for every request instead of pooling them");
    app.add_flag_callback("--no-ownership", switchOff(settings.server.ownership),
                          "let every process use the ids of others, and keep what a process that is gone registered");
    app.add_flag_callback("--no-account", switchOff(settings.account),
                          "do not keep the account of the bus, which 'msgbus top' and others read");
    app.add_flag_callback("--no-monitor", switchOff(settings.monitor.isOn),
                          "do not serve the account over HTTP, on 'monitor.sock' in the runtime directory");
    app.add_option_function<std::string>(
           "--monitor",
           [&](const std::string& text) { settings.monitor.address = msgbus_monitor::LoopbackAddress::Parse(text); },
           "serve the account on this address of this machine, too, to requests with a token")
        ->check(CLI::Validator(CheckMonitorAddress, ""))
        ->type_name("127.0.0.1:PORT");
    app.add_option("--monitor-token-file", settings.monitor.tokenFile,
                   "file with that token; without it one is made, and the log names its file")
        ->type_name("FILE");
    app.add_flag_callback("--no-notices", switchOff(settings.server.notices),
                          "do not report to programs which publishers come and go, and how many subscribers there are");
    app.add_option("--retain", settings.server.retain,
                   "give each new subscriber of a topic that matches its last value first (repeatable)")
        ->type_name("PATTERN")
        ->allow_extra_args(false);
    app.add_flag_callback("--no-registration-gate", switchOff(settings.server.registrationGate),
                          "let publishers keep registrations waiting");
    app.add_flag_callback(
        "--no-limits", [&settings] { settings.server.limits.reset(); },
        "limit nothing that one process may take but the bus's own queue");
    app.add_flag_callback(
        "--bare",
        [&settings] {
            settings.server.ownership = false;
            settings.server.registrationGate = false;
            settings.server.limits.reset();
            settings.server.intake = false;
            settings.account = false;
            settings.failStop = false;
            settings.nameWatch = false;
            settings.logLimit = false;
        },
        "the bus alone: --no-ownership --no-registration-gate --no-limits --no-intake --no-account --no-fail-stop "
        "--no-name-watch --no-log-limit");
    std::vector<std::string> limits;
    app.add_option("--limit", limits, "set a limit; 'msgbusd --limits' lists them (repeatable)")
        ->type_name("NAME=NUMBER")
        ->allow_extra_args(false);
    std::vector<std::string> queueRules;
    app.add_option("--slow-subscriber", queueRules,
                   "what happens to subscribers whose names match when they leave too many values unread: cut, "
                   "drop-oldest or drop-newest (repeatable; the last match counts)")
        ->type_name("PATTERN=POLICY[:VALUES]")
        ->allow_extra_args(false);
    bool wantsLimits = false;
    app.add_flag("--limits", wantsLimits, "list the limits with their defaults, and exit");
    app.add_flag_callback("--no-name-watch", switchOff(settings.nameWatch),
                          "do not restore sockets that are removed; the same as BORVEN_NAME_WATCH=off");
    app.add_flag_callback("--no-log-limit", switchOff(settings.logLimit),
                          "log every record, however many a client causes; the same as BORVEN_LOG_LIMIT=off");
    app.add_flag_callback("--no-intake", switchOff(settings.server.intake),
                          "pass every push to the bus, whatever is queued; a drain is then a stop");
    app.add_flag_callback("--no-fail-stop", switchOff(settings.failStop),
                          "go on without memory, or without a thread that the bus needs, as far as that goes");
    const auto milliseconds = [](std::chrono::milliseconds& value) {
        return [&value](const std::uint32_t& count) { value = std::chrono::milliseconds(count); };
    };
    app.add_option_function<std::uint32_t>(
           "--hold-pushes", milliseconds(settings.server.holdPushes),
           "refuse pushes for so long, while subscribers of an earlier server register (default: 0)")
        ->type_name("MS");
    app.add_option_function<std::uint32_t>("--drain-limit", milliseconds(settings.server.drainLimit),
                                           "time that a drain gives subscribers to read their values (default: 5000)")
        ->type_name("MS");
    app.failure_message([](const CLI::App* failed, const CLI::Error& error) {
        return "msgbusd: " + DescribeUsageError(*failed, error) + "\nSee 'msgbusd --help'.\n";
    });
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : ExitUsage;
    }
    if (wantsLimits) {
        PrintLimits();
        return 0;
    }
    if (const std::string wrong = CheckMonitor(settings); !wrong.empty()) {
        return RefuseOptions(wrong);
    }
    settings.server.notices = settings.server.notices && settings.account;
    return CompleteOptions(limits, queueRules, settings.server);
}
