#include "commands.h"

#include "account_source.h"
#include "arguments.h"
#include "bus_options.h"
#include "diagnosis/autopsy.h"
#include "diagnosis/check.h"
#include "diagnosis/report.h"
#include "get.h"
#include "hz.h"
#include "info.h"
#include "list.h"
#include "top/top.h"
#include "watch.h"

#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

namespace {

constexpr const char* Group = "Commands that look into the bus";

using command_line::Command;

/// What the topic of a command is called on its command line.
constexpr const char* TopicNames = "-t,--topic,TOPIC";

const command_line::Entry DirectoryVariable{
    "BORVEN_RUNTIME_DIR",
    "directory of the server's account; if unset, $XDG_RUNTIME_DIR/borven, else a directory of the "
    "user's own in /tmp"};

/// Texts of the command line that are numbers and times.
struct Limits {
    std::optional<std::string> count;
    std::optional<std::string> timeLimit;

    void AddCount(Command& command, const std::string& meaning) {
        command.add_option("-n,--count", count, meaning)->type_name("COUNT");
    }
    void AddTimeLimit(Command& command, const std::string& meaning) {
        command.add_option("-W,--time-limit", timeLimit, meaning)->type_name("DURATION");
        const auto timedOut = Describe({ExitStatus::TimedOut});
        command.notes.exitStatuses.insert(command.notes.exitStatuses.end(), timedOut.begin(), timedOut.end());
    }

    /// Throws: std::invalid_argument.
    template <typename Arguments>
    void SetCount(Arguments& arguments) const {
        if (count) {
            arguments.count = ParseCount(*count);
        }
    }
    template <typename Arguments>
    void SetTimeLimit(Arguments& arguments) const {
        if (timeLimit) {
            arguments.timeLimit = ParseDuration(*timeLimit);
        }
    }
};

constexpr const char* TimeLimitMeaning = "exit with status 124 after this time, for example 10 (seconds), 1.5s, 200ms";

/// The words of a command line, and what they are made of.
template <typename Arguments>
struct Parts {
    Arguments arguments;
    Limits limits;
    std::string word;
    const CLI::Option* wait = nullptr;

