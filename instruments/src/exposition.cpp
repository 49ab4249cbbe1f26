#include "exposition.h"

#include <array>
#include <charconv>
#include <cmath>

namespace instruments {

namespace {

void AppendLabelValue(std::string& text, std::string_view value) {
    for (const char c : value) {
        if (c == '\n') {
            text += "\\n";
            continue;
        }
        if (c == '\\' || c == '"') {
            text += '\\';
        }
        text += c;
    }
}

} // namespace

void Exposition::Family(std::string_view name, std::string_view type, std::string_view help) {
    family = name;
    text.append("# TYPE ").append(name).append(" ").append(type).append("\n");
    for (const std::string_view unit : {"seconds", "bytes"}) {
        if (name.ends_with(unit)) {
            text.append("# UNIT ").append(name).append(" ").append(unit).append("\n");
        }
    }
    text.append("# HELP ").append(name).append(" ").append(help).append("\n");
}

std::string Exposition::ToText(double value) {
    if (std::isnan(value)) {
        return "NaN";
    }
    if (std::isinf(value)) {
        return value < 0 ? "-Inf" : "+Inf";
    }
    constexpr std::size_t longest = 32;
    std::array<char, longest> digits{};
    const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), value).ptr;
    return {digits.data(), end};
}

std::string Exposition::End() && {
    text += "# EOF\n";
    return std::move(text);
}

void Exposition::SampleOf(std::string_view suffix, Labels labels, std::string_view value) {
    text.append(family).append(suffix);
    char before = '{';
    for (const auto& [name, content] : labels) {
        text += before;
        text.append(name).append("=\"");
        AppendLabelValue(text, content);
        text += '"';
        before = ',';
    }
    if (labels.size() != 0) {
        text += '}';
    }
    text.append(" ").append(value).append("\n");
}

} // namespace instruments
