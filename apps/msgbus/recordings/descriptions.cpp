#include "recordings/descriptions.h"

#include "look/account_source.h"

namespace recordings {

Descriptions DescriptionsOnTheBus() {
    Descriptions descriptions;
    try {
        const auto snapshot = look::AccountSource(std::nullopt).Read(instruments::AccountReader::Depth::WithoutLatency);
        for (const auto& description : snapshot.descriptions) {
            descriptions[description.topic] = description.text;
        }
    } catch (const std::exception&) { // Justified: a server without an account describes nothing.
    }
    return descriptions;
}

bool IsDouble(std::string_view description) {
    return description == "float64" || description.starts_with("float64;");
}

} // namespace recordings