    /// Waits for a server, if that is wanted. Throws: as look::AwaitServer.
    void Await() const {
        if (const auto time = wait == nullptr ? std::nullopt : command_line::OptionalValueOf(*wait)) {
            look::AwaitServer(arguments.account, ParseWait(*time));
        }
    }
};

template <typename Arguments>
std::pair<Command*, std::shared_ptr<Parts<Arguments>>> AddCommand(Command& program, const char* name,
                                                                  const char* meaning) {
    auto& command = program.AddCommand(name, meaning, Group);
    auto parts = std::make_shared<Parts<Arguments>>();
    command.add_option("--account", parts->arguments.account, "read this account file")->type_name("FILE");
    command.notes.environment = {DirectoryVariable};
    command.notes.exitStatuses =
        Describe({ExitStatus::Done, ExitStatus::Failed, ExitStatus::Usage, ExitStatus::NoServer});
    return {&command, parts};
}

/// Lets the command wait for a server.
template <typename Arguments>
void AddWait(Command& command, Parts<Arguments>& parts) {
    parts.wait = command_line::AddOptionWithOptionalValue(
        command, "--wait", "DURATION",
        "wait for a server that is not up yet; without a duration for as long as it takes");
}

template <typename Choice>
Choice ChoiceOf(const std::map<std::string, Choice>& choices, const std::string& word, const char* what) {
    const auto found = choices.find(word);
    if (found != choices.end()) {
        return found->second;
    }
    std::string names;
    for (const auto& [name, choice] : choices) {
        names += (names.empty() ? "" : ", ") + name;
    }
    throw std::invalid_argument("'" + word + "' is not " + what + "; there is " + names);
}

void AddList(Command& program, Action& chosen) {
    const auto [command, parts] = AddCommand<look::ListArguments>(
        program, "list", "List the topics, publishers or subscribers of the bus, one a line.");
    command->add_option("WHAT", parts->word, "topics (default), publishers or subscribers")
        ->type_name("topics|publishers|subscribers");
    command->add_flag("--json", parts->arguments.json, "print one JSON object on one line");
    AddWait(*command, *parts);
    command->callback([&chosen, parts = parts] {
        chosen = [parts] {
            parts->Await();
            using enum look::ListKind;
            parts->arguments.kind =
                ChoiceOf<look::ListKind>({{"topics", Topics}, {"publishers", Publishers}, {"subscribers", Subscribers}},
                                         parts->word.empty() ? "topics" : parts->word, "what can be listed");
            return look::List(parts->arguments);
        };
    });
}

void AddInfo(Command& program, Action& chosen) {
    const auto [command, parts] =
        AddCommand<look::InfoArguments>(program, "info", "Print all about a topic, a subscriber or an id.");
    command->add_option("NAME", parts->arguments.word, "a topic, the name of a subscriber, or an id")
        ->type_name("NAME")
        ->required();
    command->add_flag("--json", parts->arguments.json, "print one JSON object on one line");
    AddWait(*command, *parts);
    command->callback([&chosen, parts = parts] {
        chosen = [parts] {
            parts->Await();
            return look::Info(parts->arguments);
        };
    });
}

void AddGet(Command& program, Action& chosen) {
    const auto [command, parts] = AddCommand<look::GetArguments>(
        program, "get", "Print the last value of a topic and its age, without a subscription.");
    command->add_option(TopicNames, parts->arguments.topic, "topic")->type_name("TOPIC")->required();
    parts->limits.AddTimeLimit(
        *command,
        "when there is no value: wait for the first so long, then exit with status 124 (default: exit with 1)");
    command->add_flag("--json", parts->arguments.json, "print one JSON object on one line");
    AddWait(*command, *parts);
    command->callback([&chosen, parts = parts] {
        chosen = [parts] {
            parts->limits.SetTimeLimit(parts->arguments);
            parts->Await();
            return look::Get(parts->arguments);
        };
    });
}

void AddHz(Command& program, Action& chosen) {
    const auto [command, parts] = AddCommand<look::HzArguments>(
        program, "hz", "Print once a second how many values per second the bus accepts for a topic.");
    command->add_option(TopicNames, parts->arguments.topic, "topic")->type_name("TOPIC")->required();
    parts->limits.AddCount(*command, "exit after this many lines");
    parts->limits.AddTimeLimit(*command, TimeLimitMeaning);
    command->add_flag("--json", parts->arguments.json, "print a JSON object on each line");
    AddWait(*command, *parts);
    command->callback([&chosen, parts = parts] {
        chosen = [parts] {
            parts->limits.SetCount(parts->arguments);
            parts->limits.SetTimeLimit(parts->arguments);
            parts->Await();
            return look::Hz(parts->arguments);
        };
    });
}

void AddWatch(Command& program, Action& chosen) {
    const auto [command, parts] = AddCommand<look::WatchArguments>(
        program, "watch", "Print what happens on the bus: registrations, deaths, cuts, refusals, starts, stops.");
    parts->limits.AddCount(*command, "exit after this many events");
    parts->limits.AddTimeLimit(*command, TimeLimitMeaning);
    command->add_flag("-a,--all", parts->arguments.all, "print the events that the account holds already, too");
    command->add_flag("--json", parts->arguments.json, "print a JSON object on each line");
    AddWait(*command, *parts);
    command->callback([&chosen, parts = parts] {
        chosen = [parts] {
            parts->limits.SetCount(parts->arguments);
            parts->limits.SetTimeLimit(parts->arguments);
            parts->Await();
            return look::Watch(parts->arguments);
        };
    });
}

void AddTop(Command& program, Action& chosen) {
    const auto [command, parts] = AddCommand<top::TopArguments>(
        program, "top", "Show topics and subscribers at work, on a page that refreshes itself.");
    command->add_option("-d,--delay", parts->limits.timeLimit, "time between two pages (default: 1s)")
        ->type_name("DURATION");
    command->add_option("--sort", parts->word, "what comes first (default: rate)")
        ->type_name("name|rate|lag|age|drops");
    command->add_flag("--reverse", parts->arguments.view.isReversed, "the other way round");
    auto* const once = command->add_flag("--once", parts->arguments.once, "print one page, and exit");
    command->add_flag("--json", parts->arguments.json, "with --once: print one JSON object on one line")->needs(once);
    AddWait(*command, *parts);
    command->callback([&chosen, parts = parts] {
        chosen = [parts] {
            if (parts->limits.timeLimit) {
                parts->arguments.interval = ParseDuration(*parts->limits.timeLimit);
            }
            if (!parts->word.empty()) {
                const auto key = top::SortKeyOf(std::string_view(parts->word));
                if (!key) {
                    throw std::invalid_argument("--sort: '" + parts->word +
                                                "' is not one of name, rate, lag, age and drops");
                }
                parts->arguments.view.sort = *key;
            }
            parts->Await();
            return top::Top(parts->arguments);
        };
    });
}

void AddCheck(Command& program, Action& chosen) {
    const auto [command, parts] = AddCommand<diagnosis::CheckArguments>(
        program, "check", "Judge the server and its bus, as a plug-in of a monitoring system.");
    command->notes.description = {"A warning or critical state begins beyond the number."};
    command->notes.exitStatuses = {{"0", "OK"},
                                   {"1", "WARNING"},
                                   {"2", "CRITICAL; also: the server is gone"},
                                   {"3", "UNKNOWN: no account, or a usage error"}};
    const auto add = [command = command](const std::string& name, diagnosis::CheckArguments::Limits& limits,
                                         const char* type, const std::string& what) {
        command->add_option("--" + name + "-warn", limits.warning, "warn beyond " + what)->type_name(type);
        command->add_option("--" + name + "-crit", limits.critical, "be critical beyond that")->type_name(type);
    };
    auto& arguments = parts->arguments;
    add("lag", arguments.lag, "N", "so many values that a subscriber has unread");
    add("drops", arguments.drops, "N", "so many values that were dropped since the server started");
    add("inbound", arguments.inbound, "N", "so many values in the inbound queue");
    add("age", arguments.age, "DURATION", "this age of the oldest unread value of a subscriber");
    add("away", arguments.away, "DURATION", "this time that a thread of the server is away from its loop");
    command->add_option("--format", arguments.format, "for which program (default: nagios)")
        ->type_name("nagios|json|prometheus")
        ->check([](const std::string& format) {
            const bool isKnown = format == "nagios" || format == "json" || format == "prometheus";
            return isKnown ? std::string() : "'" + format + "' is not one of nagios, json and prometheus";
        });
    command->callback([&chosen, parts = parts] { chosen = [parts] { return diagnosis::Check(parts->arguments); }; });
}

void AddReport(Command& program, Action& chosen) {
    const auto [command, parts] = AddCommand<diagnosis::ReportArguments>(
        program, "report", "Collect what helps to find a fault, without the values of topics, in one archive.");
    command
        ->add_option("-o,--output", parts->arguments.output, "archive to create (default: msgbus-report-TIME.tar.gz)")
        ->type_name("FILE");
    command
        ->add_option("--log", parts->arguments.log, "log of the server (default: what it writes to, if that is found)")
        ->type_name("FILE");
    command->callback([&chosen, parts = parts] { chosen = [parts] { return diagnosis::Report(parts->arguments); }; });
}

void AddAutopsy(Command& program, Action& chosen) {
    const auto [command, parts] = AddCommand<diagnosis::AutopsyArguments>(
        program, "autopsy", "Print what is left of a server that died or stopped, or what one that runs is like.");
    command->add_flag("--previous", parts->arguments.isPrevious, "the server before the last one")
        ->excludes("--account");
    command->add_flag("--json", parts->arguments.json, "print one JSON object on one line");
    command->callback([&chosen, parts = parts] { chosen = [parts] { return diagnosis::Autopsy(parts->arguments); }; });
}

} // namespace

void AddLookCommands(Command& program, Action& chosen) {
    AddList(program, chosen);
    AddInfo(program, chosen);
    AddGet(program, chosen);
    AddTop(program, chosen);
    AddHz(program, chosen);
    AddWatch(program, chosen);
    AddCheck(program, chosen);
    AddReport(program, chosen);
    AddAutopsy(program, chosen);
}
