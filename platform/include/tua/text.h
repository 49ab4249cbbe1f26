#pragma once

#include <string>
#include <string_view>

namespace tua::text {

/// Converts between the encodings of text: UTF-16 to UTF-8 and back. Code units that are not valid become U+FFFD.
template <typename To, typename From>
To Cast(From from);

template <>
std::string Cast<std::string>(std::u16string_view from);
template <>
std::u16string Cast<std::u16string>(std::string_view from);

} // namespace tua::text
