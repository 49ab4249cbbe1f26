#pragma once

#include "end_watch.h"

#include <optional>
#include <string>

namespace publish {

/// The lines of standard input, until it or the program ends.
class InputLines final {
public:
    /// Lifetime: `endWatch` must outlive this object.
    explicit InputLines(const EndWatch& endWatch) : watch(endWatch) {}

    /// Returns: the next line without its end, LF or CR LF; nothing at the end of the input or when the program is to
    /// end. Throws: std::system_error; std::invalid_argument for a line that is too long.
    /// Blocks: until a line is there, the input ends or the program is to end.
    std::optional<std::string> Next();

private:
    bool Read();

    const EndWatch& watch;
    std::string pending;
    std::size_t taken = 0; ///< of `pending`
};

} // namespace publish
