#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace test_support {

/// Ends a test that hangs: prints its name and the journal, then aborts the program.
class Watchdog final {
public:
    explicit Watchdog(std::chrono::seconds limit);
    ~Watchdog();
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

private:
    std::mutex mutex; // guards finished
    std::condition_variable changed;
    bool finished = false;
    std::thread thread;
};

/// Prints the journal to standard error.
void PrintJournal();

} // namespace test_support
