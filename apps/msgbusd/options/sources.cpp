#include "msgbusd/options/sources.h"

#include "command_line/nearest.h"
#include "common/escape.h"
#include "msgbusd/options/config_file.h"

#include <algorithm>
#include <map>
#include <string_view>
#include <utility>

namespace msgbusd {

namespace {

constexpr std::string_view Prefix = "MSGBUSD_";
constexpr std::string_view ConfigVariable = "MSGBUSD_CONFIG";

/// The command line has these alone: they are of one start, not of a server.
constexpr std::string_view CommandLineOnly[]{"check-config", "config", "help", "print-config", "ready-fd", "version"};

std::string FlagOf(const Option& option) {
    return (option.kind == OptionKind::Switch ? "--no-" : "--") + option.key;
}

bool IsBool(const Option& option) {
    return option.kind == OptionKind::Switch || option.kind == OptionKind::Preset;
}

/// Adds a value, unless it is not one for this option.
void Add(GivenOptions& all, const Option& option, const std::string& text, Source source) {
    std::string value = text;
    if (IsBool(option)) {
        value = BoolOf(text);
        if (value.empty()) {
            all.mistakes.push_back(source.name + ": '" + common::Escaped(text) + "' must be true or false");
            return;
        }
    }
    Settings scratch;
    if (const std::string wrong = option.set(scratch, value); !wrong.empty()) {
        all.mistakes.push_back(source.name + ": " + wrong);
        return;
    }
    all.given.push_back({&option, std::move(value), std::move(source)});
}

std::vector<std::string> WordsOf(std::string_view text) {
    constexpr std::string_view blanks = " \t\n";
    std::vector<std::string> words;
    while (true) {
        const auto begin = text.find_first_not_of(blanks);
        if (begin == text.npos) {
            return words;
        }
        const auto end = std::min(text.find_first_of(blanks, begin), text.size());
        words.emplace_back(text.substr(begin, end - begin));
        text.remove_prefix(end);
    }
}

/// Returns: the variables that are set and not empty.
std::map<std::string, std::string> Named(const char* const* variables) {
    std::map<std::string, std::string> named;
    for (; *variables != nullptr; ++variables) {
        const std::string_view variable(*variables);
        const auto equals = variable.find('=');
        if (equals != variable.npos && equals + 1 < variable.size()) {
            named.emplace(variable.substr(0, equals), variable.substr(equals + 1));
        }
    }
    return named;
}

std::string UnknownKey(const std::string& key) {
    if (std::find(std::begin(CommandLineOnly), std::end(CommandLineOnly), key) != std::end(CommandLineOnly)) {
        return "'" + key + "' can only be given on the command line";
    }
    std::vector<std::string> keys;
    for (const auto& option : Options()) {
        keys.push_back(option.key);
        if (key == "no-" + option.key) {
            return "unknown key '" + key + "'; a part is switched off by '" + option.key + " = false'";
        }
    }
    const auto nearest = command_line::Nearest(key, keys);
    return "unknown key '" + common::Escaped(key) + "'" + (nearest ? "; did you mean '" + *nearest + "'?" : "");
}

} // namespace

CLI::Option* AddFlag(command_line::Command& command, const std::string& name, const std::string& meaning,
                     const std::string& group) {
    return command.add_flag(name, meaning)->group(group);
}

void AddOptions(command_line::Command& command) {
    for (const auto& option : Options()) {
        const std::string flag = FlagOf(option);
        switch (option.kind) {
        case OptionKind::Switch:
        case OptionKind::Preset:
            AddFlag(command, flag, option.meaning, option.group);
            break;
        case OptionKind::Value:
            command
                .add_option_function<std::string>(
                    flag, [](const std::string&) {}, option.meaning)
                ->type_name(option.type)
                ->group(option.group);
            break;
        case OptionKind::List:
            command
                .add_option_function<std::vector<std::string>>(
                    flag, [](const std::vector<std::string>&) {}, option.meaning)
                ->type_name(option.type)
                ->group(option.group)
                ->allow_extra_args(false);
            break;
        }
    }
    const std::string serving = Options().front().group;
    CLI::Option* const isStatic = AddFlag(command, "--static", "the same as --mode static", serving);
    CLI::Option* const isDynamic = AddFlag(command, "--dynamic", "the same as --mode dynamic", serving);
    CLI::Option* const mode = command.get_option("--mode");
    isDynamic->excludes(isStatic);
    mode->excludes(isStatic);
    mode->excludes(isDynamic);
    CLI::Option* const noMonitor = AddFlag(
        command, "--no-monitor", "do not serve the account over HTTP, on 'monitor.sock' in the runtime directory",
        FindOption("monitor")->group);
    noMonitor->excludes(command.get_option("--monitor"));
}

GivenOptions FromCommandLine(const command_line::Command& command) {
    GivenOptions all;
    const auto add = [&](const std::string& key, const std::string& value, const std::string& flag) {
        Add(all, *FindOption(key), value, {Rank::CommandLine, flag});
    };
    for (const auto& option : Options()) {
        const std::string flag = FlagOf(option);
        for (const auto& text : command.get_option(flag)->results()) {
            const auto value = BoolOf(text);
            const bool isNegated = option.kind == OptionKind::Switch && !value.empty();
            add(option.key, isNegated ? (value == "true" ? "false" : "true") : text, flag);
        }
    }
    for (const std::string mode : {"static", "dynamic"}) {
        if (command.get_option("--" + mode)->count() != 0) {
            add("mode", mode, "--" + mode);
        }
    }
    for (const auto& text : command.get_option("--no-monitor")->results()) {
        const auto value = BoolOf(text);
        add("monitor", value == "true" ? "false" : value == "false" ? "true" : text, "--no-monitor");
    }
    return all;
}

GivenOptions FromEnvironment(const char* const* variables) {
    GivenOptions all;
    const auto named = Named(variables);
    const auto valueOf = [&](const std::string& name) {
        const auto found = named.find(name);
        return found == named.end() ? std::string() : found->second;
    };
    for (const auto& option : Options()) {
        if (!option.platformVariable.empty() && valueOf(option.platformVariable) == "off") {
            Add(all, option, "false", {Rank::Environment, option.platformVariable});
        }
        const std::string variable = VariableOf(option.key);
        const std::string text = valueOf(variable);
        if (text.empty()) {
            continue;
        }
        for (const auto& value : option.kind == OptionKind::List ? WordsOf(text) : std::vector{text}) {
            Add(all, option, value, {Rank::Environment, variable});
        }
    }
    return all;
}

std::vector<std::string> UnknownVariables(const char* const* variables) {
    std::vector<std::string> names{std::string(ConfigVariable)};
    for (const auto& option : Options()) {
        names.push_back(VariableOf(option.key));
    }
    std::vector<std::string> sentences;
    for (const auto& [name, value] : Named(variables)) {
        const bool isKnown = std::find(names.begin(), names.end(), name) != names.end();
        if (!name.starts_with(Prefix) || isKnown) {
            continue;
        }
        if (const auto nearest = command_line::Nearest(name.substr(Prefix.size()), [&] {
                std::vector<std::string> rests;
                for (const auto& each : names) {
                    rests.push_back(each.substr(Prefix.size()));
                }
                return rests;
            }())) {
            sentences.push_back("the variable " + common::Escaped(name) + " has no effect; did you mean " +
                                std::string(Prefix) + *nearest + "?");
        }
    }
    return sentences;
}

GivenOptions FromFile(const std::string& path, const std::string& text) {
    GivenOptions all;
    const ConfigText config = ParseConfig(text);
    const auto placeOf = [&](std::size_t line) { return common::Escaped(path) + ':' + std::to_string(line); };
    for (const auto& mistake : config.mistakes) {
        all.mistakes.push_back(placeOf(mistake.line) + ": " + mistake.sentence);
    }
    std::map<std::string, std::size_t> lines;
    for (const auto& line : config.lines) {
        const Source source{Rank::File, placeOf(line.number)};
        const Option* const option = FindOption(line.key);
        if (option == nullptr) {
            all.mistakes.push_back(source.name + ": " + UnknownKey(line.key));
            continue;
        }
        const auto [earlier, isFirst] = lines.emplace(line.key, line.number);
        if (!isFirst && option->kind != OptionKind::List) {
            all.mistakes.push_back(source.name + ": '" + line.key + "' is in line " + std::to_string(earlier->second) +
                                   " already");
            continue;
        }
        GivenOptions one;
        Add(one, *option, line.value, source);
        for (const auto& mistake : one.mistakes) { // the line is not enough where a key is misread
            all.mistakes.push_back(source.name + ": " + line.key + mistake.substr(source.name.size()));
        }
        std::move(one.given.begin(), one.given.end(), std::back_inserter(all.given));
    }
    return all;
}

} // namespace msgbusd
