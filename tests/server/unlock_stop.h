#pragma once

#include <pthread.h>

#include <functional>
#include <thread>

namespace test_support {

/// The mutex that the calling thread gives up last during `action`. Only code compiled into the test program counts.
const pthread_mutex_t* LastUnlockedBy(const std::function<void()>& action);

/// Calls `action` on `thread` the next time that it has given up `mutex`.
void OnNextUnlock(std::thread::id thread, const pthread_mutex_t* mutex, std::function<void()> action);

} // namespace test_support
