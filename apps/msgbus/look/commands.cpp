#include "commands.h"

#include "arguments.h"
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

constexpr const char* Footer =
    "Environment:\n"
    "  BORVEN_RUNTIME_DIR          directory of the server's account\n"
    "\n"
    "Exit status:\n"
    "  0 success, 1 failure, 2 usage error, 4 no account or server gone, 124 time limit reached";

constexpr const char* CheckFooter =
    "A warning or critical state begins beyond the number.\n"
    "\n"
    "Environment:\n"
    "  BORVEN_RUNTIME_DIR          directory of the server's account\n"
    "\n"
    "Exit status, in place of those of the other commands:\n"
    "  0 OK, 1 WARNING, 2 CRITICAL (also: the server is gone), 3 UNKNOWN (no account, or a usage error)";

constexpr const char* CheckName = "check";

/// Texts of the command line that are numbers and times.
struct Limits {
    std::optional<std::string> count;
    std::optional<std::string> timeLimit;

    void AddCount(CLI::App& command, const std::string& meaning) {
        command.add_option("-n,--count", count, meaning)->type_name("COUNT");
    }
    void AddTimeLimit(CLI::App& command, const std::string& meaning) {
        command.add_option("-W,--time-limit", timeLimit, meaning)->type_name("DURATION");
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

/// The parts of a command line, which live as long as the parser.
template <typename Arguments>
struct Command {
    Arguments arguments;
    Limits limits;
    std::string word;
};

template <typename Arguments>
std::pair<CLI::App*, std::shared_ptr<Command<Arguments>>> AddCommand(CLI::App& app, const char* name,
                                                                     const char* meaning) {
    auto* const command = app.add_subcommand(name, meaning)->group(Group);
    auto parts = std::make_shared<Command<Arguments>>();
    command->footer(Footer);
    command->add_option("--account", parts->arguments.account, "read this account file")->type_name("FILE");
    return {command, parts};
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

void AddList(CLI::App& app, Action& chosen) {
    const auto [command, parts] = AddCommand<look::ListArguments>(
        app, "list", "List the topics, publishers or subscribers of the bus, one a line.");
    command->add_option("WHAT", parts->word, "topics (default), publishers or subscribers")->type_name("WHAT");
    command->add_flag("--json", parts->arguments.json, "print one JSON object on one line");
    command->callback([&chosen, parts = parts] {
        chosen = [parts] {
            using enum look::ListKind;
            parts->arguments.kind =
                ChoiceOf<look::ListKind>({{"topics", Topics}, {"publishers", Publishers}, {"subscribers", Subscribers}},
                                         parts->word.empty() ? "topics" : parts->word, "what can be listed");
            return look::List(parts->arguments);
        };
    });
}

void AddInfo(CLI::App& app, Action& chosen) {
    const auto [command, parts] =
        AddCommand<look::InfoArguments>(app, "info", "Print all about a topic, a subscriber or an id.");
    command->add_option("NAME", parts->arguments.word, "a topic, the name of a subscriber, or an id")
        ->type_name("NAME")
        ->required();
    command->add_flag("--json", parts->arguments.json, "print one JSON object on one line");
    command->callback([&chosen, parts = parts] { chosen = [parts] { return look::Info(parts->arguments); }; });
}

void AddGet(CLI::App& app, Action& chosen) {
    const auto [command, parts] = AddCommand<look::GetArguments>(
        app, "get", "Print the last value of a topic and its age, without a subscription.");
    command->add_option("TOPIC", parts->arguments.topic, "topic")->type_name("TOPIC")->required();
    parts->limits.AddTimeLimit(
        *command,
        "when there is no value: wait for the first so long, then exit with status 124 (default: exit with 1)");
    command->add_flag("--json", parts->arguments.json, "print one JSON object on one line");
    command->callback([&chosen, parts = parts] {
        chosen = [parts] {
            parts->limits.SetTimeLimit(parts->arguments);
            return look::Get(parts->arguments);
        };
    });
}

void AddHz(CLI::App& app, Action& chosen) {
    const auto [command, parts] = AddCommand<look::HzArguments>(
        app, "hz", "Print once a second how many values per second the bus accepts for a topic.");
    command->add_option("TOPIC", parts->arguments.topic, "topic")->type_name("TOPIC")->required();
    parts->limits.AddCount(*command, "exit after this many lines");
    parts->limits.AddTimeLimit(*command, TimeLimitMeaning);
    command->add_flag("--json", parts->arguments.json, "print a JSON object on each line");
    command->callback([&chosen, parts = parts] {
        chosen = [parts] {
            parts->limits.SetCount(parts->arguments);
            parts->limits.SetTimeLimit(parts->arguments);
            return look::Hz(parts->arguments);
        };
    });
}

void AddWatch(CLI::App& app, Action& chosen) {
    const auto [command, parts] = AddCommand<look::WatchArguments>(
        app, "watch", "Print what happens on the bus: registrations, deaths, cuts, refusals, starts, stops.");
    parts->limits.AddCount(*command, "exit after this many events");
    parts->limits.AddTimeLimit(*command, TimeLimitMeaning);
    command->add_flag("-a,--all", parts->arguments.all, "print the events that the account holds already, too");
    command->add_flag("--json", parts->arguments.json, "print a JSON object on each line");
    command->callback([&chosen, parts = parts] {
        chosen = [parts] {
            parts->limits.SetCount(parts->arguments);
            parts->limits.SetTimeLimit(parts->arguments);
            return look::Watch(parts->arguments);
        };
    });
}

void AddTop(CLI::App& app, Action& chosen) {
    const auto [command, parts] = AddCommand<top::TopArguments>(
        app, "top", "Show topics and subscribers at work, on a page that refreshes itself.");
    command->add_option("-d,--delay", parts->limits.timeLimit, "time between two pages (default: 1s)")
        ->type_name("DURATION");
    command->add_option("--sort", parts->word, "name, rate (default), lag, age or drops")->type_name("KEY");
    command->add_flag("--reverse", parts->arguments.view.isReversed, "the other way round");
    auto* const once = command->add_flag("--once", parts->arguments.once, "print one page, and exit");
    command->add_flag("--json", parts->arguments.json, "with --once: print one JSON object on one line")->needs(once);
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
            return top::Top(parts->arguments);
        };
    });
}

