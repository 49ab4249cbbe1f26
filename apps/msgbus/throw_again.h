#pragma once

#include <functional>
#include <string>

/// Throws what is being handled again, as the same type as far as the exit status depends on it, with the sentence that
/// `complete` makes of its own. Requires: an exception is being handled.
[[noreturn]] void ThrowAgain(const std::function<std::string(const std::string&)>& complete);
