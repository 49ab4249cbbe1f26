#include "receive/message_format.h"

#include "common/escape.h"
#include "common/utf8.h"
#include "terminal/write_out.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <unistd.h>

#include <ctime>
#include <stdexcept>

namespace receive {

namespace {

using std::chrono::microseconds;

/// Returns: seconds with six decimals; a JSON number.
std::string Seconds(microseconds time) {
    constexpr std::int64_t perSecond = 1'000'000;
    const std::int64_t count = time.count();
    const std::uint64_t size = count < 0 ? 0 - static_cast<std::uint64_t>(count) : static_cast<std::uint64_t>(count);
    return fmt::format("{}{}.{:06}", count < 0 ? "-" : "", size / perSecond, size % perSecond);
}

/// Returns: the value as a number, with all of its digits.
std::string ValueText(const Received& received) {
    return received.number ? fmt::format("{}", *received.number) : std::to_string(received.message.value);
}

/// The times of messages, each of which may depend on the one before.
class Clock final {
public:
    explicit Clock(const Receipt& first) : start(first.steadyTime), last(first.steadyTime) {}

    std::string Text(TimeStyle style, const Receipt& receipt) const {
        switch (style) {
        case TimeStyle::Rfc3339:
            break;
        case TimeStyle::Unix:
            return Seconds(std::chrono::floor<microseconds>(receipt.time.time_since_epoch()));
        case TimeStyle::Relative:
            return Seconds(std::chrono::floor<microseconds>(receipt.steadyTime - start));
        case TimeStyle::Delta:
            return Seconds(std::chrono::floor<microseconds>(receipt.steadyTime - last));
        }
        return Rfc3339(receipt.time);
    }

    /// To be called behind each message.
    void Advance(const Receipt& receipt) { last = receipt.steadyTime; }

private:
    std::chrono::steady_clock::time_point start;
    std::chrono::steady_clock::time_point last;
};

class LineFormat final : public MessageFormat {
public:
    LineFormat(std::optional<TimeStyle> timeStyle, const Receipt& start) : style(timeStyle), clock(start) {}

    std::string Line(const Received& received) override {
        std::string line = style ? clock.Text(*style, received.receipt) + ' ' : std::string();
        clock.Advance(received.receipt);
        common::AppendEscaped(line, received.message.topic);
        return line + ' ' + ValueText(received) + '\n';
    }

private:
    std::optional<TimeStyle> style;
    Clock clock;
};

std::string Hexadecimal(std::string_view bytes) {
    std::string digits;
    for (const char c : bytes) {
        digits += fmt::format("{:02x}", static_cast<unsigned char>(c));
    }
    return digits;
}

class JsonFormat final : public MessageFormat {
public:
    JsonFormat(bool valuesAreStrings, TimeStyle timeStyle, std::string name, const Receipt& start)
        : asStrings(valuesAreStrings), style(timeStyle), subscriber(std::move(name)), clock(start) {}

    std::string Line(const Received& received) override {
        const auto& [topic, value] = received.message;
        nlohmann::ordered_json object{{"topic", topic}};
        if (!utf8::IsValid(topic)) {
            object["topic_hex"] = Hexadecimal(topic);
        }
        if (asStrings) {
            object["value"] = ValueText(received);
        } else if (received.number) {
            object["value"] = *received.number; // JSON has no infinity: null
            object["raw"] = value;
        } else {
            object["value"] = value;
        }
        if (!subscriber.empty()) {
            object["subscriber"] = subscriber;
        }
        const std::string time = clock.Text(style, received.receipt);
        clock.Advance(received.receipt);
        if (style == TimeStyle::Rfc3339) {
            object["time"] = time;
        } else {
            object["time"] = nlohmann::ordered_json::parse(time);
        }
        object["seq"] = received.sequence;
        return terminal::JsonLine(object);
    }

private:
    bool asStrings;
    TimeStyle style;
    std::string subscriber;
    Clock clock;
};

class CsvFormat final : public MessageFormat {
public:
    CsvFormat(TimeStyle timeStyle, const Receipt& start)
        : style(timeStyle), isForTerminal(::isatty(STDOUT_FILENO) == 1), clock(start) {}

    std::string Header() const override { return "time,seq,topic,value\n"; }

    std::string Line(const Received& received) override {
        std::string line = clock.Text(style, received.receipt) + ',' + std::to_string(received.sequence) + ',';
        clock.Advance(received.receipt);
        return line + Field(received.message.topic) + ',' + ValueText(received) + '\n';
    }

private:
    std::string Field(const std::string& text) const {
        const std::string shown = isForTerminal ? common::Escaped(text) : text;
        if (shown.find_first_of(",\"\r\n") == std::string::npos) {
            return shown;
        }
        std::string field = "\"";
        for (const char c : shown) {
            field += c == '"' ? "\"\"" : std::string(1, c);
        }
        return field + '"';
    }

