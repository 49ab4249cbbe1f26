#pragma once

#include "exit_status.h"
#include "msgbus/options.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// `msgbus pub`
struct PublishArguments {
    msgbus::Options options;
    std::string topic;
    std::vector<std::string> values;
    bool fromInput = false;
    bool verbose = false;
};

/// `msgbus sub`
struct ReceiveArguments {
    msgbus::Options options;
    std::vector<std::string> topics;
    std::string name;
    std::optional<std::uint64_t> count;
    std::optional<std::chrono::milliseconds> timeLimit;
    bool json = false;
};

/// Registers, publishes, unregisters. Throws what the client library throws.
ExitStatus Publish(const PublishArguments& arguments);

/// Subscribes, prints, unregisters. Throws what the client library throws.
ExitStatus Receive(const ReceiveArguments& arguments);

/// Writes `sentence` to stderr as one line of this program.
void Say(std::string_view sentence);

/// Throws: std::invalid_argument with a sentence.
std::int64_t ParseValue(std::string_view text);

/// At least 1.
/// Throws: std::invalid_argument with a sentence.
std::uint64_t ParseCount(std::string_view text);

/// A number with one of the units ms, s (also without), m and h.
/// Throws: std::invalid_argument with a sentence.
std::chrono::milliseconds ParseDuration(std::string_view text);

/// Says so on stderr when `topic` will not arrive whole.
void WarnAboutCutTopic(const std::string& topic);
