#include "log_threshold.h"

#include "common/escape.h"

#include <algorithm>
#include <array>
#include <optional>

namespace msgbus_server {

using bos::logger::BOSLogger;
using bos::logger::LogLevel;
using common::LogOrigin;

namespace {

/// By their numbers less one.
constexpr std::array<std::string_view, LogThreshold::Off> LevelNames{"debug", "info", "warning", "error", "off"};

std::string Lower(std::string_view text) {
    std::string lower(text);
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
    return lower;
}

std::optional<int> LevelOf(std::string_view text) {
    constexpr int numbers = 4; // the bus's own
    const std::string lower = Lower(text);
    for (std::size_t i = 0; i < LevelNames.size(); ++i) {
        const int number = static_cast<int>(i) + 1;
        if (lower == LevelNames[i] || (number <= numbers && lower == std::to_string(number))) {
            return number;
        }
    }
    return std::nullopt;
}

} // namespace

std::string LogThresholds::Set(std::string_view text) {
    LogThresholds changed = *this;
    while (true) {
        const auto comma = text.find(',');
        const std::string_view item = text.substr(0, comma);
        const auto equals = item.find('=');
        const std::string origin = equals == item.npos ? "" : Lower(item.substr(0, equals));
        const std::string_view name = equals == item.npos ? item : item.substr(equals + 1);
        if (equals != item.npos && origin != NameOf(LogOrigin::Bus) && origin != NameOf(LogOrigin::Server)) {
            return "'" + common::Escaped(origin) + "' is not an origin of log lines; it must be bus or server";
        }
        const auto level = LevelOf(name);
        if (!level) {
            return "'" + common::Escaped(name) +
                   "' is not a log level; it must be debug, info, warning, error or off, for bus= or server= alone or "
                   "for both";
        }
        if (origin != NameOf(LogOrigin::Server)) {
            changed.bus = *level;
        }
        if (origin != NameOf(LogOrigin::Bus)) {
            changed.server = *level;
        }
        if (comma == text.npos) {
            break;
        }
        text.remove_prefix(comma + 1);
    }
    *this = changed;
    return {};
}

std::string LogThresholds::ToText() const {
    const auto nameOf = [](int level) { return std::string(LevelNames.at(static_cast<std::size_t>(level) - 1)); };
    return bus == server ? nameOf(bus) : "bus=" + nameOf(bus) + ",server=" + nameOf(server);
}

LogThreshold::LogThreshold(const LogThresholds& thresholds)
    : bus(thresholds.bus), server(thresholds.server), next(BOSLogger::RootLogger().SetBackEnd(*this)) {}

LogThreshold::~LogThreshold() {
    BOSLogger::RootLogger().SetBackEnd(next);
}

void LogThreshold::Set(const LogThresholds& thresholds) noexcept {
    bus.store(thresholds.bus, std::memory_order_relaxed);
    server.store(thresholds.server, std::memory_order_relaxed);
}

bool LogThreshold::IsEnabled(LogLevel level) const {
    return static_cast<int>(level) >=
           std::min(bus.load(std::memory_order_relaxed), server.load(std::memory_order_relaxed));
}

void LogThreshold::Write(LogLevel level, const char* file, int line, const char* function, const std::string& message) {
    const auto& threshold = common::OriginOf(file) == LogOrigin::Bus ? bus : server;
    if (static_cast<int>(level) >= threshold.load(std::memory_order_relaxed)) {
        next.Write(level, file, line, function, message);
    }
}

} // namespace msgbus_server
