#pragma once

#include "base/unique_fd.h"
#include "bos/logger.h"

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <sys/types.h>

namespace borven_host {

/// Writes each record as one line to standard error: time (UTC), level, thread, file:line, function, message.
///
/// No caller ever waits for the reader of the stream. A pipe or terminal is opened a second time without blocking,
/// because the flag on the inherited description would change the stream for every process that shares it. What does
/// not fit is dropped and counted; the next line that fits says how many were lost.
class StderrLog final : public bos::logger::ILogBackEnd {
public:
    /// The one of this process. Never destroyed: threads may log until the process is gone.
    static StderrLog& Instance();

    bool IsEnabled(bos::logger::LogLevel level) const override;
    void Write(bos::logger::LogLevel level, const char* file, int line, const char* function,
               const std::string& message) override;

    void SetThreshold(bos::logger::LogLevel lowest) noexcept;

private:
    enum class Stream { Closed, File, Reopened, Socket, Shared };

    StderrLog();

    void Follow();
    bool Put(std::string_view bytes);
    ssize_t WriteSome(std::string_view bytes) const;
    void Emit(std::string line);
    void Flush();

    std::atomic<int> threshold{static_cast<int>(bos::logger::LogLevel::Info)};

    std::mutex mutex; ///< guards everything below
    dev_t device = 0;
    ino_t inode = 0;
    Stream stream = Stream::Closed;
    UniqueFd reopened;
    bool isColoured = false;
    std::string rest; ///< of a line of which the stream took only a part
    std::uint64_t dropped = 0;
};

} // namespace borven_host
