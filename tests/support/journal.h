#pragma once

#include "bos/logger.h"

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace test_support {

/// How long a test waits for something that must happen. Only a broken program ever waits so long.
inline constexpr std::chrono::seconds Patience{30};

/// One log record, as the back end got it.
struct LogRecord {
    int level = 0;
    std::string file;
    int line = 0;
    std::string function;
    std::string text;
    std::thread::id thread;
};

/// What tests compare: "4 Push: [MessageBus]: Message queue is full".
std::string ToString(const LogRecord& record);

/// Everything that happened, in order: platform calls, and log records as ToString gives them.
/// Threads: every operation from any thread.
class Journal final {
public:
    /// The journal of this process.
    static Journal& Instance();

    void AddCall(std::string call);
    void AddLog(LogRecord record);

    /// Leaves out whatever begins with `prefix` from now on: for what a harness does beside the test.
    void Ignore(std::string prefix);

    /// Forgets everything, the ignored prefixes included.
    void Clear();

    /// Platform calls that begin with `prefix`.
    std::vector<std::string> Calls(const std::string& prefix = {}) const;
    /// Log lines from `minimumLevel` up.
    std::vector<std::string> Logs(int minimumLevel = 1) const;
    std::vector<LogRecord> Records() const;
    /// Calls and log lines together.
    std::vector<std::string> All() const;

    /// How many entries equal `entry`.
    std::size_t Count(const std::string& entry) const;

    /// Waits until `entry` has happened `times` times. Returns: false when it did not within Patience.
    [[nodiscard]] bool Await(const std::string& entry, std::size_t times = 1) const;
    [[nodiscard]] bool AwaitPrefix(const std::string& prefix, std::size_t times = 1) const;

private:
    struct Entry {
        bool isLog = false;
        std::string text;
        LogRecord record;
    };

    void Add(Entry entry);
    bool AwaitMatching(const std::function<bool(const std::string&)>& matches, std::size_t times) const;

    mutable std::mutex mutex; // guards all below
    mutable std::condition_variable changed;
    std::vector<Entry> entries;
    std::vector<std::string> ignored;
};

} // namespace test_support
