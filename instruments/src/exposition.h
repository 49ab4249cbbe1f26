#pragma once

#include <concepts>
#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>

namespace instruments {

/// Writes the text format of OpenMetrics 1.0: families of metrics, each with its samples.
class Exposition final {
public:
    using Label = std::pair<std::string_view, std::string_view>;
    using Labels = std::initializer_list<Label>;

    /// Begins a family; the samples behind it belong to it. A `name` that ends in _seconds or _bytes has this unit.
    void Family(std::string_view name, std::string_view type, std::string_view help);

    /// `suffix`: behind the name of the family, such as "_total". Label values may be any UTF-8.
    template <std::integral Integer>
    void Sample(std::string_view suffix, Labels labels, Integer value) {
        SampleOf(suffix, labels, std::to_string(value));
    }
    void Sample(std::string_view suffix, Labels labels, double value) { SampleOf(suffix, labels, ToText(value)); }

    /// Returns: a number in the shortest form that stands for it.
    static std::string ToText(double value);

    /// Ends the text. Returns: all of it.
    std::string End() &&;

private:
    void SampleOf(std::string_view suffix, Labels labels, std::string_view value);

    std::string text;
    std::string family;
};

} // namespace instruments
