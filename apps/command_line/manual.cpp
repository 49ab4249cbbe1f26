#include "manual.h"

#include <algorithm>

namespace command_line {

namespace {

Section& SectionOf(std::vector<Section>& sections, const std::string& title) {
    const auto found =
        std::find_if(sections.begin(), sections.end(), [&](const Section& section) { return section.title == title; });
    return found != sections.end() ? *found : sections.emplace_back(Section{title, {}});
}

bool IsRepeatable(const CLI::Option& option) {
    return option.get_items_expected_max() > 1;
}

std::string NamesOf(const CLI::Option& option) {
    std::string names;
    for (const auto& name : option.get_snames()) {
        names += (names.empty() ? "-" : ", -") + name;
    }
    for (const auto& name : option.get_lnames()) {
        names += (names.empty() ? "--" : ", --") + name;
    }
    const std::string type = option.get_type_name();
    if (type.empty()) {
        return names;
    }
    return names + (option.get_items_expected_max() == 0 ? "[=" + type + "]" : " " + type);
}

/// Returns: an argument as the usage shows it: "TOPIC...", "[VALUE...]".
std::string ArgumentOf(const CLI::Option& option) {
    const std::string name = option.get_name(true) + (IsRepeatable(option) ? "..." : "");
    return option.get_required() ? name : "[" + name + "]";
}

} // namespace

std::string UsageOf(const Command& command) {
    std::string usage = command.Path() + " [OPTION...]";
    for (const auto* option : command.get_options()) {
        if (option->get_positional()) {
            usage += ' ' + ArgumentOf(*option);
        }
    }
    return usage + (command.get_require_subcommand_min() > 0 ? " COMMAND" : "");
}

std::vector<Section> OptionsOf(const Command& command) {
    std::vector<Section> sections;
    for (const auto* option : command.get_options()) {
        if (option->get_positional()) {
            SectionOf(sections, "Arguments").entries.push_back({option->get_name(true), option->get_description()});
        }
    }
    for (const auto* option : command.get_options()) {
        if (option->nonpositional() && !option->get_group().empty()) {
            SectionOf(sections, option->get_group()).entries.push_back({NamesOf(*option), option->get_description()});
        }
    }
    return sections;
}

std::vector<Section> CommandsOf(const Command& command) {
    std::vector<Section> sections;
    for (const auto* each : command.Commands()) {
        if (each->get_group().empty()) { // hidden
            continue;
        }
        SectionOf(sections, each->get_group()).entries.push_back({each->get_name(), each->get_description()});
    }
    return sections;
}

std::vector<Section> NotesOf(const Command& command) {
    const Notes& notes = command.notes;
    std::vector<Section> sections;
    for (const auto& [title, entries] :
         {std::pair{"Environment", &notes.environment}, std::pair{"Files", &notes.files},
          std::pair{"Signals", &notes.signals}, std::pair{"Exit status", &notes.exitStatuses}}) {
        if (!entries->empty()) {
            sections.push_back({title, *entries});
        }
    }
    return sections;
}

} // namespace command_line
