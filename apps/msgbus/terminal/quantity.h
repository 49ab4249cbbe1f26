#pragma once

#include <cstdint>
#include <string>

// Quantities as people read them, without spaces, so that a column is a word.

namespace terminal {

/// Returns: nanoseconds in the largest unit that suits, with three digits: "0s", "850ns", "1.25ms", "32.1s", "4m05s",
/// "3h20m", "12d03h". What is below zero counts as zero.
std::string Duration(std::int64_t nanoseconds);

/// Returns: how long before `now` it was, as Duration; "-" when `at` is 0, which stands for never.
std::string Age(std::int64_t now, std::int64_t at);

/// Returns: a rate with one decimal, such as "1250.0"; "0" when there is none.
std::string Rate(double perSecond);

/// Returns: a count in at most six columns: "98765", "123k", "1.25M".
std::string Short(std::uint64_t count);

/// Returns: a size, such as "12.5MB".
std::string Bytes(std::uint64_t bytes);

/// Returns: a time in UTC as ISO 8601, such as "2026-11-22T19:08:28.123Z"; "-" when `at` is 0, which stands for never.
/// `at`: of CLOCK_MONOTONIC; `clockOffset`: from there to CLOCK_REALTIME.
std::string UtcTime(std::int64_t at, std::int64_t clockOffset);

} // namespace terminal
