#include "msgbus/codec.h"

#include "common/escape.h"
#include "common/utf8.h"
#include "kn/status.h"

#include <algorithm>
#include <charconv>
#include <numeric>
#include <set>
#include <system_error>

namespace msgbus {

namespace {

constexpr std::string_view UnitKey = "unit=";
constexpr std::string_view StepKey = "step=";
constexpr std::string_view NamesKey = "names=";
constexpr std::string_view RemarkKey = "remark=";

/// How many names a sentence lists.
constexpr std::size_t NamesInASentence = 8;

/// No valid description has a longer text: escaped bytes take three characters, and a number with its signs 22.
constexpr std::size_t LongestText = Description::LongestType + 64 + 3 * Description::LongestUnit +
                                    Description::MostNames * (3 * Description::LongestName + 22) +
                                    3 * Description::LongestRemark;

[[noreturn]] void Fail(const std::string& reason) {
    throw std::invalid_argument("the description of a type is not valid: " + reason);
}

void Require(bool condition, const char* reason) {
    if (!condition) {
        Fail(reason);
    }
}

bool IsTypeCharacter(char c) noexcept {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' || c == '_' ||
           c == '-';
}

void CheckLine(std::string_view line, std::size_t longest, const char* what) {
    if (line.size() > longest) {
        Fail(std::string(what) + " has " + std::to_string(line.size()) + " bytes; at most " + std::to_string(longest) +
             " are allowed");
    }
    while (!line.empty()) {
        const utf8::Step step = utf8::Decode(line);
        if (!step.valid || common::IsControl(step.point)) {
            Fail(std::string(what) + " has a control character or a byte that is not UTF-8");
        }
        line.remove_prefix(step.length);
    }
}

/// The characters that separate the parts of a text, and the space, which is lost easily at the end of a line.
bool IsEscaped(char c) noexcept {
    return c == ';' || c == ',' || c == ':' || c == '%' || c == ' ';
}

void AppendLine(std::string& text, std::string_view line) {
    constexpr char digits[] = "0123456789ABCDEF";
    for (const char c : line) {
        if (IsEscaped(c)) {
            const auto byte = static_cast<unsigned char>(c);
            text += '%';
            text += digits[byte >> 4];
            text += digits[byte & 0xF];
        } else {
            text += c;
        }
    }
}

/// FromText compares the result with its text, so whatever is not as AppendLine writes it is found there.
std::string ReadLine(std::string_view text) {
    std::string line;
    while (!text.empty()) {
        std::size_t used = 1;
        char c = text.front();
        if (c == '%') {
            unsigned byte = 0;
            const auto hex = text.substr(1, 2);
            const auto [end, error] = std::from_chars(hex.data(), hex.data() + hex.size(), byte, 16);
            Require(error == std::errc() && end == hex.data() + 2, "'%' is not followed by two digits");
            c = static_cast<char>(byte);
            used = 3;
        }
        line += c;
        text.remove_prefix(used);
    }
    return line;
}

std::int64_t ReadNumber(std::string_view text) {
    std::int64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    Require(error == std::errc() && end == text.data() + text.size(), "a number was expected");
    return number;
}

/// Takes the part of `text` before `separator`, or all of it, and the separator.
std::string_view Take(std::string_view& text, char separator) {
    const auto length = text.find(separator);
    const auto part = text.substr(0, length);
    text.remove_prefix(length == std::string_view::npos ? text.size() : length + 1);
    return part;
}

/// Returns: whether `part` begins with `key`, which is then removed.
bool TakeKey(std::string_view& part, std::string_view key) {
    if (part.substr(0, key.size()) != key) {
        return false;
    }
    part.remove_prefix(key.size());
    return true;
}

std::string StepText(const Description& description) {
    return std::to_string(description.numerator) + '/' + std::to_string(description.denominator);
}

bool HasStep(const Description& description) {
    return description.numerator != 1 || description.denominator != 1;
}

std::string NameText(const NamedValue& named) {
    return std::to_string(named.value) + " '" + named.name + "'";
}

/// Returns: the type in words.
std::string InWords(const Description& description) {
    std::string words = description.type;
    if (HasStep(description)) {
        words += " in steps of " + StepText(description);
        words += description.unit.empty() ? "" : " " + description.unit;
    } else if (!description.unit.empty()) {
        words += " in " + description.unit;
    }
    if (!description.names.empty()) {
        words += " of";
        const std::size_t listed = std::min(description.names.size(), NamesInASentence);
        for (std::size_t i = 0; i < listed; ++i) {
            words += (i == 0 ? " " : ", ") + NameText(description.names[i]);
        }
        if (listed < description.names.size()) {
            words += " and " + std::to_string(description.names.size() - listed) + " others";
        }
    }
    return words;
}

} // namespace

void Description::Check() const {
    Require(!type.empty() && type.size() <= LongestType, "its type is empty or too long");
    Require(std::all_of(type.begin(), type.end(), IsTypeCharacter),
            "its type has a character other than letters, digits, '.', '_' and '-'");
    Require(numerator > 0 && denominator > 0 && std::gcd(numerator, denominator) == 1,
            "its step is not a positive fraction in lowest terms");
    Require(type == "fixed" || !HasStep(*this), "only 'fixed' has a step");
    CheckLine(unit, LongestUnit, "its unit");
    Require(type == "enum" || names.empty(), "only 'enum' has names of values");
    Require(names.size() <= MostNames, "it has too many names");
    std::set<std::string_view> seen;
    for (std::size_t i = 0; i < names.size(); ++i) {
        Require(i == 0 || names[i - 1].value < names[i].value,
                "its names are not in the order of their values, or two have the same value");
        Require(!names[i].name.empty(), "a name is empty");
        CheckLine(names[i].name, LongestName, "a name");
        Require(seen.insert(names[i].name).second, "two values have the same name");
    }
    CheckLine(remark, LongestRemark, "its remark");
}

std::string Description::ToText() const {
    Check();
    std::string text = type;
    if (HasStep(*this)) {
        text.append(";").append(StepKey).append(StepText(*this));
    }
    if (!unit.empty()) {
        text.append(";").append(UnitKey);
        AppendLine(text, unit);
    }
    if (!names.empty()) {
        text.append(";").append(NamesKey);
        for (std::size_t i = 0; i < names.size(); ++i) {
            text.append(i == 0 ? "" : ",").append(std::to_string(names[i].value)).append(":");
            AppendLine(text, names[i].name);
        }
    }
    if (!remark.empty()) {
        text.append(";").append(RemarkKey);
        AppendLine(text, remark);
    }
    return text;
}

Description Description::FromText(std::string_view text) {
    Require(text.size() <= LongestText, "its text is too long");
    Description description;
    std::string_view rest = text;
    description.type = Take(rest, ';');
    while (!rest.empty()) {
        std::string_view part = Take(rest, ';');
        if (TakeKey(part, StepKey)) {
            description.numerator = ReadNumber(Take(part, '/'));
            description.denominator = ReadNumber(part);
        } else if (TakeKey(part, UnitKey)) {
            description.unit = ReadLine(part);
        } else if (TakeKey(part, NamesKey)) {
            while (!part.empty()) {
                std::string_view name = Take(part, ',');
                const std::int64_t value = ReadNumber(Take(name, ':'));
                description.names.push_back({value, ReadLine(name)});
            }
        } else if (TakeKey(part, RemarkKey)) {
            description.remark = ReadLine(part);
        } else {
            Fail("its text has an unknown part");
        }
    }
    // Finds parts that are repeated, empty, in another order, or written in another way.
    Require(description.ToText() == text, "its text is not the one that describes it");
    return description;
}

void CheckType(const Description& published, const Description& wanted) {
    std::string difference;
    if (wanted.type == published.type && !wanted.names.empty()) {
        for (const auto& named : published.names) {
            if (std::find(wanted.names.begin(), wanted.names.end(), named) == wanted.names.end()) {
                difference = ", without " + NameText(named);
                break;
            }
        }
    }
    if (published.type != wanted.type || published.numerator != wanted.numerator ||
        published.denominator != wanted.denominator || published.unit != wanted.unit || !difference.empty()) {
        throw TypeMismatchError(KnStatusInvalidArgument, "the values are published as " + InWords(published) +
                                                             ", and expected as " + InWords(wanted) + difference);
    }
}

namespace detail {

void ThrowNoValue(std::string_view type, std::int64_t bits) {
    throw std::out_of_range(std::to_string(bits) + " is no value of type " + std::string(type));
}

void ThrowOutOfRange(const char* sentence) {
    throw std::out_of_range(sentence);
}

void ThrowOverflow() {
    throw std::overflow_error("the sum or difference is out of the range of its fixed-point type");
}

Description DescribeEnum(std::vector<NamedValue> names) {
    std::sort(names.begin(), names.end(),
              [](const NamedValue& one, const NamedValue& other) { return one.value < other.value; });
    Description description;
    description.type = "enum";
    description.names = std::move(names);
    description.Check();
    return description;
}

} // namespace detail

} // namespace msgbus
