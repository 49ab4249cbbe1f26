#include "account/gauges.h"

#include "diagnostics.h"

#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <ctime>
#include <exception>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>
#include <utility>

namespace msgbus_server {

using diagnostics::Log;
using diagnostics::LogLevel;

namespace {

constexpr std::chrono::seconds TimeBetween{1};

/// Returns: whether the directory was read to its end.
template <typename Function>
bool ForEachEntry(const char* directory, const Function& function) {
    std::error_code error;
    for (std::filesystem::directory_iterator i(directory, error), end; !error && i != end; i.increment(error)) {
        function(i->path());
    }
    return !error;
}

/// Returns: the name of a thread, by its directory; empty when it has ended; nothing when it cannot be read.
std::optional<std::string> NameOfTask(const std::filesystem::path& task) {
    std::ifstream file(task / "comm");
    const bool isOutOfDescriptors = !file.is_open() && (errno == EMFILE || errno == ENFILE);
    std::string name;
    std::getline(file, name);
    return isOutOfDescriptors ? std::nullopt : std::optional(name);
}

/// A thread that serves requests, by the name that the server gives it.
bool IsWorker(const std::string& name) {
    return name.starts_with("serve-") || name == "accept";
}

} // namespace

std::optional<instruments::layout::Gauges> ReadGauges() {
    instruments::layout::Gauges gauges;
    bool areNamesRead = true;
    const bool areTasksRead = ForEachEntry("/proc/self/task", [&](const std::filesystem::path& task) {
        const auto name = NameOfTask(task);
        ++gauges.threads;
        gauges.workers += name && IsWorker(*name) ? 1 : 0;
        areNamesRead = areNamesRead && name;
    });
    const bool areDescriptorsRead = ForEachEntry("/proc/self/fd", [&](const auto&) { ++gauges.descriptors; });
    std::ifstream file("/proc/self/statm");
    std::uint64_t pages = 0;
    std::uint64_t residentPages = 0;
    if (!areTasksRead || !areNamesRead || !areDescriptorsRead || !(file >> pages >> residentPages)) {
        return std::nullopt;
    }
    gauges.memoryBytes = residentPages * static_cast<std::uint64_t>(::sysconf(_SC_PAGESIZE));
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    constexpr std::int64_t second = 1'000'000'000;
    gauges.at = now.tv_sec * second + now.tv_nsec;
    return gauges;
}

GaugeRefresh::GaugeRefresh(std::function<void()> refreshAction)
    : refresh(std::move(refreshAction)), thread([this] { Run(); }) {
    ::pthread_setname_np(thread.native_handle(), "gauges");
}

GaugeRefresh::~GaugeRefresh() {
    {
        const common::MutexLock lock(mutex);
        isEnding = true;
    }
    changed.NotifyOne();
    thread.join();
}

void GaugeRefresh::Note() noexcept {
    const common::MutexLock lock(mutex);
    if (!std::exchange(isDue, true)) {
        changed.NotifyOne();
    }
}

void GaugeRefresh::Refresh() noexcept {
    try {
        refresh();
        hasFailed = false;
    } catch (const std::exception& error) {
        if (!std::exchange(hasFailed, true)) {
            Log(LogLevel::Warning, "The gauges of the account cannot be read: {}", error.what());
        }
    }
}

void GaugeRefresh::Run() {
    common::MutexLock lock(mutex);
    while (!isEnding) {
        if (!std::exchange(isDue, false)) {
            changed.Wait(lock);
            continue;
        }
        lock.Unlock();
        Refresh();
        lock.Lock();
        const auto next = std::chrono::steady_clock::now() + TimeBetween;
        while (!isEnding && changed.WaitUntil(lock, next) == std::cv_status::no_timeout) {
        }
    }
}

} // namespace msgbus_server
