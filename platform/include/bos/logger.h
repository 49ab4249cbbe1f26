#pragma once

#include <atomic>
#include <string>

namespace bos::logger {

/// Log sites and back ends exchange the numbers.
enum class LogLevel : int {
    Debug = 1,   ///< detail of single operations
    Info = 2,    ///< life of services and threads
    Warning = 3, ///< a request refused or dropped without harm to the server
    Error = 4,   ///< failures
};

/// How the platform's own back end writes a record.
enum class LogFormat : int {
    Auto,    ///< Journal when the output goes to the system's journal, else Text
    Text,    ///< for people: with the time, as RFC 3339 has it
    Journal, ///< with a priority that the journal reads, and no time
    Json,    ///< one object a line
};

/// Where log records go.
///
/// Contract:
/// - Both operations may be called from any thread at once; records never mix.
/// - A record that cannot be written (blocked, closed or full output) is dropped and counted, never waited for.
class ILogBackEnd {
public:
    virtual ~ILogBackEnd() = default;

    virtual bool IsEnabled(LogLevel level) const = 0;
    virtual void Write(LogLevel level, const char* file, int line, const char* function,
                       const std::string& message) = 0;
};

/// The process-wide logger.
class BOSLogger {
public:
    /// The logger of this process, with the platform's back end until another one is set.
    static BOSLogger& RootLogger();

    ~BOSLogger() = default;
    BOSLogger(const BOSLogger&) = delete;
    BOSLogger& operator=(const BOSLogger&) = delete;

    bool IsEnabled(LogLevel level) const { return backEnd.load(std::memory_order_acquire)->IsEnabled(level); }

    /// Writes one record, whatever its level.
    void LogImpl(LogLevel level, const char* file, int line, const char* function, std::string& message);

    /// Sets the minimum level of the platform's own back end: it writes no record below `lowest`, which is Info until
    /// this is called. Other back ends have their own rules.
    /// Threads: any.
    static void SetThreshold(LogLevel lowest) noexcept;

    /// Sets the format of the platform's own back end, which is Auto until this is called. Threads: any.
    static void SetFormat(LogFormat format) noexcept;

    /// Returns: the format that a record would have now; not Auto. Threads: any.
    static LogFormat Format() noexcept;

    /// Returns: the back end used until now.
    /// Lifetime: `next` must outlive every log call; the caller keeps it.
    ILogBackEnd& SetBackEnd(ILogBackEnd& next) { return *backEnd.exchange(&next, std::memory_order_acq_rel); }

private:
    explicit BOSLogger(ILogBackEnd& first) : backEnd(&first) {}

    std::atomic<ILogBackEnd*> backEnd;
};

} // namespace bos::logger
