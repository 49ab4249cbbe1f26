#pragma once

#include "bos/logger.h"

#include <atomic>

namespace msgbus_server {

/// Leaves out the receive errors that a stop causes itself: every thread blocked in receive reports one when receiving
/// stops. Everything else passes, at any time, but a reply to a client that is gone is no error of the server: its
/// record passes at Debug. Stands before the logger's back end as long as it exists.
class ClosingLogFilter final : public bos::logger::ILogBackEnd {
public:
    ClosingLogFilter();
    ClosingLogFilter(const ClosingLogFilter&) = delete;
    ClosingLogFilter& operator=(const ClosingLogFilter&) = delete;
    /// Requires: no log call under way on another thread.
    ~ClosingLogFilter() override;

    /// From now on receive errors are expected, or no longer. Threads: any.
    void SetClosing(bool closing) noexcept { isClosing.store(closing, std::memory_order_relaxed); }

    bool IsEnabled(bos::logger::LogLevel level) const override;
    void Write(bos::logger::LogLevel level, const char* file, int line, const char* function,
               const std::string& message) override;

private:
    std::atomic<bool> isClosing{false}; // relaxed: the closing itself orders it before the errors that it causes
    bos::logger::ILogBackEnd& next;
};

} // namespace msgbus_server
