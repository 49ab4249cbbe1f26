#pragma once

#include "bos/logger.h"

#include <string_view>

namespace msgbus_server {

/// Exit status of a server that has ended because it could not go on for all of its clients. A service manager starts
/// it again.
inline constexpr int FaultStatus = 5;

/// Ends the process at once with FaultStatus, behind one line on standard error with `reason`. Allocates nothing; a
/// standard error that accepts nothing gets no line. Threads: any; the first one's reason counts.
[[noreturn]] void FailStop(std::string_view reason) noexcept;

/// From now on the process ends by FailStop when an allocation fails, and where the runtime would abort it because of
/// an exception. A log file that reaches the limit of its size is only a failed write. Threads: to be called before any
/// thread is started.
void FailStopOnFaults();

/// From now on an allocation that fails on the calling thread throws std::bad_alloc in place of ending the process: for
/// a thread that the bus does without, and that handles it.
void LetAllocationsFail() noexcept;

/// Watches the log for the end of a thread without which the bus does not serve: its own library reports that by a line
/// at level error only, and then goes on. Stands before the logger's back end as long as it exists, and sees these
/// lines at every level.
class FaultWatch final : public bos::logger::ILogBackEnd {
public:
    /// `faultAction` is called with a sentence, once the line is written, on the thread that wrote it.
    explicit FaultWatch(void (*faultAction)(std::string_view reason) noexcept);
    FaultWatch(const FaultWatch&) = delete;
    FaultWatch& operator=(const FaultWatch&) = delete;
    /// Requires: no log call under way on another thread.
    ~FaultWatch() override;

    bool IsEnabled(bos::logger::LogLevel level) const override;
    void Write(bos::logger::LogLevel level, const char* file, int line, const char* function,
               const std::string& message) override;

private:
    void (*const onFault)(std::string_view reason) noexcept;
    bos::logger::ILogBackEnd& next;
};

} // namespace msgbus_server
