#include "event_feed.h"

#include "instruments/account_json.h"

namespace msgbus_monitor {

EventFeed::EventFeed(IMonitored& monitored, std::optional<std::uint64_t> last, Clock::duration keepAlive)
    : source(monitored), keepAliveTime(keepAlive) {
    const auto kept = source.EventsAfter(0);
    const std::uint64_t newest = kept.empty() ? 0 : kept.back().number;
    if (!last) {
        lastNumber = newest;
    } else if (*last <= newest) {
        lastNumber = *last;
    } else {
        lastNumber = kept.empty() ? 0 : kept.front().number - 1;
    }
}

std::string EventFeed::Next(Clock::time_point now) {
    std::string text;
    AppendEvents(text);
    if (text.empty() && (isFirst || now - lastText >= keepAliveTime)) {
        text = ": keep-alive\n\n";
    }
    if (!text.empty()) {
        isFirst = false;
        lastText = now;
    }
    return text;
}

void EventFeed::AppendEvents(std::string& text) {
    for (const auto& event : source.EventsAfter(lastNumber)) {
        if (const std::uint64_t missing = event.number - lastNumber - 1; missing != 0) {
            text += "event: lost\ndata: {\"count\":" + std::to_string(missing) + "}\n\n";
        }
        lastNumber = event.number;
        text += "id: " + std::to_string(event.number) + "\nevent: " + std::string(NameOf(event.kind)) +
                "\ndata: " + instruments::EventToJson(event, source.ClockOffset()).dump() + "\n\n";
    }
}

} // namespace msgbus_monitor
