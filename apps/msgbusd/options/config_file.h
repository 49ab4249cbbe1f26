#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

// Files of settings. A line is "KEY = VALUE", a comment that begins with '#', or empty. A comment may also follow a
// value, behind a blank. A value in double quotes keeps its blanks, and has \\, \", \n, \t and \xHH for single bytes;
// every other one is taken as it stands, without the blanks around it.

namespace msgbusd {

struct ConfigLine {
    std::size_t number; ///< counts from 1
    std::string key;
    std::string value;
};

struct ConfigMistake {
    std::size_t line;
    std::string sentence;
};

struct ConfigText {
    std::vector<ConfigLine> lines;
    std::vector<ConfigMistake> mistakes;
};

/// Reads the text of a file. It knows no keys.
ConfigText ParseConfig(std::string_view text);

/// Returns: `value` so that ParseConfig reads it back.
std::string ConfigValue(std::string_view value);

/// The file cannot be read: what() is a sentence with its name.
class ConfigFileError final : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Throws: ConfigFileError when it cannot be read, or is longer than a mebibyte.
std::string ReadConfigFile(const std::string& path);

/// Returns: the file that is read when no other is named: "borven/msgbusd.conf" in $XDG_CONFIG_HOME, which is ~/.config
/// if unset, or else "/etc/borven/msgbusd.conf"; nothing when neither is there.
std::optional<std::string> DefaultConfigFile();

} // namespace msgbusd
