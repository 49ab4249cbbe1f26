#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

// What the commands have in common about the words on their command lines. Each Parse function throws
// std::invalid_argument with a sentence.

/// Prints `sentence` on stderr, as one line that begins with the program's name; what it quotes is escaped.
void Say(std::string_view sentence);

/// Parses a 64-bit integer: a decimal one, or 0x and up to 16 hexadecimal digits, which are its bits.
std::int64_t ParseValue(std::string_view text);

/// Parses a decimal number that is at least 1.
std::uint64_t ParseCount(std::string_view text);

/// Parses a number with unit ms, s, m or h; without a unit it means seconds. From 1 ms to 1e12 ms.
std::chrono::milliseconds ParseDuration(std::string_view text);

/// Parses a number of events per second, from one a day to 1e6. Returns: the time between two.
std::chrono::nanoseconds ParseRate(std::string_view text);

/// Parses a number of bytes with k, M or G, which stand for powers of 1024; at least 1.
std::uint64_t ParseSize(std::string_view text);
/// Returns: whether the text ends like a size with a unit, and not like a duration.
bool IsSize(std::string_view text);

/// Throws: std::invalid_argument when no topic is called `topic`.
void RequireTopic(const std::string& topic);

/// Prints a warning on stderr if subscribers will receive `topic` truncated.
void WarnAboutCutTopic(const std::string& topic);
