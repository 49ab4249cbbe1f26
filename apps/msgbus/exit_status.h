#pragma once

/// How msgbus ends.
enum class ExitStatus : int {
    Done = 0,
    Failed = 1,
    Usage = 2,
    Refused = 3,  ///< by the bus
    NoServer = 4, ///< there is none, or it went away
    TimedOut = 124,
};
