#pragma once

#include "base/log_limit.h"
#include "base/unique_fd.h"
#include "bos/logger.h"
#include "common/mutex.h"

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <string_view>

namespace borven_host {

/// Writes each record as one line to standard error, in a format that LineOf describes.
///
/// No caller waits for the reader of the stream. A pipe or terminal is opened a second time without blocking, because
/// the flag on the inherited description would change the stream for every process that shares it. A record that the
/// stream does not accept is dropped and counted; the next line that it accepts reports the number.
///
/// Each log site is limited (LogLimit), but for Debug, which is off unless every step is wanted. What was suppressed is
/// reported with the first record after the site's span, of any site, or at exit. BORVEN_LOG_LIMIT=off in the
/// environment of the process, read at its first record, switches the limit off.
class StderrLog final : public bos::logger::ILogBackEnd {
public:
    /// Never destroyed: threads may log until the process has exited.
    static StderrLog& Instance();

    bool IsEnabled(bos::logger::LogLevel level) const override;
    void Write(bos::logger::LogLevel level, const char* file, int line, const char* function,
               const std::string& message) override;

    void SetThreshold(bos::logger::LogLevel lowest) noexcept;
    void SetFormat(bos::logger::LogFormat wanted) noexcept;
    bos::logger::LogFormat Format() EXCLUDES(mutex);

private:
    enum class Stream { Closed, File, Reopened, Socket, Shared };

    StderrLog();

    static void BeforeFork();
    static void AfterForkInParent();
    static void AfterForkInChild();

    void WriteLine(const LogLimit::Record& record) EXCLUDES(mutex);
    void EmitLine(const LogLimit::Record& record) REQUIRES(mutex);
    bos::logger::LogFormat CurrentFormat() const REQUIRES(mutex);
    void Follow() REQUIRES(mutex);
    bool Put(std::string_view bytes) REQUIRES(mutex);
    ssize_t WriteSome(std::string_view bytes) const REQUIRES(mutex);
    void Emit(std::string line) REQUIRES(mutex);
    void Flush() EXCLUDES(mutex);

    const bool isLimited;

    std::atomic<int> threshold{static_cast<int>(bos::logger::LogLevel::Info)};
    std::atomic<bos::logger::LogFormat> format{bos::logger::LogFormat::Auto}; // relaxed, as the one above: a setting

    common::Mutex mutex;
    LogLimit limit GUARDED_BY(mutex);
    dev_t device GUARDED_BY(mutex) = 0;
    ino_t inode GUARDED_BY(mutex) = 0;
    Stream stream GUARDED_BY(mutex) = Stream::Closed;
    UniqueFd reopened GUARDED_BY(mutex);
    bool isColoured GUARDED_BY(mutex) = false;
    bool isJournal GUARDED_BY(mutex) = false; ///< JOURNAL_STREAM names standard error as it is now
    std::string rest GUARDED_BY(mutex);       ///< of a line that the stream accepted in part
    std::uint64_t dropped GUARDED_BY(mutex) = 0;
};

} // namespace borven_host
