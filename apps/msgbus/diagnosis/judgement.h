#pragma once

#include "instruments/snapshot.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace diagnosis {

/// The states of a service in monitoring, with the exit statuses of a plug-in.
enum class Verdict : int { Ok = 0, Warning = 1, Critical = 2, Unknown = 3 };

/// Returns: "OK", "WARNING", "CRITICAL" or "UNKNOWN".
std::string_view NameOf(Verdict verdict) noexcept;

/// What a measure may be at most. Unset: anything.
struct Thresholds {
    std::optional<double> warning;
    std::optional<double> critical;
};

/// What to judge by.
struct Rules {
    Thresholds lag;     ///< values that are queued for one subscriber
    Thresholds age;     ///< seconds that the oldest unread value of one subscriber waits
    Thresholds drops;   ///< values that were dropped since the server started
    Thresholds inbound; ///< values in the inbound queue
    Thresholds away;    ///< seconds that a thread of the server is away from its loop
};

struct Measure {
    std::string_view name;
    double value = 0;
    std::string_view unit; ///< of performance data: "s", "c" for a counter, or empty
    Thresholds limits;
};

struct Judgement {
    Verdict verdict = Verdict::Ok;
    std::vector<std::string> reasons; ///< sentences without a full stop, the gravest first; none when all is well
    std::vector<Measure> measures;
};

/// Judges a server and its bus: one that has ended, is paused or does not add up is critical; one that starts, drains
/// or stops is a warning; else what the rules say. Threads: any.
Judgement Judge(const instruments::Snapshot& snapshot, const Rules& rules);

/// Returns: as the output of a monitoring plug-in: "MSGBUS OK - TEXT | PERFORMANCE DATA", one line.
std::string PluginText(const Judgement& judgement);
/// Returns: one object on one line.
std::string JsonText(const Judgement& judgement);
/// Returns: the text format of metrics, for a collector of text files.
std::string MetricsText(const Judgement& judgement);

} // namespace diagnosis
