#include "hz.h"

#include "account_source.h"
#include "arguments.h"
#include "common/escape.h"
#include "find.h"
#include "instruments/account_json.h"
#include "look_loop.h"
#include "terminal/quantity.h"
#include "terminal/write_out.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <utility>

namespace look {

namespace {

using instruments::AccountReader;
using instruments::Snapshot;

constexpr std::chrono::seconds Interval{1};

/// Reads the account at a moment that is known well: the time of a reader that was held up meanwhile would be wrong.
Snapshot ReadPromptly(const AccountSource& source) {
    using std::chrono::steady_clock;
    constexpr std::chrono::milliseconds promptly{2};
    constexpr int tries = 5;
    for (int i = 1;; ++i) {
        const auto began = steady_clock::now();
        Snapshot snapshot = source.Read(AccountReader::Depth::WithoutLatency);
        if (i == tries || steady_clock::now() - began < promptly) {
            return snapshot;
        }
    }
}

nlohmann::ordered_json GapJson(std::optional<instruments::Nanoseconds> gap) {
    return gap ? nlohmann::ordered_json(*gap) : nlohmann::ordered_json(nullptr);
}

std::string Line(const HzArguments& arguments, double rate, const Pace& pace) {
    if (arguments.json) {
        return terminal::JsonLine({{"version", instruments::JsonVersion},
                                   {"topic", pace.topic},
                                   {"rate", rate},
                                   {"smallest_gap_ns", GapJson(pace.smallestGap)},
                                   {"largest_gap_ns", GapJson(pace.largestGap)},
                                   {"accepted", pace.accepted}});
    }
    const auto gap = [](std::optional<instruments::Nanoseconds> time) {
        return time ? terminal::Duration(*time) : "-";
    };
    return fmt::format("{:>12}  {:>9}  {:>9}  {:>14}\n", fmt::format("{:.1f}", rate), gap(pace.smallestGap),
                       gap(pace.largestGap), pace.accepted);
}

std::string Headings() {
    return fmt::format("{:>12}  {:>9}  {:>9}  {:>14}\n", "RATE", "LEAST GAP", "MOST GAP", "ACCEPTED");
}

/// Of a topic that is not known.
Pace NoPace(std::string topic, instruments::Nanoseconds at) {
    Pace pace;
    pace.topic = std::move(topic);
    pace.at = at;
    return pace;
}

} // namespace

std::optional<Pace> PaceOf(const Snapshot& snapshot, const std::string& topic) {
    const auto view = FindTopic(snapshot, topic);
    if (!view) {
        return std::nullopt;
    }
    Pace pace;
    pace.topic = common::Escaped(view->topic);
    pace.at = snapshot.readAt;
    if (view->publisher) {
        const auto& publisher = snapshot.publishers[*view->publisher];
        pace.accepted = publisher.accepted + publisher.acceptedBefore;
        pace.smallestGap = publisher.smallestGap;
        pace.largestGap = publisher.largestGap;
    }
    return pace;
}

double RateBetween(const Pace& before, const Pace& after) {
    if (after.accepted <= before.accepted || after.at <= before.at) {
        return 0;
    }
    return static_cast<double>(after.accepted - before.accepted) * 1e9 / static_cast<double>(after.at - before.at);
}

ExitStatus Hz(const HzArguments& arguments) {
    const EndWatch watch(arguments.timeLimit, EndWatch::Output::Watched);
    AccountSource source(arguments.account);
    ServerWarning warning;
    Snapshot snapshot = ReadPromptly(source);
    warning.Update(snapshot.server);
    auto before = PaceOf(snapshot, arguments.topic);
    if (!before) {
        Say("there is no topic '" + arguments.topic + "'");
        return ExitStatus::Failed;
    }
    if (!arguments.json && !terminal::WriteOut(Headings())) {
        return ExitStatus::Done;
    }
    for (std::uint64_t lines = 0; lines != arguments.count; ++lines) {
        if (!Pause(watch, Interval)) {
            return StatusOf(watch);
        }
        const bool isRestarted = source.FollowRestart();
        snapshot = ReadPromptly(source);
        warning.Update(snapshot.server);
        const Pace after = PaceOf(snapshot, arguments.topic).value_or(NoPace(before->topic, snapshot.readAt));
        if (isRestarted) {
            before = NoPace(before->topic, snapshot.server.startedAt);
        }
        if (!terminal::WriteOut(Line(arguments, RateBetween(*before, after), after))) {
            return ExitStatus::Done;
        }
        before = after;
    }
    return ExitStatus::Done;
}

} // namespace look
