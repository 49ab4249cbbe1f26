#pragma once

namespace test_support {

/// How often threads other than the main one have gone to sleep on a condition variable with a deadline, in code
/// compiled into this program.
int TimedSleeps();

} // namespace test_support
