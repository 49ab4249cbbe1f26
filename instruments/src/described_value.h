#pragma once

#include <cstdint>
#include <string_view>

namespace instruments {

/// Returns: the number that the 64 bits of a value stand for by its topic's description, in the text form of
/// msgbus/codec.h; times are in seconds. Without a description that is understood: the bits as an integer.
double DescribedValue(std::string_view description, std::int64_t bits) noexcept;

} // namespace instruments
