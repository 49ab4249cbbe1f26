#include "unlock_stop.h"

#include <atomic>
#include <utility>

namespace test_support {

namespace {

thread_local const pthread_mutex_t* lastUnlocked = nullptr;

// Written before `armed` is set; read by the one thread that finds itself named there.
std::atomic<std::thread::id> armed{};
const pthread_mutex_t* awaited = nullptr;
std::function<void()> onUnlock;

} // namespace

const pthread_mutex_t* LastUnlockedBy(const std::function<void()>& action) {
    action();
    return lastUnlocked;
}

void OnNextUnlock(std::thread::id thread, const pthread_mutex_t* mutex, std::function<void()> action) {
    awaited = mutex;
    onUnlock = std::move(action);
    armed = thread;
}

} // namespace test_support

extern "C" {

int __real_pthread_mutex_unlock(pthread_mutex_t* mutex);
int __wrap_pthread_mutex_unlock(pthread_mutex_t* mutex);
int __wrap_pthread_mutex_unlock(pthread_mutex_t* mutex) {
    using namespace test_support;
    lastUnlocked = mutex;
    const int result = __real_pthread_mutex_unlock(mutex);
    if (armed.load() == std::this_thread::get_id() && mutex == awaited) {
        armed = std::thread::id();
        onUnlock();
    }
    return result;
}

} // extern "C"
