#include "base/stderr_log.h"

#include "base/log_line.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>

namespace borven_host {

using bos::logger::LogFormat;
using bos::logger::LogLevel;

namespace {

LogLimit::Record RecordOf(const LogLimit::Report& report) {
    return {report.level, report.file, report.line, report.function, report.text};
}

bool IsSwitchedOff() {
    const char* const setting = ::secure_getenv("BORVEN_LOG_LIMIT");
    return setting != nullptr && std::string_view(setting) == "off";
}

/// Returns: whether standard error, with this device and inode, is connected to the journal, see systemd.exec(5).
bool IsJournal(dev_t device, ino_t inode) {
    const char* const setting = ::secure_getenv("JOURNAL_STREAM");
    return setting != nullptr && std::to_string(device) + ':' + std::to_string(inode) == setting;
}

/// Writes without SIGPIPE, which a pipe without reader would raise.
ssize_t WriteWithoutSignal(int fd, std::string_view bytes) {
    sigset_t brokenPipe;
    sigset_t pending;
    sigset_t before;
    ::sigemptyset(&brokenPipe);
    ::sigaddset(&brokenPipe, SIGPIPE);
    ::sigpending(&pending);
    const bool wasPending = ::sigismember(&pending, SIGPIPE) == 1;
    ::pthread_sigmask(SIG_BLOCK, &brokenPipe, &before);
    const ssize_t count = ::write(fd, bytes.data(), bytes.size());
    const int error = errno;
    if (count < 0 && error == EPIPE && !wasPending) {
        const timespec now{};
        ::sigtimedwait(&brokenPipe, nullptr, &now);
    }
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    errno = error;
    return count;
}

} // namespace

StderrLog& StderrLog::Instance() {
    static StderrLog& log = *new StderrLog;
    return log;
}

StderrLog::StderrLog() : isLimited(!IsSwitchedOff()) {
    ::pthread_atfork(&StderrLog::BeforeFork, &StderrLog::AfterForkInParent, &StderrLog::AfterForkInChild);
    std::atexit([] { Instance().Flush(); });
}

// The lock is held from the first of these functions to the second or third, which the analysis cannot follow.

void StderrLog::BeforeFork() NO_THREAD_SAFETY_ANALYSIS {
    Instance().mutex.Lock();
}

void StderrLog::AfterForkInParent() NO_THREAD_SAFETY_ANALYSIS {
    Instance().mutex.Unlock();
}

void StderrLog::AfterForkInChild() NO_THREAD_SAFETY_ANALYSIS {
    // The parent writes these; the child must not write them again.
    Instance().limit.Clear();
    Instance().rest.clear();
    Instance().dropped = 0;
    Instance().mutex.Unlock();
}

bool StderrLog::IsEnabled(LogLevel level) const {
    return static_cast<int>(level) >= threshold.load(std::memory_order_relaxed);
}

void StderrLog::SetThreshold(LogLevel lowest) noexcept {
    threshold.store(static_cast<int>(lowest), std::memory_order_relaxed);
}

void StderrLog::SetFormat(LogFormat wanted) noexcept {
    format.store(wanted, std::memory_order_relaxed);
}

LogFormat StderrLog::Format() {
    const common::MutexLock lock(mutex);
    Follow();
    return CurrentFormat();
}

LogFormat StderrLog::CurrentFormat() const {
    const LogFormat chosen = format.load(std::memory_order_relaxed);
    return chosen != LogFormat::Auto ? chosen : isJournal ? LogFormat::Journal : LogFormat::Text;
}

void StderrLog::Write(LogLevel level, const char* file, int line, const char* function, const std::string& message) {
    const LogLimit::Record record{level, file, line, function, message};
    if (isLimited && level != LogLevel::Debug) {
        std::vector<LogLimit::Report> reports;
        bool isAdmitted = false;
        {
            const auto now = LogLimit::Clock::now();
            const common::MutexLock lock(mutex);
            if (limit.IsDue(now)) {
                reports = limit.Take(now);
            }
            isAdmitted = limit.Admit(record, now);
        }
        for (const auto& report : reports) {
            WriteLine(RecordOf(report));
        }
        if (!isAdmitted) {
            return;
        }
    }
    WriteLine(record);
}

void StderrLog::WriteLine(const LogLimit::Record& record) {
    const common::MutexLock lock(mutex);
    Follow();
    EmitLine(record);
}

void StderrLog::EmitLine(const LogLimit::Record& record) {
    const LogFormat wanted = CurrentFormat();
    std::string text = LineOf(record, wanted);
    const char* const colour = ColourOf(record.level);
    if (isColoured && wanted == LogFormat::Text && *colour != '\0') {
        text = colour + text + "\x1b[0m";
    }
    text += '\n';
    Emit(std::move(text));
}

/// Finds out what standard error is now: a program may replace it while it runs.
void StderrLog::Follow() {
    struct stat now {};
    if (::fstat(STDERR_FILENO, &now) != 0) {
        stream = Stream::Closed;
        isJournal = false;
        device = 0;
        inode = 0;
        return;
    }
    if (stream != Stream::Closed && now.st_dev == device && now.st_ino == inode) {
        return;
    }
    device = now.st_dev;
    inode = now.st_ino;
    isJournal = IsJournal(device, inode);
    rest.clear();
    reopened.Reset();
    isColoured = false;
    if (S_ISREG(now.st_mode)) {
        stream = Stream::File;
        return;
    }
    if (S_ISSOCK(now.st_mode)) {
        stream = Stream::Socket;
        return;
    }
    reopened = UniqueFd(::open("/proc/self/fd/2", O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    stream = reopened ? Stream::Reopened : Stream::Shared;
    const char* terminal = std::getenv("TERM");
    isColoured = ::isatty(STDERR_FILENO) == 1 && std::getenv("NO_COLOR") == nullptr && terminal != nullptr &&
                 std::string_view(terminal) != "dumb";
}

/// Returns: what write returns.
ssize_t StderrLog::WriteSome(std::string_view bytes) const {
    switch (stream) {
    case Stream::File:
        return ::write(STDERR_FILENO, bytes.data(), bytes.size());
    case Stream::Socket:
        return ::send(STDERR_FILENO, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    case Stream::Reopened:
        return WriteWithoutSignal(reopened.Get(), bytes);
    case Stream::Shared: {
        // A stream that polls as writable accepts this much without blocking.
        constexpr std::size_t piece = 512;
        pollfd writable{STDERR_FILENO, POLLOUT, 0};
        if (::poll(&writable, 1, 0) != 1 || (writable.revents & POLLOUT) == 0) {
            errno = EAGAIN;
            return -1;
        }
        return WriteWithoutSignal(STDERR_FILENO, bytes.substr(0, piece));
    }
    case Stream::Closed:
        break;
    }
    errno = EBADF;
    return -1;
}

/// Writes `bytes`. When the stream accepts a part, the remainder is kept and goes first next time.
/// Returns: false when the stream accepted nothing.
bool StderrLog::Put(std::string_view bytes) {
    bool hasBegun = false;
    while (!bytes.empty()) {
        const ssize_t count = WriteSome(bytes);
        if (count > 0) {
            hasBegun = true;
            bytes.remove_prefix(static_cast<std::size_t>(count));
        } else if (count == 0 || errno != EINTR) {
            break;
        }
    }
    if (hasBegun) {
        rest = bytes;
    }
    return hasBegun;
}

void StderrLog::Emit(std::string line) {
    if (!rest.empty() && (!Put(std::string(rest)) || !rest.empty())) {
        ++dropped;
        return;
    }
    if (dropped != 0) {
        line.insert(0, LineOfDropped(dropped, CurrentFormat()) + '\n');
    }
    if (line.empty()) {
        return;
    }
    if (Put(line)) {
        dropped = 0;
    } else {
        ++dropped;
    }
}

/// At exit: reports what was suppressed, and offers the stream what it did not accept before. Does not wait for a
/// thread that is just writing.
void StderrLog::Flush() {
    if (!mutex.TryLock()) {
        return;
    }
    for (const auto& report : limit.Take(LogLimit::Clock::time_point::max())) {
        Follow();
        EmitLine(RecordOf(report));
    }
    if (stream != Stream::Closed && (!rest.empty() || dropped != 0)) {
        Follow();
        Emit({});
    }
    mutex.Unlock();
}

} // namespace borven_host

namespace bos::logger {

BOSLogger& BOSLogger::RootLogger() {
    static BOSLogger& logger = *new BOSLogger(borven_host::StderrLog::Instance());
    return logger;
}

void BOSLogger::LogImpl(LogLevel level, const char* file, int line, const char* function, std::string& message) {
    backEnd.load(std::memory_order_acquire)->Write(level, file, line, function, message);
}

void BOSLogger::SetThreshold(LogLevel lowest) noexcept {
    borven_host::StderrLog::Instance().SetThreshold(lowest);
}

void BOSLogger::SetFormat(LogFormat format) noexcept {
    borven_host::StderrLog::Instance().SetFormat(format);
}

LogFormat BOSLogger::Format() noexcept {
    return borven_host::StderrLog::Instance().Format();
}

} // namespace bos::logger
