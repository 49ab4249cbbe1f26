#pragma once

#include "bos/logger.h"
#include "common/log_origin.h"

#include <algorithm>
#include <atomic>
#include <string>
#include <string_view>

namespace msgbus_server {

/// The minimum level of the records of each origin: that of a LogLevel, or LogThreshold::Off.
struct LogThresholds {
    int bus = static_cast<int>(bos::logger::LogLevel::Warning); ///< the library has a line for each client at Info
    int server = static_cast<int>(bos::logger::LogLevel::Info);

    /// Changes what `text` names: "LEVEL" for both, "bus=LEVEL", "server=LEVEL", or several of them between commas, of
    /// which the last counts. A level is debug, info, warning, error or off, or its number.
    /// Returns: empty, or what is wrong, as a sentence; then nothing is changed.
    std::string Set(std::string_view text);

    /// Returns: a text for Set that makes all thresholds the same as these.
    std::string ToText() const;

    /// Returns: whether any origin may write records of `level`.
    bool IsEnabled(bos::logger::LogLevel level) const noexcept {
        return static_cast<int>(level) >= std::min(bus, server);
    }

    bool operator==(const LogThresholds&) const = default;
};

/// Puts itself before the logger's back end for as long as it lives: only records that reach the threshold of their
/// origin are written.
class LogThreshold final : public bos::logger::ILogBackEnd {
public:
    static constexpr int Off = 5; ///< above every level

    explicit LogThreshold(const LogThresholds& thresholds);
    LogThreshold(const LogThreshold&) = delete;
    LogThreshold& operator=(const LogThreshold&) = delete;
    /// Requires: no log call under way on another thread.
    ~LogThreshold() override;

    /// Threads: any.
    void Set(const LogThresholds& thresholds) noexcept;

    /// Returns: whether a record of any origin may have this level: a log call does not name its source yet.
    bool IsEnabled(bos::logger::LogLevel level) const override;
    void Write(bos::logger::LogLevel level, const char* file, int line, const char* function,
               const std::string& message) override;

private:
    // relaxed: which of two concurrent records still passes does not matter
    std::atomic<int> bus;
    std::atomic<int> server;
    bos::logger::ILogBackEnd& next;
};

} // namespace msgbus_server
