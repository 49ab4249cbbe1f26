#include "value_text.h"

#include "common/escape.h"
#include "instruments/described_value.h"

namespace look {

std::string ValueText(std::int64_t value, std::string_view description) {
    std::string text = std::to_string(value);
    if (const std::string meaning = instruments::DescribedText(description, value);
        !meaning.empty() && meaning != text) {
        text += " (" + common::Escaped(meaning) + ')';
    }
    return text;
}

} // namespace look
