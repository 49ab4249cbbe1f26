#pragma once

#include "msgbus/subscriber.h"

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace receive {

/// How the time of a message is shown.
enum class TimeStyle {
    Rfc3339,  ///< "2026-11-23T06:05:01.123456Z", UTC
    Unix,     ///< seconds since 1970
    Relative, ///< seconds since the subscription
    Delta,    ///< seconds since the message before, of the first since the subscription
};

enum class Style {
    Lines,       ///< "TOPIC VALUE"
    Json,        ///< an object a line
    JsonStrings, ///< the same with the value as a string: jq and JavaScript round integers above 2^53
    Csv,         ///< RFC 4180 with a line of headings, lines that end with LF
};

/// When something was received.
struct Receipt {
    std::chrono::system_clock::time_point time;
    std::chrono::steady_clock::time_point steadyTime;

    static Receipt Now() { return {std::chrono::system_clock::now(), std::chrono::steady_clock::now()}; }
};

/// A message and what its receipt adds.
struct Received {
    msgbus::Message message;
    std::uint64_t sequence = 0; ///< from 1, counts the messages of the subscription
    Receipt receipt;
    std::optional<double> number{}; ///< in place of the integer, which stands for it
};

/// Returns: the time, with microseconds.
std::string Rfc3339(std::chrono::system_clock::time_point time);

/// Turns messages into text. Threads: one at a time.
class MessageFormat {
public:
    virtual ~MessageFormat() = default;

    /// Returns: what stands before the first message, with its line end; may be empty.
    virtual std::string Header() const { return {}; }
    /// Returns: the text of the message, with its line end.
    virtual std::string Line(const Received& received) = 0;
};

/// `time`: nothing means none for Style::Lines, and Rfc3339 for the others. `subscriber`: its name, for JSON; may be
/// empty. `start`: of the subscription.
std::unique_ptr<MessageFormat> MakeFormat(Style style, std::optional<TimeStyle> time, const std::string& subscriber,
                                          const Receipt& start);

/// A format of the user's own: text with the fields %t topic, %T its bytes, %v value, %x its bits in 16 hexadecimal
/// digits, %n sequence number, %i time by RFC 3339, %u seconds since 1970, %r seconds since the subscription, %d
/// seconds since the message before, %% a percent sign; and with \n, \t, \0, \\. A line feed ends each message. Throws:
/// std::invalid_argument for another field.
std::unique_ptr<MessageFormat> MakeFormat(const std::string& pattern, const Receipt& start);

/// Parses "rel", "delta", "unix" or nothing. Throws: std::invalid_argument.
TimeStyle ParseTimeStyle(std::string_view word);

} // namespace receive
