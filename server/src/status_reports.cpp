#include "status_reports.h"

#include "diagnostics.h"
#include "status_line.h"

#include <pthread.h>

#include <exception>
#include <string>
#include <system_error>
#include <utility>

namespace msgbus_server {

using diagnostics::Log;
using diagnostics::LogLevel;

StatusReports::StatusReports(const ServiceManager& receiver, std::function<instruments::Snapshot()> accountReader,
                             std::chrono::steady_clock::duration readInterval)
    : manager(receiver), readAccount(std::move(accountReader)), interval(readInterval) {}

StatusReports::~StatusReports() {
    Stop();
}

void StatusReports::Start() {
    const common::MutexLock lock(mutex);
    if (!manager.IsPresent() || isEnding) {
        return;
    }
    try {
        thread = std::thread([this] { Run(); });
        ::pthread_setname_np(thread.native_handle(), "status");
    } catch (const std::system_error& error) {
        Log(LogLevel::Warning, "The service manager's status is not kept up to date: {}", error.what());
    }
}

void StatusReports::Stop() {
    std::thread ending;
    {
        const common::MutexLock lock(mutex);
        isEnding = true;
        ending = std::move(thread);
    }
    changed.NotifyAll();
    if (ending.joinable()) {
        ending.join();
    }
}

void StatusReports::Run() {
    std::string reported;
    bool hasFailed = false;
    while (!AwaitEnd()) {
        try {
            if (std::string line = StatusLine(readAccount()); line != reported) {
                manager.Report("STATUS=" + line);
                reported = std::move(line);
            }
            hasFailed = false;
        } catch (const std::exception& error) {
            if (!std::exchange(hasFailed, true)) {
                Log(LogLevel::Warning, "The account cannot be read for the service manager: {}", error.what());
            }
        }
    }
}

/// Returns: whether Stop was called. Blocks: until then, for an interval at most.
bool StatusReports::AwaitEnd() {
    const auto deadline = std::chrono::steady_clock::now() + interval;
    common::MutexLock lock(mutex);
    while (!isEnding && changed.WaitUntil(lock, deadline) == std::cv_status::no_timeout) {
    }
    return isEnding;
}

} // namespace msgbus_server
