#include "msgbusd/options/option_table.h"

#include "common/escape.h"

#include <grp.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace msgbusd {

namespace {

using bos::logger::LogFormat;
using message_bus::ConnectionType;
using Texts = std::vector<std::string>;

constexpr std::string_view True = "true";
constexpr std::string_view False = "false";

const std::string Serving = "Serving";
const std::string Logging = "Log";
const std::string Watching = "Looking into the bus";
const std::string Protection = "Protection";
const std::string Parts = "Parts of the server";

constexpr std::array<std::string_view, 8> SwitchedOffByBare{
    "ownership", "registration-gate", "limits", "intake", "account", "fail-stop", "name-watch", "log-limit"};

constexpr std::array<std::pair<std::string_view, LogFormat>, 4> LogFormats{
    {{"auto", LogFormat::Auto}, {"text", LogFormat::Text}, {"journal", LogFormat::Journal}, {"json", LogFormat::Json}}};

std::string Quoted(std::string_view text) {
    return "'" + common::Escaped(text) + "'";
}

std::string TextOf(bool isOn) {
    return std::string(isOn ? True : False);
}

/// A switch for `part` of the settings.
template <typename Part>
Option Switch(std::string key, const std::string& group, std::string meaning, Part part,
              std::string platformVariable = {}) {
    return {std::move(key),
            OptionKind::Switch,
            group,
            "",
            std::move(meaning),
            [part](Settings& settings, const std::string& text) {
                part(settings) = text == True;
                return std::string();
            },
            [part](const Settings& settings) { return Texts{TextOf(part(settings))}; },
            std::move(platformVariable)};
}

/// A number of milliseconds.
template <typename Part>
Option Milliseconds(std::string key, const std::string& group, std::string meaning, Part part) {
    return {std::move(key),
            OptionKind::Value,
            group,
            "MS",
            std::move(meaning),
            [part](Settings& settings, const std::string& text) {
                std::uint32_t number = 0;
                const char* const end = text.data() + text.size();
                const auto parsed = std::from_chars(text.data(), end, number);
                if (parsed.ec != std::errc{} || parsed.ptr != end) {
                    return Quoted(text) + " is not a number of milliseconds from 0 to 4294967295";
                }
                part(settings) = std::chrono::milliseconds(number);
                return std::string();
            },
            [part](const Settings& settings) { return Texts{std::to_string(part(settings).count())}; },
            {}};
}

std::string SetMode(Settings& settings, const std::string& text) {
    if (text != "static" && text != "dynamic") {
        return Quoted(text) + " is not a mode; it must be static or dynamic";
    }
    settings.server.connectionType = text == "static" ? ConnectionType::Static : ConnectionType::Dynamic;
    return {};
}

std::string SetGroup(Settings& settings, const std::string& text) {
    if (text.empty()) {
        settings.group.reset();
        return {};
    }
    gid_t number = 0;
    const char* const end = text.data() + text.size();
    const auto parsed = std::from_chars(text.data(), end, number);
    constexpr gid_t none = static_cast<gid_t>(-1);
    if (parsed.ec == std::errc{} && parsed.ptr == end && number != none) {
        settings.group = number;
        return {};
    }
    std::array<char, 65536> buffer{}; // with the names of its members
    group entry{};
    group* found = nullptr;
    if (::getgrnam_r(text.c_str(), &entry, buffer.data(), buffer.size(), &found) != 0 || found == nullptr) {
        return "there is no group " + Quoted(text);
    }
    settings.group = found->gr_gid;
    return {};
}

std::string SetLogFormat(Settings& settings, const std::string& text) {
    const auto found =
        std::find_if(LogFormats.begin(), LogFormats.end(), [&](const auto& each) { return each.first == text; });
    if (found == LogFormats.end()) {
        return Quoted(text) + " is not a log format; it must be auto, text, journal or json";
    }
    settings.logFormat = found->second;
    return {};
}

Texts ShowLogFormat(const Settings& settings) {
    const auto found = std::find_if(LogFormats.begin(), LogFormats.end(),
                                    [&](const auto& each) { return each.second == settings.logFormat; });
    return {std::string(found->first)};
}

std::string SetMonitor(Settings& settings, const std::string& text) {
    if (const auto isOn = BoolOf(text); !isOn.empty()) {
        settings.monitor.isOn = isOn == True;
        settings.monitor.address.reset();
        return {};
    }
    try {
        settings.monitor.address = msgbus_monitor::LoopbackAddress::Parse(text);
        settings.monitor.isOn = true;
        return {};
    } catch (const std::invalid_argument& error) {
        return error.what();
    }
}

Texts ShowMonitor(const Settings& settings) {
    const auto& monitor = settings.monitor;
    return {monitor.address ? monitor.address->ToText() : TextOf(monitor.isOn)};
}

std::string SetLimit(Settings& settings, const std::string& text) {
    if (text.empty()) {
        settings.limits = {};
        return {};
    }
    const auto equals = text.find('=');
    const auto names = msgbus_server::LimitNames();
    const auto found = std::find_if(names.begin(), names.end(),
                                    [&](const auto& limit) { return limit.name == text.substr(0, equals); });
    if (equals == std::string::npos || found == names.end()) {
        return Quoted(text) + " is not NAME=NUMBER with a name that 'msgbusd --limits' lists";
    }
    std::size_t number = 0;
    const char* const end = text.data() + text.size();
    const auto parsed = std::from_chars(text.data() + equals + 1, end, number);
    if (parsed.ec != std::errc{} || parsed.ptr != end || number < found->lowest || number > found->highest) {
        return Quoted(text) + ": the number must be from " + std::to_string(found->lowest) + " to " +
               std::to_string(found->highest);
    }
    settings.limits.*found->value = number;
    return {};
}

Texts ShowLimits(const Settings& settings) {
    Texts texts;
    for (const auto& limit : msgbus_server::LimitNames()) {
        texts.push_back(std::string(limit.name) + '=' + std::to_string(settings.limits.*limit.value));
    }
    return settings.isLimited ? texts : Texts();
}

std::string SetQueueRule(Settings& settings, const std::string& text) {
    if (text.empty()) {
        settings.server.queueRules.clear();
        return {};
    }
    auto rule = msgbus_server::QueueRule::Parse(text);
    if (!rule) {
        return Quoted(text) +
               " is not PATTERN=POLICY or PATTERN=POLICY:VALUES with the policy cut, drop-oldest or drop-newest";
    }
    settings.server.queueRules.push_back(std::move(*rule));
    return {};
}

Texts ShowQueueRules(const Settings& settings) {
    using msgbus_server::SlowSubscriber;
    Texts texts;
    for (const auto& rule : settings.server.queueRules) {
        const char* const policy = rule.policy == SlowSubscriber::Cut          ? "=cut"
                                   : rule.policy == SlowSubscriber::DropOldest ? "=drop-oldest"
                                                                               : "=drop-newest";
        texts.push_back(rule.pattern + policy + (rule.values ? ':' + std::to_string(*rule.values) : ""));
    }
    return texts;
}

std::string SetRetain(Settings& settings, const std::string& text) {
    if (text.empty()) {
        settings.server.retain.clear();
    } else {
        settings.server.retain.push_back(text);
    }
    return {};
}

std::string SetTokenFile(Settings& settings, const std::string& text) {
    settings.monitor.tokenFile = text;
    return {};
}

std::vector<Option> ServingOptions() {
    return {
        {"mode",
         OptionKind::Value,
         Serving,
         "MODE",
         "dynamic: offer the bus as services that clients connect to; static: on one channel with a fixed name "
         "(default: "
         "dynamic)",
         SetMode,
         [](const Settings& settings) {
             return Texts{settings.server.connectionType == ConnectionType::Static ? "static" : "dynamic"};
         },
         {}},
        {"group",
         OptionKind::Value,
         Serving,
         "GROUP",
         "let the members of this group, and root, use the bus, too; a name or a number (default: this user only)",
         SetGroup,
         [](const Settings& settings) { return settings.group ? Texts{std::to_string(*settings.group)} : Texts(); },
         {}},
        Milliseconds(
            "hold-pushes", Serving,
            "refuse pushes for so long, while subscribers of an earlier server register (default: 0)",
            [](auto& settings) -> auto& { return settings.server.holdPushes; }),
        Milliseconds(
            "drain-limit", Serving, "time that a drain gives subscribers to read their values (default: 5000)",
            [](auto& settings) -> auto& { return settings.server.drainLimit; }),
        {"retain",
         OptionKind::List,
         Serving,
         "PATTERN",
         "give each new subscriber of a topic that matches its last value first (repeatable)",
         SetRetain,
         [](const Settings& settings) { return settings.server.retain; },
         {}},
    };
}

std::vector<Option> LogOptions() {
    return {
        {"log-level",
         OptionKind::Value,
         Logging,
         "LEVEL",
         "minimum level to log to stderr: debug, info, warning, error or off; bus=LEVEL and server=LEVEL for the lines "
         "of "
         "the bus's library and all others (default: bus=warning,server=info)",
         [](Settings& settings, const std::string& text) {
             settings.logLevels = {};
             return settings.logLevels.Set(text);
         },
         [](const Settings& settings) { return Texts{settings.logLevels.ToText()}; },
         {}},
        {"log-format",
         OptionKind::Value,
         Logging,
         "FORMAT",
         "text; journal: priorities and no time; json: an object a line; auto: journal where stderr goes to the "
         "system's "
         "journal, else text (default: auto)",
         SetLogFormat,
         ShowLogFormat,
         {}},
        Switch(
            "log-limit", Logging, "log every record, however many a client causes; the same as BORVEN_LOG_LIMIT=off",
            [](auto& settings) -> auto& { return settings.logLimit; }, "BORVEN_LOG_LIMIT"),
    };
}

std::vector<Option> WatchingOptions() {
    return {
        Switch(
            "account", Watching, "do not keep the account of the bus, which 'msgbus top' and others read",
            [](auto& settings) -> auto& { return settings.account; }),
        {"monitor",
         OptionKind::Value,
         Watching,
         "127.0.0.1:PORT",
         "serve the account on this address of this machine, too, to requests with a token",
         SetMonitor,
         ShowMonitor,
         {}},
        {"monitor-token-file",
         OptionKind::Value,
         Watching,
         "FILE",
         "file with that token; without it one is made, and the log names its file",
         SetTokenFile,
         [](const Settings& settings) {
             const std::string& file = settings.monitor.tokenFile;
             return file.empty() ? Texts() : Texts{file};
         },
         {}},
        Switch(
            "notices", Watching,
            "do not report to programs which publishers come and go, and how many subscribers there are",
            [](auto& settings) -> auto& { return settings.server.notices; }),
    };
}

std::vector<Option> ProtectionOptions() {
    return {
        {"limit",
         OptionKind::List,
         Protection,
         "NAME=NUMBER",
         "set a limit; 'msgbusd --limits' lists them (repeatable)",
         SetLimit,
         ShowLimits,
         {}},
        {"slow-subscriber",
         OptionKind::List,
         Protection,
         "PATTERN=POLICY[:VALUES]",
         "what happens to subscribers whose names match when they leave too many values unread: cut, drop-oldest or "
         "drop-newest (repeatable; the last match counts)",
         SetQueueRule,
         ShowQueueRules,
         {}},
        Switch(
            "limits", Protection, "limit nothing that one process may take but the bus's own queue",
            [](auto& settings) -> auto& { return settings.isLimited; }),
        Switch(
            "ownership", Protection,
            "let every process use the ids of others, and keep what a process that is gone registered",
            [](auto& settings) -> auto& { return settings.server.ownership; }),
        Switch(
            "registration-gate", Protection, "let publishers keep registrations waiting",
            [](auto& settings) -> auto& { return settings.server.registrationGate; }),
        Switch(
            "intake", Protection, "pass every push to the bus, whatever is queued; a drain is then a stop",
            [](auto& settings) -> auto& { return settings.server.intake; }),
        Switch(
            "fail-stop", Protection,
            "go on without memory, or without a thread that the bus needs, as far as that goes",
            [](auto& settings) -> auto& { return settings.failStop; }),
        Switch(
            "name-watch", Protection, "do not restore sockets that are removed; the same as BORVEN_NAME_WATCH=off",
            [](auto& settings) -> auto& { return settings.nameWatch; }, "BORVEN_NAME_WATCH"),
    };
}

std::vector<Option> PartOptions() {
    return {
        Switch(
            "parked-waits", Parts, "block a thread of the bus for every waiting subscriber",
            [](auto& settings) -> auto& { return settings.server.parkedWaits; }),
        Switch(
            "flush-wake", Parts, "do not deliver values left behind by a lost wake-up until the next push",
            [](auto& settings) -> auto& { return settings.server.flushWake; }),
        Switch(
            "placement", Parts, "do not choose a CPU for any thread; the same as BORVEN_PLACEMENT=off",
            [](auto& settings) -> auto& { return settings.server.placement; }, "BORVEN_PLACEMENT"),
        Switch(
            "arena-pool", Parts, "map new arenas for every request instead of pooling them",
            [](auto& settings) -> auto& { return settings.arenaPool; }),
        {"bare",
         OptionKind::Preset,
         Parts,
         "",
         "the bus alone: --no-ownership --no-registration-gate --no-limits --no-intake --no-account --no-fail-stop "
         "--no-name-watch --no-log-limit",
         [](Settings&, const std::string&) { return std::string(); },
         [](const Settings&) { return Texts(); },
         {}},
    };
}

} // namespace

std::span<const Option> Options() {
    static const std::vector<Option> options = [] {
        std::vector<Option> all;
        for (auto part : {ServingOptions, LogOptions, WatchingOptions, ProtectionOptions, PartOptions}) {
            for (auto& option : part()) {
                all.push_back(std::move(option));
            }
        }
        return all;
    }();
    return options;
}

const Option* FindOption(std::string_view key) {
    const auto options = Options();
    const auto found =
        std::find_if(options.begin(), options.end(), [&](const Option& option) { return option.key == key; });
    return found == options.end() ? nullptr : &*found;
}

std::span<const std::string_view> BareOptions() {
    return SwitchedOffByBare;
}

std::string VariableOf(std::string_view key) {
    std::string name = "MSGBUSD_";
    for (const char c : key) {
        name += c == '-' ? '_' : static_cast<char>(c - 'a' + 'A');
    }
    return name;
}

std::string_view BoolOf(std::string_view text) {
    for (const std::string_view word : {"true", "yes", "on", "1"}) {
        if (text == word) {
            return True;
        }
    }
    for (const std::string_view word : {"false", "no", "off", "0"}) {
        if (text == word) {
            return False;
        }
    }
    return {};
}

} // namespace msgbusd
