#pragma once

#include "bus_options.h"
#include "command_line/command.h"
#include "topics/subscription.h"

#include <memory>
#include <string>
#include <vector>

namespace topics {

/// The topics of a command line.
struct Selection {
    std::vector<std::string> named;
    std::vector<std::string> globs; ///< of further topics, those that are there and those that come

    /// Throws: std::invalid_argument, for a wrong pattern, and when there is neither.
    void Check() const;
};

/// The words of the command line for that.
class SelectionWords final {
public:
    /// Adds TOPIC, --topic and --match. Lifetime: this object must outlive the parsing.
    void AddTo(command_line::Command& command);
    /// Throws: std::invalid_argument.
    Selection Resolve() const;

private:
    std::vector<std::string> arguments, topics, globs;
};

/// Subscribes to the topics that were named and those that match. Reports new topics on stderr, unless only errors are
/// wanted. Throws: as msgbus::Subscriber; std::runtime_error when there are patterns and the server keeps no account.
std::unique_ptr<Subscription> Subscribe(const BusAccess& access, const std::string& name, const Selection& selection);

/// What the help says of --match.
extern const char* const MatchDescription;

} // namespace topics
