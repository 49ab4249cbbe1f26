#include "base/log_line.h"

#include "common/escape.h"
#include "common/log_origin.h"

#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <string_view>

namespace borven_host {

using bos::logger::LogFormat;
using bos::logger::LogLevel;

namespace {

struct LevelStyle {
    const char* padded;
    const char* name;     ///< as in --log-level
    const char* priority; ///< of syslog
    const char* colour;
};

LevelStyle StyleOf(LogLevel level) noexcept {
    switch (level) {
    case LogLevel::Debug:
        return {"DEBUG", "debug", "<7>", "\x1b[2m"};
    case LogLevel::Info:
        return {"INFO ", "info", "<6>", ""};
    case LogLevel::Warning:
        return {"WARN ", "warning", "<4>", "\x1b[33m"};
    case LogLevel::Error:
        return {"ERROR", "error", "<3>", "\x1b[31m"};
    }
    return {"?????", "unknown", "<5>", ""};
}

void AppendTime(std::string& line) {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    tm parts{};
    ::gmtime_r(&now.tv_sec, &parts);
    char text[40];
    const std::size_t length = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &parts);
    line.append(text, length);
    const int micros = std::snprintf(text, sizeof text, ".%06ldZ", now.tv_nsec / 1000);
    line.append(text, static_cast<std::size_t>(micros));
}

pid_t ThreadId() {
    thread_local const pid_t threadId = ::gettid();
    return threadId;
}

void AppendPlaceAndMessage(std::string& line, const LogLimit::Record& record) {
    line += '[';
    line += std::to_string(ThreadId());
    line += "] ";
    line += common::PathInTree(record.file);
    line += ':';
    line += std::to_string(record.line);
    line += ' ';
    line += record.function;
    line += ": ";
    common::AppendEscaped(line, record.text);
}

/// Cuts a line that is too long where a character ends.
void Shorten(std::string& line) {
    constexpr std::string_view mark = "...";
    if (line.size() <= LongestJournalLine) {
        return;
    }
    std::size_t size = LongestJournalLine - mark.size();
    while (size > 0 && (static_cast<unsigned char>(line[size]) & 0xC0) == 0x80) {
        --size;
    }
    line.resize(size);
    line += mark;
}

/// Appends `bytes` as a string of JSON: escaped as everywhere, so quotes and backslashes alone are left.
void AppendJsonString(std::string& line, std::string_view bytes) {
    std::string text;
    common::AppendEscaped(text, bytes);
    line += '"';
    for (const char c : text) {
        if (c == '"' || c == '\\') {
            line += '\\';
        }
        line += c;
    }
    line += '"';
}

void AppendJsonStart(std::string& line, LogLevel level, common::LogOrigin origin) {
    line += "{\"time\":\"";
    AppendTime(line);
    line += "\",\"level\":\"";
    line += StyleOf(level).name;
    line += "\",\"origin\":\"";
    line += common::NameOf(origin);
    line += "\",\"thread\":";
    line += std::to_string(ThreadId());
}

void AppendJson(std::string& line, const LogLimit::Record& record) {
    AppendJsonStart(line, record.level, common::OriginOf(record.file));
    line += ",\"file\":";
    AppendJsonString(line, common::PathInTree(record.file));
    line += ",\"line\":";
    line += std::to_string(record.line);
    line += ",\"function\":";
    AppendJsonString(line, record.function);
    line += ",\"message\":";
    AppendJsonString(line, record.text);
    line += '}';
}

} // namespace

const char* ColourOf(LogLevel level) noexcept {
    return StyleOf(level).colour;
}

std::string LineOf(const LogLimit::Record& record, LogFormat format) {
    std::string line;
    line.reserve(200 + record.text.size());
    switch (format) {
    case LogFormat::Json:
        AppendJson(line, record);
        break;
    case LogFormat::Journal:
        line += StyleOf(record.level).priority;
        AppendPlaceAndMessage(line, record);
        Shorten(line);
        break;
    case LogFormat::Auto:
    case LogFormat::Text:
        AppendTime(line);
        line += ' ';
        line += StyleOf(record.level).padded;
        line += ' ';
        AppendPlaceAndMessage(line, record);
        break;
    }
    return line;
}

std::string LineOfDropped(std::uint64_t count, LogFormat format) {
    const std::string message = std::to_string(count) + " records were dropped: standard error did not accept them";
    const LevelStyle style = StyleOf(LogLevel::Warning);
    std::string line;
    switch (format) {
    case LogFormat::Json:
        AppendJsonStart(line, LogLevel::Warning, common::LogOrigin::Server);
        return line + ",\"file\":null,\"line\":null,\"function\":null,\"message\":\"" + message + "\"}";
    case LogFormat::Journal:
        return style.priority + ("log: " + message);
    case LogFormat::Auto:
    case LogFormat::Text:
        break;
    }
    AppendTime(line);
    return line + ' ' + style.padded + " log: " + message;
}

} // namespace borven_host
