#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace instruments {

// What the 64 bits of a value stand for by its topic's description, in the text form of msgbus/codec.h. Threads: any.

/// Returns: the number; times are in seconds. Without a description that is understood: the bits as an integer.
double DescribedValue(std::string_view description, std::int64_t bits) noexcept;

/// Returns: the number or the name with its unit, for example "21.5 V", "true" or "2026-01-31T12:00:00.000000000Z".
/// Empty without a description that is understood, and for a value that stands for nothing by its description.
std::string DescribedText(std::string_view description, std::int64_t bits);

} // namespace instruments
