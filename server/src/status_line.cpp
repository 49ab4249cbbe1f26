#include "status_line.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <string_view>

namespace msgbus_server {

namespace {

/// Returns: "999", "1.0 k", "999.9 k", "1.0 M".
std::string Rounded(double number) {
    if (std::round(number) < 1000) {
        return fmt::format("{:.0f}", std::round(number));
    }
    constexpr std::array<std::string_view, 4> prefixes{"k", "M", "G", "T"};
    const auto tenths = [](double scaled) { return std::round(scaled * 10) / 10; };
    std::size_t i = 0;
    for (number /= 1000; tenths(number) >= 1000 && i + 1 < prefixes.size(); ++i) {
        number /= 1000;
    }
    return fmt::format("{:.1f} {}", tenths(number), prefixes[i]);
}

std::string Counted(std::size_t number, std::string_view noun) {
    return fmt::format("{} {}{}", number, noun, number == 1 ? "" : "s");
}

std::size_t TopicsInUse(const instruments::Snapshot& snapshot) {
    const auto topics = instruments::TopicsOf(snapshot);
    const auto isInUse = [&](const instruments::TopicView& topic) {
        return !topic.subscribers.empty() || (topic.publisher && snapshot.publishers[*topic.publisher].leftAt == 0);
    };
    return static_cast<std::size_t>(std::count_if(topics.begin(), topics.end(), isInUse));
}

} // namespace

std::string StatusLine(const instruments::Snapshot& snapshot) {
    double rate = 0;
    for (const auto& publisher : snapshot.publishers) {
        rate += publisher.rates.last10;
    }
    const instruments::Drops& dropped = snapshot.bus.flows.dropped;
    return fmt::format("{}, {}, {} values/s, {} lost", Counted(TopicsInUse(snapshot), "topic"),
                       Counted(snapshot.subscribers.size(), "subscriber"), Rounded(rate),
                       Rounded(static_cast<double>(dropped.Total() - dropped.unregistered)));
}

} // namespace msgbus_server
