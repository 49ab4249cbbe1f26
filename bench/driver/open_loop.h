#pragma once

#include "driver.h"
#include "options.h"

namespace bench {

/// The two processes of M7: values leave at the times of a schedule, whether or not the values before them have
/// arrived. A value is the time at which it was due, so that a delay before its publish counts as latency, too.
///
/// Options of both: `--rate` values/s, `--warm-up-seconds` at the start of the schedule that are not counted. Of the
/// publisher also `--seconds` that are. Both print JSON lines as the other verbs do.
/// Returns: the exit code of the process; 2 from the subscriber if it lost, repeated or reordered a value.
int PublishOnSchedule(IDriver& driver, const Options& options);
int SubscribeOnSchedule(IDriver& driver, const Options& options);

} // namespace bench
