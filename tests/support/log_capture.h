#pragma once

#include "bos/logger.h"

#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace test_support {

/// Log back end that keeps every record in the journal, and fails where a test says so.
/// Installed as long as it lives. All levels are enabled at first.
class LogCapture final : public bos::logger::ILogBackEnd {
public:
    LogCapture();
    ~LogCapture() override;
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    /// Enables `level` and what is above it; 5 disables all.
    void SetThreshold(int level);

    /// Called, without a lock, before each record whose line begins with `linePrefix` is kept. If it throws, the
    /// record is not kept and the log call throws.
    void Before(std::string linePrefix, std::function<void()> action);

    /// How often a log site has asked whether a level is enabled.
    std::size_t LevelTests() const;

    bool IsEnabled(bos::logger::LogLevel level) const override;
    void Write(bos::logger::LogLevel level, const char* file, int line, const char* function,
               const std::string& message) override;

private:
    struct Hook {
        std::string linePrefix;
        std::function<void()> action;
    };

    bos::logger::ILogBackEnd& previous;
    mutable std::mutex mutex; // guards all below
    mutable std::size_t levelTests = 0;
    int threshold = 1;
    std::vector<Hook> hooks;
};

} // namespace test_support
