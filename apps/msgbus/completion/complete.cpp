#include "completion/complete.h"

#include "common/escape.h"

#include <algorithm>
#include <string_view>

namespace completion {

namespace {

using command_line::Command;

/// Collects what begins with the word at the cursor.
class Collector final {
public:
    /// `isNoOption`: a word with a dash in front is none.
    Collector(std::string wordPrefix, bool isNoOption) : prefix(std::move(wordPrefix)), areOptionsOver(isNoOption) {}

    void Add(std::string word, std::string meaning = {}) {
        if (word.starts_with(prefix)) {
            found.words.push_back({std::move(word), std::move(meaning)});
        }
    }
    /// Adds a name on the bus, which may be anything: the shells show it as it is, and read a candidate a line.
    void AddName(const std::string& before, const std::string& name) {
        const auto backslashes = static_cast<std::size_t>(std::count(name.begin(), name.end(), '\\'));
        const bool isPlain = common::Escaped(name).size() == name.size() + backslashes;
        const bool isOption = before.empty() && !areOptionsOver && name.starts_with('-');
        if (isPlain && !isOption && name != FilesMark) {
            Add(before + name);
        }
    }
    void AddFiles() { found.areFilesToo = true; }

    Candidates Take() { return std::move(found); }

private:
    std::string prefix;
    bool areOptionsOver;
    Candidates found;
};

void AddCommands(Collector& collector, const Command& command) {
    for (const auto* each : command.Commands()) {
        if (!each->get_group().empty()) { // not hidden
            collector.Add(each->get_name(), each->get_description());
        }
    }
}

/// Adds what an option or argument of this type may be. `before`: what stands in the same word in front of it.
void AddValues(Collector& collector, const Command& program, const std::string& type, const std::string& before,
               const LiveNames& names) {
    if (type == "COMMAND") {
        AddCommands(collector, program);
    } else if (type == "TOPIC" || type == "NAME") {
        for (const auto& topic : names.topics()) {
            collector.AddName(before, topic);
        }
        if (type == "NAME") {
            for (const auto& subscriber : names.subscribers()) {
                collector.AddName(before, subscriber);
            }
        }
    } else if (type == "FILE") {
        collector.AddFiles();
    } else if (type.find('|') != std::string::npos || std::islower(static_cast<unsigned char>(type.front())) != 0) {
        for (std::size_t begin = 0; begin <= type.size();) {
            const std::size_t end = std::min(type.find('|', begin), type.size());
            collector.Add(before + type.substr(begin, end - begin));
            begin = end + 1;
        }
    }
}

bool TakesWord(const CLI::Option& option) {
    return option.get_items_expected_max() != 0;
}

void AddOptions(Collector& collector, const Command& command) {
    for (const auto* option : command.get_options()) {
        if (option->get_group().empty()) {
            continue;
        }
        for (const auto& name : option->get_lnames()) {
            collector.Add("--" + name, option->get_description());
        }
        for (const auto& name : option->get_snames()) {
            collector.Add("-" + name, option->get_description());
        }
    }
}

/// Returns: the arguments of a command, in the order of the command line.
std::vector<const CLI::Option*> ArgumentsOf(const Command& command) {
    std::vector<const CLI::Option*> arguments;
    for (const auto* option : command.get_options()) {
        if (option->get_positional()) {
            arguments.push_back(option);
        }
    }
    return arguments;
}

/// What the words before the cursor say about the one at it.
struct Context {
    const Command* command;
    const CLI::Option* valueOf = nullptr; ///< the option that takes the next word
    std::size_t arguments = 0;            ///< that the command has already
    bool areOptionsOver = false;
};

Context ContextOf(const Command& program, const std::vector<std::string>& words) {
    Context context{&program};
    for (std::size_t index = 0; index + 1 < words.size(); ++index) {
        const std::string& word = words[index];
        if (context.valueOf != nullptr) {
            context.valueOf = nullptr;
        } else if (!context.areOptionsOver && word == "--") {
            context.areOptionsOver = true;
        } else if (!context.areOptionsOver && word.size() > 1 && word.front() == '-') {
            const auto* const option = context.command->get_option_no_throw(word);
            context.valueOf = option != nullptr && TakesWord(*option) ? option : nullptr;
        } else if (const auto* const command = context.command->Find(word); command != nullptr) {
            context.command = command;
        } else {
            ++context.arguments;
        }
    }
    return context;
}

} // namespace

Candidates Complete(const Command& program, const std::vector<std::string>& words, const LiveNames& names) {
    const std::string current = words.empty() ? "" : words.back();
    const Context context = ContextOf(program, words);
    Collector collector(current, context.areOptionsOver);
    if (context.valueOf != nullptr) {
        AddValues(collector, program, context.valueOf->get_type_name(), "", names);
        return collector.Take();
    }
    if (const auto equals = current.find('='); current.starts_with("--") && equals != std::string::npos) {
        if (const auto* const option = context.command->get_option_no_throw(current.substr(0, equals));
            option != nullptr) {
            AddValues(collector, program, option->get_type_name(), current.substr(0, equals + 1), names);
        }
        return collector.Take();
    }
    if (current.starts_with('-') && !context.areOptionsOver) {
        AddOptions(collector, *context.command);
        return collector.Take();
    }
    AddCommands(collector, *context.command);
    if (const auto arguments = ArgumentsOf(*context.command); !arguments.empty()) {
        AddValues(collector, program, arguments[std::min(context.arguments, arguments.size() - 1)]->get_type_name(), "",
                  names);
    }
    return collector.Take();
}

} // namespace completion
