#pragma once

#include <string>

namespace msgbus {

/// Sends the server the description of a topic that this process has just been registered as the publisher of.
/// `description`: see Options::description. What becomes of it is not waited for: values go their way without it.
/// Blocks: never. Threads: any.
void DeclareDescription(const std::string& topic, const std::string& description) noexcept;

} // namespace msgbus