void AddCheck(CLI::App& app, Action& chosen) {
    const auto [command, parts] = AddCommand<diagnosis::CheckArguments>(
        app, CheckName, "Judge the server and its bus, as a plug-in of a monitoring system.");
    command->footer(CheckFooter);
    const auto add = [command = command](const std::string& name, diagnosis::CheckArguments::Limits& limits,
                                         const char* type, const std::string& what) {
        command->add_option("--" + name + "-warn", limits.warning, "warn beyond so many " + what)->type_name(type);
        command->add_option("--" + name + "-crit", limits.critical, "be critical beyond that")->type_name(type);
    };
    auto& arguments = parts->arguments;
    add("lag", arguments.lag, "N", "values that a subscriber has unread");
    add("drops", arguments.drops, "N", "values that were dropped since the server started");
    add("inbound", arguments.inbound, "N", "values in the inbound queue");
    add("age", arguments.age, "DURATION", "seconds that the oldest unread value of a subscriber waits");
    add("away", arguments.away, "DURATION", "seconds that a thread of the server is away from its loop");
    command->add_option("--format", arguments.format, "nagios (default), json or prometheus")
        ->type_name("FORMAT")
        ->check([](const std::string& format) {
            const bool isKnown = format == "nagios" || format == "json" || format == "prometheus";
            return isKnown ? std::string() : "'" + format + "' is not one of nagios, json and prometheus";
        });
    command->callback([&chosen, parts = parts] { chosen = [parts] { return diagnosis::Check(parts->arguments); }; });
}

void AddReport(CLI::App& app, Action& chosen) {
    const auto [command, parts] = AddCommand<diagnosis::ReportArguments>(
        app, "report", "Collect what helps to find a fault, without the values of topics, in one archive.");
    command
        ->add_option("-o,--output", parts->arguments.output, "archive to create (default: msgbus-report-TIME.tar.gz)")
        ->type_name("FILE");
    command
        ->add_option("--log", parts->arguments.log, "log of the server (default: what it writes to, if that is found)")
        ->type_name("FILE");
    command->callback([&chosen, parts = parts] { chosen = [parts] { return diagnosis::Report(parts->arguments); }; });
}

void AddAutopsy(CLI::App& app, Action& chosen) {
    const auto [command, parts] = AddCommand<diagnosis::AutopsyArguments>(
        app, "autopsy", "Print what is left of a server that died or stopped, or what one that runs is like.");
    command->add_flag("--previous", parts->arguments.isPrevious, "the server before the last one")
        ->excludes("--account");
    command->add_flag("--json", parts->arguments.json, "print one JSON object on one line");
    command->callback([&chosen, parts = parts] { chosen = [parts] { return diagnosis::Autopsy(parts->arguments); }; });
}

} // namespace

void AddLookCommands(CLI::App& app, Action& chosen) {
    AddList(app, chosen);
    AddInfo(app, chosen);
    AddGet(app, chosen);
    AddTop(app, chosen);
    AddHz(app, chosen);
    AddWatch(app, chosen);
    AddCheck(app, chosen);
    AddReport(app, chosen);
    AddAutopsy(app, chosen);
}

int UsageStatus(const CLI::App& app) {
    constexpr int unknown = 3; // of a monitoring plug-in
    return app.got_subcommand(CheckName) ? unknown : static_cast<int>(ExitStatus::Usage);
}
