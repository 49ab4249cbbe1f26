#include "msgbusd/options/options.h"

#include "common/escape.h"
#include "msgbusd/options/config_file.h"
#include "msgbusd/options/effective.h"

#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <utility>
#include <vector>

namespace msgbusd {

namespace {

using command_line::Command;

constexpr const char* ConfigVariable = "MSGBUSD_CONFIG";

void AddNotes(Command& command) {
    command.notes.description = {
        "Every option that is not of a single start can also stand in a file, as KEY = VALUE with the name of the "
        "option "
        "without its dashes, and in the environment, as MSGBUSD_KEY with capitals and underscores. The command line "
        "overrides the environment, and that the file. A part that --no-PART switches off is PART = false there; "
        "--no-PART=false switches it on again. Values of a repeatable option add up, and an empty one drops those "
        "before it; a variable has several between blanks."};
    command.notes.environment = {
        {"BORVEN_RUNTIME_DIR", "directory for the server's sockets and its account; if unset, $XDG_RUNTIME_DIR/borven, "
                               "else a directory of the user's own in /tmp"},
        {"MSGBUSD_LOG_LEVEL, MSGBUSD_LIMIT, ...", "options; 'msgbusd --print-config' shows what they make"},
        {ConfigVariable, "file of options, as --config has it"},
        {"BORVEN_LOG_LIMIT=off", "the same as --no-log-limit"},
        {"BORVEN_NAME_WATCH=off", "the same as --no-name-watch"},
        {"BORVEN_PLACEMENT=off", "the same as --no-placement"},
        {"BORVEN_THREAD_NAMES=off", "do not name the threads that serve"},
        {"MALLOC_ARENA_MAX, GLIBC_TUNABLES",
         "of the C library; if neither is set, all threads allocate from one arena, "
         "which gives freed memory back"},
        {"JOURNAL_STREAM", "of systemd: where stderr is this stream, lines of the log are made for the journal"},
        {"NO_COLOR, TERM=dumb", "log without colours on a terminal"},
        {"NOTIFY_SOCKET, WATCHDOG_USEC, WATCHDOG_PID",
         "of a service manager, see sd_notify(3); while it watches, every beat is a value that went through the bus"}};
    command.notes.files = {
        {"$XDG_CONFIG_HOME/borven/msgbusd.conf", "options of this user; without the variable it is in ~/.config"},
        {"/etc/borven/msgbusd.conf", "options of the machine; read when the user's file is not there"}};
    command.notes.signals = {
        {"SIGTERM, SIGINT", "stop; one that comes more than a second after the first ends the server at once"},
        {"SIGUSR1", "drain: refuse registrations and pushes until all is read, then stop"}};
    command.notes.exitStatuses = {{"0", "stopped by a signal"},
                                  {"1", "could not serve, with one line on stderr that says why"},
                                  {"2", "usage error, on the command line, in the environment or in the file"},
                                  {"5", "could not go on for all clients and ended at once, to be started again"}};
    command.notes.examples = {
        {"msgbusd --log-level server=debug", "Serve, and log every step of the server's own"},
        {"msgbusd --print-config > msgbusd.conf", "Make a file of what is in effect, to edit it"},
        {"msgbusd --config new.conf --check-config", "Look for mistakes in a file before a restart"}};
}

void PrintLimits() {
    const msgbus_server::Limits defaults;
    for (const auto& limit : msgbus_server::LimitNames()) {
        std::cout << limit.name << '=' << defaults.*limit.value << "\n    " << limit.meaning << '\n';
    }
}

/// Returns: the file to read; nothing: none. A file that is named has to be there.
std::optional<std::string> ChooseFile(const std::string& fromCommandLine) {
    if (!fromCommandLine.empty()) {
        return fromCommandLine;
    }
    const char* const variable = std::getenv(ConfigVariable);
    return variable != nullptr && *variable != '\0' ? variable : DefaultConfigFile();
}

GivenOptions FromChosenFile(const std::optional<std::string>& path) {
    if (!path) {
        return {};
    }
    try {
        return FromFile(*path, ReadConfigFile(*path));
    } catch (const ConfigFileError& error) {
        return {{}, {error.what()}};
    }
}

void PrintMistakes(const std::vector<std::string>& mistakes) {
    for (const auto& mistake : mistakes) {
        std::cerr << "msgbusd: " << mistake << '\n';
    }
    std::cerr << "See 'msgbusd --help'.\n" << std::flush;
}

/// Returns: the options as they were given.
std::string TextOf(int argc, const char* const* argv) {
    std::string line;
    for (int i = 1; i < argc; ++i) {
        line += (i == 1 ? "" : " ") + std::string(argv[i]);
    }
    return line;
}

} // namespace

std::unique_ptr<Command> MakeCommand() {
    auto command = std::make_unique<Command>("msgbusd", "Serve the message bus until SIGTERM or SIGINT.");
    command->set_version_flag("--version", "msgbusd " BORVEN_VERSION, "print the version and exit");
    AddOptions(*command);
    const std::string group = "Options";
    command
        ->add_option_function<std::string>(
            "--config", [](const std::string&) {}, "file of options to read")
        ->type_name("FILE")
        ->group(group);
    AddFlag(*command, "--print-config", "print the options in effect as a file, with the source of each, and exit",
            group);
    AddFlag(*command, "--check-config", "look for mistakes in file, environment and command line, and exit", group);
    AddFlag(*command, "--limits", "list the limits with their defaults, and exit", group);
    command
        ->add_option_function<int>(
            "--ready-fd", [](int) {}, "when the bus is served, write READY to this descriptor and close it")
        ->type_name("FD")
        ->group(group);
    AddNotes(*command);
    return command;
}

std::optional<int> ReadOptions(int argc, const char* const* argv, ChosenOptions& chosen) {
    const auto command = MakeCommand();
    try {
        command_line::Parse(*command, argc, argv);
    } catch (const CLI::ParseError& error) {
        return command_line::Report(*command, error) ? 0 : ExitUsage;
    }
    if (command->count("--limits") != 0) {
        PrintLimits();
        return 0;
    }
    const CLI::Option& config = *command->get_option("--config");
    const auto path = ChooseFile(config.count() != 0 ? config.as<std::string>() : std::string());
    const EffectiveSettings effective({FromChosenFile(path), FromEnvironment(environ), FromCommandLine(*command)});
    if (!effective.Mistakes().empty()) {
        PrintMistakes(effective.Mistakes());
        return ExitUsage;
    }
    chosen.warnings = UnknownVariables(environ);
    chosen.configFile = path.value_or("");
    if (command->count("--print-config") != 0) {
        std::cout << effective.ToFile() << std::flush;
        return 0;
    }
    if (command->count("--check-config") != 0) {
        for (const auto& warning : chosen.warnings) {
            std::cerr << "msgbusd: warning: " << warning << '\n';
        }
        std::cout << "No mistakes in the options" << (path ? " and " + common::Escaped(*path) : std::string()) << '\n'
                  << std::flush;
        return 0;
    }
    chosen.settings = effective.Get();
    if (command->count("--ready-fd") != 0) {
        chosen.settings.readyDescriptor = command->get_option("--ready-fd")->as<int>();
    }
    const std::string words = TextOf(argc, argv);
    const std::string others = effective.AsCommandLine();
    chosen.asCommandLine = others + (others.empty() || words.empty() ? "" : " ") + words;
    return std::nullopt;
}

} // namespace msgbusd
