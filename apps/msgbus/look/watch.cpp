#include "watch.h"

#include "account_source.h"
#include "arguments.h"
#include "common/escape.h"
#include "instruments/account_json.h"
#include "list.h"
#include "look_loop.h"
#include "terminal/quantity.h"
#include "terminal/write_out.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <utility>
#include <vector>

namespace look {

namespace {

using instruments::AccountReader;
using instruments::Event;

constexpr std::chrono::milliseconds LookInterval{50};
constexpr int LooksPerServerCheck = 20;

/// The events of a bus, in order, also across restarts of its server.
class EventStream final {
public:
    explicit EventStream(const WatchArguments& arguments) : source(arguments.account) {
        const auto snapshot = source.Read(AccountReader::Depth::WithoutLatency);
        warning.Update(snapshot.server);
        if (!arguments.all && !snapshot.events.empty()) {
            last = snapshot.events.back().number;
        }
    }

    /// Returns: the events since the last call.
    std::vector<Event> Next() {
        // First whether there is a newer server: what the old one wrote until then is read before its account is left.
        const bool isReplaced = source.Reader().IsReplaced();
        auto events = source.Reader().EventsAfter(last);
        if (!events.empty()) {
            if (const auto missed = events.front().number - last - 1; missed != 0 && last != 0) {
                Say(std::to_string(missed) + " events were overwritten before they were read");
            }
            last = events.back().number;
            return events;
        }
        if (isReplaced && source.FollowRestart()) {
            last = 0;
            looks = 0;
        }
        if (looks++ % LooksPerServerCheck == 0) {
            warning.Update(source.Read(AccountReader::Depth::WithoutLatency).server);
        }
        return events;
    }

    /// Of the server that the events of the last call are from.
    std::int64_t ClockOffset() const noexcept { return source.Reader().ClockOffset(); }

private:
    AccountSource source;
    ServerWarning warning;
    std::uint64_t last = 0;
    int looks = 1;
};

} // namespace

std::string EventText(const Event& event, std::int64_t clockOffset) {
    std::string line = terminal::UtcTime(event.at, clockOffset) + ' ' + std::string(NameOf(event.kind));
    const auto add = [&line](std::string_view name, const std::string& text) {
        line += fmt::format(" {}={}", name, text);
    };
    if (event.id != 0) {
        add("id", std::to_string(event.id));
    }
    if (event.process.pid != 0) {
        add("pid", std::to_string(event.process.pid));
        add("program", AsWord(event.process.program));
    }
    if (event.code != 0) {
        add("code", std::to_string(event.code));
    }
    if (event.lost != 0) {
        add("lost", std::to_string(event.lost));
    }
    if (!event.name.empty()) {
        add("name", common::Escaped(event.name));
    }
    return line;
}

ExitStatus Watch(const WatchArguments& arguments) {
    const EndWatch watch(arguments.timeLimit, EndWatch::Output::Watched);
    EventStream stream(arguments);
    std::uint64_t printed = 0;
    do {
        for (auto events = stream.Next(); !events.empty(); events = stream.Next()) {
            for (const auto& event : events) {
                const auto line = arguments.json
                                      ? terminal::JsonLine(instruments::EventToJson(event, stream.ClockOffset()))
                                      : EventText(event, stream.ClockOffset()) + '\n';
                if (!terminal::WriteOut(line) || ++printed == arguments.count) {
                    return ExitStatus::Done;
                }
            }
        }
    } while (Pause(watch, LookInterval));
    return StatusOf(watch);
}

} // namespace look
