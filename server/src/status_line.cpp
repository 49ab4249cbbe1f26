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

/// Returns: the values that subscribers should have got and did not; what they left unread by themselves is not lost.
std::uint64_t Lost(const instruments::Snapshot& snapshot) {
    const instruments::Drops& dropped = snapshot.bus.flows.dropped;
    return dropped.Total() - dropped.unregistered;
}

} // namespace

std::string StatusLine(const instruments::Snapshot& snapshot) {
    double rate = 0;
    for (const auto& publisher : snapshot.publishers) {
        rate += publisher.rates.last10;
    }
    return fmt::format("{}, {}, {} values/s, {} lost", Counted(TopicsInUse(snapshot), "topic"),
                       Counted(snapshot.subscribers.size(), "subscriber"), Rounded(rate),
                       Rounded(static_cast<double>(Lost(snapshot))));
}

std::string DurationText(std::chrono::seconds duration) {
    using namespace std::chrono;
    const auto number = duration.count();
    if (duration < minutes(1)) {
        return fmt::format("{} s", number);
    }
    if (duration < hours(1)) {
        return fmt::format("{} min", number / 60);
    }
    if (duration < days(1)) {
        return fmt::format("{} h {} min", number / 3600, number % 3600 / 60);
    }
    return fmt::format("{} d {} h", number / 86400, number % 86400 / 3600);
}

std::string TotalsLine(const instruments::Snapshot& snapshot, std::chrono::seconds served) {
    const auto& bus = snapshot.bus;
    return fmt::format("served for {}: {} values accepted, {} delivered, {} lost", DurationText(served),
                       Rounded(static_cast<double>(bus.accepted)), Rounded(static_cast<double>(bus.flows.taken)),
                       Rounded(static_cast<double>(Lost(snapshot))));
}

} // namespace msgbus_server
