#include "timed_sleeps.h"

#include <atomic>
#include <ctime>
#include <pthread.h>
#include <unistd.h>

namespace {

std::atomic<int> count{0};

} // namespace

int test_support::TimedSleeps() {
    return count.load();
}

extern "C" {

int __real_pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                                  const timespec* deadline);
int __wrap_pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                                  const timespec* deadline);
int __wrap_pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                                  const timespec* deadline) {
    if (gettid() != getpid()) { // the main thread is the test itself
        count.fetch_add(1);
    }
    return __real_pthread_cond_clockwait(condition, mutex, clock, deadline);
}

} // extern "C"
