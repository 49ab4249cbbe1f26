#include "timed_sleeps.h"

#include <ctime>
#include <pthread.h>

namespace {

thread_local int count = 0;

} // namespace

int test_support::TimedSleepsOfThisThread() {
    return count;
}

extern "C" {

int __real_pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                                  const timespec* deadline);
int __wrap_pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                                  const timespec* deadline);
int __wrap_pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                                  const timespec* deadline) {
    ++count;
    return __real_pthread_cond_clockwait(condition, mutex, clock, deadline);
}

} // extern "C"