    TimeStyle style;
    bool isForTerminal;
    Clock clock;
};

class PatternFormat final : public MessageFormat {
public:
    PatternFormat(const std::string& text, const Receipt& start) : clock(start) {
        for (std::size_t index = 0; index < text.size(); ++index) {
            const char c = text[index];
            if (c != '%' && c != '\\') {
                AppendText(c);
                continue;
            }
            if (++index == text.size()) {
                throw std::invalid_argument("the format ends within a field: '" + std::string(1, c) + "'");
            }
            c == '%' ? AppendField(text[index]) : AppendEscape(text[index]);
        }
        AppendText('\n');
    }

    std::string Line(const Received& received) override {
        std::string line;
        for (const auto& part : parts) {
            line += part.field == '\0' ? part.text : FieldText(part.field, received);
        }
        clock.Advance(received.receipt);
        return line;
    }

private:
    struct Part {
        char field = '\0'; ///< none: text
        std::string text;
    };

    void AppendText(char c) {
        if (parts.empty() || parts.back().field != '\0') {
            parts.push_back({});
        }
        parts.back().text += c;
    }

    void AppendField(char field) {
        if (field == '%') {
            return AppendText(field);
        }
        if (std::string_view("tTvxniurd").find(field) == std::string_view::npos) {
            throw std::invalid_argument(std::string("the format has no field '%") + field +
                                        "'; there is %t %T %v %x %n %i %u %r %d %%");
        }
        parts.push_back({field, {}});
    }

    void AppendEscape(char c) {
        switch (c) {
        case 'n':
            return AppendText('\n');
        case 't':
            return AppendText('\t');
        case '0':
            return AppendText('\0');
        case '\\':
            return AppendText('\\');
        default:
            throw std::invalid_argument(std::string("the format has '\\") + c + "'; there is \\n, \\t, \\0 and \\\\");
        }
    }

    std::string FieldText(char field, const Received& received) const {
        const auto& message = received.message;
        const auto& receipt = received.receipt;
        switch (field) {
        case 't':
            return common::Escaped(message.topic);
        case 'T':
            return message.topic;
        case 'v':
            return ValueText(received);
        case 'x':
            return fmt::format("{:016x}", static_cast<std::uint64_t>(message.value));
        case 'n':
            return std::to_string(received.sequence);
        case 'u':
            return clock.Text(TimeStyle::Unix, receipt);
        case 'r':
            return clock.Text(TimeStyle::Relative, receipt);
        case 'd':
            return clock.Text(TimeStyle::Delta, receipt);
        default:
            return clock.Text(TimeStyle::Rfc3339, receipt);
        }
    }

    std::vector<Part> parts;
    Clock clock;
};

} // namespace

std::string Rfc3339(std::chrono::system_clock::time_point time) {
    const auto count = std::chrono::floor<microseconds>(time.time_since_epoch());
    const auto seconds = std::chrono::floor<std::chrono::seconds>(count);
    const std::time_t whole = seconds.count();
    std::tm parts{};
    ::gmtime_r(&whole, &parts);
    constexpr int firstYear = 1900;
    return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:06}Z", parts.tm_year + firstYear, parts.tm_mon + 1,
                       parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec, (count - seconds).count());
}

std::unique_ptr<MessageFormat> MakeFormat(Style style, std::optional<TimeStyle> time, const std::string& subscriber,
                                          const Receipt& start) {
    switch (style) {
    case Style::Json:
    case Style::JsonStrings:
        return std::make_unique<JsonFormat>(style == Style::JsonStrings, time.value_or(TimeStyle::Rfc3339), subscriber,
                                            start);
    case Style::Csv:
        return std::make_unique<CsvFormat>(time.value_or(TimeStyle::Rfc3339), start);
    case Style::Lines:
        break;
    }
    return std::make_unique<LineFormat>(time, start);
}

std::unique_ptr<MessageFormat> MakeFormat(const std::string& pattern, const Receipt& start) {
    return std::make_unique<PatternFormat>(pattern, start);
}

TimeStyle ParseTimeStyle(std::string_view word) {
    if (word.empty()) {
        return TimeStyle::Rfc3339;
    }
    if (word == "unix") {
        return TimeStyle::Unix;
    }
    if (word == "rel") {
        return TimeStyle::Relative;
    }
    if (word == "delta") {
        return TimeStyle::Delta;
    }
    throw std::invalid_argument("'" + std::string(word) + "' is not a style of time; there is rel, delta and unix");
}

} // namespace receive
