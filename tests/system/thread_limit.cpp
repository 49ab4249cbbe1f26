// Preloaded into a server: limits its threads, as a cgroup does, and writes down every attempt to start one.
//   BORVEN_THREAD_LIMIT=N      at most N threads, from the beginning
//   BORVEN_THREAD_LIMIT=ready  as many as there are when the program reports that it is ready; free and unlogged before
//   BORVEN_THREAD_LOG=FILE     gets a line for each attempt: "started by NAME" or "refused to NAME"

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <string_view>

namespace {

constexpr std::string_view Ready = "READY\n";
constexpr int NoLimit = INT_MAX;

std::mutex mutex; // guards the limit; held from the count of the threads until one more is there
int limit = [] {
    const char* const setting = std::getenv("BORVEN_THREAD_LIMIT");
    return setting == nullptr || std::string_view(setting) == "ready" ? NoLimit : std::atoi(setting);
}();

template <typename Function>
Function* Real(const char* name) {
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

int CountThreads() {
    int count = 0;
    DIR* const tasks = ::opendir("/proc/self/task");
    while (const dirent* const task = ::readdir(tasks)) {
        count += task->d_name[0] == '.' ? 0 : 1;
    }
    ::closedir(tasks);
    return count;
}

void Note(bool isStarted) {
    const char* const path = std::getenv("BORVEN_THREAD_LOG");
    const int file = path == nullptr ? -1 : ::open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
    if (file < 0) {
        return;
    }
    std::array<char, 16> name{};
    ::pthread_getname_np(::pthread_self(), name.data(), name.size());
    const std::string line = std::string(isStarted ? "started by " : "refused to ") + name.data() + '\n';
    static_cast<void>(!Real<decltype(::write)>("write")(file, line.data(), line.size()));
    ::close(file);
}

} // namespace

extern "C" {

[[gnu::visibility("default")]] int pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                                                  void* (*start)(void*), void* argument) {
    static auto* const real = Real<decltype(::pthread_create)>("pthread_create");
    const std::lock_guard lock(mutex);
    const bool isStarted = limit == NoLimit || CountThreads() < limit;
    if (limit != NoLimit) {
        Note(isStarted);
    }
    return isStarted ? real(thread, attributes, start, argument) : EAGAIN;
}

[[gnu::visibility("default")]] ssize_t write(int file, const void* bytes, size_t size) {
    static auto* const real = Real<decltype(::write)>("write");
    if (size == Ready.size() && std::memcmp(bytes, Ready.data(), size) == 0) {
        const std::lock_guard lock(mutex);
        limit = limit == NoLimit ? CountThreads() : limit;
    }
    return real(file, bytes, size);
}

} // extern "C"
