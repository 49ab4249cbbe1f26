#pragma once

#include <string>
#include <string_view>

namespace server_access {

struct MonitorAnswer {
    unsigned status = 0; ///< of HTTP
    std::string body;

    /// Returns: the sentence of an answer that is an error.
    std::string Reason() const;
};

/// Sends a request without a body to the server's monitor. `target`: path and query. Throws: ServerAwayError.
/// Blocks: for at most 5 s.
MonitorAnswer AskMonitor(const std::string& method, const std::string& target);

/// Returns: the bytes as a part of a target.
std::string Percents(std::string_view bytes);

} // namespace server_access
