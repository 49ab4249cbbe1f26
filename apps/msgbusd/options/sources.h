#pragma once

#include "command_line/command.h"
#include "msgbusd/options/option_table.h"

#include <string>
#include <vector>

// Where the settings come from. Those that come later in Rank override those before.

namespace msgbusd {

enum class Rank { Default, File, Environment, CommandLine };

struct Source {
    Rank rank = Rank::Default;
    std::string name; ///< "msgbusd.conf:3", "MSGBUSD_LOG_LEVEL", "--log-level"
};

struct Given {
    const Option* option;
    std::string value; ///< of switches: "true" or "false"
    Source source;
};

/// What one source has, in its order; what is wrong with it, each as a sentence that begins with its place.
struct GivenOptions {
    std::vector<Given> given;
    std::vector<std::string> mistakes;
};

/// Adds a flag without a variable of its own. `group`: the heading in the help.
CLI::Option* AddFlag(command_line::Command& command, const std::string& name, const std::string& meaning,
                     const std::string& group);

/// Adds every option of the table to `command`.
void AddOptions(command_line::Command& command);

/// Returns: what `command` has parsed.
GivenOptions FromCommandLine(const command_line::Command& command);

/// `variables`: as environ(7).
GivenOptions FromEnvironment(const char* const* variables);

/// Returns: for each variable that looks like one of an option but is none, a sentence with the one that was probably
/// meant. Others are left alone: a variable of that prefix may belong to something else.
std::vector<std::string> UnknownVariables(const char* const* variables);

/// `text`: of the file `path`.
GivenOptions FromFile(const std::string& path, const std::string& text);

} // namespace msgbusd
