#include "account/gauges.h"

#include <pthread.h>
#include <unistd.h>

#include <chrono>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>
#include <utility>

namespace msgbus_server {

namespace {

constexpr std::chrono::seconds TimeBetween{1};

std::uint64_t CountEntries(const char* directory) {
    std::error_code error;
    std::uint64_t count = 0;
    for (std::filesystem::directory_iterator i(directory, error), end; !error && i != end; i.increment(error)) {
        ++count;
    }
    return count;
}

/// A thread that serves requests, by the name that the server gives it.
bool IsWorker(const std::filesystem::path& task) {
    std::ifstream file(task / "comm");
    std::string name;
    std::getline(file, name);
    return name.starts_with("serve-") || name == "accept";
}

} // namespace

instruments::layout::Gauges ReadGauges() {
    instruments::layout::Gauges gauges;
    std::error_code error;
    for (std::filesystem::directory_iterator i("/proc/self/task", error), end; !error && i != end; i.increment(error)) {
        ++gauges.threads;
        gauges.workers += IsWorker(i->path()) ? 1 : 0;
    }
    gauges.descriptors = CountEntries("/proc/self/fd");
    std::ifstream file("/proc/self/statm");
    std::uint64_t pages = 0;
    std::uint64_t residentPages = 0;
    file >> pages >> residentPages;
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

void GaugeRefresh::Run() {
    common::MutexLock lock(mutex);
    while (!isEnding) {
        if (!std::exchange(isDue, false)) {
            changed.Wait(lock);
            continue;
        }
        lock.Unlock();
        refresh();
        lock.Lock();
        const auto next = std::chrono::steady_clock::now() + TimeBetween;
        while (!isEnding && changed.WaitUntil(lock, next) == std::cv_status::no_timeout) {
        }
    }
}

} // namespace msgbus_server
