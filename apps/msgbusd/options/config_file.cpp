#include "msgbusd/options/config_file.h"

#include "common/escape.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <system_error>

namespace msgbusd {

namespace {

constexpr std::string_view Blanks = " \t";
constexpr std::size_t LargestFile = 1U << 20;

std::string_view Trimmed(std::string_view text) {
    const auto first = text.find_first_not_of(Blanks);
    if (first == text.npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(Blanks) - first + 1);
}

bool IsBlank(char c) {
    return Blanks.find(c) != Blanks.npos;
}

/// Returns: whether only a comment stands in `text`.
bool IsRemark(std::string_view text) {
    const std::string_view rest = Trimmed(text);
    return rest.empty() || rest.front() == '#';
}

std::string_view WithoutRemark(std::string_view value) {
    for (std::size_t i = 0; i < value.size(); ++i) {
        if (value[i] == '#' && (i == 0 || IsBlank(value[i - 1]))) {
            return value.substr(0, i);
        }
    }
    return value;
}

/// Appends the byte that stands behind a backslash at `position`, and moves that behind it. Returns: false when none
/// does.
bool AppendEscape(std::string& value, std::string_view text, std::size_t& position) {
    if (position >= text.size()) {
        return false;
    }
    const char c = text[position++];
    if (c == '\\' || c == '"') {
        value += c;
        return true;
    }
    if (c == 'n' || c == 't') {
        value += c == 'n' ? '\n' : '\t';
        return true;
    }
    constexpr std::size_t digits = 2;
    unsigned byte = 0;
    const char* const begin = text.data() + position;
    if (c != 'x' || text.size() - position < digits ||
        std::from_chars(begin, begin + digits, byte, 16).ptr != begin + digits) {
        return false;
    }
    position += digits;
    value += static_cast<char>(byte);
    return true;
}

/// Reads the value that begins with a quote. Returns: what is wrong; empty: nothing.
std::string ReadQuoted(std::string_view text, std::string& value) {
    std::size_t position = 1;
    while (position < text.size() && text[position] != '"') {
        const char c = text[position++];
        if (c != '\\') {
            value += c;
        } else if (!AppendEscape(value, text, position)) {
            return "in quotes a backslash stands before \\, \", n, t or x and two hexadecimal digits";
        }
    }
    if (position >= text.size()) {
        return "the quotes are not closed";
    }
    return IsRemark(text.substr(position + 1)) ? "" : "something follows the quoted value";
}

std::string ReadLine(std::string_view line, std::string& key, std::string& value) {
    const auto equals = line.find('=');
    key = Trimmed(line.substr(0, equals));
    if (equals == line.npos || key.empty()) {
        return "'" + common::Escaped(Trimmed(line)) + "' is not KEY = VALUE";
    }
    const std::string_view rest = Trimmed(line.substr(equals + 1));
    if (rest.starts_with('"')) {
        return ReadQuoted(rest, value);
    }
    value = Trimmed(WithoutRemark(rest));
    for (const char c : value) {
        if (static_cast<unsigned char>(c) < 0x20 && c != '\t') {
            return "a control character stands in the value; in quotes it is written as \\xHH";
        }
    }
    return {};
}

} // namespace

ConfigText ParseConfig(std::string_view text) {
    constexpr std::string_view byteOrderMark = "\xef\xbb\xbf";
    if (text.starts_with(byteOrderMark)) {
        text.remove_prefix(byteOrderMark.size());
    }
    ConfigText result;
    for (std::size_t number = 1; !text.empty(); ++number) {
        const auto end = text.find('\n');
        std::string_view line = text.substr(0, end);
        text.remove_prefix(end == text.npos ? text.size() : end + 1);
        if (line.ends_with('\r')) {
            line.remove_suffix(1);
        }
        if (IsRemark(line)) {
            continue;
        }
        ConfigLine read{number, {}, {}};
        if (std::string wrong = ReadLine(line, read.key, read.value); !wrong.empty()) {
            result.mistakes.push_back({number, std::move(wrong)});
        } else {
            result.lines.push_back(std::move(read));
        }
    }
    return result;
}

std::string ConfigValue(std::string_view value) {
    constexpr std::string_view digits = "0123456789abcdef";
    bool isPlain = !value.empty() && Trimmed(value) == value && value.front() != '"' && WithoutRemark(value) == value;
    std::string quoted = "\"";
    for (const char c : value) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '\\' || c == '"') {
            quoted += '\\';
            quoted += c;
        } else if (byte < 0x20 || byte >= 0x7F) {
            isPlain = false;
            quoted += "\\x";
            quoted += digits[byte >> 4];
            quoted += digits[byte & 0xF];
        } else {
            quoted += c;
        }
    }
    return isPlain ? std::string(value) : quoted + '"';
}

std::string ReadConfigFile(const std::string& path) {
    const auto fail = [&](const std::string& why) {
        return ConfigFileError("cannot read '" + common::Escaped(path) + "': " + why);
    };
    const int file = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (file < 0) {
        throw fail(std::strerror(errno));
    }
    std::string text;
    std::array<char, 4096> buffer{};
    ssize_t count = 0;
    do {
        count = ::read(file, buffer.data(), buffer.size());
        if (count > 0) {
            text.append(buffer.data(), static_cast<std::size_t>(count));
        }
    } while ((count > 0 && text.size() <= LargestFile) || (count < 0 && errno == EINTR));
    const int error = errno;
    ::close(file);
    if (count < 0) {
        throw fail(std::strerror(error));
    }
    if (text.size() > LargestFile) {
        throw fail("it is longer than a mebibyte");
    }
    return text;
}

std::optional<std::string> DefaultConfigFile() {
    const std::string name = "/borven/msgbusd.conf";
    std::vector<std::string> paths;
    const char* const chosen = std::getenv("XDG_CONFIG_HOME");
    const char* const home = std::getenv("HOME");
    if (chosen != nullptr && *chosen == '/') { // a relative one does not count
        paths.push_back(chosen + name);
    } else if (home != nullptr && *home == '/') {
        paths.push_back(home + ("/.config" + name));
    }
    paths.push_back("/etc" + name);
    for (const auto& path : paths) {
        if (::access(path.c_str(), F_OK) == 0) {
            return path;
        }
    }
    return std::nullopt;
}

} // namespace msgbusd
