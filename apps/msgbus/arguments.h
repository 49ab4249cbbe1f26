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
    std::string description; ///< Options::description
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

/// Runs `msgbus pub`: registers, publishes, unregisters.
/// Throws: what the client library throws; std::invalid_argument for a bad value; std::system_error.
ExitStatus Publish(const PublishArguments& arguments);

/// Runs `msgbus sub`: subscribes, prints, unregisters.
/// Throws: what the client library throws; std::system_error.
ExitStatus Receive(const ReceiveArguments& arguments);

/// Prints `sentence` on stderr, as one line that begins with the program's name; what it quotes is escaped.
void Say(std::string_view sentence);

/// Parses a decimal 64-bit integer.
/// Throws: std::invalid_argument with a sentence.
std::int64_t ParseValue(std::string_view text);

/// Parses a decimal number that is at least 1.
/// Throws: std::invalid_argument with a sentence.
std::uint64_t ParseCount(std::string_view text);

/// Parses a number with unit ms, s, m or h; without a unit it means seconds. From 1 ms to 1e12 ms.
/// Throws: std::invalid_argument with a sentence.
std::chrono::milliseconds ParseDuration(std::string_view text);

/// Prints a warning on stderr if subscribers will receive `topic` truncated.
void WarnAboutCutTopic(const std::string& topic);
