#pragma once

#include "bos/logger.h"

#include <atomic>

namespace msgbus_server {

/// Puts itself before the logger's back end for as long as it lives: only records of `level` and above are written.
class LogThreshold final : public bos::logger::ILogBackEnd {
public:
    static constexpr int Off = 5; ///< above every level

    explicit LogThreshold(int level);
    LogThreshold(const LogThreshold&) = delete;
    LogThreshold& operator=(const LogThreshold&) = delete;
    /// Requires: no log call under way on another thread.
    ~LogThreshold() override;

    /// Threads: any.
    void Set(int level) noexcept { threshold.store(level, std::memory_order_relaxed); }

    bool IsEnabled(bos::logger::LogLevel level) const override;
    void Write(bos::logger::LogLevel level, const char* file, int line, const char* function,
               const std::string& message) override;

private:
    std::atomic<int> threshold; // relaxed: which of two concurrent records still passes does not matter
    bos::logger::ILogBackEnd& next;
};

} // namespace msgbus_server
