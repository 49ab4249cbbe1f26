#include "common/escape.h"
#include "receive/message_format.h"
#include "terminal/quantity.h"
#include "trace/trace.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace trace {

using instruments::TracedCopy;
using instruments::TracedValue;
using instruments::TraceRecord;

namespace {

std::string Time(std::int64_t unixNs) {
    using std::chrono::system_clock;
    return receive::Rfc3339(
        system_clock::time_point(std::chrono::duration_cast<system_clock::duration>(std::chrono::nanoseconds(unixNs))));
}

/// Returns: how long after the push it was; "-" for what has not happened.
std::string After(const TracedValue& value, std::int64_t at) {
    return at == 0 ? "-" : '+' + terminal::Duration(at - value.pushedAt);
}

std::string NameOf(std::int64_t subscriber, const Names& names) {
    const auto found = names.find(subscriber);
    return "subscriber " + std::to_string(subscriber) +
           (found == names.end() ? "" : " (" + common::Escaped(found->second) + ")");
}

std::string CopyLine(const TracedValue& value, const TracedCopy& copy, const Names& names) {
    std::string line =
        fmt::format("    queued {:>8}  offered {:>8}  taken {:>8}  {}", After(value, copy.queuedAt),
                    After(value, copy.offeredAt), After(value, copy.takenAt), NameOf(copy.subscriber, names));
    if (copy.droppedAt != 0) {
        line += ": dropped " + After(value, copy.droppedAt);
    } else if (copy.isUncertain) {
        line += ": not known, since newer values were dropped";
    }
    return line + '\n';
}

constexpr double NsPerUs = 1000;
constexpr int BusProcess = 1;
constexpr int BusThread = 0;

/// `from`, `to`: nanoseconds since the first push, so that a double has all of their digits.
nlohmann::ordered_json Slice(const std::string& name, std::int64_t thread, std::int64_t from, std::int64_t to,
                             const TracedValue& value) {
    return {{"name", name},
            {"ph", "X"}, // a complete event
            {"pid", BusProcess},
            {"tid", thread},
            {"ts", static_cast<double>(from) / NsPerUs},
            {"dur", static_cast<double>(to - from) / NsPerUs},
            {"args", {{"value", std::to_string(value.value)}, {"publisher", value.publisher}}}};
}

nlohmann::ordered_json NameEvent(const char* what, std::int64_t thread, const std::string& name) {
    return {{"name", what}, {"ph", "M"}, {"pid", BusProcess}, {"tid", thread}, {"args", {{"name", name}}}};
}

} // namespace

std::string ToText(const TraceRecord& record, const Names& names) {
    std::string text;
    for (const auto& value : record.values) {
        text += fmt::format("{}  {}  pushed by {}, fanned out {} to {}\n", Time(value.pushedAt), value.value,
                            value.publisher, After(value, value.fannedOutAt), value.subscribers);
        for (const auto& copy : value.copies) {
            text += CopyLine(value, copy, names);
        }
    }
    return text;
}

std::string ToTraceEvents(const TraceRecord& record, const Names& names) {
    auto events = nlohmann::ordered_json::array();
    events.push_back(NameEvent("process_name", BusThread, "message bus, topic " + record.topic));
    events.push_back(NameEvent("thread_name", BusThread, "inbound queue"));
    std::map<std::int64_t, bool> isNamed;
    const std::int64_t start = record.values.empty() ? 0 : record.values.front().pushedAt;
    for (const auto& value : record.values) {
        if (value.fannedOutAt != 0) {
            events.push_back(Slice("inbound", BusThread, value.pushedAt - start, value.fannedOutAt - start, value));
        }
        for (const auto& copy : value.copies) {
            if (!std::exchange(isNamed[copy.subscriber], true)) {
                events.push_back(NameEvent("thread_name", copy.subscriber, NameOf(copy.subscriber, names)));
            }
            const std::int64_t left = copy.offeredAt != 0 ? copy.offeredAt
                                      : copy.takenAt != 0 ? copy.takenAt
                                                          : copy.droppedAt;
            if (left != 0) {
                events.push_back(Slice(copy.droppedAt == left ? "queued, then dropped" : "queued", copy.subscriber,
                                       copy.queuedAt - start, left - start, value));
            }
            if (copy.offeredAt != 0 && copy.takenAt != 0) {
                events.push_back(
                    Slice("offered", copy.subscriber, copy.offeredAt - start, copy.takenAt - start, value));
            }
        }
    }
    return nlohmann::ordered_json{{"traceEvents", events}, {"displayTimeUnit", "ns"}}.dump(1) + '\n';
}

} // namespace trace
