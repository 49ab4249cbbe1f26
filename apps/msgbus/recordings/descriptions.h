#pragma once

#include <functional>
#include <map>
#include <string>
#include <string_view>

namespace recordings {

/// What the values of topics mean, by topic, in the text form of msgbus/codec.h.
using Descriptions = std::map<std::string, std::string, std::less<>>;

/// Returns: the descriptions of the topics on the bus; nothing of a server without an account.
Descriptions DescriptionsOnTheBus();

/// Returns: whether values that are described so are doubles, which travel by their bits.
bool IsDouble(std::string_view description);

} // namespace recordings
