#include "account/error_tally.h"

#include <chrono>
#include <exception>
#include <utility>

namespace msgbus_server {

using bos::logger::BOSLogger;
using bos::logger::LogLevel;

namespace {

bool IsCounted(LogLevel level) {
    return level == LogLevel::Warning || level == LogLevel::Error;
}

instruments::Nanoseconds Now() {
    return std::chrono::nanoseconds(std::chrono::steady_clock::now().time_since_epoch()).count();
}

bool IsOf(std::string_view place, std::string_view file) {
    return place.starts_with(file) && place.find(':', file.size()) == file.size();
}

std::string_view Shortened(std::string_view text) {
    if (text.size() <= ErrorTally::MaxTextSize) {
        return text;
    }
    constexpr std::size_t longestRest = 3; // of a character that does not fit
    std::size_t size = ErrorTally::MaxTextSize;
    while (size > ErrorTally::MaxTextSize - longestRest && (static_cast<unsigned char>(text[size]) & 0xC0) == 0x80) {
        --size;
    }
    return text.substr(0, size);
}

} // namespace

ErrorTally::ErrorTally(IErrorSink& receiver) : sink(receiver), next(BOSLogger::RootLogger().SetBackEnd(*this)) {}

ErrorTally::~ErrorTally() {
    BOSLogger::RootLogger().SetBackEnd(next);
}

bool ErrorTally::IsEnabled(LogLevel level) const {
    return IsCounted(level) || next.IsEnabled(level);
}

void ErrorTally::Write(LogLevel level, const char* file, int line, const char* function, const std::string& message) {
    if (IsCounted(level)) {
        Count(level == LogLevel::Error, file, line, message); // first: the next back end may end the process
    }
    if (next.IsEnabled(level)) {
        next.Write(level, file, line, function, message);
    }
}

void ErrorTally::Count(bool isError, std::string_view file, int line, std::string_view message) noexcept {
    try {
        const common::MutexLock lock(mutex);
        const std::size_t index = IndexOf(file, line);
        instruments::ErrorAccount& account = entries[index].account;
        account.isError = account.isError || isError;
        ++account.count;
        account.lastAt = Now();
        if (account.firstAt == 0) {
            account.firstAt = account.lastAt;
        }
        account.text = Shortened(message);
        sink.Put(index, account);
    } catch (const std::exception&) {
        // There is no memory for a text. The record itself is still written.
    }
}

std::size_t ErrorTally::IndexOf(std::string_view file, int line) {
    for (std::size_t i = 0; i < used; ++i) {
        if (entries[i].line == line && IsOf(entries[i].account.place, file)) {
            return i;
        }
    }
    if (used == Places) {
        entries[Places].account.place = "other places";
        return Places;
    }
    std::string place(file);
    place += ':';
    place += std::to_string(line);
    entries[used].account.place = std::move(place);
    entries[used].line = line;
    return used++;
}

} // namespace msgbus_server
