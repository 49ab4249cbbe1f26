#pragma once

#include "msgbusd/options/settings.h"

#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace msgbusd {

/// How an option is written: as a key of a file, as a variable, and on the command line.
enum class OptionKind {
    Switch, ///< "KEY = false", on the command line "--no-KEY"; on by default
    Preset, ///< "KEY = true", "--KEY": switches off what the table says; off by default
    Value,  ///< "KEY = VALUE", "--KEY VALUE"
    List,   ///< as Value, but may be repeated; an empty value drops those before it
};

/// One option of the server program, whatever it comes from.
struct Option {
    std::string key;
    OptionKind kind;
    std::string group;   ///< heading in the help
    std::string type;    ///< of the value, for the help; empty for switches
    std::string meaning; ///< for the help; of "--no-KEY" for switches
    /// Changes the settings. `text`: "true" or "false" for switches and presets. Returns: empty, or what is wrong with
    /// `text`, as a sentence.
    std::function<std::string(Settings&, const std::string& text)> set;
    /// Returns: the values for `set` that would make the settings what they are; none for an option without a value.
    std::function<std::vector<std::string>(const Settings&)> show;
    std::string platformVariable; ///< a variable of the platform that switches it off, too, with "off"
};

/// Every option that can be in a file, in the order of the help.
std::span<const Option> Options();

/// Returns: the option, or nullptr.
const Option* FindOption(std::string_view key);

/// The options that `--bare` switches off.
std::span<const std::string_view> BareOptions();

/// Returns: the variable of an option: "MSGBUSD_LOG_LEVEL" for "log-level".
std::string VariableOf(std::string_view key);

/// Returns: "true" or "false" for what means that; empty for anything else.
std::string_view BoolOf(std::string_view text);

} // namespace msgbusd
