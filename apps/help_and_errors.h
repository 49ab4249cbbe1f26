#pragma once

#include "common/escape.h"

#include <CLI/CLI.hpp>

#include <string>

// What both programs print about their command lines, without the marks of the library that reads them.

/// Prints an option's name and value only: its description says which options it excludes and whether it is required.
class HelpFormatter final : public CLI::Formatter {
public:
    HelpFormatter() {
        label("SUBCOMMAND", "COMMAND");
        label("Positionals", "Arguments");
    }

    std::string make_option_opts(const CLI::Option* option) const override {
        const bool hasValue = option->get_type_size() != 0;
        return hasValue && option->nonpositional() ? ' ' + option->get_type_name() : std::string();
    }
};

/// Returns: what is wrong with the command line, as one sentence; what it quotes is escaped.
inline std::string DescribeUsageError(const CLI::App& app, const CLI::Error& error) {
    const auto code = static_cast<CLI::ExitCodes>(error.get_exit_code());
    const bool lacksCommand = code == CLI::ExitCodes::RequiredError && app.get_subcommands().empty();
    const auto words = app.remaining(true);
    if (words.empty()) {
        return lacksCommand && app.get_require_subcommand_min() > 0 ? "no command given"
                                                                    : common::Escaped(error.what());
    }
    if (code == CLI::ExitCodes::ExtrasError || lacksCommand) {
        const bool isOption = words.front().starts_with('-');
        return (isOption       ? "unknown option '"
                : lacksCommand ? "unknown command '"
                               : "unexpected argument '") +
               common::Escaped(words.front()) + "'";
    }
    return common::Escaped(error.what());
}
