#pragma once

#include "bos/logger.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace borven_host {

/// How many records each log site may write, so that a client that can cause a record cannot fill a disk with it. A
/// site is a file and a line.
///
/// A site writes up to `Burst` records within a span, which begins with a record and lasts a second. It counts the
/// others, and reports them with its last one when the span is over. Then its next span is twice as long, up to a
/// minute, until one passes in which it writes everything. The first record of a site is always written, whatever
/// others do.
///
/// Threads: one at a time; the caller's lock guards it.
class LogLimit final {
public:
    using Clock = std::chrono::steady_clock;

    static constexpr unsigned Burst = 20;
    static constexpr std::chrono::seconds FirstSpan{1};
    static constexpr std::chrono::seconds LongestSpan{60};
    /// More than any program here has. Past it, sites that have nothing to report are forgotten; if there is none, the
    /// new one is not limited.
    static constexpr std::size_t MaxSites = 512;
    static constexpr std::size_t MaxTextSize = 200; ///< bytes of the last record that are kept for the report

    struct Record {
        bos::logger::LogLevel level;
        std::string_view file;
        int line;
        std::string_view function;
        std::string_view text;
    };

    /// How many records a site has left out.
    struct Report {
        bos::logger::LogLevel level; ///< this and the next three: of the site's last record
        std::string file;
        int line;
        std::string function;
        std::string text; ///< of the report itself
    };

    /// Returns: whether `record` is to be written; false: it is counted.
    bool Admit(const Record& record, Clock::time_point now);

    /// Returns: whether Take has anything to return. Costs a comparison.
    bool IsDue(Clock::time_point now) const noexcept { return now >= nextReport; }

    /// Returns: a report of each site whose span is over by `now`; Clock::time_point::max() for all.
    std::vector<Report> Take(Clock::time_point now);

    /// Forgets what was counted.
    void Clear() noexcept;

private:
    struct Site {
        Clock::time_point end; ///< of the span
        Clock::duration span;
        unsigned written = 0;
        std::uint64_t leftOut = 0;
        Report last{};
    };

    Site* Find(const Record& record, Clock::time_point now);

    std::unordered_map<std::uint64_t, Site> sites; ///< by a hash of file and line
    Clock::time_point nextReport = Clock::time_point::max();
};

} // namespace borven_host
