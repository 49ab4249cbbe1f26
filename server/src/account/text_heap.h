#pragma once

#include "instruments/account_file.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string_view>

namespace msgbus_server {

/// Texts of any length in the account's text region. Threads: one at a time.
class TextHeap final {
public:
    explicit TextHeap(instruments::AccountFile& account) : file(account) {}

    /// Returns: where a copy of `bytes` lies; nothing when there is no room.
    std::optional<instruments::layout::Text> Add(std::string_view bytes);
    void Remove(instruments::layout::Text text);

private:
    instruments::AccountFile& file;
    std::uint32_t end = 0;                        ///< in words: what lies behind was never used
    std::map<std::uint32_t, std::uint32_t> taken; ///< offset to length, in words
    std::map<std::uint32_t, std::uint32_t> gaps;  ///< offset to length, in words; never side by side
};

} // namespace msgbus_server
