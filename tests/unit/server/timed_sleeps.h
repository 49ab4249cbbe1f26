#pragma once

namespace test_support {

/// How often the calling thread has gone to sleep on a condition variable with a deadline, in code compiled into this
/// program.
int TimedSleepsOfThisThread();

} // namespace test_support
