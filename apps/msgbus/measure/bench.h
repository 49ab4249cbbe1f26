#pragma once

#include "action.h"
#include "bus_options.h"
#include "common/histogram.h"
#include "end_watch.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace measure {

enum class BenchKind {
    RoundTrip, ///< one value at a time, published and received by the same thread
    Publish,   ///< acknowledged publishes, without a subscriber
    Subscribe, ///< as many values as one subscriber receives
    FanOut,    ///< the same with several subscribers
};

/// `msgbus bench`
struct BenchArguments {
    BusAccess access;
    BenchKind kind = BenchKind::RoundTrip;
    std::optional<std::uint64_t> count; ///< values to publish; none: as many as fit into the duration
    std::chrono::milliseconds duration{3000};
    std::size_t subscribers = 1;
    bool json = false;
    bool withBars = false;
};

/// What was measured.
struct BenchResult {
    std::uint64_t published = 0;
    std::uint64_t received = 0; ///< by all subscribers
    std::chrono::nanoseconds time{0};
    common::Histogram latency; ///< of Publish: of a push; of the others: from its begin to the receipt
};

/// Measures a bus with clients in this process, on a topic of its own. Ends early when `watch` does.
/// Throws: what the client library throws; std::runtime_error when a value came twice, in a wrong order or not at all.
BenchResult MeasureBus(const BenchArguments& arguments, const EndWatch& watch);

/// Runs `msgbus bench`. Throws: as MeasureBus; std::system_error.
ExitStatus Bench(const BenchArguments& arguments);

/// Adds the command. The action is put into `chosen`, which must outlive the parsing, when it is parsed.
void AddBenchCommand(command_line::Command& program, Action& chosen);

} // namespace measure
